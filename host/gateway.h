// An Internet Gateway Device: what it says about itself, and the search for one.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "abi.h"
#include "deadline.h"
#include "interfaces.h"

namespace host {

/// A service that keeps port mappings.
struct ConnectionService {
  std::string type;         // urn:schemas-upnp-org:service:WANIPConnection:1 and the like
  std::string control_url;  // absolute, on the camera's network
};

struct Gateway {
  MupnpIgd texts{};
  std::vector<ConnectionService> services;  // those the camera may use, in the order of the description
  std::string interface;                    // where it was found
};

/// Reads a description that was loaded from `location`. A gateway without services is none to use.
Gateway parse_description(const std::string& xml, const std::string& location, const Interface& on);

/// Searches the interface's network. Ends as soon as a usable gateway has answered; nothing when none
/// has by the deadline.
std::optional<Gateway> find_gateway(const Settings& settings, const Interface& on, const Deadline& deadline);

}  // namespace host
