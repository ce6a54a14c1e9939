// A gateway's description: its texts and the services of its connections, see gateway.h.
#include <algorithm>
#include <array>

#include "gateway.h"
#include "transfer.h"
#include "xml_text.h"

namespace host {

namespace {

constexpr std::array<std::string_view, 4> service_types{
    "urn:schemas-upnp-org:service:WANIPConnection:1",
    "urn:schemas-upnp-org:service:WANIPConnection:2",
    "urn:schemas-upnp-org:service:WANPPPConnection:1",
    "urn:schemas-upnp-org:service:WANPPPConnection:2",
};
constexpr std::size_t max_services = 8;  // a router has one or two

/// The description without the devices inside the root device, whose texts are not the gateway's.
std::string root_device(const std::string& xml) {
  constexpr std::string_view end_tag = "</deviceList>";
  const std::size_t start = xml.find("<deviceList");
  const std::size_t end = xml.rfind(end_tag);
  if (start == std::string::npos) return xml;
  if (end == std::string::npos || end < start) return xml.substr(0, start);
  return xml.substr(0, start) + xml.substr(end + end_tag.size());
}

template <std::size_t size>
void take_text(char (&out)[size], const std::string& xml, std::string_view name) {
  put_text(out, size, element_text(xml, name).value_or(""));
}

/// Cuts the next service element, with or without an end, off the text; empty when there is none.
std::string_view take_service(std::string_view& xml) {
  constexpr std::string_view start_tag = "<service>";
  const std::size_t start = std::min(xml.find(start_tag), xml.size());
  const std::size_t end = std::min(xml.find("</service>", start), xml.size());
  const std::string_view service = xml.substr(start, end - start);
  xml.remove_prefix(end);
  return service;
}

void take_services(Gateway& gateway, std::string_view xml, const std::string& base, const Interface& on) {
  while (gateway.services.size() < max_services) {
    const std::string_view service = take_service(xml);
    if (service.empty()) return;
    const std::string type = element_text(service, "serviceType").value_or("");
    if (std::ranges::find(service_types, type) == service_types.end()) continue;
    const auto control = element_text(service, "controlURL");
    const auto url = control && !control->empty() ? local_url(*control, base, on) : std::nullopt;
    if (url) gateway.services.push_back({type, *url});
  }
}

}  // namespace

Gateway parse_description(const std::string& xml, const std::string& location, const Interface& on) {
  Gateway gateway;
  gateway.interface = on.name;
  const std::string root = root_device(xml);
  take_text(gateway.texts.friendlyName, root, "friendlyName");
  take_text(gateway.texts.manufacturer, root, "manufacturer");
  take_text(gateway.texts.manufacturerURL, root, "manufacturerURL");
  take_text(gateway.texts.modelName, root, "modelName");
  take_text(gateway.texts.modelNumber, root, "modelNumber");
  take_text(gateway.texts.modelDescription, root, "modelDescription");
  take_text(gateway.texts.presentationURL, root, "presentationURL");
  // A base that leads away from the network is left over from another one, or bait.
  const std::string base = element_text(root, "URLBase").value_or("");
  take_services(gateway, xml, local_url(base, "", on) ? base : location, on);
  return gateway;
}

}  // namespace host
