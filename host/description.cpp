// A gateway's description: its texts and the services of its connections, see gateway.h.
#include <algorithm>
#include <array>

#include "gateway.h"
#include "router_xml.h"
#include "transfer.h"

namespace host {

namespace {

constexpr std::array<std::string_view, 4> service_types{
    "urn:schemas-upnp-org:service:WANIPConnection:1",
    "urn:schemas-upnp-org:service:WANIPConnection:2",
    "urn:schemas-upnp-org:service:WANPPPConnection:1",
    "urn:schemas-upnp-org:service:WANPPPConnection:2",
};
constexpr std::size_t max_services = 8;  // a router has one or two

/// Notes the service when it is one that the camera may use.
void take_service(Gateway& gateway, const pugi::xml_node& service, const std::string& base, const Interface& on) {
  const std::string type = child_text(service, "serviceType");
  if (std::ranges::find(service_types, type) == service_types.end()) return;
  const std::string control = child_text(service, "controlURL");
  const auto url = control.empty() ? std::nullopt : local_url(control, base, on);
  if (url) gateway.services.push_back({type, *url});
}

}  // namespace

Gateway parse_description(const std::string& xml, const std::string& location, const Interface& on) {
  pugi::xml_document document;
  read_router_xml(xml, document);
  Gateway gateway;
  gateway.interface = on.name;
  // The first device is the root device; the others are inside it, and their texts are not the gateway's.
  const pugi::xml_node device = find_element(document, "device");
  const auto take_text = [&](auto& out, const char* name) { put_text(out, sizeof(out), child_text(device, name)); };
  take_text(gateway.texts.friendlyName, "friendlyName");
  take_text(gateway.texts.manufacturer, "manufacturer");
  take_text(gateway.texts.manufacturerURL, "manufacturerURL");
  take_text(gateway.texts.modelName, "modelName");
  take_text(gateway.texts.modelNumber, "modelNumber");
  take_text(gateway.texts.modelDescription, "modelDescription");
  take_text(gateway.texts.presentationURL, "presentationURL");
  // A base that leads away from the network is left over from another one, or bait.
  const std::string own_base = text_of(find_element(document, "URLBase"));
  const std::string& base = local_url(own_base, "", on) ? own_base : location;
  document.find_node([&](const pugi::xml_node& node) {
    if (is_element(node, "service")) take_service(gateway, node, base, on);
    return gateway.services.size() == max_services;
  });
  return gateway;
}

}  // namespace host
