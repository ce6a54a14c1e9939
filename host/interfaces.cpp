// The machine's IPv4 interfaces, see interfaces.h.
#include "interfaces.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <net/route.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <tuple>

#include "setting_table.h"

namespace host {

namespace {

constexpr std::size_t mac_len = 6;

Interface& entry_of(std::vector<Interface>& list, std::string_view label) {
  const std::string name(label.substr(0, label.find(':')));  // "eth0:1" is an address of eth0
  const auto found = std::ranges::find(list, name, &Interface::name);
  if (found != list.end()) return *found;
  list.push_back({});
  list.back().name = name;
  return list.back();
}

void take_address(Interface& entry, const ifaddrs& record) {
  if (record.ifa_addr->sa_family == AF_PACKET) {
    sockaddr_ll link{};
    std::memcpy(&link, record.ifa_addr, sizeof(link));
    entry.index = static_cast<unsigned>(link.sll_ifindex);
    if (link.sll_halen == mac_len) std::memcpy(entry.mac, link.sll_addr, mac_len);
  }
  if (record.ifa_addr->sa_family == AF_INET && entry.ip == 0) {
    sockaddr_in address{};
    std::memcpy(&address, record.ifa_addr, sizeof(address));
    entry.ip = address.sin_addr.s_addr;
    if (record.ifa_netmask == nullptr) return;
    std::memcpy(&address, record.ifa_netmask, sizeof(address));
    entry.mask = address.sin_addr.s_addr;
  }
}

struct Route {
  char interface[IFNAMSIZ];
  unsigned destination, gateway, flags, mask;
  int metric;
};

/// The kernel's routing table prints addresses as the number that in_addr holds.
bool parse_route(const char* line, Route& route) {
  return std::sscanf(line, "%15s %x %x %x %*d %*d %d %x", route.interface, &route.destination, &route.gateway,
                     &route.flags, &route.metric, &route.mask) == 6;
}

void take_default_routes(std::vector<Interface>& list) {
  const std::unique_ptr<std::FILE, decltype(&std::fclose)> file(std::fopen("/proc/net/route", "re"), std::fclose);
  char line[256];
  Route route{};
  while (file && std::fgets(line, sizeof(line), file.get()) != nullptr) {
    if (!parse_route(line, route) || route.destination != 0 || route.mask != 0 || (route.flags & RTF_UP) == 0) continue;
    const auto entry = std::ranges::find(list, route.interface, &Interface::name);
    if (entry == list.end() || (entry->default_route && *entry->default_route <= route.metric)) continue;
    entry->default_route = route.metric;
    entry->gateway = route.gateway;
  }
}

void override_macs(std::vector<Interface>& list, const Settings& settings) {
  const auto text = text_of(settings, setting::mac);
  if (!text || text->empty()) return;
  std::uint8_t mac[mac_len];
  for (std::size_t i = 0; i < mac_len; ++i) {
    std::from_chars(text->data() + 3 * i, text->data() + 3 * i + 2, mac[i], 16);
  }
  for (Interface& entry : list) std::memcpy(entry.mac, mac, mac_len);
}

bool is_usable(const Interface& entry) {
  return entry.up && entry.ip != 0;
}

const Interface* find(const std::vector<Interface>& list, std::string_view name) {
  const auto found = std::ranges::find(list, name, &Interface::name);
  return found == list.end() ? nullptr : &*found;
}

/// Those that are up and have an address: not loopback, or loopback when there is no other; with a
/// default route first.
std::vector<Interface> ranked_interfaces(const std::vector<Interface>& all) {
  std::vector<Interface> list;
  for (const bool loopback : {false, true}) {
    if (!list.empty()) break;
    std::ranges::copy_if(all, std::back_inserter(list),
                         [&](const Interface& entry) { return entry.loopback == loopback && is_usable(entry); });
  }
  std::ranges::stable_sort(
      list, {}, [](const Interface& entry) { return entry.default_route.value_or(std::numeric_limits<int>::max()); });
  return list;
}

std::vector<Interface> named_interfaces(const std::vector<Interface>& all, const Settings& settings,
                                        std::string_view names) {
  std::vector<Interface> list;
  while (!names.empty()) {
    const std::size_t end = std::min(names.find(';'), names.size());
    const std::string_view name = names.substr(0, end);
    names.remove_prefix(std::min(end + 1, names.size()));
    if (name.empty()) continue;
    const Interface* entry = find(all, name);
    if (entry != nullptr) {
      list.push_back(*entry);
    } else {
      complain(settings.path, setting::interfaces.group, setting::interfaces.key,
               std::string("names \"").append(name) + "\", but there is no such interface");
    }
  }
  return list;
}

bool has_mac(const Interface& entry) {
  return std::ranges::any_of(entry.mac, [](std::uint8_t byte) { return byte != 0; });
}

}  // namespace

std::vector<Interface> list_interfaces(const Settings& settings) {
  ifaddrs* records = nullptr;
  if (getifaddrs(&records) != 0) return {};
  const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(records, freeifaddrs);
  std::vector<Interface> list;
  for (const ifaddrs* record = records; record != nullptr; record = record->ifa_next) {
    Interface& entry = entry_of(list, record->ifa_name);
    entry.up = (record->ifa_flags & IFF_UP) != 0;
    entry.loopback = (record->ifa_flags & IFF_LOOPBACK) != 0;
    if (record->ifa_addr != nullptr) take_address(entry, *record);
  }
  for (Interface& entry : list) {
    if (entry.index == 0) entry.index = if_nametoindex(entry.name.c_str());
  }
  std::ranges::sort(list, {}, &Interface::index);
  take_default_routes(list);
  override_macs(list, settings);
  return list;
}

std::vector<Interface> preferred_interfaces(const Settings& settings) {
  const std::vector<Interface> all = list_interfaces(settings);
  const auto names = text_of(settings, setting::interfaces);
  return names && !names->empty() ? named_interfaces(all, settings, *names) : ranked_interfaces(all);
}

std::optional<Interface> active_interface(const Settings& settings, const TextSetting& setting) {
  const auto name = text_of(settings, setting);
  if (!name) return std::nullopt;
  if (!name->empty()) {
    const std::vector<Interface> all = list_interfaces(settings);
    const Interface* entry = find(all, *name);
    if (entry == nullptr) {
      complain(settings.path, setting.group, setting.key, "\"" + *name + "\" is not an interface of this machine");
      return std::nullopt;
    }
    return is_usable(*entry) ? std::optional(*entry) : std::nullopt;
  }
  const std::vector<Interface> list = ranked_interfaces(list_interfaces(settings));
  return list.empty() ? std::nullopt : std::optional(list.front());
}

void camera_mac(const Settings& settings, std::uint8_t (&mac)[mac_len]) {
  const std::vector<Interface> all = list_interfaces(settings);
  const auto name = text_of(settings, setting::active_interface);
  const Interface* chosen = name ? find(all, *name) : nullptr;
  for (const Interface& entry : all) {
    if (chosen == nullptr && has_mac(entry) && !entry.loopback) chosen = &entry;
  }
  if (chosen == nullptr && !all.empty()) chosen = &all.front();
  std::memset(mac, 0, mac_len);
  if (chosen != nullptr) std::memcpy(mac, chosen->mac, mac_len);
}

}  // namespace host
