#include "status_json.h"

namespace skyport {
namespace {

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

}  // namespace

std::string json_text(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json device_json(const Service& service, const Device& device) {
  Json json{{"hid", device.hid}};
  put_time(json, service, "seen", device.seen);
  put_time(json, service, "since", device.since);
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
               {"took_ms", e.took_ms},
               {"digits", e.digits},
               {"request", e.request},
               {"answer", e.answer},
               {"fault", e.fault},
               {"error", e.error}});
  return json;
}

}  // namespace skyport
