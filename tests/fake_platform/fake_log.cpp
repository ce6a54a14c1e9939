// A log that keeps its lines: in the place of core/debug_log.cpp.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "core/debug_log.h"
#include "fake_platform/fake_platform.h"

namespace kestrel {

int DbgLevel = debug_file;

namespace {

std::mutex log_mutex;

void keep(Texts& lines, const char* format, va_list args) {
  char line[100000];
  std::vsnprintf(line, sizeof(line), format, args);
  const std::lock_guard lock(log_mutex);
  lines.emplace_back(line);
}

}  // namespace

int debug_log(const char* text, ...) {
  va_list args;
  va_start(args, text);
  keep(fake.log, text, args);
  va_end(args);
  return 0;
}

void print_error(const char* what) {
  const std::lock_guard lock(log_mutex);
  fake.console.push_back(std::string(what) + ": " + std::strerror(errno) + "\n");
}

void print_console(const char* text, ...) {
  va_list args;
  va_start(args, text);
  keep(fake.console, text, args);
  va_end(args);
}

}  // namespace kestrel
