// The finder thread's entry, see kestreld.h.
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "core/debug_log.h"
#include "daemon/kestreld.h"
#include "finder/finder.h"

namespace kestrel {

namespace {

constexpr char module_name[] = "kestreld";

}  // namespace

void* finderd_thread(void* context) {
  pthread_detach(pthread_self());
  // Signals are the main thread's: they end its waits and write its record.
  sigset_t all;
  sigfillset(&all);
  const int blocked = pthread_sigmask(SIG_BLOCK, &all, nullptr);
  if (blocked != 0) {
    // This line and the last one speak of other subsystems. Readers of logs know them so; they stay.
    debug_log("%s %d pthread_exit: PlayAudio thread id = %d, iSigMaskResult = %d(%s) \n", module_name, __LINE__,
              static_cast<int>(syscall(SYS_gettid)), blocked, std::strerror(blocked));
    return nullptr;
  }
  debug_log("%s %s %d New finderd_thread pid:%d ppid:%d\n", module_name, "finderd_thread", __LINE__,
            static_cast<int>(getpid()), static_cast<int>(getppid()));
  Finderd_CST();
  Finderd_init();
  Finderd_set_context(static_cast<DeviceContext*>(context));
  Finderd_loop();
  Finderd_DST();
  debug_log("[RTSPd %s %d]: rtspd client-session thread pid %d terminated!\n\n\n\n\n\n", "finderd_thread", __LINE__,
            static_cast<int>(getpid()));
  return nullptr;
}

}  // namespace kestrel
