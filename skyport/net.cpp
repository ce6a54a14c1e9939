#include "net.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace skyport {
namespace {

constexpr int backlog = 4096;  // a power cut brings all cameras at once
constexpr int send_stall_ms = 30000;

std::string error_text(int error) {
  return std::generic_category().message(error);
}

sockaddr_in to_sockaddr(const Endpoint& endpoint) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(endpoint.port);
  inet_pton(AF_INET, endpoint.address.c_str(), &address.sin_addr);
  return address;
}

/// What poll found on `fd` within the time: its events, 0 for none, -1 for a stop.
int poll_or_stop(int stop_fd, int fd, short events, int64_t timeout_ms) {
  const int64_t end = steady_ms() + timeout_ms;
  for (;;) {
    std::array<pollfd, 2> fds{{{stop_fd, POLLIN, 0}, {fd, events, 0}}};
    const int64_t left = end - steady_ms();
    const int ready = poll(fds.data(), fds.size(), static_cast<int>(left > 0 ? left : 0));
    if (ready < 0 && errno == EINTR) continue;
    if (ready < 0 || fds[0].revents != 0) return -1;
    return ready == 0 ? 0 : fds[1].revents;
  }
}

}  // namespace

int64_t wall_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

int64_t steady_ms() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string iso_time(int64_t wall) {
  const std::time_t seconds = wall / 1000;
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  std::array<char, 32> date{};
  const size_t length = std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  std::array<char, 8> fraction{};
  std::snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(wall % 1000));
  return std::string(date.data(), length) + fraction.data();
}

bool parse_number(std::string_view text, uint64_t most, uint64_t& out) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), out);
  return error == std::errc() && end == text.data() + text.size() && out <= most;
}

bool is_ipv4(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1;
}

bool parse_endpoint(std::string_view text, Endpoint& out) {
  const size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return false;
  out.address = text.substr(0, colon);
  uint64_t port = 0;
  if (!is_ipv4(out.address) || !parse_number(text.substr(colon + 1), UINT16_MAX, port)) return false;
  out.port = static_cast<uint16_t>(port);
  return true;
}

int listen_on(Endpoint& endpoint, std::string& error) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  sockaddr_in address = to_sockaddr(endpoint);
  socklen_t length = sizeof address;
  // Lets a restarted service have its port while old connections are in TIME_WAIT.
  if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (fd < 0 || bind(fd, generic, length) != 0 || listen(fd, backlog) != 0 || getsockname(fd, generic, &length) != 0) {
    error = error_text(errno);
    if (fd >= 0) close(fd);
    return -1;
  }
  endpoint.port = ntohs(address.sin_port);
  return fd;
}

bool pause_for(int stop_fd, int peer, double seconds) {
  return poll_or_stop(stop_fd, peer, POLLRDHUP, std::llround(seconds * 1000)) == 0;
}

bool send_all(int fd, std::string_view bytes, int stop_fd) {
  while (!bytes.empty()) {
    const ssize_t sent = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent >= 0) {
      bytes.remove_prefix(static_cast<size_t>(sent));
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (poll_or_stop(stop_fd, fd, POLLOUT, send_stall_ms) <= 0) return false;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

ConnectResult try_connect(const Endpoint& endpoint, double timeout_s, int stop_fd) {
  ConnectResult result;
  const int64_t start = steady_ms();
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const sockaddr_in address = to_sockaddr(endpoint);
  int error = 0;
  if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) error = errno;
  if (error == EINPROGRESS) {
    const int events = poll_or_stop(stop_fd, fd, POLLOUT, std::llround(timeout_s * 1000));
    socklen_t length = sizeof error;
    if (events < 0)
      error = ECANCELED;
    else if (events == 0)
      error = ETIMEDOUT;
    else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
      error = errno;
  }
  if (fd >= 0) close(fd);
  result.took_ms = steady_ms() - start;
  result.connected = error == 0;
  if (error != 0) result.error = error_text(error);
  return result;
}

}  // namespace skyport
