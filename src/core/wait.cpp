// The waits, see wait.h. ppoll takes the signal mask and the time-out in one step, which closes the gap
// between looking at what the signals left and going to sleep.
#include "core/wait.h"

#include <poll.h>

#include <atomic>
#include <ctime>

#include "core/shared_word.h"
#include "core/signals_blocked.h"

namespace kestrel {

namespace {

std::atomic<std::uint32_t> signals_come{0};
std::uint32_t signals_seen = 0;
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

constexpr std::uint32_t always = 1;

}  // namespace

void wait_while(const std::uint32_t& run, unsigned seconds) {
  const SignalsBlocked blocked;
  if (load_word(run) != 0 && signals_come.load(std::memory_order_relaxed) == signals_seen) {
    const timespec limit{static_cast<time_t>(seconds), 0};
    ppoll(nullptr, 0, &limit, &blocked.before);
  }
  signals_seen = signals_come.load(std::memory_order_relaxed);
}

void wait_regardless(unsigned seconds) {
  wait_while(always, seconds);
}

void wait_arm() {
  signals_seen = signals_come.load(std::memory_order_relaxed);
}

void wait_note_signal() {
  signals_come.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace kestrel
