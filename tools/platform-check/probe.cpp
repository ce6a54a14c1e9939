// The probe of a row: two calls into guarded buffers, and a third with a size that is too small for most.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "check.h"

namespace platform_check {

namespace {

// Every byte differs between the two, so that a written byte shows in one of the calls at least.
constexpr unsigned char patterns[] = {0xA5, 0x5A};
constexpr std::size_t small_size = 4;

Guarded buffers[2][max_outs];

long long now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

int call(const Row& row, int turn, std::size_t size) {
  void* out[max_outs];
  for (std::size_t k = 0; k < max_outs; ++k) {
    buffers[turn][k].fill(patterns[turn]);
    out[k] = buffers[turn][k].at();
  }
  return row.call(out, size);
}

/// Bytes of an output that either call has written; -1 for some in front of it.
int written(std::size_t k) {
  const int first = buffers[0][k].written(patterns[0]);
  const int second = buffers[1][k].written(patterns[1]);
  return std::min(first, second) < 0 ? -1 : std::max(first, second);
}

/// Foreign bytes are no commands to whoever's terminal shows them.
void make_printable(char* text) {
  for (; *text != '\0'; ++text) *text = std::isprint(static_cast<unsigned char>(*text)) != 0 ? *text : '?';
}

void judge_width(const Out& out, int width, const char* of, Finding& finding) {
  if (width < 0) note(finding, overwritten, "writes in front of %s", of);
  if (width <= static_cast<int>(out.stated)) return;
  const bool has_room = width <= static_cast<int>(out.room);
  note(finding, has_room ? "has room for that, and cuts it" : overwritten, "%d bytes in %s of %zu", width, of,
       out.stated);
}

void tell_out(const Out& out, Guarded& buffer, int width, Finding& finding) {
  char shown[48] = "nothing";
  if (width > 0 && out.kind == Kind::secret) {
    std::snprintf(shown, sizeof(shown), "%zu characters", strnlen(buffer.text(), out.stated));
  } else if (width > 0 && out.kind == Kind::text) {
    std::snprintf(shown, sizeof(shown), "\"%.*s\"", static_cast<int>(std::min<std::size_t>(out.stated, 40)),
                  buffer.text());
    make_printable(shown);
  } else if (width > static_cast<int>(sizeof(unsigned long))) {
    std::snprintf(shown, sizeof(shown), "%d bytes", width);
  } else if (width > 0) {
    unsigned long value = 0;
    std::memcpy(&value, buffer.at(), std::min(sizeof(value), out.stated));
    std::snprintf(shown, sizeof(shown), out.kind == Kind::number ? "%lu" : "%#lx", value);
  }
  const std::size_t len = std::strlen(finding.came);
  std::snprintf(finding.came + len, sizeof(finding.came) - len, "%s%s", len > 0 ? ", " : "", shown);
}

bool is_text(const Out& out) {
  return out.kind == Kind::text || out.kind == Kind::secret;
}

void judge_out(const Row& row, std::size_t k, int result, Finding& finding) {
  const Out& out = row.outs[k];
  const int width = written(k);
  const bool said = row.result == Result::zero_succeeds ? result == 0 : result != 0;
  tell_out(out, buffers[1][k], width, finding);
  judge_width(out, width, "an output", finding);
  if (is_text(out) && width > 0) {
    const bool terminated = std::memchr(buffers[0][k].at(), 0, out.stated) != nullptr &&
                            std::memchr(buffers[1][k].at(), 0, out.stated) != nullptr;
    if (!terminated) note(finding, "puts one at the end of its room", "no terminator within %zu bytes", out.stated);
  }
  if (width == 0 && row.result == Result::unused && out.kind == Kind::number) {
    note(finding, "takes it as 0", "a count was not touched");
  }
  if (row.result == Result::unused) return;
  if (width == 0 && said) note(finding, row.without, "result %d, and an output was not touched", result);
  const bool filled = is_text(out) && width > 0 && buffers[1][k].at()[0] != 0;
  if (filled && !said) {
    note(finding, row.result == Result::unread ? "does not look at the result" : row.without,
         "result %d though a text was filled in", result);
  }
}

void probe_outputs(const Row& row, Finding& finding) {
  const std::size_t size = row.outs[0].stated;
  call(row, 0, size);
  const int before = open_descriptors();
  const int result = call(row, 1, size);
  const int leaked = open_descriptors() - before;
  for (std::size_t k = 0; k < max_outs && row.outs[k].kind != Kind::none; ++k) judge_out(row, k, result, finding);
  if (leaked > 0) note(finding, "runs out of them in time", "leaks %d descriptors a call", leaked);
  if (!row.sized) return;
  call(row, 0, small_size);
  call(row, 1, small_size);
  judge_width({Kind::text, small_size, row.outs[0].room}, written(0), "a buffer", finding);
}

void probe_by_itself(const Row& row, Finding& finding) {
  row.examine(finding);
  const int before = open_descriptors();
  Finding again{};
  row.examine(again);
  const int leaked = open_descriptors() - before;
  if (leaked > 0) note(finding, "runs out of them in time", "leaks %d descriptors", leaked);
}

}  // namespace

void Guarded::fill(unsigned char pattern) {
  std::memset(bytes, pattern, sizeof(bytes));
}

int Guarded::written(unsigned char pattern) const {
  for (std::size_t i = 0; i < front; ++i) {
    if (bytes[i] != pattern) return -1;
  }
  std::size_t end = sizeof(bytes);
  while (end > front && bytes[end - 1] == pattern) --end;
  return static_cast<int>(end - front);
}

int open_descriptors() {
  constexpr int looked_at = 1024;
  int count = 0;
  for (int fd = 0; fd < looked_at; ++fd) count += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
  return count;
}

void note(Finding& finding, const char* daemon, const char* format, ...) {
  if (finding.broken[0] != '\0') return;
  va_list args;
  va_start(args, format);
  std::vsnprintf(finding.broken, sizeof(finding.broken), format, args);
  va_end(args);
  make_printable(finding.broken);
  finding.daemon = daemon;
}

void tell(Finding& finding, const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vsnprintf(finding.came, sizeof(finding.came), format, args);
  va_end(args);
  make_printable(finding.came);
}

void probe(const Row& row, Finding& finding) {
  const long long begun = now_ms();
  if (row.examine != nullptr) {
    probe_by_itself(row, finding);
  } else {
    probe_outputs(row, finding);
  }
  // Of two calls and more; the contract has no limit for what does not wait for others.
  const long long took_ms = (now_ms() - begun) / 2;
  if (took_ms > row.limit_ms) note(finding, "stands still meanwhile", "took %lld ms", took_ms);
}

}  // namespace platform_check
