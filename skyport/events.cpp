#include "events.h"

#include <set>

#include "query.h"
#include "status_json.h"

namespace skyport {
namespace {

constexpr double look_s = 0.1;
constexpr int64_t sign_of_life_ms = 5000;  // shorter than the listener's patience with a silent connection
constexpr size_t most_at_once = 200;       // exchanges of one event

/// Who follows: what was told last.
struct Follower {
  int fd = -1;
  int64_t last_id = 0;
  bool greeted = false;
  std::string faults;
  int64_t told_at = 0;  // steady
};

std::string event(const char* name, const Json& data) {
  return std::string("event: ") + name + "\ndata: " + json_text(data) + "\n\n";
}

void tell_exchanges(Service& service, Follower& follower, std::string& out) {
  Json told = Json::array();
  std::set<std::string> cameras;
  const std::vector<Exchange> exchanges = service.exchanges.after(follower.last_id, most_at_once);
  if (!exchanges.empty() && exchanges.front().id > follower.last_id + 1)
    out += event("lost", {{"exchanges", exchanges.front().id - follower.last_id - 1}});
  for (const Exchange& exchange : exchanges) {
    follower.last_id = exchange.id;
    if (exchange.authorized) cameras.insert(exchange.user);
    told.push_back(exchange_json(service, exchange));
  }
  if (told.empty()) return;
  out += event("exchanges", told);
  Json devices = Json::array();
  for (const std::string& hid : cameras)
    for (const Device& device : service.store.devices(hid, 1)) devices.push_back(device_json(service, device));
  if (!devices.empty()) out += event("devices", devices);
}

void tell_faults(Service& service, Follower& follower, std::string& out) {
  Json faults = Json::array();
  for (const Fault& fault : service.faults.list()) faults.push_back(fault_text(fault));
  std::string said = event("faults", faults);
  if (said == follower.faults) return;
  out += said;
  follower.faults = std::move(said);
}

/// Waits until there is something to tell. False when the service stops or nobody listens any more.
bool tell(Service& service, Follower& follower, std::string& out) {
  if (!follower.greeted) {
    out += event("hello", {{"start", service.start}, {"now", wall_ms()}, {"last_id", service.exchanges.last_id()}});
    follower.greeted = true;
  }
  for (;;) {
    tell_exchanges(service, follower, out);
    tell_faults(service, follower, out);
    if (out.empty() && steady_ms() - follower.told_at > sign_of_life_ms) out += ":\n\n";
    if (!out.empty()) break;
    if (!pause_for(service.stop_fd, follower.fd, look_s)) return false;
  }
  follower.told_at = steady_ms();
  return true;
}

}  // namespace

Answer get_events(Service& service, const Request& request) {
  uint64_t since = static_cast<uint64_t>(service.exchanges.last_id());
  if (const std::string error = read_query(request.target, {{"since", nullptr, &since}}); !error.empty())
    return {400, "", error + "\n", "text/plain"};
  Follower follower;
  follower.fd = request.fd;
  follower.last_id = static_cast<int64_t>(since);
  Answer answer;
  answer.type = "text/event-stream";
  answer.stream = [&service, follower](std::string& out) mutable { return tell(service, follower, out); };
  return answer;
}

}  // namespace skyport
