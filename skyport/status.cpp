#include "status.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "visitors.h"

namespace skyport {
namespace {

using Json = nlohmann::ordered_json;

Answer json_answer(unsigned status, const Json& json) {
  // Texts of the wire may hold any bytes; those that are not UTF-8 become U+FFFD.
  return {status, "", json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n", "application/json"};
}

Answer error_answer(unsigned status, const std::string& error) {
  return json_answer(status, {{"error", error}});
}

/// A time in both of its forms under `name` and `name`_ms.
void put_time(Json& json, const Service& service, const std::string& name, int64_t time) {
  json[name] = iso_time(time);
  json[name + "_ms"] = time - service.start;
}

template <typename Value>
void put_reported(Json& json, const Service& service, const std::string& name,
                  const std::optional<Reported<Value>>& reported) {
  json[name] = nullptr;
  if (!reported) return;
  json[name] = reported->value;
  put_time(json, service, name + "_time", reported->time);
}

Json device_json(const Service& service, const Device& device) {
  Json json{{"hid", device.hid}};
  put_time(json, service, "seen", device.seen);
  json["updates"] = device.updates;
  json["update"] = nullptr;
  if (device.update) {
    json["update"] = Json::object();
    for (const auto& [name, value] : device.update->value) json["update"][name] = value;
    put_time(json, service, "update_time", device.update->time);
  }
  put_reported(json, service, "enabled", device.enabled);
  put_reported(json, service, "alias", device.alias);
  put_reported(json, service, "first_connection", device.first_connection);
  json["connect_back"] = Json::array();
  for (const ConnectBack& result : device.connect_backs) {
    Json one;
    put_time(one, service, "time", result.time);
    one.update({{"address", result.address},
                {"port", result.port},
                {"connected", result.connected},
                {"took_ms", result.took_ms},
                {"error", result.error}});
    json["connect_back"].push_back(one);
  }
  return json;
}

Json exchange_json(const Service& service, const Exchange& e) {
  Json json{{"id", e.id}};
  put_time(json, service, "time", e.time);
  json.update({{"peer", e.peer},
               {"local", e.local},
               {"method", e.method},
               {"path", e.path},
               {"target", e.target},
               {"host", e.host},
               {"relay", e.relay},
               {"authorized", e.authorized},
               {"user", e.user},
               {"nc", e.nc},
               {"cnonce", e.cnonce},
               {"uri", e.uri},
               {"status", e.status},
               {"digits", e.digits},
               {"request", e.request},
               {"answer", e.answer},
               {"fault", e.fault},
               {"error", e.error}});
  return json;
}

Answer get_devices(Service& service, const Request&) {
  Json json = Json::array();
  for (const Device& device : service.store.devices()) json.push_back(device_json(service, device));
  return json_answer(200, json);
}

Answer get_exchanges(Service& service, const Request& request) {
  constexpr std::string_view since_key = "since=";
  uint64_t since = 0;
  const size_t query = request.target.find('?');
  if (query != std::string::npos) {
    const std::string text = request.target.substr(query + 1);
    if (!text.starts_with(since_key) || !parse_number(text.substr(since_key.size()), INT64_MAX, since))
      return error_answer(400, "the query is not since=NUMBER");
  }
  Json json = Json::array();
  for (const Exchange& exchange : service.exchanges.since(static_cast<int64_t>(since)))
    json.push_back(exchange_json(service, exchange));
  return json_answer(200, json);
}

Answer get_faults(Service& service, const Request&) {
  Json json = Json::array();
  for (const Fault& fault : service.faults.list()) json.push_back(fault_text(fault));
  return json_answer(200, json);
}

std::vector<std::string> lines_of(const std::string& body) {
  std::vector<std::string> lines;
  std::istringstream in(body);
  for (std::string line; std::getline(in, line);) {
    if (line.ends_with('\r')) line.pop_back();
    if (!line.empty()) lines.push_back(line);
  }
  return lines;
}

Answer post_faults(Service& service, const Request& request) {
  std::vector<Fault> faults;
  for (const std::string& line : lines_of(request.body)) {
    std::string error;
    if (!parse_fault(line, faults.emplace_back(), error)) return error_answer(400, error);
  }
  if (faults.empty()) return error_answer(400, "the body has no fault; write one a line");
  if (!service.faults.add(faults)) {
    return error_answer(409, "at most " + std::to_string(max_faults) +
                                 " faults can be in force, and these would be more; DELETE /faults ends all of them");
  }
  return get_faults(service, request);
}

Answer delete_faults(Service& service, const Request& request) {
  service.faults.clear();
  return get_faults(service, request);
}

Answer get_aliases(Service& service, const Request&) {
  Json json = Json::array();
  for (const Alias& alias : service.store.aliases()) json.push_back({{"name", alias.name}, {"hid", alias.hid}});
  return json_answer(200, json);
}

Answer post_aliases(Service& service, const Request& request) {
  std::vector<Alias> aliases;
  for (const std::string& line : lines_of(request.body)) {
    const size_t equals = line.find('=');
    aliases.push_back({line.substr(0, equals), equals == std::string::npos ? "" : line.substr(equals + 1)});
    if (const std::string error = alias_error(aliases.back().name); !error.empty())
      return error_answer(400, std::string(error).append(": ").append(line));
  }
  if (aliases.empty()) return error_answer(400, "the body has no alias; write NAME or NAME=HID, one a line");
  service.store.put_aliases(aliases);
  return get_aliases(service, request);
}

// ---- The page for people ----

/// Foreign text on one line: control characters become '.', bytes that are not UTF-8 U+FFFD.
std::string shown(std::string text) {
  text = Json::parse(Json(text).dump(-1, ' ', false, Json::error_handler_t::replace)).get<std::string>();
  for (char& c : text)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = c == '\n' ? ' ' : '.';
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
  out << "#" << e.id << " " << iso_time(e.time) << " " << e.peer << " " << e.method << " " << shown(e.target);
  if (e.authorized) out << " user " << e.user << " nc " << e.nc;
  out << " -> " << (e.status == 0 ? "no answer" : std::to_string(e.status));
  if (!e.fault.empty()) out << " [fault " << shown(e.fault) << "]";
  if (!e.error.empty()) out << " (" << shown(e.error) << ")";
  out << "\n";
  if (!e.request.empty()) out << "    sent     " << shown(e.request) << "\n";
  if (!e.answer.empty()) out << "    answered " << shown(e.answer) << "\n";
}

Answer get_page(Service& service, const Request&) {
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
  const std::vector<Exchange> exchanges = service.exchanges.since(0);
  size_t left = exchanges_shown;
  for (auto e = exchanges.rbegin(); e != exchanges.rend() && left > 0; ++e, --left) show_exchange(out, *e);
  out << "\nAs JSON: /devices /exchanges?since=ID /faults /aliases\n";
  return {200, "", out.str(), "text/plain; charset=utf-8"};
}

struct StatusRoute {
  const char* method;
  const char* path;
  Answer (*serve)(Service&, const Request&);
};

constexpr StatusRoute routes[] = {
    {"GET", "/", get_page},           {"GET", "/devices", get_devices},   {"GET", "/exchanges", get_exchanges},
    {"GET", "/faults", get_faults},   {"POST", "/faults", post_faults},   {"DELETE", "/faults", delete_faults},
    {"GET", "/aliases", get_aliases}, {"POST", "/aliases", post_aliases},
};

}  // namespace

Answer serve_status(Service& service, const Request& request) {
  if (const std::string error = visitor_error(request); !error.empty()) return error_answer(403, error);
  const std::string path = target_path(request.target);
  bool known = false;
  for (const StatusRoute& route : routes) {
    if (path != route.path) continue;
    known = true;
    if (request.method == route.method) return route.serve(service, request);
  }
  return known ? error_answer(405, "method is not the path's") : error_answer(404, "path is not served");
}

}  // namespace skyport
