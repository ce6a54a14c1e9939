// Bounded texts, see text.h.
#include "core/text.h"

#include <sys/time.h>

#include <cstdio>

namespace kestrel {

bool copy_text(char* to, std::size_t size, const char* from) {
  return copy_bytes(to, size, from, std::strlen(from));
}

bool copy_bytes(char* to, std::size_t size, const char* from, std::size_t len) {
  const std::size_t text_len = strnlen(from, len);
  const std::size_t kept = text_len < size ? text_len : size - 1;
  std::memcpy(to, from, kept);
  to[kept] = '\0';
  return kept == text_len;
}

int format_text(char* to, std::size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int len = std::vsnprintf(to, size, format, args);
  va_end(args);
  return len >= 0 && static_cast<std::size_t>(len) < size ? len : -1;
}

void random_digits6(char* out) {
  timeval now{};
  gettimeofday(&now, nullptr);
  format_text(out, random_digits_len + 1, "%6.6d", static_cast<int>(now.tv_usec));
}

}  // namespace kestrel
