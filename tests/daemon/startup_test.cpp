// Start-up, main loop and shutdown: run_daemon in a process of its own, with the fake platform, fake waits and the
// states replaced. Whatever happens is printed to standard output in order: platform calls as "> call".
#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string_view>

#include "core/device_context.h"
#include "core/wait.h"
#include "daemon/kestreld.h"
#include "fake_platform/fixture.h"
#include "finder/finder.h"
#include "regstate/state_table.h"
#include "support/child.h"

namespace kestrel {

namespace {

std::function<void(DeviceContext&)> on_start;  // the handler of START
std::string_view failing;

/// The function that one of the same name here stands before.
template <typename Function>
Function* behind(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

void tell(const std::string& text) {
  const std::string line = text + "\n";
  const ssize_t n = write(STDOUT_FILENO, line.data(), line.size());
  static_cast<void>(n);
}

/// The finder's thread prints in its own time.
void await_output(const char* text) {
  for (int i = 0; i < 10'000 && read_file("/proc/self/fd/1").find(text) == std::string::npos; ++i) usleep(1000);
}

}  // namespace

// In the place of the C library's, of which one may fail; then of the state table and the finder.

extern "C" {

sighandler_t signal(int number, sighandler_t handler) noexcept {
  return failing == "signal" ? SIG_ERR : behind(&signal, "signal")(number, handler);
}
int sigaction(int number, const struct sigaction* action, struct sigaction* old) noexcept {
  return failing == "sigaction" && number == SIGUSR1 ? -1 : behind(&sigaction, "sigaction")(number, action, old);
}
int pthread_sigmask(int how, const sigset_t* set, sigset_t* old) noexcept {
  const bool fails = failing == "pthread_sigmask" && gettid() != getpid();
  return fails ? EINVAL : behind(&pthread_sigmask, "pthread_sigmask")(how, set, old);
}

}  // extern "C"

void install_handlers(DeviceContext& ctx) {
  fake_record("install_handlers");
  for (StateHandler& handler : ctx.handlers) {
    handler = [](DeviceContext* current) {
      tell("handler");
      on_start(*current);
    };
  }
}

void Finderd_take_auth(const AuthenticateInfo& auth) {
  tell(std::string("take_auth ") + auth.user);
}
void Finderd_CST() {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  const bool both = sigismember(&blocked, SIGTERM) == 1 && sigismember(&blocked, SIGALRM) == 1;
  tell(both ? "finder: CST, signals blocked" : "finder: CST, signals open");
}
int Finderd_init() {
  tell("finder: init");
  return 0;
}
void Finderd_set_context(DeviceContext* context) {
  tell(context == &current_record ? "finder: the current record" : "finder: another record");
}
void Finderd_loop() {
  tell("finder: loop");
}
void Finderd_DST() {
  tell("finder: DST");
}

namespace {

class StartUp : public FakeTest {
 protected:
  void SetUp() override {
    FakeTest::SetUp();
    signal(SIGINT, SIG_DFL);  // ignored in what a script runs in the background
    fake.debug_level = 1;
    fake.debug_token = "xxmObRaKiVyy";
    fake.gateway = false;
    fake.refer_path = "/dev/null";
    fake.on_call = [](const std::string& call) { tell("> " + call); };
    on_start = [](DeviceContext&) {
      await_output("finder: DST\n");
      raise(SIGTERM);
    };
  }

  static Child run() {
    return run_child([] { return run_daemon(); });
  }

  /// Every one of `parts` stands in `text`, each behind the one before it.
  static void expect_in_order(const std::string& text, const Texts& parts) {
    std::size_t at = 0;
    for (const std::string& part : parts) {
      const std::size_t found = text.find(part, at);
      ASSERT_NE(found, text.npos) << "not found, or not here: " << part << "\n" << text;
      at = found + part.size();
    }
  }

  static std::size_t count(const std::string& text, const std::string& part) {
    std::size_t n = 0;
    for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1)) ++n;
    return n;
  }
};

TEST_F(StartUp, StepsComeInTheirOrder) {
  on_start = [](DeviceContext& ctx) {
    await_output("terminated!");
    struct sigaction pipe {};
    sigaction(SIGPIPE, nullptr, &pipe);
    tell(pipe.sa_handler == SIG_IGN ? "SIGPIPE ignored" : "SIGPIPE open");
    tell(ctx.last == &last_record && last_record.last == nullptr ? "records linked" : "records astray");
    raise(SIGTERM);
  };
  const Child child = run();
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.err, "");
  expect_in_order(child.out, {"> tessel_get_lock kestreld_lock\n", "> dbg_get_level_token\nDbgLevel=(1)\n",
                              "KLOG\nLumen device 1.2\nKLOGThe kestreld authors\nKLOGStarting.......\n",
                              "> get_dev_sip_account\n", "> cre_set_skyport_hid HID00001\n", "> Mupnpcp_discover 8\n",
                              "> install_handlers\nKLOGuser name=(HID00001)\ntake_auth HID00001\n",
                              "> wait_regardless 6\n", "KLOGdev_reload(0)\n", "handler\n"});
  EXPECT_TRUE(
      child.out.ends_with("SIGPIPE ignored\nrecords linked\nKLOG signalRequestExit()\n"
                          "> SetSptOnLineStatus 0\n"))
      << child.out;
  expect_in_order(child.out, {"take_auth", "KLOGkestreld finderd_thread ",
                              " New finderd_thread pid:", "finder: CST, signals blocked\n", "finder: init\n",
                              "finder: the current record\n", "finder: loop\n", "finder: DST\n",
                              "KLOG[RTSPd finderd_thread ", "terminated!\n\n\n\n\n\n"});
}

TEST_F(StartUp, EndsOrGoesOnWithoutWhatIsRefused) {
  const struct {
    const char* function;
    int status;
    const char *error, *line;  // all that is printed, when it ends
    std::size_t finders;
  } rows[] = {
      {"signal", 1, "signal: Operation not permitted\n", "", 0},
      {"tessel_get_lock", 1, "kestreld: Process already running!\r\n", "> tessel_get_lock kestreld_lock\n", 0},
      {"sigaction", 0, "", "KLOGinit signal failed!\ntake_auth", 1},
      {"pthread_sigmask", 0, "", ", iSigMaskResult = 22(Invalid argument) \n", 0},
  };
  for (const auto& row : rows) {
    on_start = [&](DeviceContext& ctx) {
      await_output(row.finders == 1 ? "finder: CST" : row.line);
      if (failing == "sigaction") raise(SIGUSR1), raise(SIGUSR2);
      EXPECT_EQ(ctx.dev_reload + ctx.configure, 0U);
      raise(SIGTERM);
    };
    const Child child = run_child([&] {
      failing = row.function;
      fake.always["tessel_get_lock"] = failing == "tessel_get_lock" ? 0 : 1;
      current_record.pid = 4711;
      errno = EPERM;
      const int status = run_daemon();
      EXPECT_EQ(current_record.pid == 4711, status != 0);
      return status;
    });
    EXPECT_EQ(child.status, row.status) << row.function << child.out;
    EXPECT_EQ(child.err, row.error);
    EXPECT_TRUE(row.status != 0 ? child.out == row.line : count(child.out, row.line) == 1) << child.out;
    EXPECT_EQ(count(child.out, "finder: CST"), row.finders);
  }
}

TEST_F(StartUp, ALevelCountsOnlyWithTheToken) {
  const struct {
    const char* token;
    int level;
    bool announced, logs;
  } rows[] = {{"0123456789 mObRaKiV 0123456789 too long for its buffer", 1, true, true},
              {"mObRaKiV", 2, true, false},
              {"mobrakiv", 1, false, false},
              {"", 1, false, false}};
  for (const auto& row : rows) {
    fake.debug_token = row.token;
    fake.debug_level = row.level;
    const Child child = run();
    EXPECT_EQ(child.status, 0) << row.token;
    EXPECT_EQ(count(child.out, "KLOG") > 0, row.logs) << row.token << child.out;
    EXPECT_EQ(count(child.out, "DbgLevel=(" + std::to_string(row.level) + ")\n") > 0, row.announced) << row.token;
  }
}

TEST_F(StartUp, AReloadStartsAnewAndAConfigurationOnlySetsItsWord) {
  on_start = [turn = 0](DeviceContext& ctx) mutable {
    tell("turn " + std::to_string(++turn) + " configure " + std::to_string(ctx.configure) + " at " +
         std::to_string(fake.clock_s));
    if (turn == 1) raise(SIGUSR2);  // is looked at before the next wait, and does not cut it short
    if (turn == 1) return;
    fake.on_wait = [turn](unsigned) {
      constexpr int signals[] = {SIGUSR2, SIGUSR1, 0, SIGTERM};
      if (signals[turn - 2] != 0) raise(signals[turn - 2]);
    };
    wait_while(ctx.run, 100);
    tell("until " + std::to_string(fake.clock_s));
  };
  const Child child = run();
  EXPECT_EQ(child.status, 0);
  expect_in_order(
      child.out,
      {"turn 1 configure 0 at 6\n", "KLOGrequestConfigure()\n", "KLOGdev_reload(0)\n", "turn 2 configure 1 at 6\n",
       "KLOGrequestConfigure()\n", "turn 3 configure 1 at 56\n", "KLOGrequestReloadHandler()\n", "KLOGdev_reload(1)\n",
       "> SetSptOnLineStatus 0\nKLOGstate_init()\n", "> get_dev_sip_account\n", "> install_handlers\n",
       "turn 4 configure 1 at 106\n", "KLOGdev_reload(0)\n", "turn 5 configure 1 at 206\n", "until 256\n"});
  EXPECT_EQ(count(child.out, "install_handlers"), 2U);
}

TEST_F(StartUp, ASignalAtEveryStep) {
  struct Row {
    int signal;
    const char* at;
    int turn;  // at which call of that function; at a second one the daemon reloads
    int status;
    const char* line;
    std::size_t handlers;  // runs of START
  };
  const char* exit_line = "KLOG signalRequestExit()\n";
  // Without their handlers the first two end a daemon that waits for its account.
  const Row rows[] = {{SIGTERM, "get_dev_sip_account", 1, 128 + SIGTERM, nullptr, 0},
                      {SIGINT, "get_dev_sip_account", 1, 128 + SIGINT, nullptr, 0},
                      {SIGUSR1, "get_dev_sip_account", 1, 0, "KLOGrequestReloadHandler()\n", 1},
                      {SIGUSR2, "get_dev_sip_account", 1, 0, "KLOGrequestConfigure()\n", 1},
                      {SIGTERM, "wait_regardless", 1, 0, exit_line, 0},
                      {SIGINT, "wait_regardless", 1, 0, exit_line, 0},
                      {SIGUSR1, "wait_regardless", 1, 0, "KLOGrequestReloadHandler()\n", 1},
                      {SIGUSR2, "wait_regardless", 1, 0, "KLOGrequestConfigure()\n", 1},
                      {SIGTERM, "SetSptOnLineStatus", 2, 0, exit_line, 0},
                      {SIGTERM, "dev_get_model_name", 2, 0, exit_line, 0},
                      {SIGTERM, "get_dev_sip_account", 2, 0, exit_line, 0},
                      {SIGTERM, "Mupnpcp_discover", 2, 0, exit_line, 0},
                      {SIGTERM, "install_handlers", 2, 0, exit_line, 0}};
  for (const Row& row : rows) {
    const bool reloads = row.turn == 2 || row.signal == SIGUSR1;
    fake.on_call = [&,
                    turn = std::string_view(row.at) == "SetSptOnLineStatus" ? 1 : 0](const std::string& call) mutable {
      tell("> " + call);
      if (row.turn == 2 && call.starts_with("wait_regardless")) raise(SIGUSR1);
      if (call.starts_with(row.at) && ++turn == row.turn) raise(row.signal);
      if (fake.calls.size() > 500) _exit(50);
    };
    const Child child = run();
    EXPECT_EQ(child.status, row.status) << row.at << child.out;
    EXPECT_EQ(row.line == nullptr ? count(child.out, exit_line) : count(child.out, row.line) - 1, 0U) << child.out;
    EXPECT_EQ(count(child.out, "\nhandler\n"), row.handlers) << row.at << child.out;
    EXPECT_EQ(count(child.out, "KLOGstate_init()\n"), reloads ? 1U : 0U) << row.at;
    EXPECT_EQ(count(child.out, "> SetSptOnLineStatus 0\n"), (reloads ? 1U : 0U) + (row.status == 0 ? 1U : 0U));
  }
}

TEST_F(StartUp, TheExitsStateHasNoHandler) {
  on_start = [](DeviceContext& ctx) {
    set_state(ctx, UNKNOWN);  // its run is yet to be cleared
    signal(SIGALRM, [](int) { raise(SIGTERM); });
    ualarm(20'000, 0);
  };
  const Child child = run();
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(count(child.out, "\nhandler\n"), 1U);
}

TEST_F(StartUp, ClosedStandardDescriptorsLeadNowhere) {
  on_start = [](DeviceContext&) {
    for (int fd = 0; fd < 3; ++fd) {
      if (std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)) != "/dev/null") _exit(40 + fd);
      if ((fcntl(fd, F_GETFL) & O_NONBLOCK) != 0) _exit(50 + fd);  // the log's own took its place
    }
    raise(SIGTERM);
  };
  const Child child = run_child([] {
    for (int fd = 0; fd < 3; ++fd) close(fd);
    return run_daemon();
  });
  EXPECT_EQ(child.status, 0);
}

}  // namespace

}  // namespace kestrel
