// core/: the shell, on a poll that only counts, so that its time limit costs no time.
#include "core/shell.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <csignal>
#include <set>

#include "core/device_context.h"
#include "support/child.h"

namespace {
int polled_ms = 0;
bool poll_sleeps = false;
}  // namespace

// In the place of the C library's.
extern "C" int poll(pollfd* /*fds*/, nfds_t /*count*/, int timeout_ms) {
  polled_ms += timeout_ms;
  if (poll_sleeps) usleep(static_cast<useconds_t>(timeout_ms) * 1000);
  return 0;
}

namespace kestrel {

namespace {

/// The children of this process, living or not.
std::set<int> children() {
  std::set<int> found;
  std::ifstream list("/proc/self/task/" + std::to_string(getpid()) + "/children");
  for (int pid = 0; list >> pid;) found.insert(pid);
  return found;
}

TEST(Shell, ACommandRunsToItsEndWithNoSignalBlockedOrIgnored) {
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t usr1, before;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &usr1, &before);
  const Child child = run_child([] {
    current_record.run = 1;
    poll_sleeps = true;
    run_shell("grep -E 'SigBlk|SigIgn' /proc/self/status");  // alone, as a shell with more to do clears the mask
    run_shell("sleep 0.1; exit 3");
    run_shell("no such command 2>/dev/null");
    return waitpid(-1, nullptr, WNOHANG) == -1 ? 0 : 1;  // nobody is left to be reaped
  });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  std::signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(child.status, 0);
  // The C library keeps two signals of its own, 32 and 33, out of this.
  unsigned long long blocked = 1, ignored = 1;
  EXPECT_EQ(std::sscanf(child.out.c_str(), "SigBlk: %llx SigIgn: %llx", &blocked, &ignored), 2) << child.out;
  EXPECT_EQ(blocked, 0U);
  EXPECT_EQ(ignored & 0x7FFFFFFF, 0U);
}

TEST(Shell, AHangingCommandKeepsItsCallerForItsTimeAndNoneIsLeftForEver) {
  const Child child = run_child([] {
    std::set<int> first;
    for (const std::uint32_t run : {1U, 0U, 0U, 0U, 0U, 0U, 0U, 0U}) {
      current_record.run = run;
      polled_ms = 0;
      run_shell("exec sleep 60");  // goes on by itself
      EXPECT_EQ(polled_ms, run == 1 ? shell_timeout_s * 1000 : 200);
      if (first.empty()) first = children();
    }
    EXPECT_EQ(children().size(), 8U);
    run_shell("sleep 61 & wait");  // a ninth: the oldest is ended, and reaped by the next
    poll_sleeps = true;
    usleep(50'000);
    run_shell("true");
    std::set<int> left = children();
    EXPECT_EQ(left.size(), 8U);
    EXPECT_EQ(left.count(*first.begin()), 0U);
    for (const int pid : left) EXPECT_EQ(kill(-pid, SIGKILL), 0) << "a group of its own";
    usleep(100'000);
    run_shell("true");  // reaps them
    EXPECT_EQ(children(), std::set<int>{});
    return 0;
  });
  EXPECT_EQ(child.status, 0) << child.out;
}

}  // namespace

}  // namespace kestrel
