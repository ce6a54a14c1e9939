// The shell, see shell.h. Not system(), whose wait has no end when a script hangs.
#include "core/shell.h"

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

namespace kestrel {

namespace {

constexpr int look_ms = 20;
constexpr int looks = shell_timeout_s * 1000 / look_ms;

/// This thread's commands that were left to themselves; reaped when the next one is run.
thread_local std::array<pid_t, 4> left_to_themselves{};

void reap_left() {
  for (pid_t& pid : left_to_themselves) {
    if (pid > 0 && waitpid(pid, nullptr, WNOHANG) != 0) pid = 0;
  }
}

void leave(pid_t left) {
  for (pid_t& pid : left_to_themselves) {
    if (pid > 0) continue;
    pid = left;
    return;
  }
}

pid_t spawn(const char* command) {
  posix_spawnattr_t attributes;
  sigset_t none;
  sigset_t all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_init(&attributes);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
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
  for (int look = 0; pid > 0 && look < looks; ++look) {
    if (waitpid(pid, nullptr, WNOHANG) != 0) return;
    poll(nullptr, 0, look_ms);
  }
  if (pid > 0) leave(pid);
}

}  // namespace kestrel
