// core/: the debug log, the waits and the shell, as they are.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <thread>

#include "core/debug_log.h"
#include "core/shared_word.h"
#include "core/text.h"
#include "core/wait.h"
#include "support/child.h"

namespace kestrel {

namespace {

// ---- The log ----

/// What `work` prints to standard output, in a process of its own.
std::string console_of(const std::function<void()>& work) {
  return run_child([&] { return work(), 0; }).out;
}

// Its limits, and each of the sources' own formats, are checked against the C library's by the formatter's fuzz target.
TEST(DebugLog, ItsFormatterTakesArgumentsForItsThreeConversionsOnly) {
  DbgLevel = debug_console;
  const char* const nothing = nullptr;
  const char* volatile format = "%s %c%d %lu %8.8d%%d|%x=%d 100%";  // which the compiler would refuse
  EXPECT_EQ(console_of([&] { debug_log(format, nothing, 'o', INT_MIN, -7, 5); }),
            "KLOG(null) o-2147483648 lu 8.8d-7|x=5 100");
}

/// The log's files have fixed names: these tests see a /tmp of their own.
class LogFile : public ::testing::Test {
 protected:
  void in_own_tmp(const std::function<void()>& work) {
    constexpr int not_allowed = 77;
    const Child child = run_child([&] {
      if (!own_tmp()) return not_allowed;
      work();
      return 0;
    });
    if (child.status == not_allowed) GTEST_SKIP() << "needs a mount namespace, for a log file of its own";
    EXPECT_EQ(child.status, 0) << child.out << child.err;
  }

  static std::string current() { return read_file(debug_log_path); }
  static std::string old() { return read_file(debug_log_old_path); }
  static long lines(const std::string& text) { return std::ranges::count(text, '\n'); }
};

TEST_F(LogFile, TheLevelsBitsChooseWhereLinesGo) {
  in_own_tmp([] {
    std::string file;
    for (int level = 0; level < 8; ++level) {
      DbgLevel = level;
      const std::string line = "KLOGlevel " + std::to_string(level) + "\n";
      EXPECT_EQ(console_of([=] { debug_log("level %d\n", level); }), (level & 1) != 0 ? line : "");
      if ((level & 4) != 0) file = line;  // the first one of its process
      EXPECT_EQ(current(), file);
    }
  });
}

TEST_F(LogFile, RotatesAtTheFirstLineAndAfterAThousand) {
  in_own_tmp([] {
    DbgLevel = debug_file;
    close(STDIN_FILENO);         // a descriptor of 0 serves as well
    const auto lose_line = [] {  // does not count
      unlink(debug_log_path);
      mkdir(debug_log_path, 0700);
      debug_log("lost\n");
      rmdir(debug_log_path);
    };
    std::filesystem::create_directories(std::string(debug_log_old_path) + "/x");
    lose_line();
    std::filesystem::remove_all(debug_log_old_path);
    write_file(debug_log_old_path, "older\n");
    write_file(debug_log_path, "before\n");
    debug_log("1\n");
    lose_line();
    for (int i = 2; i <= 1000; ++i) debug_log("%d\n", i);
    EXPECT_EQ(old(), "before\n");
    EXPECT_EQ(lines(current()), 999);
    const std::string thousand = current();
    debug_log("%d\n", 1001);
    EXPECT_EQ(old(), thousand);
    EXPECT_EQ(current(), "KLOG1001\n");
    // Somebody lays a directory, which no file that stands behind it holds up.
    for (int i = 2; i <= 1000; ++i) debug_log("%d\n", i);
    unlink(debug_log_path);
    mkdir(debug_log_path, 0700);
    debug_log("once more\n");
    EXPECT_EQ(current(), "KLOGonce more\n");
  });
}

TEST_F(LogFile, WhatSomebodyElseLaidThereIsNeverWritten) {
  in_own_tmp([] {
    DbgLevel = debug_file;
    const auto lay_file = [](mode_t mode, uid_t owner) {
      write_file(debug_log_path, "");
      return chmod(debug_log_path, mode) == 0 && chown(debug_log_path, owner, owner) == 0;
    };
    const std::function<bool()> rows[] = {
        [=] { return lay_file(0666, geteuid()); },  // for everybody to read, at the first line
        [=] { return lay_file(0640, geteuid()); },
        [=] { return lay_file(0604, geteuid()); },
        [] { return symlink("/tmp/victim", debug_log_path) == 0; },
        [] { return mkfifo(debug_log_path, 0600) == 0; },
        [=] { return lay_file(0600, 1); },  // takes a privilege
    };
    // A directory keeps the first one from being moved away.
    ASSERT_EQ(mkdir(debug_log_old_path, 0777), 0);
    write_file(std::string(debug_log_old_path) + "/x", "");
    write_file("/tmp/victim", "");
    const auto descriptors = [] { return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd")); };
    const auto before = descriptors();
    for (std::size_t i = 0; i < std::size(rows); ++i) {
      unlink(debug_log_path);
      if (!rows[i]()) continue;
      const int reader = open(debug_log_path, O_RDONLY | O_NONBLOCK);
      errno = EDOM;
      EXPECT_EQ(debug_log("%d\n", static_cast<int>(i)), 0);
      EXPECT_EQ(errno, EDOM);
      EXPECT_EQ(current(), "KLOG" + std::to_string(i) + "\n");
      struct stat status {};
      stat(debug_log_path, &status);
      EXPECT_EQ(status.st_mode, 0100600U) << i;
      char seen = 0;
      EXPECT_LE(read(reader, &seen, 1), 0) << i;
      close(reader);
      EXPECT_EQ(descriptors(), before) << i;
    }
  });
}

TEST(Texts, ACopyAndAFormatTellWhatDidNotFit) {
  const struct {
    const char* from;
    std::size_t len;
    bool fits;
    const char* text;
    int formatted;
  } rows[] = {{"", 0, true, "", 0},
              {"abc", 3, true, "abc", 3},
              {"abcd", 3, true, "abc", -1},
              {"abcd", 4, false, "abc", -1},
              {"ab\0d", 4, true, "ab", 2}};
  for (const auto& row : rows) {
    char text[] = {'z', 'z', 'z', 'z'};
    EXPECT_EQ(copy_bytes(text, sizeof(text), row.from, row.len), row.fits) << row.from << row.len;
    EXPECT_STREQ(text, row.text);
    EXPECT_EQ(format_text(text, sizeof(text), "%s", row.from), row.formatted);
  }
  char one[random_digits_len + 1], other[random_digits_len + 1];
  random_digits6(one);
  usleep(1);
  random_digits6(other);
  EXPECT_STRNE(one, other);
}

TEST(Console, AReaderThatDoesNotReadCostsLinesAndNoTime) {
  for (const bool of_its_own : {false, true}) {
    const Child child = run_child([of_its_own] {
      int ends[2];
      if (pipe(ends) != 0) return 1;
      const auto stream_to = [](int fd) {
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
      };
      if (!of_its_own) never_wait_for_console();  // leaves files as they are
      stream_to(ends[1]);
      if (of_its_own) {
        close(STDIN_FILENO);  // a descriptor of 0 serves as well
        never_wait_for_console();
        stream_to(open("/dev/null", O_WRONLY));
      }
      DbgLevel = debug_console;
      alarm(5);
      for (int i = 0; i < 3000; ++i) {
        debug_log("%s\n", std::string(100, 'x').c_str());
        print_console("%d\n", i);
        errno = EINVAL;
        print_error("sendto");
      }
      static std::string seen(1 << 20, '\0');
      const ssize_t n = read(ends[0], seen.data(), seen.size());
      EXPECT_TRUE(seen.starts_with("KLOG" + std::string(100, 'x') + "\n0\nsendto: Invalid argument\nKLOGxx"));
      EXPECT_GT(n, 4096);
      // It takes lines again.
      print_console("more\n");
      EXPECT_EQ(read(ends[0], seen.data(), seen.size()), 5);
      EXPECT_EQ(fcntl(ends[1], F_GETFL) & O_NONBLOCK, 0);
      return 0;
    });
    EXPECT_EQ(child.status, 0) << of_its_own;
  }
}

TEST_F(LogFile, ThreadsAndSignalHandlersMayLogAtOnce) {
  in_own_tmp([] {
    DbgLevel = debug_file;
    std::signal(SIGALRM, [](int) { debug_log("handler\n"); });
    const itimerval every_ms{{0, 1000}, {0, 1000}}, never{};
    setitimer(ITIMER_REAL, &every_ms, nullptr);
    const auto log_many = [] {
      for (int i = 0; i < 1500; ++i) debug_log("line\n");
    };
    std::thread other(log_many);
    log_many();
    other.join();
    setitimer(ITIMER_REAL, &never, nullptr);
    const long kept = lines(current()) + lines(old());
    EXPECT_GE(kept, 990);
    EXPECT_LE(kept, 2000 + 20);
    EXPECT_EQ((current() + old()).find_first_not_of("KLOGhandlerline\n"), std::string::npos);
  });
}

// ---- Waits ----

std::uint32_t run = 1;

void alarm_in(long us) {
  const itimerval once{{0, 0}, {0, us}};
  setitimer(ITIMER_REAL, &once, nullptr);
}

class Wait : public ::testing::Test {
 protected:
  void SetUp() override {
    run = 1;
    struct sigaction action {};
    action.sa_handler = [](int) { wait_note_signal(); };
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, nullptr);
    wait_arm();
  }
};

TEST_F(Wait, ASignalJustBeforeEndsItAtOnceButOnlyOnce) {
  raise(SIGALRM);
  EXPECT_LT(seconds_of([] { wait_regardless(30); }), 10);
  EXPECT_GE(seconds_of([] { wait_regardless(1); }), 0.999);
  raise(SIGALRM);
  wait_arm();  // forgets what came before
  EXPECT_GE(seconds_of([] { wait_while(run, 1); }), 0.999);
}

TEST_F(Wait, ASignalAtTheVeryEdgeIsNeverSleptOver) {
  for (long us = 1; us <= 300; ++us) {
    alarm_in(us);
    ASSERT_LT(seconds_of([] { wait_while(run, 30); }), 10) << us;
  }
}

TEST_F(Wait, IsSkippedWhenRunIsCleared) {
  std::signal(SIGALRM, [](int) {
    store_word(run, 0U);
    wait_note_signal();
  });
  alarm_in(20'000);
  EXPECT_LT(seconds_of([] {
              for (int i = 0; i < 10; ++i) wait_while(run, 30);
            }),
            10);
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  EXPECT_EQ(sigismember(&mask, SIGALRM), 0);
}

}  // namespace

}  // namespace kestrel
