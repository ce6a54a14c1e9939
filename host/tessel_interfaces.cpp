// libtessel: the interfaces in the platform's records.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <limits>
#include <vector>

#include "abi.h"
#include "interfaces.h"
#include "setting_table.h"

namespace host {

namespace {

void put_address(char (&out)[16], std::uint32_t address) {
  out[0] = '\0';
  const in_addr value{address};
  if (address != 0) inet_ntop(AF_INET, &value, out, sizeof(out));
}

void put_mac(char (&out)[18], const std::uint8_t (&mac)[6]) {
  std::snprintf(out, sizeof(out), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

void fill_binary(IFINFO& out, const Interface& entry) {
  out = {};
  std::copy_n(entry.mac, sizeof(out.mac), out.mac);
  out.ip = entry.ip;
  out.mask = entry.mask;
  out.gateway = entry.gateway;
}

void fill_texts(ACT_IF_INFO& out, const IFINFO& in) {
  put_address(out.ip, in.ip);
  put_mac(out.mac, in.mac);
  put_address(out.mask, in.mask);
  put_address(out.gw, in.gateway);
}

void fill_record(ACT_IF_INFO& out, const Interface& entry) {
  IFINFO binary;
  fill_binary(binary, entry);
  fill_texts(out, binary);
  put_text(out.name, sizeof(out.name), entry.name);
}

/// Fills a record for each interface, and the number of the first.
int fill_records(ACT_IF_INFO* info, int* index, const std::vector<Interface>& list) {
  if (info == nullptr || index == nullptr) return 0;
  *index = 0;
  *info = {};
  const std::size_t count = std::min<std::size_t>(list.size(), TESSEL_MAX_IFACES);
  for (std::size_t i = 0; i < count; ++i) fill_record(info[i], list[i]);
  if (count == 0) return 0;
  *index = static_cast<int>(list.front().index);
  return 1;
}

std::vector<Interface> active_list() {
  const auto settings = current_settings();
  const auto entry = settings ? active_interface(*settings, setting::active_interface) : std::nullopt;
  return entry ? std::vector{*entry} : std::vector<Interface>{};
}

std::vector<Interface> present_list() {
  const auto settings = current_settings();
  return settings ? preferred_interfaces(*settings) : std::vector<Interface>{};
}

const IF_METRIC* metrics_of(const std::vector<Interface>& list, int* count) {
  thread_local std::vector<IF_METRIC> entries;
  entries.assign(list.size(), IF_METRIC{});
  for (std::size_t i = 0; i < list.size(); ++i) {
    entries[i].metric = list[i].default_route.value_or(std::numeric_limits<int>::max());
    put_text(entries[i].name, sizeof(entries[i].name), list[i].name);
  }
  *count = static_cast<int>(entries.size());
  return entries.empty() ? nullptr : entries.data();
}

int fill_named(const char* name, IFINFO* out) {
  const auto settings = current_settings();
  if (!settings || name == nullptr || out == nullptr) return 0;
  const std::vector<Interface> all = list_interfaces(*settings);
  const auto entry = std::ranges::find(all, name, &Interface::name);
  if (entry == all.end()) return 0;
  fill_binary(*out, *entry);
  return entry->up ? 1 : 0;
}

}  // namespace

}  // namespace host

extern "C" {

int tessel_get_active_iface(ACT_IF_INFO* info, int* index) {
  return host::guarded(0, [&] { return host::fill_records(info, index, host::active_list()); });
}

int tessel_get_present_iface(ACT_IF_INFO* info, int* index) {
  return host::guarded(0, [&] { return host::fill_records(info, index, host::present_list()); });
}

const IF_METRIC* dev_get_if_metric(int* count) {
  if (count == nullptr) return nullptr;
  *count = 0;
  return host::guarded<>(static_cast<const IF_METRIC*>(nullptr),
                         [&] { return host::metrics_of(host::present_list(), count); });
}

int get_active_interface(const char* name, IFINFO* out) {
  return host::guarded(0, [&] { return host::fill_named(name, out); });
}

int fillActIfInfo(ACT_IF_INFO* out, IFINFO* in) {
  if (out == nullptr || in == nullptr) return 0;
  host::fill_texts(*out, *in);
  return 1;
}

int tessel_get_mac3(char* text, unsigned int size) {
  return host::guarded(0, [&] {
    constexpr std::size_t mac3_size = 7;
    const auto settings = host::current_settings();
    if (!settings || text == nullptr || size < mac3_size) return 0;
    std::uint8_t mac[6];
    host::camera_mac(*settings, mac);
    std::snprintf(text, mac3_size, "%02X%02X%02X", mac[3], mac[4], mac[5]);
    return 1;
  });
}

}  // extern "C"
