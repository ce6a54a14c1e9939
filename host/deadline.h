// An end in time that several steps share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <ctime>

namespace host {

/// Milliseconds of the steady clock.
inline std::int64_t steady_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

class Deadline {
 public:
  /// Ends in `ms` milliseconds from now.
  explicit Deadline(std::int64_t ms) : end_ms_(steady_ms() + ms) {}

  /// Milliseconds until the end, 0 when it is past; fits an int for ends within three weeks.
  [[nodiscard]] int left_ms() const { return static_cast<int>(std::max<std::int64_t>(end_ms_ - steady_ms(), 0)); }

  [[nodiscard]] bool is_over() const { return left_ms() == 0; }

 private:
  std::int64_t end_ms_;
};

}  // namespace host
