// The counters of authentication failures in a row. Nothing but the states themselves resets them:
// they outlive cycles and reloads.
#pragma once

#include <cstdint>

namespace kestrel {

struct AuthFailCounts {
  std::uint32_t enable_report;
  std::uint32_t daip_query;
  std::uint32_t ip_ready;
  std::uint32_t public_mode;
  std::uint32_t no_upnp;
  std::uint32_t natm;
  std::uint32_t upnp_pf_ready;
  std::uint32_t upnp_pf_failed;
};

/// Zero at start. Main thread only.
extern AuthFailCounts auth_fail_count;

/// Failures that a state tolerates before it gives the cycle up. NATM waits for one more than every
/// other state; that is meant.
constexpr std::uint32_t auth_fail_limit = 2;
constexpr std::uint32_t auth_fail_limit_natm = 3;

/// Counts a challenge that came where an answer was due. Returns true while `limit` is not exceeded; then the count
/// begins anew.
[[nodiscard]] inline bool tolerated(std::uint32_t& count, std::uint32_t limit) {
  if (count < limit) {
    ++count;
    return true;
  }
  count = 0;
  return false;
}

}  // namespace kestrel
