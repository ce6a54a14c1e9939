// How fast the finder answers a survey over loopback, beside a bare select-recvfrom-sendto loop with
// datagrams of the same sizes. Both run in one process and one run, the log off, so that the ratio
// holds on a noisy machine. Built twice: with getters that answer from memory, and with the host platform.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "finder/finder.h"
#include "finder/packet.h"
#include "finder/record.h"

namespace {

constexpr std::uint16_t bare_port = 62978;
constexpr std::size_t reply_len = kestrel::finder_header_len + kestrel::finder_survey_len;
constexpr double wanted_ratio = 0.7;
constexpr int repetitions = 25;
constexpr double seconds = 0.1;  // for each repetition

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(port);
  return to;
}

/// The least that a server of this kind does.
void serve_bare(int fd, const std::atomic<bool>& run) {
  std::array<std::uint8_t, kestrel::finder_request_len> request{};
  std::array<std::uint8_t, reply_len> reply{};
  while (run.load(std::memory_order_relaxed)) {
    fd_set reads;
    FD_ZERO(&reads);
    FD_SET(fd, &reads);
    timeval limit{0, 200'000};
    if (select(fd + 1, &reads, nullptr, nullptr, &limit) <= 0) continue;
    sockaddr_in peer{};
    socklen_t peer_len = sizeof(peer);
    if (recvfrom(fd, request.data(), request.size(), 0, reinterpret_cast<sockaddr*>(&peer), &peer_len) < 0) continue;
    sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&peer), peer_len);
  }
}

void round_trips(benchmark::State& state, std::uint16_t port) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const timeval limit{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  const sockaddr_in to = loopback(port);
  connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  std::array<std::uint8_t, kestrel::finder_header_len> request{0xFD, 0xFD, 0, 0, 0xA1, 0};
  std::fill_n(request.begin() + kestrel::at_mac, kestrel::finder_mac_len, std::uint8_t{0xFF});
  std::array<std::uint8_t, 1024> reply{};
  for (auto _ : state) {
    send(fd, request.data(), request.size(), 0);
    if (recv(fd, reply.data(), reply.size(), 0) != static_cast<ssize_t>(reply_len)) {
      state.SkipWithError("no survey reply");
      break;
    }
  }
  close(fd);
}

void bare_loop(benchmark::State& state) {
  round_trips(state, bare_port);
}
void finder_survey(benchmark::State& state) {
  round_trips(state, kestrel::finder_port);
}

/// Shows every run and keeps the real times for the verdict.
class Keeper : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && !run.error_occurred) {
        times[run.run_name.function_name].push_back(run.GetAdjustedRealTime());
      }
    }
  }

  double median(const std::string& name) {
    std::vector<double>& all = times[name];
    if (all.empty()) return 0.0;
    std::sort(all.begin(), all.end());
    return all[all.size() / 2];
  }

 private:
  std::map<std::string, std::vector<double>> times;
};

int open_bare_socket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_in at = loopback(bare_port);
  return bind(fd, reinterpret_cast<const sockaddr*>(&at), sizeof(at)) == 0 ? fd : -1;
}

/// Settings for a camera on the loopback interface.
bool write_settings(const std::string& path) {
  std::ofstream file(path);
  file << "[device]\nbrand=Lumen\nproduct=Network Camera\nmodel=LC-1200\ncamera_name=Bench\nfirmware_version=1.2.0\n"
          "oem_version=1.2.0\nspt_version=1.2\nproduct_type=0\nhw_spec=1\ntimezone=0\ndst=0\n"
          "[network]\nhttp_port=80\nhttps=0\ndhcp=1\ninterfaces=lo\nactive_interface=lo\n"
          "[skyport]\nhid=CAM00001\npassword=secret\ndomain=skyport.example.net\nenabled=1\n";
  return file.good();
}

}  // namespace

int main(int argc, char** argv) {
  // The two in turn, so that both see the same weather.
  std::vector<char*> arguments(argv, argv + argc);
  char interleave[] = "--benchmark_enable_random_interleaving=true";
  arguments.insert(arguments.begin() + 1, interleave);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  char directory[] = "/tmp/finder_bench.XXXXXX";
  if (mkdtemp(directory) == nullptr) {
    std::perror("finder_survey_bench: no directory for the settings");
    return 1;
  }
  const std::string settings = std::string(directory) + "/camera.conf";
  setenv("KESTREL_CONF", settings.c_str(), 1);
  const int bare = open_bare_socket();
  static kestrel::DeviceContext context{};
  context.run = 1;
  kestrel::Finderd_CST();
  if (!write_settings(settings) || bare < 0 || kestrel::Finderd_init() == 0) {
    std::fputs("finder_survey_bench: cannot serve on loopback: is a daemon running here?\n", stderr);
    return 1;
  }
  kestrel::Finderd_set_context(&context);
  std::atomic<bool> run{true};
  std::thread bare_server([&] { serve_bare(bare, run); });
  std::thread finder_server(kestrel::Finderd_loop);
  benchmark::RegisterBenchmark("bare_loop", bare_loop)->UseRealTime()->MinTime(seconds)->Repetitions(repetitions);
  benchmark::RegisterBenchmark("finder_survey", finder_survey)
      ->UseRealTime()
      ->MinTime(seconds)
      ->Repetitions(repetitions);
  // A file that has just changed is read anew at every look; a camera's settings are older.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  Keeper keeper;
  benchmark::RunSpecifiedBenchmarks(&keeper);
  kestrel::store_word(context.run, 0U);
  run = false;
  // One more request, so that the finder looks at its flag before its time-out.
  const sockaddr_in to = loopback(kestrel::finder_port);
  sendto(bare, "", 0, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  bare_server.join();
  finder_server.join();
  kestrel::Finderd_DST();
  close(bare);
  std::remove(settings.c_str());
  rmdir(directory);
  const double ratio =
      keeper.median("finder_survey") > 0 ? keeper.median("bare_loop") / keeper.median("finder_survey") : 0;
  std::printf("replies per second, finder to bare loop: %.2f (wanted: at least %.2f)\n", ratio, wanted_ratio);
  return ratio >= wanted_ratio ? 0 : 1;
}
