// What the status port tells, as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "requests.h"

namespace skyport {

using Json = nlohmann::ordered_json;

/// As text on one line. Texts of the wire may hold any bytes; those that are not UTF-8 become U+FFFD.
std::string json_text(const Json& json);

Json device_json(const Service& service, const Device& device);
Json exchange_json(const Service& service, const Exchange& exchange);

}  // namespace skyport
