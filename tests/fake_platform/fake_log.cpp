// A log that keeps its lines: in the place of core/debug_log.cpp.
#include <cstdarg>
#include <mutex>

#include "core/debug_log.h"
#include "fake_platform/fake_platform.h"

namespace kestrel {

int DbgLevel = 0;

namespace {

std::mutex log_mutex;

std::string formatted(const char* format, va_list args) {
  std::string line;
  bool directive = false;
  for (const char* p = format; *p != '\0'; ++p) {
    const bool after_percent = directive;
    directive = *p == '%';
    if (directive) continue;
    if (after_percent && *p == 'd') {
      line += std::to_string(va_arg(args, int));
    } else if (after_percent && *p == 's') {
      const char* text = va_arg(args, const char*);
      line += text != nullptr ? text : "(null)";
    } else if (after_percent && *p == 'c') {
      line += static_cast<char>(va_arg(args, int));
    } else {
      line += *p;
    }
  }
  return line;
}

}  // namespace

int debug_log(const char* text, ...) {
  va_list args;
  va_start(args, text);
  const std::lock_guard lock(log_mutex);
  fake.log.push_back(formatted(text, args));
  va_end(args);
  return 0;
}

void print_console(const char* text, ...) {
  va_list args;
  va_start(args, text);
  const std::lock_guard lock(log_mutex);
  fake.console.push_back(formatted(text, args));
  va_end(args);
}

}  // namespace kestrel
