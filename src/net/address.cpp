// Addresses, see address.h.
#include "net/address.h"

#include <arpa/inet.h>

#include <array>
#include <cstdint>

#include "core/device_context.h"
#include "core/text.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

struct PrivateRange {
  const char* first;
  const char* last;
};

constexpr std::array<PrivateRange, 3> private_ranges = {{
    {"10.0.0.0", "10.255.255.255"},
    {"172.16.0.0", "172.31.255.255"},
    {"192.168.0.0", "192.168.255.255"},
}};

constexpr std::size_t mac3_len = 7;  // six characters and the terminator

std::uint32_t host_order(const char* ip) {
  return ntohl(inet_addr(ip));
}

}  // namespace

int is_private_ip(const char* ip) {
  const std::uint32_t address = host_order(ip);
  for (const PrivateRange& range : private_ranges) {
    if (address >= host_order(range.first) && address <= host_order(range.last)) return 1;
  }
  return 0;
}

int make_uid(char* uid, int size) {
  if (size < 1) return 0;
  char model[64] = "";
  char mac3[mac3_len] = "";
  if (dev_get_model_name(model, sizeof(model)) == 0 || tessel_get_mac3(mac3, sizeof(mac3)) == 0) return 0;
  terminate(model);
  terminate(mac3);
  constexpr int model_room = static_cast<int>(uid_len - 1 - mac3_len);
  format_text(uid, uid_len, "%.*s_%s", model_room, model, mac3);
  return 1;
}

}  // namespace kestrel
