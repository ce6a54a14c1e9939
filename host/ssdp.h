// The search for gateways on the LAN (SSDP).
#pragma once

#include <netinet/in.h>

#include <optional>
#include <string>
#include <string_view>

#include "atomic_file.h"
#include "interfaces.h"

namespace host {

/// An answer to the search: where the device's description is, and who says so.
struct SsdpAnswer {
  std::string location;
  std::uint32_t sender = 0;  // network byte order
};

/// A socket for the search on one interface.
class SsdpSearch {
 public:
  /// Searches at `target`, the multicast group as a rule.
  SsdpSearch(const Interface& on, const sockaddr_in& target);

  /// The socket; negative when it could not be made.
  [[nodiscard]] int socket() const { return fd_.get(); }

  /// Asks once for every kind of gateway. Datagrams get lost: ask again while nobody answers.
  void ask() const;

  /// Takes one datagram that waits; nothing when none does. An empty location when it is no answer.
  [[nodiscard]] std::optional<SsdpAnswer> take() const;

 private:
  Descriptor fd_;
  sockaddr_in target_;
};

/// The location in an answer to a search; empty when the datagram is no such answer.
std::string location_in(std::string_view datagram);

}  // namespace host
