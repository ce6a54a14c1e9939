// kestrel-platform-check: what the camera's platform libraries do, beside what they must do. The rows run in a child,
// so that a library that crashes or hangs costs its row alone.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "check.h"

namespace platform_check {

namespace {

constexpr unsigned longest_s = 60;  // of a row; the daemon would stand still for as long
constexpr int usage_error = 2;

/// What the child leaves to its parent.
struct Progress {
  std::size_t row;
  int kept, broken;
  volatile std::sig_atomic_t end_signal;
};

/// Requests to end. A row that writes puts back first: the child does not take them, and looks here between two rows.
constexpr int ends[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};
volatile std::sig_atomic_t* end_signal;  // shared with the child; 0 until one comes

void take_end(int signal) {
  *end_signal = signal;
}

struct Part {
  const char* title;
  Rows (*rows)();
};
constexpr Part parts[] = {
    {"settings and names", setting_rows}, {"interfaces", interface_rows}, {"HTTP packets", packet_rows},
    {"algorithms", algorithm_rows},       {"router", router_rows},        {"what writes", writing_rows},
};

void print_row(const Row& row, const Finding& finding, bool broken) {
  std::printf("%-32s %-22s %-44s %s\n", row.name, row.asked, finding.came, broken ? "BROKEN" : "kept");
  if (broken) std::printf("  %s: the daemon %s\n", finding.broken, finding.daemon);
  std::fflush(stdout);
}

void count_row(const Row& row, const Finding& finding, Progress& progress) {
  const bool broken = finding.broken[0] != '\0';
  print_row(row, finding, broken);
  ++(broken ? progress.broken : progress.kept);
}

/// In the child: the rows from where the progress stands.
void run_rows(const Rows& rows, Progress& progress, bool write) {
  for (; progress.row < rows.count; ++progress.row) {
    const Row& row = rows.first[progress.row];
    if (row.writes && !write) continue;
    if (row.writes && *end_signal != 0) _exit(0);
    alarm(longest_s);
    Finding finding{};
    probe(row, finding);
    count_row(row, finding, progress);
  }
}

/// A row that its child did not survive.
void bury(const Row& row, int signal, Progress& progress) {
  Finding finding{};
  tell(finding, row.writes ? "no return; look whether it is put back" : "no return");
  if (signal == SIGALRM) {
    note(finding, "stands still", "did not return within %u s", longest_s);
  } else {
    note(finding, "ends by it too", "ended by signal %d (%s)", signal, strsignal(signal));
  }
  count_row(row, finding, progress);
  ++progress.row;
}

void hold_ends() {
  sigset_t held;
  sigemptyset(&held);
  for (const int signal : ends) sigaddset(&held, signal);
  sigprocmask(SIG_BLOCK, &held, nullptr);
}

bool run_part(const Part& part, Progress& progress, bool write) {
  const Rows rows = part.rows();
  if (rows.first[0].writes && !write) return true;
  std::printf("\n-- %s\n", part.title);
  for (progress.row = 0; progress.row < rows.count;) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child < 0) return false;
    if (child == 0) {
      if (rows.first[0].writes) hold_ends();
      run_rows(rows, progress, write);
      _exit(0);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    if (*end_signal != 0) return true;
    if (WIFSIGNALED(status)) {
      bury(rows.first[progress.row], WTERMSIG(status), progress);
    } else if (progress.row < rows.count) {
      Finding finding{};
      note(finding, "ends by it too", "ended the process with status %d", WEXITSTATUS(status));
      count_row(rows.first[progress.row++], finding, progress);
    }
  }
  return true;
}

int run(bool write) {
  void* shared = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    std::perror("kestrel-platform-check: no memory to be shared with the calls' process");
    return usage_error;
  }
  auto& progress = *static_cast<Progress*>(shared);
  end_signal = &progress.end_signal;
  for (const Part& part : parts) {
    if (part.rows().first[0].writes && write) {
      for (const int signal : ends) std::signal(signal, take_end);
    }
    if (!run_part(part, progress, write)) {
      std::perror("kestrel-platform-check: no process for the calls to be had");
      return usage_error;
    }
  }
  if (const int signal = progress.end_signal; signal != 0) {
    std::puts("\ninterrupted; what was written is put back");
    std::fflush(stdout);
    std::signal(signal, SIG_DFL);
    raise(signal);
  }
  std::printf("\n%d kept, %d broken%s\n", progress.kept, progress.broken,
              write ? "" : "; what writes was left out, --write has it too");
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    std::fputs("kestrel-platform-check: can't write to standard output\n", stderr);
    return usage_error;
  }
  return progress.broken > 0 ? 1 : 0;
}

constexpr char help[] =
    "usage: kestrel-platform-check [--write | --version]\n"
    "Calls every function of the camera's platform libraries as kestreld does, and says whether each keeps its "
    "contract.\n"
    "  --write  also what writes: settings, the status, a mapping of port 50997; each is put back. Stop kestreld "
    "first.\n"
    "Exit status: 0 all kept, 1 something is broken, 2 it could not be tried.\n";

}  // namespace

}  // namespace platform_check

int main(int argc, char** argv) {
  bool write = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
      std::fputs(platform_check::help, stdout);
      return 0;
    }
    if (std::strcmp(argv[i], "--version") == 0) {
      std::puts(KESTREL_VERSION);
      return 0;
    }
    if (std::strcmp(argv[i], "--write") != 0) {
      std::fprintf(stderr, "kestrel-platform-check: no option '%s'; --help lists those that there are\n", argv[i]);
      return platform_check::usage_error;
    }
    write = true;
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGCHLD, SIG_DFL);  // whoever ignores it would have taken the child's end away
  return platform_check::run(write);
}
