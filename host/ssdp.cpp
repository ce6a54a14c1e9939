// The search for gateways, see ssdp.h.
#include "ssdp.h"

#include <arpa/inet.h>
#include <strings.h>
#include <sys/socket.h>

#include <array>

namespace host {

namespace {

// Both generations of gateways, and the connection services for those that name only these.
constexpr std::array<const char*, 5> search_targets{
    "urn:schemas-upnp-org:device:InternetGatewayDevice:1", "urn:schemas-upnp-org:device:InternetGatewayDevice:2",
    "urn:schemas-upnp-org:service:WANIPConnection:1",      "urn:schemas-upnp-org:service:WANIPConnection:2",
    "urn:schemas-upnp-org:service:WANPPPConnection:1",
};
constexpr int multicast_ttl = 2;
constexpr std::size_t max_location_len = 512;  // bytes

int open_socket(const Interface& on) {
  Descriptor fd(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) return -1;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = on.ip;
  ip_mreqn multicast{};
  multicast.imr_address.s_addr = on.ip;
  multicast.imr_ifindex = static_cast<int>(on.index);
  // The address names the interface to the kernel as well; some emulators do not know the option.
  static_cast<void>(setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_IF, &multicast, sizeof(multicast)));
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0 ||
      setsockopt(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL, &multicast_ttl, sizeof(multicast_ttl)) != 0) {
    return -1;
  }
  return fd.release();
}

/// Cuts the first line off the text.
std::string_view take_line(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

}  // namespace

std::string location_in(std::string_view datagram) {
  constexpr std::string_view field = "LOCATION:";
  const std::string_view status = take_line(datagram);
  if (!status.starts_with("HTTP/1.") || status.find(" 200") == std::string_view::npos) return {};
  while (!datagram.empty()) {
    std::string_view line = take_line(datagram);
    if (line.size() < field.size() || strncasecmp(line.data(), field.data(), field.size()) != 0) continue;
    line.remove_prefix(field.size());
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    line = line.substr(0, line.find_last_not_of(" \t") + 1);
    return line.size() > max_location_len ? std::string() : std::string(line);
  }
  return {};
}

SsdpSearch::SsdpSearch(const Interface& on, const sockaddr_in& target) : fd_(open_socket(on)), target_(target) {}

void SsdpSearch::ask() const {
  char address[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &target_.sin_addr, address, sizeof(address));
  for (const char* what : search_targets) {
    const std::string request = std::string("M-SEARCH * HTTP/1.1\r\nHOST: ") + address + ":" +
                                std::to_string(ntohs(target_.sin_port)) +
                                "\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\nST: " + what + "\r\n\r\n";
    sendto(fd_.get(), request.data(), request.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&target_),
           sizeof(target_));
  }
}

std::optional<SsdpAnswer> SsdpSearch::take() const {
  char datagram[2048];
  sockaddr_in sender{};
  socklen_t len = sizeof(sender);
  const ssize_t n = recvfrom(fd_.get(), datagram, sizeof(datagram), 0, reinterpret_cast<sockaddr*>(&sender), &len);
  if (n < 0) return std::nullopt;
  return SsdpAnswer{location_in({datagram, static_cast<std::size_t>(n)}), sender.sin_addr.s_addr};
}

}  // namespace host
