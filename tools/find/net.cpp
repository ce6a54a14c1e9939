// Sockets of the finder tool. Nothing here knows what the operations mean.
#include "net.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <span>
#include <utility>

namespace finder {
namespace {

// Hundreds of cameras answer a broadcast in the same millisecond, each twice. The kernel cuts this to its own limit.
constexpr int receive_buffer_len = 4 << 20;

volatile std::sig_atomic_t g_interrupted = 0;

in_addr host_order(std::uint32_t address) {
  return {htonl(address)};
}

// The socket isn't bound to the device, only to its address: a camera program on this very machine
// answers over loopback, which a bound socket would not hear. IP_UNICAST_IF sends the limited
// broadcast out by this interface whatever the routes say, and needs no privilege.
int open_socket(const char* interface, in_addr own) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  const int on = 1;
  const std::uint32_t index = htonl(if_nametoindex(interface));
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr = own;
  if (setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
      setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer_len, sizeof receive_buffer_len) != 0 ||
      setsockopt(fd, IPPROTO_IP, IP_UNICAST_IF, &index, sizeof index) != 0 ||
      bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
    const int error = errno;
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

bool usable(const ifaddrs& i, bool named) {
  if (i.ifa_addr == nullptr || i.ifa_addr->sa_family != AF_INET || (i.ifa_flags & IFF_UP) == 0) return false;
  return (i.ifa_flags & IFF_BROADCAST) != 0 || (named && (i.ifa_flags & IFF_LOOPBACK) != 0);
}

in_addr address_of(const ifaddrs& i) {
  sockaddr_in address{};
  std::memcpy(&address, i.ifa_addr, sizeof address);
  return address.sin_addr;
}

enum class Received { nothing, noise, reply };

Received receive(const Port& port, Answer& answer) {
  std::array<std::uint8_t, 2048> buffer;  // a longer datagram is cut, and its length is then wrong
  sockaddr_in from{};
  socklen_t size = sizeof from;
  const ssize_t n =
      recvfrom(port.fd, buffer.data(), buffer.size(), MSG_TRUNC, reinterpret_cast<sockaddr*>(&from), &size);
  if (n < 0) return Received::nothing;
  if (static_cast<std::size_t>(n) > buffer.size()) return Received::noise;
  auto reply = decode(std::span(buffer).first(static_cast<std::size_t>(n)));
  if (!reply) return Received::noise;
  answer = {std::move(*reply), from.sin_addr, &port};
  return Received::reply;
}

// Takes a bounded number of datagrams that wait on a port, so that a flood ends no later than silence does.
bool take_all(const Port& port, const std::function<bool(const Answer&)>& take) {
  constexpr int max_turn = 1000;
  Answer answer;
  for (int i = 0; i < max_turn; ++i) {
    const Received received = receive(port, answer);
    if (received == Received::nothing) return false;
    if (received == Received::reply && take(answer)) return true;
  }
  return false;
}

int milliseconds_until(Clock::time_point when) {
  const auto left = std::chrono::ceil<Milliseconds>(when - Clock::now()).count();
  return static_cast<int>(std::clamp<std::int64_t>(left, 0, 60'000));
}

}  // namespace

Port::Port(int descriptor, std::string name, in_addr everyone)
    : fd(descriptor), interface(std::move(name)), broadcast(everyone) {}

Port::Port(Port&& other) noexcept
    : fd(std::exchange(other.fd, -1)), interface(std::move(other.interface)), broadcast(other.broadcast) {}

Port::~Port() {
  if (fd >= 0) close(fd);
}

bool Port::send(in_addr to, const std::vector<std::uint8_t>& datagram) const {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(finder_port);
  peer.sin_addr = to;
  const ssize_t n =
      sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&peer), sizeof peer);
  return n == static_cast<ssize_t>(datagram.size());
}

std::vector<Port> open_ports(const std::vector<std::string>& names, std::string& error) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    error = std::string("the interfaces can't be listed: ") + std::strerror(errno);
    return {};
  }
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
  std::vector<Port> ports;
  for (const ifaddrs* i = list; i != nullptr; i = i->ifa_next) {
    const bool named = std::ranges::find(names, i->ifa_name) != names.end();
    if (!usable(*i, named) || (!named && !names.empty())) continue;
    if (std::ranges::find(ports, i->ifa_name, &Port::interface) != ports.end()) continue;
    const bool loopback = (i->ifa_flags & IFF_LOOPBACK) != 0;
    const int fd = open_socket(i->ifa_name, address_of(*i));
    if (fd < 0) {
      error = std::string("no socket on ") + i->ifa_name + ": " + std::strerror(errno);
      return {};
    }
    ports.emplace_back(fd, i->ifa_name, host_order(loopback ? 0x7FFFFFFF : INADDR_BROADCAST));
  }
  for (const std::string& name : names) {
    if (std::ranges::find(ports, name, &Port::interface) != ports.end()) continue;
    error = "interface " + name + " is not there, not up, can't broadcast or has no IPv4 address";
    return {};
  }
  if (ports.empty()) error = "no interface is up with an IPv4 address and broadcast; name one with --interface";
  return ports;
}

bool exchange(const std::vector<Port>& ports, Milliseconds time, int attempts, const std::function<void(int)>& send,
              const std::function<bool(const Answer&)>& take) {
  std::vector<pollfd> set;
  set.reserve(ports.size());
  for (const Port& port : ports) set.push_back({port.fd, POLLIN, 0});
  const Clock::time_point start = Clock::now();
  for (int attempt = 0; attempt < attempts; ++attempt) {
    send(attempt);
    const Clock::time_point until = start + time * (attempt + 1) / attempts;
    do {
      if (interrupted()) return false;
      if (poll(set.data(), set.size(), milliseconds_until(until)) <= 0) continue;
      for (std::size_t i = 0; i < set.size(); ++i) {
        if (set[i].revents != 0 && take_all(ports[i], take)) return true;
      }
    } while (Clock::now() < until);
  }
  return false;
}

void catch_interrupts() {
  struct sigaction action {};
  action.sa_handler = [](int) { g_interrupted = 1; };
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // a second one ends the program at once
  for (const int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

bool interrupted() {
  return g_interrupted != 0;
}

void pause_for(Milliseconds time) {
  const Clock::time_point until = Clock::now() + time;
  while (!interrupted() && Clock::now() < until) poll(nullptr, 0, milliseconds_until(until));
}

}  // namespace finder
