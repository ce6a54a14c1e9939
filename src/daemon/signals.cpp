// The signals, see kestreld.h. A handler logs, stores its words, and ends the wait that it interrupts.
#include <csignal>

#include "core/debug_log.h"
#include "core/device_context.h"
#include "core/wait.h"
#include "daemon/kestreld.h"
#include "service/requests.h"

namespace kestrel {

namespace {

constexpr struct {
  int signal;
  void (*handler)(int);
} signal_rows[] = {
    {SIGTERM, signalRequestExit},
    {SIGINT, signalRequestExit},
    {SIGUSR1, requestReloadHandler},
    {SIGUSR2, requestConfigure},
};

}  // namespace

bool init_signals() {
  for (const auto& row : signal_rows) {
    struct sigaction action {};
    action.sa_handler = row.handler;
    action.sa_flags = SA_RESTART;
    if (sigaction(row.signal, &action, nullptr) != 0) return false;
  }
  return true;
}

void signalRequestExit(int /*signal*/) {
  debug_log(" signalRequestExit()\n");
  store_word(current_record.state, UNKNOWN);
  store_word(current_record.run, 0U);
  end_exchanges();
  wait_note_signal();
}

void requestReloadHandler(int /*signal*/) {
  debug_log("requestReloadHandler()\n");
  store_word(current_record.dev_reload, 1U);
  wait_note_signal();
}

void requestConfigure(int /*signal*/) {
  debug_log("requestConfigure()\n");
  store_word(current_record.configure, 1U);
  wait_note_signal();
}

}  // namespace kestrel
