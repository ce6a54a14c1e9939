// Waits that nobody waits for: in the place of core/wait.cpp. The clock moves on; a hook runs in the middle.
#include "core/shared_word.h"
#include "core/wait.h"
#include "fake_platform/fake_platform.h"

namespace kestrel {

namespace {

std::atomic<unsigned> signals_come{0};
unsigned signals_seen = 0;

void wait(const char* name, unsigned seconds) {
  fake_record(name + std::to_string(seconds));
  const unsigned before = signals_come;
  if (before == signals_seen) {
    if (fake.on_wait) fake.on_wait(seconds);
    fake.clock_s += signals_come == before ? seconds : seconds / 2;
  }
  signals_seen = signals_come;
}

}  // namespace

void wait_while(const std::uint32_t& run, unsigned seconds) {
  if (load_word(run) != 0) wait("wait ", seconds);
  signals_seen = signals_come;
}

void wait_regardless(unsigned seconds) {
  wait("wait_regardless ", seconds);
}

void wait_arm() {
  signals_seen = signals_come;
}

void wait_note_signal() {
  ++signals_come;
}

}  // namespace kestrel
