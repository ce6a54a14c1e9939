// Reading lines, see reader.h.
#include "reader.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace explain {
namespace {

constexpr int look_ms = 200;  // between two looks at a log that is followed

[[noreturn]] void fail(const std::string& path) {
  throw std::runtime_error("can't read " + (path == "-" ? "standard input" : path) + ": " + std::strerror(errno));
}

class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (fd_ > STDERR_FILENO) close(fd_);
  }
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

struct stat status_of(int fd) {
  struct stat status {};
  fstat(fd, &status);
  return status;
}

bool same_file(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// Reads what is there. False when the sink has had enough.
bool drain(int fd, const std::string& path, LineCutter& cutter) {
  std::array<char, 65536> bytes{};
  for (;;) {
    const ssize_t n = read(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) {
      if (!cutter.take(nullptr, 0)) return false;
      continue;
    }
    if (n < 0) fail(path);
    if (n == 0) return true;
    if (!cutter.take(bytes.data(), static_cast<std::size_t>(n))) return false;
  }
}

std::string old_of(const std::string& path) {
  constexpr std::string_view ending = ".txt";
  return path.ends_with(ending) ? path.substr(0, path.size() - ending.size()) + ".old" : path + ".old";
}

}  // namespace

bool LineCutter::give() {
  const bool more = sink_(line_);
  line_ = {"", line_.number + 1, 0};
  begun_ = false;
  return more;
}

bool LineCutter::take(const char* bytes, std::size_t len) {
  while (len > 0) {
    const auto* end = static_cast<const char*>(std::memchr(bytes, '\n', len));
    const std::size_t part = end != nullptr ? static_cast<std::size_t>(end - bytes) : len;
    const std::size_t kept = std::min(part, max_line_len - line_.text.size());
    line_.text.append(bytes, kept);
    line_.cut += part - kept;
    begun_ = true;
    if (end != nullptr && !give()) return false;
    const std::size_t used = end != nullptr ? part + 1 : part;
    bytes += used;
    len -= used;
  }
  return true;
}

bool LineCutter::finish() {
  return !begun_ || give();
}

std::vector<std::string> files_in_order(const std::vector<std::string>& named, bool alone) {
  if (named.empty()) return {"-"};
  std::vector<std::string> files = named;
  std::stable_sort(files.begin(), files.end(), [](const std::string& a, const std::string& b) {
    return a.ends_with(".old") && !b.ends_with(".old");
  });
  if (files.size() == 1 && !alone && files[0] != "-" && access(old_of(files[0]).c_str(), F_OK) == 0) {
    files.insert(files.begin(), old_of(files[0]));
  }
  return files;
}

std::time_t read_files(const std::vector<std::string>& paths, const LineSink& sink) {
  std::time_t changed = 0;
  LineCutter cutter(sink);
  for (const std::string& path : paths) {
    const Descriptor file(path == "-" ? STDIN_FILENO : open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) fail(path);
    const struct stat status = status_of(file.get());
    if (!drain(file.get(), path, cutter) || !cutter.finish()) break;
    changed = S_ISREG(status.st_mode) ? status.st_mtime : 0;
  }
  return changed;
}

void follow_file(const std::string& path, const FollowCalls& calls) {
  LineCutter cutter([&](const Line& line) { return calls.sink(line) && !calls.ended(); });
  const auto open_it = [&] { return Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)); };
  Descriptor file = open_it();
  if (file.get() < 0 && errno != ENOENT) fail(path);
  while (!calls.ended()) {
    if (file.get() >= 0) {
      const struct stat own = status_of(file.get());
      if (!S_ISREG(own.st_mode)) throw std::runtime_error(path + " is no file that can be followed; name the log file");
      if (lseek(file.get(), 0, SEEK_CUR) > own.st_size) {
        calls.lost();
        lseek(file.get(), 0, SEEK_SET);
      }
      if (!drain(file.get(), path, cutter)) return;
    }
    Descriptor present = open_it();
    if (present.get() >= 0 && (file.get() < 0 || !same_file(status_of(file.get()), status_of(present.get())))) {
      if (file.get() >= 0) {
        // The daemon's last lines may have come between the reading and the rotation.
        if (!drain(file.get(), path, cutter) || !cutter.finish()) return;
        struct stat old {};
        if (stat(old_of(path).c_str(), &old) != 0 || !same_file(old, status_of(file.get()))) calls.lost();
      }
      file = std::move(present);
      continue;
    }
    calls.pause();
    poll(nullptr, 0, look_ms);
  }
}

}  // namespace explain
