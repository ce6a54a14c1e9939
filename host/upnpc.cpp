// libupnpc: the port mappings of the gateway that the last search found.
#include <arpa/inet.h>
#include <poll.h>

#include <charconv>

#include "abi.h"
#include "gateway.h"
#include "setting_table.h"
#include "soap.h"

namespace host {

namespace {

// UPnP error codes that call for more than passing them on.
constexpr int invalid_args = 402;
constexpr int no_such_index = 713;
constexpr int no_such_entry = 714;
constexpr int only_permanent_leases = 725;

constexpr int mapped_nothing = 101;                // an add that the router accepted and did not carry out
constexpr int not_mappable = 102;                  // a port or protocol that no router maps
constexpr std::uint32_t longest_lease_s = 604800;  // what routers that refuse an endless lease grant at most
constexpr int max_timeout_s = 3600;
constexpr int settling_ms = 500;  // some routers list a new mapping a moment after they accepted it
constexpr int max_port = 65535;

struct State {
  std::optional<Gateway> gateway;
  std::optional<std::uint32_t> lease_s;  // what this gateway insists on
};

State& state() {
  static auto* const instance = new State;
  return *instance;
}

/// A call to the gateway: whom, from where, and until when.
struct Call {
  const ConnectionService& service;
  Interface from;
  Deadline deadline;
};

Deadline deadline_in(int timeout_s) {
  return Deadline(std::int64_t{std::clamp(timeout_s, 0, max_timeout_s)} * 1000);
}

/// Nothing when no gateway is known, or its interface has no address any more.
std::optional<Call> call_gateway(int timeout_s) {
  const auto settings = current_settings();
  const std::optional<Gateway>& gateway = state().gateway;
  if (!settings || !gateway) return std::nullopt;
  for (const Interface& entry : list_interfaces(*settings)) {
    if (entry.name == gateway->interface && entry.ip != 0) {
      return Call{gateway->services.front(), entry, deadline_in(timeout_s)};
    }
  }
  return std::nullopt;
}

SoapAnswer ask(const Call& call, const char* action, const std::vector<SoapArgument>& arguments) {
  return soap_call(call.service, action, arguments, call.from, call.deadline);
}

int number_in(const SoapAnswer& answer, const std::string& name) {
  const std::string text = output_of(answer, name);
  int number = 0;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

bool is_mappable(int port, int protocol) {
  return port >= 1 && port <= max_port && protocol == MUPNP_PROTOCOL_HTTP;
}

bool is_own_address(const Call& call, const std::string& client) {
  in_addr address{};
  return inet_pton(AF_INET, client.c_str(), &address) == 1 && address.s_addr == call.from.ip;
}

std::string own_address(const Call& call) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &call.from.ip, text, sizeof(text));
  return text;
}

int discover(MupnpIgd* igd, int timeout_s) {
  const Deadline deadline = deadline_in(timeout_s);
  const auto settings = current_settings();
  if (!settings || igd == nullptr) return 1;
  const bool own = is_set(*settings, setting::upnp_interface.group, setting::upnp_interface.key);
  const auto on = active_interface(*settings, own ? setting::upnp_interface : setting::active_interface);
  if (!on) return 1;
  auto gateway = find_gateway(*settings, *on, deadline);
  if (!gateway) return 1;
  *igd = gateway->texts;
  state() = {std::move(gateway), std::nullopt};
  return 0;
}

int external_address(char* ip, int timeout_s) {
  const auto call = call_gateway(timeout_s);
  if (!call || ip == nullptr) return MUPNP_NO_ANSWER;
  const SoapAnswer answer = ask(*call, "GetExternalIPAddress", {});
  if (answer.result != soap_ok) return answer.result;
  const std::string text = output_of(answer, "NewExternalIPAddress");
  in_addr address{};
  if (inet_pton(AF_INET, text.c_str(), &address) != 1) return MUPNP_NONE;
  put_text(ip, MUPNP_IP_LEN, text);
  return 0;
}

int entry_at(int index, char* description, int* external_port, char* protocol_name, int timeout_s) {
  const auto call = call_gateway(timeout_s);
  if (!call) return MUPNP_NO_ANSWER;
  if (index < 0 || external_port == nullptr) return no_such_index;
  const SoapAnswer answer = ask(*call, "GetGenericPortMappingEntry", {{"NewPortMappingIndex", std::to_string(index)}});
  if (answer.result != soap_ok) return answer.result;
  put_text(description, MUPNP_DESCRIPTION_LEN, output_of(answer, "NewPortMappingDescription"));
  put_text(protocol_name, MUPNP_SHORT_LEN, output_of(answer, "NewProtocol"));
  *external_port = number_in(answer, "NewExternalPort");
  return 0;
}

SoapAnswer entry_of(const Call& call, int external_port) {
  return ask(call, "GetSpecificPortMappingEntry",
             {{"NewRemoteHost", ""}, {"NewExternalPort", std::to_string(external_port)}, {"NewProtocol", "TCP"}});
}

/// What an entry says about a port; an entry without a client maps nothing.
int owner_in(const Call& call, const SoapAnswer& answer) {
  if (answer.result == no_such_entry) return MUPNP_NOT_MAPPED;
  if (answer.result != soap_ok) return answer.result;
  const std::string client = output_of(answer, "NewInternalClient");
  if (client.empty()) return MUPNP_NOT_MAPPED;
  return is_own_address(call, client) ? MUPNP_MAPPED_HERE : MUPNP_MAPPED_ELSEWHERE;
}

struct EntryOutputs {
  char* description;
  char* internal_client;
  int* internal_port;
  int* lease_s;
};

int look_up(const EntryOutputs& out, int external_port, int protocol, int timeout_s) {
  const auto call = call_gateway(timeout_s);
  if (!call) return MUPNP_NO_ANSWER;
  if (!is_mappable(external_port, protocol)) return MUPNP_NOT_MAPPED;
  const SoapAnswer answer = entry_of(*call, external_port);
  const int owner = owner_in(*call, answer);
  if (owner != MUPNP_MAPPED_HERE && owner != MUPNP_MAPPED_ELSEWHERE) return owner;
  put_text(out.description, MUPNP_DESCRIPTION_LEN, output_of(answer, "NewPortMappingDescription"));
  put_text(out.internal_client, MUPNP_CLIENT_LEN, output_of(answer, "NewInternalClient"));
  if (out.internal_port != nullptr) *out.internal_port = number_in(answer, "NewInternalPort");
  if (out.lease_s != nullptr) *out.lease_s = number_in(answer, "NewLeaseDuration");
  return owner;
}

struct Mapping {
  const char* description;
  int external_port;
  int internal_port;
};

int add_with_lease(const Call& call, const Mapping& mapping, std::uint32_t lease_s) {
  return ask(call, "AddPortMapping",
             {{"NewRemoteHost", ""},
              {"NewExternalPort", std::to_string(mapping.external_port)},
              {"NewProtocol", "TCP"},
              {"NewInternalPort", std::to_string(mapping.internal_port)},
              {"NewInternalClient", own_address(call)},
              {"NewEnabled", "1"},
              {"NewPortMappingDescription", mapping.description},
              {"NewLeaseDuration", std::to_string(lease_s)}})
      .result;
}

/// Adds with the lease of the settings, or with the one that the gateway accepts instead.
int add_with_any_lease(const Call& call, const Mapping& mapping) {
  const std::uint32_t wanted_s = state().lease_s.value_or(number_now(setting::upnp_lease).value_or(0));
  const int result = add_with_lease(call, mapping, wanted_s);
  const bool too_short = result == only_permanent_leases && wanted_s != 0;
  const bool too_long = result == invalid_args && wanted_s == 0;
  if (!too_short && !too_long) return result;
  const std::uint32_t other_s = too_short ? 0 : longest_lease_s;
  const int second = add_with_lease(call, mapping, other_s);
  if (second == soap_ok) state().lease_s = other_s;
  return second;
}

/// Whether the router really has the mapping. One that does not answer the question is believed.
bool is_in_place(const Call& call, const Mapping& mapping) {
  SoapAnswer answer = entry_of(call, mapping.external_port);
  if (owner_in(call, answer) == MUPNP_NOT_MAPPED) {
    poll(nullptr, 0, std::min(settling_ms, call.deadline.left_ms()));
    answer = entry_of(call, mapping.external_port);
  }
  const int owner = owner_in(call, answer);
  if (owner == MUPNP_MAPPED_HERE) return number_in(answer, "NewInternalPort") == mapping.internal_port;
  return owner != MUPNP_NOT_MAPPED && owner != MUPNP_MAPPED_ELSEWHERE;
}

int add(const Mapping& mapping, int protocol, int timeout_s) {
  if (mapping.description == nullptr || mapping.internal_port < 1 || mapping.internal_port > max_port ||
      !is_mappable(mapping.external_port, protocol)) {
    return not_mappable;  // port 0 would stand for all ports
  }
  const auto call = call_gateway(timeout_s);
  if (!call) return MUPNP_NO_ANSWER;
  const int result = add_with_any_lease(*call, mapping);
  if (result != soap_ok) return result;
  return is_in_place(*call, mapping) ? 0 : mapped_nothing;
}

int remove(int external_port, int protocol, int timeout_s) {
  const auto call = call_gateway(timeout_s);
  if (!call) return MUPNP_NO_ANSWER;
  if (!is_mappable(external_port, protocol)) return MUPNP_NONE;
  const int result =
      ask(*call, "DeletePortMapping",
          {{"NewRemoteHost", ""}, {"NewExternalPort", std::to_string(external_port)}, {"NewProtocol", "TCP"}})
          .result;
  return result == no_such_entry ? MUPNP_NONE : result;
}

}  // namespace

}  // namespace host

extern "C" {

int Mupnpcp_discover(MupnpIgd* igd, int timeout) {
  return host::guarded(1, [&] { return host::discover(igd, timeout); });
}

int Mupnpcp_get_eip(char* ip, int timeout) {
  return host::guarded(static_cast<int>(MUPNP_NO_ANSWER), [&] { return host::external_address(ip, timeout); });
}

int Mupnpcp_query_eport_all(char* description, int index, int* external_port, char* protocol_name, int timeout) {
  return host::guarded(static_cast<int>(MUPNP_NO_ANSWER),
                       [&] { return host::entry_at(index, description, external_port, protocol_name, timeout); });
}

int Mupnpcp_query_eport_ex(char* description, char* internal_client, int* internal_port, int* lease_s,
                           int external_port, int protocol, int timeout) {
  const host::EntryOutputs out{description, internal_client, internal_port, lease_s};
  return host::guarded(static_cast<int>(MUPNP_NO_ANSWER),
                       [&] { return host::look_up(out, external_port, protocol, timeout); });
}

int Mupnp_add_eport(const char* description, int external_port, int internal_port, int protocol, int timeout) {
  const host::Mapping mapping{description, external_port, internal_port};
  return host::guarded(static_cast<int>(MUPNP_NO_ANSWER), [&] { return host::add(mapping, protocol, timeout); });
}

int Mupnp_del_eport(int external_port, int protocol, int timeout) {
  return host::guarded(static_cast<int>(MUPNP_NO_ANSWER),
                       [&] { return host::remove(external_port, protocol, timeout); });
}

}  // extern "C"
