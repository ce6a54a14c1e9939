#include "text_page.h"

#include <sstream>

#include "status_json.h"

namespace skyport {
namespace {

/// Foreign text on one line: control characters become '.', bytes that are not UTF-8 U+FFFD.
std::string shown(std::string text) {
  text = Json::parse(json_text(Json(text))).get<std::string>();
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = c == '\n' ? ' ' : '.';
  // U+0080 to U+009F, which terminals obey, too.
  for (size_t at = 0; (at = text.find('\xC2', at)) != std::string::npos; ++at)
    if (static_cast<unsigned char>(text[at + 1]) < 0xA0) text.replace(at, 2, ".");
  return text;
}

void show_device(std::ostream& out, const Device& device) {
  out << device.hid << "   seen " << iso_time(device.seen) << ", " << device.updates << " updates";
  if (device.enabled) out << ", " << (device.enabled->value != 0 ? "enabled" : "disabled");
  if (device.alias) out << ", alias " << shown(device.alias->value);
  out << "\n";
  if (device.update) {
    out << "  registered " << iso_time(device.update->time) << "\n   ";
    for (const auto& [name, value] : device.update->value) out << " " << name << "=" << shown(value);
    out << "\n";
  }
  if (device.first_connection) out << "  first connection: " << shown(device.first_connection->value) << "\n";
  if (!device.connect_backs.empty()) {
    const ConnectBack& last = device.connect_backs.back();
    out << "  connect back " << iso_time(last.time) << " to " << last.address << ":" << last.port << ": "
        << (last.connected ? "connected" : last.error) << "\n";
  }
}

void show_exchange(std::ostream& out, const Exchange& e) {
  out << "#" << e.id << " " << iso_time(e.time) << " " << e.peer << " " << shown(e.method) << " " << shown(e.target);
  if (e.authorized) out << " user " << e.user << " nc " << e.nc;
  out << " -> " << (e.status == 0 ? "no answer" : std::to_string(e.status));
  if (!e.fault.empty()) out << " [fault " << shown(e.fault) << "]";
  if (!e.error.empty()) out << " (" << shown(e.error) << ")";
  out << "\n";
  if (!e.request.empty()) out << "    sent     " << shown(e.request) << "\n";
  if (!e.answer.empty()) out << "    answered " << shown(e.answer) << "\n";
}

}  // namespace

Answer text_page(Service& service) {
  constexpr size_t exchanges_shown = 20;
  std::ostringstream out;
  out << "Bench service, up since " << iso_time(service.start) << ", now " << iso_time(wall_ms()) << "\n\nDevices\n\n";
  const std::vector<Device> devices = service.store.devices();
  if (devices.empty()) out << "none yet\n";
  for (const Device& device : devices) show_device(out, device);
  out << "\nFaults in force\n\n";
  const std::vector<Fault> faults = service.faults.list();
  if (faults.empty()) out << "none\n";
  for (const Fault& fault : faults) out << shown(fault_text(fault)) << "\n";
  out << "\nLast exchanges, newest first\n\n";
  const std::vector<Exchange> exchanges = service.exchanges.since(0, exchanges_shown);
  for (auto e = exchanges.rbegin(); e != exchanges.rend(); ++e) show_exchange(out, *e);
  out << "\nAs JSON: /devices /exchanges?since=ID&before=ID /faults /aliases\n";
  return {200, "", out.str(), "text/plain; charset=utf-8"};
}

}  // namespace skyport
