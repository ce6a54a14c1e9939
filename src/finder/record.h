// The finder's one record: what the loop and the sockets work on. Only the finder thread touches it; the operations
// get what they need by their request.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "core/device_context.h"
#include "finder/packet.h"
#include "platform/tessel.h"

namespace kestrel {

constexpr std::uint32_t finder_port = 62977;
constexpr int finder_max_if = 4;
constexpr int no_socket = -1;

/// The interfaces as the platform gives them.
struct FinderInterfaces {
  std::int32_t iIfNum;  // usable ones
  IFINFO ifinfo[finder_max_if];
  ACT_IF_INFO act_if[finder_max_if];
  ACT_IF_INFO present_if;  // its MAC is the camera's own, "MyMAC"
  ACT_IF_INFO active_if;
  int present_index;  // 0: none
  int active_index;
};

/// The finder record.
struct Finder {
  std::uint32_t port;
  std::uint32_t max_if[2];  // the capacity of the tables of interfaces, told only
  std::uint32_t reserved;
  std::int32_t iReportSocketIndex;           // whose socket the request came by; the reply leaves by it
  std::int32_t fd[finder_max_if];            // a socket an interface, or no_socket
  bool complete;                             // every interface has its socket
  std::uint8_t request[finder_request_len];  // zero behind the received datagram
  sockaddr_in peer;                          // where the last request came from
  FinderInterfaces served;
  FinderAlias alias;
  std::uint64_t checks;  // until when, on the monotonic clock, the checks of passwords that were made are paid for
  DeviceContext* ctx;
};

extern Finder finder;

/// Milliseconds of the monotonic clock.
std::uint64_t finder_now_ms();

/// Fills the interface tables. Returns their number.
int get_ifinfo();

/// Sets the sockets up anew when the interfaces are others than those that are served, or when a socket is
/// missing. What it says is said once for each change.
void refresh_sockets();

struct PeerText {
  char text[ip_len];
};

/// The last request's source as the log shows it; empty while nothing is logged, since that costs time.
PeerText peer_text();

/// Receives and answers one request on the socket of `iReportSocketIndex`.
void Finderd_handle_request();

/// Sends a reply of `len` bytes to the last request's source, without waiting for anything. Returns 1 when it
/// went out whole, else 0.
int Finderd_send(const std::uint8_t* buf, std::uint32_t len);

}  // namespace kestrel
