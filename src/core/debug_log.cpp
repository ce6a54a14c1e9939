// The debug log, see debug_log.h. No stdio and no allocation, so that signal handlers may log.
#include "core/debug_log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstring>

#include "core/quotient.h"

namespace kestrel {

int DbgLevel = 0;

namespace {

constexpr std::size_t line_len = 2048;     // bytes, terminator included
constexpr std::size_t scratch_len = 1536;  // bytes of one "%s", terminator included

/// Lines in the current log file. It counts as full at the start: what an earlier run left is moved away.
std::atomic<int> line_count{debug_log_max_lines};
std::atomic<bool> rotating{false};
static_assert(std::atomic<int>::is_always_lock_free);

struct Line {
  std::size_t len = 0;
  char text[line_len];  // left as it is behind len
};

void put_char(Line& line, char c) {
  if (line.len < line_len - 1) line.text[line.len++] = c;
}

void put_text(Line& line, const char* text, std::size_t limit) {
  for (std::size_t i = 0; i < limit && text[i] != '\0'; ++i) put_char(line, text[i]);
}

void put_decimal(Line& line, int value) {
  char digits[12];
  std::size_t i = sizeof(digits);
  auto rest = static_cast<unsigned>(value);
  if (value < 0) {
    put_char(line, '-');
    rest = 0U - rest;
  }
  do {
    const unsigned tens = quotient<10>(rest);
    digits[--i] = static_cast<char>('0' + (rest - 10 * tens));
    rest = tens;
  } while (rest != 0);
  put_text(line, digits + i, sizeof(digits) - i);
}

void format_line(Line& line, const char* format, va_list args) {
  bool directive = false;
  for (const char* p = format; *p != '\0'; ++p) {
    const bool after_percent = directive;
    directive = *p == '%';
    if (directive) continue;
    if (after_percent && *p == 'd') {
      put_decimal(line, va_arg(args, int));
    } else if (after_percent && *p == 's') {
      const char* text = va_arg(args, const char*);
      put_text(line, text != nullptr ? text : "(null)", scratch_len - 1);
    } else if (after_percent && *p == 'c') {
      put_char(line, static_cast<char>(va_arg(args, int)));
    } else {
      put_char(line, *p);
    }
  }
}

/// Standard output and standard error, or descriptions of the same pipe or terminal that never block.
int console_fd[] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};

/// A reader that does not read, or a stopped terminal, costs the line and never the daemon.
void write_console(int stream, const Line& line) {
  pollfd ready{console_fd[stream], POLLOUT, 0};
  if (poll(&ready, 1, 0) == 1) static_cast<void>(!write(ready.fd, line.text, line.len));
}

/// In the place of a descriptor. Where there is none to be had, the file stays for a line that finds one.
constexpr int not_ours = -1;
constexpr int no_descriptor = -2;

/// The present file, when it is ours and nobody else's to read; passwords are logged. Never through a link.
int open_own() {
  const int fd = open(debug_log_path, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd < 0 && (errno == EMFILE || errno == ENFILE)) return no_descriptor;
  struct stat status {};
  // What could not be opened fails here, too.
  if (fstat(fd, &status) == 0 && status.st_uid == geteuid() &&
      (status.st_mode & (S_IFMT | S_IRWXG | S_IRWXO)) == S_IFREG) {
    return fd;
  }
  close(fd);
  return not_ours;
}

/// A file that did not exist: what somebody laid into its place, or what could not be moved away, goes first.
int open_fresh() {
  unlink(debug_log_path);
  return open(debug_log_path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
}

bool rotation_is_due() {
  return line_count >= debug_log_max_lines;
}

/// The file for one line, which is counted. A thread that finds another one rotating, and a handler that
/// interrupts the rotation, take what is there: a second rotation would lose the first one's lines.
int open_for_line() {
  if (!rotation_is_due()) {
    int fd = open_own();
    if (fd == not_ours) fd = open_fresh();
    if (fd >= 0) ++line_count;
    return fd;
  }
  if (rotating.exchange(true)) return open_own();
  const bool still_due = rotation_is_due();
  if (still_due && access(debug_log_path, R_OK) == 0) {
    // First, since somebody may have laid a directory at one of the two places, which no rename gets by.
    unlink(debug_log_old_path);
    rename(debug_log_path, debug_log_old_path);
  }
  const int fd = still_due ? open_fresh() : open_own();
  if (still_due && fd >= 0) line_count = 1;
  rotating = false;
  return fd;
}

/// Opened for every line, so that the file can be taken away at any time. A full disk cuts the line; the next one
/// finds room or does not.
void write_file(const Line& line) {
  const int fd = open_for_line();
  if (fd < 0) return;
  static_cast<void>(!write(fd, line.text, line.len));
  close(fd);
}

constexpr int standard_error = 2;  // beside DbgLevel's bits, one that it does not have

/// A frame of its own, so that a line that is not logged needs none of its size. `where` are DbgLevel's bits, or
/// standard_error.
[[gnu::noinline]] void say(int where, const char* start, const char* format, va_list args) {
  const int saved_errno = errno;
  Line line;
  put_text(line, start, line_len);
  format_line(line, format, args);
  if ((where & standard_error) != 0) write_console(STDERR_FILENO, line);
  if ((where & debug_console) != 0) write_console(STDOUT_FILENO, line);
  if ((where & debug_file) != 0) write_file(line);
  errno = saved_errno;
}

}  // namespace

void never_wait_for_console() {
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    struct stat status {};
    if (fstat(stream, &status) != 0 || !(S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))) continue;
    // A description of its own: a flag on the one that was handed down would be everybody's.
    const char* path = stream == STDOUT_FILENO ? "/proc/self/fd/1" : "/proc/self/fd/2";
    const int fd = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd >= 0) console_fd[stream] = fd;
  }
}

int debug_log(const char* format, ...) {
  // Most cameras log nothing: that is over before anything is done.
  if (const int where = DbgLevel & (debug_console | debug_file); where != 0) {
    va_list args;
    va_start(args, format);
    say(where, "KLOG", format, args);
    va_end(args);
  }
  return 0;
}

void print_console(const char* format, ...) {
  va_list args;
  va_start(args, format);
  say(debug_console, "", format, args);
  va_end(args);
}

void print_error_text(const char* format, ...) {
  va_list args;
  va_start(args, format);
  say(standard_error, "", format, args);
  va_end(args);
}

void print_error(const char* what) {
  const int saved_errno = errno;
  print_error_text("%s: %s\n", what, std::strerror(saved_errno));
  errno = saved_errno;
}

}  // namespace kestrel
