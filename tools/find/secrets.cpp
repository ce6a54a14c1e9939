// The password's three sources and the yes-or-no question.
#include "secrets.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <string_view>

#include "cameras.h"

namespace finder {
namespace {

std::string from_file(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  if (!file || !std::getline(file, line)) {
    throw Failure{Exit::usage, "the password file " + path + " can't be read or is empty"};
  }
  if (line.ends_with('\r')) line.pop_back();
  return line;
}

// Echo is off while this exists, also when an interrupt ends the reading.
class Silent {
 public:
  explicit Silent(int fd) : fd_(fd), known_(tcgetattr(fd, &before_) == 0) {
    termios quiet = before_;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    if (known_) tcsetattr(fd_, TCSAFLUSH, &quiet);
  }
  Silent(const Silent&) = delete;
  Silent& operator=(const Silent&) = delete;
  ~Silent() {
    if (known_) tcsetattr(fd_, TCSAFLUSH, &before_);
  }

 private:
  int fd_;
  termios before_{};
  bool known_;
};

// Lets SIGINT and SIGTERM through only while it waits: one that came between the prompt and the reading
// would otherwise leave the program waiting for a line that nobody types any more.
class InterruptibleWait {
 public:
  InterruptibleWait() {
    sigset_t held;
    sigemptyset(&held);
    for (const int signal : {SIGINT, SIGTERM}) sigaddset(&held, signal);
    sigprocmask(SIG_BLOCK, &held, &before_);
  }
  InterruptibleWait(const InterruptibleWait&) = delete;
  InterruptibleWait& operator=(const InterruptibleWait&) = delete;
  ~InterruptibleWait() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

  // False when an interrupt came first.
  [[nodiscard]] bool readable(int fd) const {
    pollfd set{fd, POLLIN, 0};
    return ppoll(&set, 1, nullptr, &before_) == 1;
  }

 private:
  sigset_t before_{};
};

void say(int fd, std::string_view text) {
  if (write(fd, text.data(), text.size()) < 0) throw Failure{Exit::usage, "the terminal can't be written"};
}

std::string from_prompt(const std::string& user) {
  const int fd = open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY);
  if (fd < 0) {
    throw Failure{Exit::usage, "no terminal to ask for the password; set KESTREL_PASSWORD or use --password-file"};
  }
  std::string typed;
  bool complete = false;
  {
    catch_interrupts();
    const InterruptibleWait input;
    const Silent silent(fd);
    say(fd, fmt::format("Password of {}: ", printable(user)));
    char c = 0;
    while (!complete && input.readable(fd) && read(fd, &c, 1) == 1) {
      complete = c == '\n';
      if (!complete) typed += c;
    }
    say(fd, "\n");
  }
  close(fd);
  if (!complete) throw Failure{Exit::usage, "no password was entered"};
  return typed;
}

// A command may send several requests; whoever types is asked once.
const std::string& typed_once(const std::string& user) {
  static const std::string typed = from_prompt(user);
  return typed;
}

}  // namespace

std::string read_password(const std::string& file, const std::string& user) {
  const char* variable = std::getenv("KESTREL_PASSWORD");
  std::string password = !file.empty()         ? from_file(file)
                         : variable != nullptr ? std::string(variable)
                                               : typed_once(user);
  if (password.size() > credentials::max_plain_len) {
    throw Failure{Exit::usage, fmt::format("the password is too long: a request carries at most {} bytes",
                                           credentials::max_plain_len)};
  }
  return password;
}

bool confirm(const std::string& text) {
  if (isatty(STDIN_FILENO) == 0) {
    throw Failure{Exit::usage, "this needs a yes at the terminal, or --yes in a script"};
  }
  std::cerr << text << "\nGo on? [y/N] ";
  std::string line;
  std::getline(std::cin, line);
  return line.starts_with('y') || line.starts_with('Y');
}

}  // namespace finder
