// The shell, see shell.h. Not system(), whose wait has no end when a script hangs.
#include "core/shell.h"

#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>

#include <csignal>

extern char** environ;

namespace kestrel {

namespace {

constexpr int look_ms = 20;
constexpr int looks = shell_timeout_s * 1000 / look_ms;

/// A command that was left to itself; reaped when the next one is run.
pid_t left_to_itself = -1;

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
  if (left_to_itself > 0) waitpid(left_to_itself, nullptr, WNOHANG);
  const pid_t pid = spawn(command);
  left_to_itself = -1;
  for (int look = 0; pid > 0 && look < looks; ++look) {
    if (waitpid(pid, nullptr, WNOHANG) != 0) return;
    poll(nullptr, 0, look_ms);
  }
  left_to_itself = pid;
}

}  // namespace kestrel
