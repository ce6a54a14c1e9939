// The machine's IPv4 interfaces as the kernel tells them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "settings.h"

namespace host {

struct Interface {
  std::string name;
  unsigned index = 0;  // the kernel's, from 1
  bool up = false;
  bool loopback = false;
  std::uint8_t mac[6] = {};
  std::uint32_t ip = 0;  // the first address; this and the next two in network byte order, 0 for none
  std::uint32_t mask = 0;
  std::uint32_t gateway = 0;         // of the default route, when that leads through this interface
  std::optional<int> default_route;  // its metric; the smallest when there are several
};

/// All interfaces, by index. The setting `mac` stands in for every hardware address.
std::vector<Interface> list_interfaces(const Settings& settings);

/// The interfaces that the settings name, or those that are up, not loopback and have an address: with a
/// default route first, by its metric, then by index. Loopback when there is none of them.
std::vector<Interface> preferred_interfaces(const Settings& settings);

/// The interface that carries the camera's traffic: the one named by `setting`, else that of the default
/// route, else the first that works, loopback last. Nothing when it is down or has no address.
std::optional<Interface> active_interface(const Settings& settings, const TextSetting& setting);

/// The camera's hardware address: of the configured active interface, else of the first interface that
/// has one, whether it is up or not, so that the camera keeps its name. All zero when there is none.
void camera_mac(const Settings& settings, std::uint8_t (&mac)[6]);

}  // namespace host
