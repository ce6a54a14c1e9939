// The debug log, see debug_log.h. No stdio and no allocation, so that signal handlers may log.
#include "core/debug_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace kestrel {

int DbgLevel = 0;

namespace {

constexpr std::size_t line_len = 2048;     // bytes, terminator included
constexpr std::size_t scratch_len = 1536;  // bytes of one "%s", terminator included
constexpr char prefix[] = "KLOG";

/// Lines in the current log file; 0 rotates before the next line.
std::atomic<int> line_count{0};
static_assert(std::atomic<int>::is_always_lock_free);

struct Line {
  char text[line_len];
  std::size_t len;
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
  unsigned rest = value < 0 ? 0U - static_cast<unsigned>(value) : static_cast<unsigned>(value);
  do {
    digits[--i] = static_cast<char>('0' + rest % 10);
    rest /= 10;
  } while (rest != 0);
  if (value < 0) put_char(line, '-');
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

bool write_all(int fd, const char* text, std::size_t len) {
  while (len > 0) {
    const ssize_t n = write(fd, text, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text += n;
    len -= static_cast<std::size_t>(n);
  }
  return true;
}

void rotate() {
  const int fd = open(debug_log_path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return;
  close(fd);
  unlink(debug_log_old_path);
  rename(debug_log_path, debug_log_old_path);
}

/// Opened for every line, so that the file can be taken away at any time. Only for the owner, since
/// passwords are logged; never through a link that somebody laid into /tmp.
void write_file(const Line& line) {
  int count = line_count.load(std::memory_order_relaxed);
  if (count >= debug_log_max_lines) {
    count = 0;
    line_count.store(0, std::memory_order_relaxed);
  }
  if (count == 0) rotate();
  const int mode = count == 0 ? O_TRUNC : O_APPEND;
  const int fd =
      open(debug_log_path, O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | mode, S_IRUSR | S_IWUSR);
  if (fd < 0) return;
  write_all(fd, line.text, line.len);
  close(fd);
  line_count.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

int debug_log(const char* format, ...) {
  const int saved_errno = errno;
  if ((DbgLevel & (debug_console | debug_file)) != 0) {
    Line line;
    line.len = 0;
    put_text(line, prefix, sizeof(prefix));
    va_list args;
    va_start(args, format);
    format_line(line, format, args);
    va_end(args);
    if ((DbgLevel & debug_console) != 0) write_all(STDOUT_FILENO, line.text, line.len);
    if ((DbgLevel & debug_file) != 0) write_file(line);
  }
  errno = saved_errno;
  return 0;
}

void print_console(const char* format, ...) {
  const int saved_errno = errno;
  Line line;
  line.len = 0;
  va_list args;
  va_start(args, format);
  format_line(line, format, args);
  va_end(args);
  write_all(STDOUT_FILENO, line.text, line.len);
  errno = saved_errno;
}

void print_error(const char* what) {
  const int saved_errno = errno;
  Line line;
  line.len = 0;
  put_text(line, what, scratch_len);
  put_text(line, ": ", 2);
  put_text(line, std::strerror(saved_errno), scratch_len);
  put_char(line, '\n');
  write_all(STDERR_FILENO, line.text, line.len);
  errno = saved_errno;
}

}  // namespace kestrel
