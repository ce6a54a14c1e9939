#include "requests.h"

#include <algorithm>
#include <pugixml.hpp>
#include <span>
#include <stdexcept>

#include "cipher.h"
#include "service_cipher.h"

namespace skyport {
namespace {

// What stands around the elements of every body and answer.
constexpr std::string_view xml_head = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<ldev>\n";
constexpr std::string_view xml_tail = "</ldev>\n";
constexpr size_t max_alias_len = 31;

struct Caller {
  Service& service;
  const Request& request;
  Exchange& exchange;
  std::string hid;
};

/// What an element's text must be.
enum class Text { any, one, number, address, port, protocol, http };

struct Element {
  const char* path;
  Text text;
};

// The bodies, element by element in the order of the wire.
constexpr Element update_elements[] = {
    {"dev/hid", Text::any},      {"dev/mac", Text::any},    {"dev/ptype", Text::one}, {"dev/model", Text::any},
    {"dev/ver", Text::any},      {"dev/sptver", Text::any}, {"dev/oif", Text::any},   {"dev/mask", Text::any},
    {"dev/gw", Text::any},       {"dev/eip", Text::any},    {"dev/ueip", Text::any},  {"dev/iip", Text::any},
    {"dev/tch", Text::one},      {"dev/tstamp", Text::any}, {"ch/chno", Text::one},   {"ch/name", Text::any},
    {"ch/prot", Text::protocol}, {"ch/stype", Text::http},  {"ch/eport", Text::any},  {"ch/ueport", Text::any},
    {"ch/iport", Text::any},     {"ch/st", Text::number},
};
constexpr Element connect_back_elements[] = {
    {"hid", Text::any}, {"eip", Text::address}, {"ueport", Text::port}, {"tstamp", Text::any}};
constexpr Element alias_elements[] = {{"hid", Text::any}, {"redirip", Text::any}, {"ah", Text::any}};
constexpr Element enable_elements[] = {{"hid", Text::any}, {"enable", Text::number}};

bool fits(Text text, const std::string& value) {
  uint64_t number = 0;
  switch (text) {
    case Text::any:
      return true;
    case Text::one:
      return value == "1";
    case Text::number:
      return parse_number(value, UINT32_MAX, number);
    case Text::address:
      return is_ipv4(value);
    case Text::port:
      return parse_number(value, UINT16_MAX, number) && number > 0;
    case Text::protocol:
      return value == "T" || value == "TP";
    case Text::http:
      return value == "HTTP";
  }
  return false;
}

const std::string& value_of(const Fields& fields, std::string_view name) {
  return std::find_if(fields.begin(), fields.end(), [&](const auto& f) { return f.first == name; })->second;
}

// ---- XML ----

bool continues_utf8(std::string_view text, size_t at, size_t count) {
  for (size_t i = 1; i <= count; ++i)
    if (at + i >= text.size() || (static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80) return false;
  return true;
}

std::string at_byte(size_t offset) {
  return " at byte " + std::to_string(offset);
}

/// What pugixml lets pass and XML forbids, and where: control characters, bytes that are not UTF-8, a bare '&'.
std::string character_error(std::string_view xml, size_t& i) {
  for (i = 0; i < xml.size(); ++i) {
    const auto c = static_cast<unsigned char>(xml[i]);
    if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') return "a control character";
    if (c >= 0x80) {
      const size_t more = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
      if (c < 0xC2 || c > 0xF4 || !continues_utf8(xml, i, more)) return "bytes that are not UTF-8";
      i += more;
    }
    if (c == '&') {
      const size_t end =
          xml.find_first_not_of("#abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789", i + 1);
      if (end == std::string_view::npos || xml[end] != ';' || end == i + 1) return "a bare '&'";
    }
  }
  return "";
}

/// Parses a request's XML; `ldev` becomes its one element. An empty text or what is wrong.
std::string parse_xml(const std::string& xml, pugi::xml_document& document, pugi::xml_node& ldev) {
  if (!xml.starts_with(xml_head)) {
    const auto differ = std::ranges::mismatch(xml, xml_head).in1 - xml.begin();
    return "XML does not begin with its declaration and <ldev>" + at_byte(static_cast<size_t>(differ));
  }
  if (!xml.ends_with(xml_tail)) return "XML does not end with </ldev>" + at_byte(xml.size());
  size_t bad_at = 0;
  if (const std::string error = character_error(xml, bad_at); !error.empty())
    return "XML holds " + error + at_byte(bad_at);
  const pugi::xml_parse_result result = document.load_buffer(
      xml.data(), xml.size(),
      pugi::parse_default | pugi::parse_declaration | pugi::parse_fragment | pugi::parse_ws_pcdata_single,
      pugi::encoding_utf8);
  if (!result)
    return std::string("XML is not well-formed: ") + result.description() + at_byte(static_cast<size_t>(result.offset));
  for (const pugi::xml_node node : document) {
    if (node.type() == pugi::node_declaration && node == document.first_child()) continue;
    if (node.type() != pugi::node_element || ldev) return "XML is not well-formed: more than one element at the top";
    ldev = node;
  }
  return "";
}

bool has_elements(pugi::xml_node node) {
  return std::any_of(node.begin(), node.end(), [](pugi::xml_node n) { return n.type() == pugi::node_element; });
}

std::string add_leaf(pugi::xml_node node, const std::string& path, Fields& out) {
  if (node.type() != pugi::node_element) return "XML has text outside its elements";
  if (has_elements(node)) return "XML is nested too deep in <" + path + ">";
  out.emplace_back(path, node.child_value());
  return "";
}

/// The leaves of a body, each as its path ("hid" or "dev/hid") and text.
std::string read_leaves(pugi::xml_node ldev, Fields& out) {
  for (const pugi::xml_node child : ldev) {
    const std::string name = child.name();
    if (!has_elements(child)) {
      if (std::string error = add_leaf(child, name, out); !error.empty()) return error;
      continue;
    }
    for (const pugi::xml_node leaf : child)
      if (std::string error = add_leaf(leaf, name + "/" + leaf.name(), out); !error.empty()) return error;
  }
  return "";
}

/// Holds the body's leaves against its table.
std::string table_error(std::span<const Element> table, const Fields& fields) {
  for (const Element& element : table) {
    const auto times =
        std::count_if(fields.begin(), fields.end(), [&](const auto& f) { return f.first == element.path; });
    if (times != 1) return std::string(times == 0 ? "body lacks <" : "body has twice <") + element.path + ">";
  }
  for (size_t i = 0; i < fields.size(); ++i) {
    const auto& [path, value] = fields[i];
    const auto row =
        std::find_if(table.begin(), table.end(), [&path = path](const Element& e) { return path == e.path; });
    if (row == table.end()) return "body has an unknown element <" + path + ">";
    if (row != table.begin() + static_cast<std::ptrdiff_t>(i)) return "body has <" + path + "> out of its order";
    if (!fits(row->text, value)) return std::string("body's <").append(path).append("> can't be ").append(value);
  }
  return "";
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

/// Takes the body apart into `fields` and the exchange. An empty text or what is wrong with it.
std::string read_body(const Route& route, const Request& request, Exchange& exchange, Fields& fields) {
  const RequestBody body = decode_request(request.body);
  exchange.digits = body.digits;
  exchange.request = body.xml;
  if (!body.error.empty()) return body.error;
  pugi::xml_document document;
  pugi::xml_node ldev;
  if (std::string error = parse_xml(body.xml, document, ldev); !error.empty()) return error;
  if (!route.body.empty()) {
    if (std::string error = read_leaves(ldev, fields); !error.empty()) return error;
    return table_error(route.body, fields);
  }
  const bool has_text = std::string_view(ldev.child_value()).find_first_not_of(" \t\r\n") != std::string_view::npos;
  return has_text ? "XML has text outside its elements" : "";
}

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
  if (request.method == "POST") body_error = read_body(route, request, exchange, fields);
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
      store(settings.database) {
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
