#include "status.h"

#include <algorithm>
#include <sstream>

#include "events.h"
#include "page.h"
#include "query.h"
#include "status_json.h"
#include "text_page.h"
#include "visitors.h"

namespace skyport {
namespace {

/// An array has a line for each of its elements, so that it can be read by eye and by line.
Answer json_answer(unsigned status, const Json& json) {
  if (!json.is_array()) return {status, "", json_text(json) + "\n", "application/json"};
  std::string text = "[";
  for (const Json& element : json) text.append(text.size() > 1 ? ",\n" : "\n").append(json_text(element));
  return {status, "", text + "\n]\n", "application/json"};
}

Answer error_answer(unsigned status, const std::string& error) {
  return json_answer(status, {{"error", error}});
}

Answer get_page(Service& service, const Request& request) {
  // A terminal's client takes anything; a browser asks for HTML by name.
  if (request.accept.find("text/html") == std::string::npos) return text_page(service);
  return page_file("/page.html");
}

Answer get_devices(Service& service, const Request& request) {
  std::string hid;
  uint64_t backs = connect_backs_kept;
  const std::string error = read_query(request.target, {{"hid", &hid, nullptr}, {"backs", nullptr, &backs}});
  if (!error.empty()) return error_answer(400, error);
  Json json = Json::array();
  for (const Device& device : service.store.devices(hid, backs)) json.push_back(device_json(service, device));
  return json_answer(200, json);
}

Answer get_exchanges(Service& service, const Request& request) {
  std::string hid;
  uint64_t since = 0, before = INT64_MAX, last = max_exchanges;
  const std::string error = read_query(
      request.target,
      {{"since", nullptr, &since}, {"before", nullptr, &before}, {"last", nullptr, &last}, {"hid", &hid, nullptr}});
  if (!error.empty()) return error_answer(400, error);
  Json json = Json::array();
  const auto is_wanted = [&](const Exchange& e) {
    return e.id < static_cast<int64_t>(before) && (hid.empty() || e.user == hid);
  };
  for (const Exchange& exchange : service.exchanges.since(static_cast<int64_t>(since), last, is_wanted))
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
  std::string fault;
  const std::string error = read_query(request.target, {{"fault", &fault, nullptr}});
  if (!error.empty()) return error_answer(400, error);
  if (fault.empty()) service.faults.clear();
  if (!fault.empty() && !service.faults.remove(fault)) return error_answer(404, "that fault is not in force");
  return get_faults(service, request);
}

/// The faults that the service was started with, and no others.
Answer reset_faults(Service& service, const Request& request) {
  service.faults.clear();
  static_cast<void>(service.faults.add(service.settings.faults));
  return get_faults(service, request);
}

Answer get_kinds(Service&, const Request&) {
  Json kinds = Json::array();
  for (const FaultChoice& choice : fault_choices())
    kinds.push_back({{"kind", choice.name},
                     {"argument", choice.argument},
                     {"least", choice.least},
                     {"most", choice.most},
                     {"usual", choice.usual},
                     {"narrowed", choice.when_free}});
  return json_answer(200, {{"paths", request_paths}, {"kinds", kinds}});
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
  if (!service.store.put_aliases(aliases))
    return error_answer(409, "at most " + std::to_string(max_aliases) + " aliases are kept, and these would be more");
  return get_aliases(service, request);
}

struct StatusRoute {
  const char* method;
  const char* path;
  Answer (*serve)(Service&, const Request&);
};

constexpr StatusRoute routes[] = {
    {"GET", "/", get_page},
    {"GET", "/page.js", [](Service&, const Request&) { return page_file("/page.js"); }},
    {"GET", "/page.css", [](Service&, const Request&) { return page_file("/page.css"); }},
    {"GET", "/events", get_events},
    {"GET", "/devices", get_devices},
    {"GET", "/exchanges", get_exchanges},
    {"GET", "/faults", get_faults},
    {"POST", "/faults", post_faults},
    {"DELETE", "/faults", delete_faults},
    {"POST", "/faults/start", reset_faults},
    {"GET", "/faults/kinds", get_kinds},
    {"GET", "/aliases", get_aliases},
    {"POST", "/aliases", post_aliases},
};

Answer answer_to(Service& service, const Request& request) {
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

}  // namespace

Answer serve_status(Service& service, const Request& request) {
  Answer answer = answer_to(service, request);
  answer.own_pages_only = true;
  return answer;
}

}  // namespace skyport
