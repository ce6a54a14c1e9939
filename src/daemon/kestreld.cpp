// Start-up, main loop and shutdown, see kestreld.h.
#include "daemon/kestreld.h"

#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "core/debug_log.h"
#include "core/device_context.h"
#include "core/signals_blocked.h"
#include "core/text.h"
#include "core/wait.h"
#include "finder/finder.h"
#include "platform/sptcontrol.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"
#include "regstate/state_init.h"

namespace kestrel {

namespace {

constexpr unsigned start_up_s = 6;  // for the camera's other daemons and its network to come up
constexpr std::size_t token_len = 32;
constexpr char debug_token[] = "mObRaKiV";

/// Standard descriptors that were handed down closed lead nowhere: the lock or a socket in their place would take
/// console text.
void fill_standard_descriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    // The lowest that is free is the one that was missing.
    if (fcntl(fd, F_GETFD) < 0) static_cast<void>(open("/dev/null", O_RDWR));
  }
}

/// A configured level has effect only together with the right token.
void settle_debug_level() {
  char token[2 * token_len] = "";
  dbg_get_level_token(&DbgLevel, token);
  terminate(token);
  if (std::strstr(token, debug_token) != nullptr) {
    print_console("DbgLevel=(%d)\n", DbgLevel);
  } else {
    DbgLevel = 0;
  }
}

void start_finder(DeviceContext& current) {
  // Taken before the thread exists: from then on the main thread may change it at any time.
  Finderd_take_auth(current.auth_info);
  // Blocked from its first instruction on: a signal that the new thread took would not end the main
  // thread's wait.
  const SignalsBlocked blocked;
  pthread_create(&current.finder_thread, nullptr, finderd_thread, &current);
}

void main_loop(DeviceContext& current) {
  while (!exit_requested(current)) {
    // What the signals ask for is looked at here, so older ones need not end a wait any more.
    wait_arm();
    const auto reload = static_cast<int>(load_word(current.dev_reload));
    debug_log("dev_reload(%d)\n", reload);
    if (reload != 0) {
      SetSptOnLineStatus(0);
      debug_log("state_init()\n");
      state_init(current);
      // An exit request during the reload left its run of 0, and START is not to run once more.
      if (exit_requested(current)) return;
    }
    // An exit request may come at any moment, and its state has no handler.
    const auto state = static_cast<std::size_t>(load_word(current.state));
    if (state < state_count) current.handlers[state](&current);
  }
}

}  // namespace

int run_daemon() {
  // Until their handlers stand they would end a daemon that waits for its account.
  SignalsBlocked settings({SIGUSR1, SIGUSR2});
  fill_standard_descriptors();
  never_wait_for_console();
#ifdef M_ARENA_MAX
  mallopt(M_ARENA_MAX, 1);  // two threads that allocate once in a while need no heap each
#endif
  if (std::signal(SIGPIPE, SIG_IGN) == SIG_ERR) {
    print_error("signal");
    return 1;
  }
  if (tessel_get_lock("kestreld_lock") == 0) {
    print_error_text("kestreld: Process already running!\r\n");
    return 1;
  }
  settle_debug_level();
  debug_log("\nLumen device 1.2\n");
  debug_log("The kestreld authors\n");
  debug_log("Starting.......\n");
  // Both are zero yet, and so is what start-up remembers of a gateway.
  current_record.last = &last_record;
  state_init(current_record);
  debug_log("user name=(%s)\n", current_record.auth_info.user);
  if (init_signals()) {
    settings.release();
  } else {
    debug_log("init signal failed!\n");
    // Held back for good: without a handler a changed setting would end the daemon.
    sigaddset(&settings.before, SIGUSR1);
    sigaddset(&settings.before, SIGUSR2);
  }
  start_finder(current_record);
  // A signal that was held back until now must not cut the wait short, but an exit request skips it.
  wait_arm();
  if (!exit_requested(current_record)) wait_regardless(start_up_s);
  main_loop(current_record);
  SetSptOnLineStatus(0);
  return 0;
}

}  // namespace kestrel
