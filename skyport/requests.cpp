#include "requests.h"

#include <algorithm>
#include <span>
#include <stdexcept>

#include "request_body.h"
#include "service_cipher.h"

namespace skyport {
namespace {

constexpr size_t max_alias_len = 31;

struct Caller {
  Service& service;
  const Request& request;
  Exchange& exchange;
  std::string hid;
};

const std::string& value_of(const Fields& fields, std::string_view name) {
  return std::find_if(fields.begin(), fields.end(), [&](const auto& f) { return f.first == name; })->second;
}

Answer with_data(Exchange& exchange, const std::string& elements) {
  exchange.answer = std::string(xml_head).append(elements).append(xml_tail);
  return {200, "", service_cipher::seal(exchange.answer)};
}

/// The host of an absolute URL when it is a dotted address, else an empty text.
std::string url_host(const std::string& target) {
  constexpr std::string_view scheme = "http://";
  if (!target.starts_with(scheme)) return "";
  const std::string host = target.substr(scheme.size(), target.find_first_of(":/", scheme.size()) - scheme.size());
  return is_ipv4(host) ? host : "";
}

// ---- The work of each path ----

Answer serve_data_server(const Caller& c, const Fields&) {
  std::string address = c.service.settings.data_server;
  if (address.empty()) address = url_host(c.request.target);
  if (address.empty()) address = c.request.local.address;
  return with_data(c.exchange, "<da_eip>" + address + "</da_eip>\n");
}

Answer serve_external_address(const Caller& c, const Fields&) {
  return with_data(c.exchange, "<ext_ip>" + c.request.peer.address + "</ext_ip>\n<ext_port>" +
                                   std::to_string(c.request.peer.port) + "</ext_port>\n");
}

Answer serve_update(const Caller& c, const Fields& fields) {
  Fields plain;
  for (const auto& [path, value] : fields) plain.emplace_back(path.substr(path.find('/') + 1), value);
  c.service.store.update(c.hid, plain);
  return {};
}

Answer serve_connect_back(const Caller& c, const Fields& fields) {
  uint64_t port = 0;
  parse_number(value_of(fields, "ueport"), UINT16_MAX, port);
  const Endpoint endpoint{value_of(fields, "eip"), static_cast<uint16_t>(port)};
  const int64_t time = wall_ms();
  const ConnectResult result = try_connect(endpoint, c.service.settings.connect_timeout_s, c.service.stop_fd);
  c.service.store.connected_back(
      c.hid, {time, endpoint.address, endpoint.port, result.connected, result.took_ms, result.error});
  if (!result.connected) c.exchange.error = "connect back: " + result.error;
  return {result.connected ? 200U : 404U, "", ""};
}

Answer serve_alias(const Caller& c, const Fields& fields) {
  const std::string& name = value_of(fields, "ah");
  // An empty name gives the alias up.
  if (!name.empty()) c.exchange.error = alias_error(name);
  const char* verdict = "1";
  if (c.exchange.error.empty()) verdict = c.service.store.take_alias(c.hid, name) ? "0" : "2";
  return with_data(c.exchange, std::string("<ahret>") + verdict + "</ahret>\n");
}

Answer serve_enable(const Caller& c, const Fields& fields) {
  uint64_t value = 0;
  parse_number(value_of(fields, "enable"), UINT32_MAX, value);
  c.service.store.enable(c.hid, static_cast<int64_t>(value));
  return {};
}

Answer serve_report(const Caller& c, const Fields&) {
  const std::string& xml = c.exchange.request;
  c.service.store.report(c.hid, xml.substr(xml_head.size(), xml.size() - xml_head.size() - xml_tail.size()));
  return {};
}

struct Route {
  const char* path;
  const char* method;
  std::span<const Element> body;  // empty: any elements, where the method is POST
  Answer (*serve)(const Caller&, const Fields&);
};

constexpr Route routes[] = {
    {"/daip.html", "GET", {}, serve_data_server},
    {"/ext.html", "GET", {}, serve_external_address},
    {"/iupd.html", "POST", update_elements, serve_update},
    {"/connectbk.html", "POST", connect_back_elements, serve_connect_back},
    {"/alias.html", "POST", alias_elements, serve_alias},
    {"/enable.html", "POST", enable_elements, serve_enable},
    {"/conn_report.html", "POST", {}, serve_report},
};

/// The hid that a body names must be the account's.
std::string owner_error(const Fields& fields, const std::string& user) {
  for (const auto& [path, value] : fields)
    if ((path == "hid" || path == "dev/hid") && value != user) return "hid '" + value + "' is not the account's";
  return "";
}

// ---- Credentials ----

AuthResult check_credentials(Service& service, const Request& request, Exchange& exchange) {
  if (request.authorization.empty()) return {};
  Credentials credentials;
  if (!parse_authorization(request.authorization, credentials))
    return {AuthVerdict::wrong, "authorization is malformed"};
  exchange.user = credentials["username"];
  exchange.nc = credentials["nc"];
  exchange.cnonce = credentials["cnonce"];
  exchange.uri = credentials["uri"];
  // Behind a relay that turns absolute URLs into paths, only the header's uri still tells.
  exchange.relay = exchange.relay || exchange.uri.starts_with("http://");
  const auto account = service.settings.accounts.find(exchange.user);
  if (account == service.settings.accounts.end()) return {AuthVerdict::wrong, "account is not known"};
  return service.nonces.check(credentials, request.method, request.target, service.settings.realm, account->second);
}

Answer challenge(Service& service, const Exchange& exchange, const Fault& fault, bool stale) {
  if (fault.kind == FaultKind::challenge) return {401, fault.arg, ""};
  std::string text = "Digest realm=\"" + service.settings.realm + "\", ";
  const bool with_qop = fault.kind != FaultKind::noqop;
  if (fault.kind != FaultKind::nononce)
    text += "nonce=\"" + service.nonces.give(exchange.method, exchange.path, with_qop) + "\", ";
  if (with_qop) text += "qop=\"auth\", ";
  return {401, text + "algorithm=MD5" + (stale ? ", stale=true" : ""), ""};
}

Answer refusal(unsigned status, Exchange& exchange, const std::string& error) {
  if (exchange.error.empty()) exchange.error = error;
  return {status, "", error + "\n"};
}

Answer serve(const Route& route, const Caller& caller, const Fields& fields, const std::string& body_error) {
  if (!body_error.empty()) return refusal(400, caller.exchange, body_error);
  if (std::string error = owner_error(fields, caller.hid); !error.empty()) return refusal(400, caller.exchange, error);
  try {
    caller.service.store.saw(caller.hid);
    return route.serve(caller, fields);
  } catch (const StoreError& error) {
    return refusal(500, caller.exchange, std::string("database: ") + error.what());
  }
}

void spoil_body(const Fault& fault, Exchange& exchange, Answer& answer) {
  constexpr const char* not_the_cipher = "bm90IHRoZSBzZXJ2aWNlJ3MgY2lwaGVy";  // base64 of readable words
  if (fault.kind == FaultKind::plain) {
    answer = {200, "", service_cipher::seal(fault.arg)};
    exchange.answer = fault.arg;
  } else if (fault.kind == FaultKind::badbody || fault.kind == FaultKind::empty) {
    const std::string text = fault.arg.empty() ? not_the_cipher : fault.arg;
    answer = {200, "", fault.kind == FaultKind::empty ? "" : text};
    exchange.answer.clear();
  }
}

Answer decide_on_route(Service& service, const Route& route, const Request& request, Exchange& exchange, Fault& fault) {
  const AuthResult auth = check_credentials(service, request, exchange);
  exchange.authorized = auth.verdict == AuthVerdict::right;
  exchange.error = auth.error;
  Fields fields;
  std::string body_error;
  if (request.method == "POST") {
    RequestBody body;
    body_error = read_body(request.body, route.body, body, fields);
    exchange.digits = body.digits;
    exchange.request = body.xml;
  }
  if (exchange.error.empty()) exchange.error = body_error;

  fault = service.faults.take(exchange.path, exchange.authorized);
  if (fault.kind == FaultKind::status) return {static_cast<unsigned>(fault.number), "", ""};
  if (!exchange.authorized) return challenge(service, exchange, fault, auth.verdict == AuthVerdict::stale);
  if (fault.kind == FaultKind::stale) return challenge(service, exchange, fault, true);
  if (fault_prevents_work(fault.kind)) return {};
  Answer answer = serve(route, {service, request, exchange, exchange.user}, fields, body_error);
  spoil_body(fault, exchange, answer);
  return answer;
}

}  // namespace

Service::Service(Settings wanted, int stop)
    : settings(std::move(wanted)),
      start(wall_ms()),
      stop_fd(stop),
      nonces(settings.nonce_timeout_s, settings.nonce_per_path),
      store(settings.database),
      exchanges(store.kept()) {
  if (!faults.add(settings.faults)) throw std::runtime_error("too many faults");
  if (!store.put_aliases(settings.aliases_taken)) throw std::runtime_error("too many aliases");
}

Exchange begin_exchange(const Request& request) {
  Exchange exchange;
  exchange.time = wall_ms();
  exchange.peer = request.peer.address + ":" + std::to_string(request.peer.port);
  exchange.local = request.local.address + ":" + std::to_string(request.local.port);
  exchange.method = request.method;
  exchange.target = request.target;
  exchange.path = target_path(request.target);
  exchange.host = request.host;
  exchange.relay = request.target.starts_with("http://");
  return exchange;
}

Answer decide(Service& service, const Request& request, bool relay_only, Exchange& exchange, Fault& fault) {
  const auto* const route =
      std::find_if(std::begin(routes), std::end(routes), [&](const Route& r) { return exchange.path == r.path; });
  if (relay_only && !exchange.relay) return refusal(400, exchange, "a relay needs an absolute URL");
  if (route == std::end(routes)) {
    fault = service.faults.take(exchange.path, false);
    if (fault.kind == FaultKind::status) return {static_cast<unsigned>(fault.number), "", ""};
    return refusal(404, exchange, "path is not served");
  }
  if (request.method != route->method) return refusal(405, exchange, "method is not the path's");
  return decide_on_route(service, *route, request, exchange, fault);
}

std::string alias_error(const std::string& name) {
  const auto fits_label = [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
  };
  if (name.empty() || name.size() > max_alias_len) return "alias has not 1 to 31 characters";
  if (!std::all_of(name.begin(), name.end(), fits_label) || name.front() == '-' || name.back() == '-')
    return "alias is not letters, digits and inner hyphens";
  return "";
}

}  // namespace skyport
