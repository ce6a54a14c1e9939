// Addresses, see address.h.
#include "net/address.h"

#include <arpa/inet.h>

#include <cstdint>

#include "core/device_context.h"
#include "core/text.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

constexpr struct {
  char first[ip_len];
  char last[ip_len];
} private_ranges[] = {
    {"10.0.0.0", "10.255.255.255"},
    {"172.16.0.0", "172.31.255.255"},
    {"192.168.0.0", "192.168.255.255"},
};

/// A dotted text as a number; of a text that is none all ones.
std::uint32_t number_of(const char* dotted) {
  return ntohl(inet_addr(dotted));
}

constexpr int mac3_len = 6;

}  // namespace

int is_private_ip(const char* ip) {
  const std::uint32_t address = number_of(ip);
  for (const auto& range : private_ranges) {
    if (address >= number_of(range.first) && address <= number_of(range.last)) return 1;
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
  char mac3[mac3_len + 1] = "";
  if (dev_get_model_name(model, sizeof(model)) == 0 || tessel_get_mac3(mac3, sizeof(mac3)) == 0) return 0;
  constexpr int model_room = static_cast<int>(uid_len - sizeof("_") - mac3_len);
  format_text(uid, uid_len, "%.*s_%.*s", model_room, model, mac3_len, mac3);  // whether they are terminated or not
  return 1;
}

}  // namespace kestrel
