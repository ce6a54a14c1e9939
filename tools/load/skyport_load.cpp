// skyport-load: cameras by the thousand against a service. This file is the command line, the threads and the progress.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <memory>
#include <thread>

#include "camera.h"

namespace {

constexpr int failed = 1;
constexpr int usage_error = 2;
constexpr std::size_t stack_len = 262144;
constexpr double progress_s = 0.25;

constexpr int end_signals[] = {SIGINT, SIGTERM};
volatile std::sig_atomic_t interrupted = 0;

struct Options {
  std::string service = "127.0.0.1:80", reached, prefix = "LOAD", password = "load-password", csv;
  unsigned cameras = 100;
  double arrive_s = 0, for_s = 0, speed = 1;
  bool accounts = false;
};

struct One {
  load::Credentials account;
  double after_s = 0;
  std::atomic<load::Place> place{load::Place::starting};
  const load::Plan* plan = nullptr;
  load::Figures* figures = nullptr;
  const load::End* end = nullptr;
  double start_s = 0;
};

void* live(void* argument) {
  auto& one = *static_cast<One*>(argument);
  if (one.end->wait_for(one.after_s))
    load::live(*one.plan, one.account, one.start_s, *one.figures, *one.end, one.place);
  return nullptr;
}

bool read_endpoint(const std::string& text, load::Endpoint& out) {
  const std::size_t colon = text.rfind(':');
  in_addr address{};
  out.address = text.substr(0, colon);
  if (colon == text.npos) return false;
  const char* const last = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, last, out.port);
  return error == std::errc() && stop == last && out.port > 0 && inet_pton(AF_INET, out.address.c_str(), &address) == 1;
}

std::string hid_of(const Options& options, unsigned index) {
  return fmt::format("{}{:06}", options.prefix, index);
}

/// Where the service finds all cameras: connections are taken and closed. The port, or 0 when it can't listen.
std::uint16_t be_reached() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (fd < 0 || bind(fd, generic, len) != 0 || listen(fd, SOMAXCONN) != 0 || getsockname(fd, generic, &len) != 0)
    return 0;
  std::thread([fd] {
    for (;;) {
      const int visitor = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (visitor >= 0) close(visitor);
      if (visitor < 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));  // no descriptor is left
    }
  }).detach();
  return ntohs(address.sin_port);
}

struct Count {
  std::size_t registered = 0, refused = 0;
};

Count count(const std::deque<One>& cameras) {
  Count count;
  for (const One& one : cameras) {
    if (one.place == load::Place::registered) ++count.registered;
    if (one.place == load::Place::refused) ++count.refused;
  }
  return count;
}

void show_progress(const std::deque<One>& cameras, const load::Figures& figures, double at_s, bool last) {
  constexpr std::size_t bar_len = 30;
  const char* const terminal = std::getenv("TERM");
  if (isatty(STDERR_FILENO) == 0 || terminal == nullptr || std::string_view(terminal) == "dumb") return;
  const Count now = count(cameras);
  const std::size_t filled = now.registered * bar_len / cameras.size();
  const load::Figures::Sum sum = figures.sum();
  fmt::print(stderr, "\r\x1b[K[{}{}] {} of {} registered, {} exchanges, {} failed, {:.0f} s{}",
             std::string(filled, '#'), std::string(bar_len - filled, ' '), now.registered, cameras.size(), sum.all,
             sum.failed, at_s, last ? "\n" : "");
}

/// Until every camera has registered, or for the time that was asked for.
void run_for(const Options& options, const std::deque<One>& cameras, const load::Figures& figures, double start_s) {
  for (double at_s = 0; interrupted == 0; at_s = load::steady_s() - start_s) {
    show_progress(cameras, figures, at_s, false);
    if (options.for_s > 0 ? at_s >= options.for_s : count(cameras).registered == cameras.size()) break;
    std::this_thread::sleep_for(std::chrono::duration<double>(progress_s));
  }
  show_progress(cameras, figures, load::steady_s() - start_s, true);
}

int run(const Options& options, const load::Plan& plan, std::FILE* csv) {
  load::Figures figures(csv);
  load::End end;
  std::deque<One> cameras(options.cameras);
  std::vector<pthread_t> threads;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, stack_len);
  // No camera's thread takes the end's signals: its exchange would look like a failed one.
  sigset_t ends, before;
  sigemptyset(&ends);
  for (const int number : end_signals) sigaddset(&ends, number);
  pthread_sigmask(SIG_BLOCK, &ends, &before);
  const double start_s = load::steady_s();
  unsigned index = 0;
  for (One& one : cameras) {
    one.account.hid = hid_of(options, index);
    one.account.password = options.password;
    one.after_s = options.arrive_s * index++ / options.cameras;
    one.plan = &plan, one.figures = &figures, one.end = &end, one.start_s = start_s;
    pthread_t thread{};
    if (pthread_create(&thread, &attributes, live, &one) != 0) break;
    threads.push_back(thread);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  const bool all_live = threads.size() == cameras.size();
  if (all_live) run_for(options, cameras, figures, start_s);
  end.now();
  for (const pthread_t thread : threads) pthread_join(thread, nullptr);
  if (!all_live) {
    fmt::print(stderr, "skyport-load: this machine allows {} cameras, no more; ask for that many\n", threads.size());
    return failed;
  }
  const Count at_last = count(cameras);
  fmt::print("{}{} of {} cameras registered, {:.1f} s\n", figures.table(), at_last.registered, cameras.size(),
             load::steady_s() - start_s);
  return at_last.registered == cameras.size() ? 0 : failed;
}

bool is_written(std::FILE* file) {
  return std::fflush(file) == 0 && std::ferror(file) == 0;
}

/// What stands in a header and in a line of accounts as it is.
bool is_plain(const std::string& text, std::string_view also_not) {
  return !text.empty() && std::all_of(text.begin(), text.end(),
                                      [&](char c) { return c > ' ' && c <= '~' && also_not.find(c) == also_not.npos; });
}

int refuse(const std::string& sentence) {
  fmt::print(stderr, "skyport-load: {}\n", sentence);
  return usage_error;
}

void add_options(CLI::App& app, Options& options) {
  app.set_version_flag("--version", KESTREL_VERSION);
  app.add_option("--service", options.service, "The service")->type_name("ADDR:PORT")->capture_default_str();
  app.add_option("-n,--cameras", options.cameras, "How many cameras")
      ->check(CLI::Range(1, 100000))
      ->capture_default_str();
  app.add_option("--arrive", options.arrive_s, "They start evenly over so long; 0: at once, as after a power cut")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 86400.0))
      ->capture_default_str();
  app.add_option("--for", options.for_s, "Go on so long; 0: until every camera has registered")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 864000.0))
      ->capture_default_str();
  app.add_option("--speed", options.speed, "Make the daemon's waits so many times shorter")
      ->type_name("N")
      ->check(CLI::Range(1.0, 1000.0))
      ->capture_default_str();
  app.add_option("--reached", options.reached, "Where the service connects back to; default: to this program")
      ->type_name("ADDR:PORT");
  app.add_option("--prefix", options.prefix, "Begins every host id, six digits follow")
      ->type_name("TEXT")
      ->capture_default_str();
  app.add_option("--password", options.password, "Of every account")->type_name("TEXT")->capture_default_str();
  app.add_option("--csv", options.csv, "Write a row for each exchange there")->type_name("FILE");
  app.add_flag("--accounts", options.accounts, "Print the accounts, a HID:PASSWORD a line, for skyport --accounts");
  app.footer(
      "Exit status: 0 every camera is registered at the end, 1 not all, 2 wrong command line, or a file can't be "
      "written.");
}

int load_service(int argc, char** argv) {
  Options options;
  CLI::App app("Cameras by the thousand against a service: the real protocol with the daemon's waits.", "skyport-load");
  add_options(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    return refuse(fmt::format("{}; --help lists the options", error.what()));
  }
  load::Plan plan;
  plan.speed = options.speed;
  plan.once = options.for_s <= 0;
  if (!read_endpoint(options.service, plan.service)) return refuse("--service is not ADDR:PORT with a dotted address");
  if (!is_plain(options.prefix, ":\"\\<>&,")) return refuse("--prefix is not letters, digits and hyphens");
  if (!is_plain(options.password, "")) return refuse("--password is empty, or holds blanks or control characters");
  if (options.accounts) {
    for (unsigned i = 0; i < options.cameras; ++i) fmt::print("{}:{}\n", hid_of(options, i), options.password);
    return is_written(stdout) ? 0 : refuse("standard output can't be written");
  }
  plan.reached = {"127.0.0.1", 0};
  if (options.reached.empty() ? (plan.reached.port = be_reached()) == 0 : !read_endpoint(options.reached, plan.reached))
    return refuse(options.reached.empty() ? "no port to be reached at can be had; name another place by --reached"
                                          : "--reached is not ADDR:PORT with a dotted address");
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> csv(
      options.csv.empty() ? nullptr : std::fopen(options.csv.c_str(), "we"),
      [](std::FILE* file) { return std::fclose(file); });
  if (!options.csv.empty() && !csv)
    return refuse(fmt::format("{} can't be written; name another by --csv", options.csv));
  rlimit files{};
  if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }
  for (const int number : end_signals) std::signal(number, [](int) { interrupted = 1; });
  const int status = run(options, plan, csv.get());
  if (csv && !is_written(csv.get())) return refuse(fmt::format("{} can't be written to its end", options.csv));
  return is_written(stdout) ? status : refuse("standard output can't be written");
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return load_service(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "skyport-load: %s\n", error.what());
    return usage_error;
  }
}
