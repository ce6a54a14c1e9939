// The shell, see shell.h. Not system(), whose wait has no end when a script hangs.
#include "core/shell.h"

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>

#include "core/device_context.h"

namespace kestrel {

namespace {

constexpr int look_ms = 20;
constexpr int looks = shell_timeout_s * 1000 / look_ms;
constexpr int exit_looks = 10;  // once the daemon is to end

/// Commands that may go on by themselves; of more the oldest is ended.
constexpr std::size_t max_left = 8;

/// This thread's commands that were left to themselves, the oldest first, and one that is being ended.
struct Left {
  std::array<pid_t, max_left + 1> pids;
  std::size_t count;
};
thread_local Left left_to_themselves{};

void reap_left() {
  Left& left = left_to_themselves;
  pid_t* const end = left.pids.data() + left.count;
  pid_t* const kept =
      std::remove_if(left.pids.data(), end, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
  left.count = static_cast<std::size_t>(kept - left.pids.data());
}

/// Nothing grows over months of a script that hangs: the oldest is ended with all that it has started. It is not
/// waited for, since it may hang in the kernel; one that cannot be ended is forgotten.
void leave(pid_t pid) {
  Left& left = left_to_themselves;
  if (left.count >= max_left) kill(-left.pids[0], SIGKILL);
  if (left.count == left.pids.size()) {
    std::copy(left.pids.begin() + 1, left.pids.end(), left.pids.begin());
    --left.count;
  }
  left.pids[left.count++] = pid;
}

pid_t spawn(const char* command) {
  posix_spawnattr_t attributes;
  sigset_t none;
  sigset_t defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  // What the daemon handles or ignores. Not all: some libraries refuse a set with SIGKILL in it.
  for (const int signal : {SIGTERM, SIGINT, SIGUSR1, SIGUSR2, SIGPIPE}) sigaddset(&defaults, signal);
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  // The shell does not change its arguments; the interface only predates const.
  char* arguments[] = {const_cast<char*>("sh"), const_cast<char*>("-c"), const_cast<char*>(command), nullptr};
  pid_t pid = -1;
  if (posix_spawn(&pid, "/bin/sh", nullptr, &attributes, arguments, environ) != 0) pid = -1;
  posix_spawnattr_destroy(&attributes);
  return pid;
}

}  // namespace

void run_shell(const char* command) {
  reap_left();
  const pid_t pid = spawn(command);
  if (pid < 0) return;
  for (int look = 0; look < looks; ++look) {
    if (waitpid(pid, nullptr, WNOHANG) != 0) return;
    if (exit_requested() && look >= exit_looks) break;
    poll(nullptr, 0, look_ms);
  }
  leave(pid);
}

}  // namespace kestrel
