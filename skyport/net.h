// Sockets and time: listeners, the connection back to a camera, raw sends, and waits that end when
// the service stops.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace skyport {

/// Milliseconds since 1970 (wall clock).
int64_t wall_ms();
/// Milliseconds of a clock that never steps.
int64_t steady_ms();
/// "2024-05-01T12:00:00.123Z".
std::string iso_time(int64_t wall_ms);

/// A dotted IPv4 address and a port.
struct Endpoint {
  std::string address;
  uint16_t port = 0;
};

/// Decimal digits only, at most `most`.
bool parse_number(std::string_view text, uint64_t most, uint64_t& out);
/// True for four decimal numbers of 0 to 255 between dots.
bool is_ipv4(const std::string& text);
/// Reads "ADDR:PORT"; port 0 means any free port.
bool parse_endpoint(std::string_view text, Endpoint& out);

/// A listening TCP socket, or -1 with the reason in `error`. Fills in the port that port 0 became.
int listen_on(Endpoint& endpoint, std::string& error);

/// Sleeps. False as soon as `stop_fd` becomes readable or, when `peer` is not -1, that peer closes.
bool pause_for(int stop_fd, int peer, double seconds);

/// Sends everything on a socket of either blocking mode. False on an error, a stop, or a peer that
/// takes nothing for 30 s.
bool send_all(int fd, std::string_view bytes, int stop_fd);

/// Outcome of one connection attempt; `error` is empty when it was made.
struct ConnectResult {
  bool connected = false;
  int64_t took_ms = 0;
  std::string error;
};

/// Opens a TCP connection and closes it again.
ConnectResult try_connect(const Endpoint& endpoint, double timeout_s, int stop_fd);

}  // namespace skyport
