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
  std::uint32_t first;  // host byte order
  std::uint32_t last;
};

/// A dotted text as a number, read by the compiler.
consteval std::uint32_t number_of(const char* dotted) {
  std::uint32_t above = 0;
  std::uint32_t byte = 0;
  for (; *dotted != '\0'; ++dotted) {
    if (*dotted == '.') above = (above | byte) << 8;
    byte = *dotted == '.' ? 0 : 10 * byte + static_cast<std::uint32_t>(*dotted - '0');
  }
  return above | byte;
}

constexpr std::array<PrivateRange, 3> private_ranges = {{
    {number_of("10.0.0.0"), number_of("10.255.255.255")},
    {number_of("172.16.0.0"), number_of("172.31.255.255")},
    {number_of("192.168.0.0"), number_of("192.168.255.255")},
}};
static_assert(private_ranges[1].last == 0xAC1FFFFF);

constexpr std::size_t mac3_len = 7;  // six characters and the terminator

}  // namespace

int is_private_ip(const char* ip) {
  const std::uint32_t address = ntohl(inet_addr(ip));
  for (const PrivateRange& range : private_ranges) {
    if (address >= range.first && address <= range.last) return 1;
  }
  return 0;
}

void terminate_texts(ACT_IF_INFO& info) {
  terminate(info.ip);
  terminate(info.mac);
  terminate(info.mask);
  terminate(info.gw);
  terminate(info.name);
}

int first_iface(int (*get)(ACT_IF_INFO* info, int* index), ACT_IF_INFO& out) {
  ACT_IF_INFO all[TESSEL_MAX_IFACES] = {};
  int index = 0;
  get(all, &index);
  out = all[0];
  terminate_texts(out);
  return index;
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
