// The daemon as a whole: start-up, main loop, shutdown. main calls it and nothing else.
#pragma once

namespace kestrel {

/// Runs the daemon until SIGTERM or SIGINT. Returns the exit status: 0 after an orderly stop, 1 when
/// SIGPIPE cannot be ignored or another instance runs.
int run_daemon();

/// Installs the handlers of SIGTERM, SIGINT, SIGUSR1 and SIGUSR2, in this order, up to the first failure.
/// Returns true when all were installed.
bool init_signals();

/// The signal handlers. They log, then store single words of the current record; async-signal-safe.
void signalRequestExit(int signal);
void requestReloadHandler(int signal);
void requestConfigure(int signal);

/// The finder thread's entry; `context` is the current record. Returns null when the finder stops.
void* finderd_thread(void* context);

}  // namespace kestrel
