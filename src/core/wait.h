// Every sleep of the state machine, in one place: ended by a signal, never slept over by one.
#pragma once

#include <cstdint>

namespace kestrel {

/// Sleeps `seconds` on the monotonic clock while `run` is not 0. A signal ends the sleep, and it is not
/// resumed; a signal that came after the last wait_arm() or wait, but before the sleep began, ends it at
/// once. Main thread only.
void wait_while(const std::uint32_t& run, unsigned seconds);

/// As wait_while, but whatever `run` is.
void wait_regardless(unsigned seconds);

/// Forgets the signals that have come so far: from here on a signal ends the next wait. Called where
/// what the signals ask for is looked at anew, so that an old one does not cut a wait short. Main
/// thread only.
void wait_arm();

/// Tells the waits that a signal came. For signal handlers; async-signal-safe.
void wait_note_signal();

}  // namespace kestrel
