// How fast the finder answers surveys over loopback, 32 of them outstanding, beside a bare select-recvfrom-sendto loop
// with datagrams of the same sizes. Both run in one process and one run, the log off, so that the ratio holds on a
// noisy machine. Built twice: with getters that answer from memory, and with the host platform.
//
// usage: finder_survey_bench [--serve]   --serve: only answers, until standard input ends; for counting
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
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
#include <ctime>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "finder/finder.h"
#include "finder/packet.h"
#include "finder/record.h"

namespace {

constexpr std::uint16_t bare_port = 62978;
constexpr std::size_t reply_len = kestrel::finder_header_len + kestrel::finder_survey_len;
constexpr int outstanding = 32;
constexpr int rounds = 51;
constexpr int round_len = 2000;  // replies

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

/// Seconds of a clock.
double seconds_of(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

/// A server: where it is asked, its thread's clock, and what each round took, in seconds of the wall and of its
/// processor.
struct Served {
  std::uint16_t port;
  clockid_t clock;
  std::vector<double> wall, processor;
};

/// One round: so many requests, `outstanding` of them under way. False when an answer fails to come.
bool ask(Served& server) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const timeval limit{2, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
  const sockaddr_in to = loopback(server.port);
  connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  std::array<std::uint8_t, kestrel::finder_header_len> request{0xFD, 0xFD, 0, 0, 0xA1, 0};
  std::fill_n(request.begin() + kestrel::at_mac, kestrel::finder_mac_len, std::uint8_t{0xFF});
  std::array<std::uint8_t, 1024> reply{};
  const double wall = seconds_of(CLOCK_MONOTONIC), processor = seconds_of(server.clock);
  int sent = 0, answered = 0;
  for (; answered < round_len; ++answered) {
    for (; sent < round_len && sent - answered < outstanding; ++sent) send(fd, request.data(), request.size(), 0);
    if (recv(fd, reply.data(), reply.size(), 0) != static_cast<ssize_t>(reply_len)) break;
  }
  server.wall.push_back(seconds_of(CLOCK_MONOTONIC) - wall);
  server.processor.push_back(seconds_of(server.clock) - processor);
  close(fd);
  return answered == round_len;
}

double median(std::vector<double> all) {
  std::sort(all.begin(), all.end());
  return all[all.size() / 2];
}

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
  const bool only_serve = argc == 2 && std::strcmp(argv[1], "--serve") == 0;
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
  // A file that has just changed is read anew at every look; a camera's settings are older.
  std::this_thread::sleep_for(std::chrono::seconds(3));
  Served loop{bare_port, 0, {}, {}}, finder{kestrel::finder_port, 0, {}, {}};
  pthread_getcpuclockid(bare_server.native_handle(), &loop.clock);
  pthread_getcpuclockid(finder_server.native_handle(), &finder.clock);
  bool answered = true;
  if (only_serve) {
    while (std::getchar() != EOF) continue;
  } else {
    // The two in turn, so that both see the same weather.
    for (int i = 0; answered && i < rounds; ++i) answered = ask(loop) && ask(finder);
  }
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
  if (only_serve) return 0;
  if (!answered) {
    std::fputs("finder_survey_bench: no survey reply\n", stderr);
    return 1;
  }
  std::printf("%.3f of the bare loop's replies for a second of the processor, %.3f for one of the wall\n",
              median(loop.processor) / median(finder.processor), median(loop.wall) / median(finder.wall));
  return 0;
}
