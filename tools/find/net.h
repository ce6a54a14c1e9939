// Datagrams to and from cameras: one socket per interface, repeated sends, replies until a deadline.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "wire.h"

namespace finder {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

/// A socket on an interface; closed with the object.
class Port {
 public:
  Port(int fd, std::string interface, in_addr broadcast);
  Port(Port&& other) noexcept;
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;
  Port& operator=(Port&&) = delete;
  ~Port();

  /// False, with errno, when the datagram could not be handed to the interface.
  [[nodiscard]] bool send(in_addr to, const std::vector<std::uint8_t>& datagram) const;

  int fd;
  std::string interface;
  in_addr broadcast;  // where a datagram for every camera goes
};

/// A decoded reply with the camera's address on the wire and the interface that it came in by.
struct Answer {
  Reply reply;
  in_addr from{};
  const Port* port = nullptr;
};

/// Opens a socket on each of the named interfaces, or on every interface that is up, can broadcast
/// and has an IPv4 address when no name is given. Loopback is used only when named.
/// On failure the list is empty and `error` holds a sentence.
std::vector<Port> open_ports(const std::vector<std::string>& names, std::string& error);

/// Calls `send(attempt)` for attempts 0..attempts-1, spread evenly over the time (one that fails is
/// simply repeated with the next), and `take` with each reply; `take` ends the exchange by
/// returning true. Returns whether it did; false also once `interrupted()` is true.
bool exchange(const std::vector<Port>& ports, Milliseconds time, int attempts, const std::function<void(int)>& send,
              const std::function<bool(const Answer&)>& take);

/// Lets SIGINT and SIGTERM end an exchange and a pause early, so that the caller can leave in order.
void catch_interrupts();
[[nodiscard]] bool interrupted();

/// Waits, but not longer than to the next interrupt.
void pause_for(Milliseconds time);

}  // namespace finder
