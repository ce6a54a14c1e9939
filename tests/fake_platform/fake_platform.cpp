// The fake platform, see fake_platform.h: configuration, interfaces, status, router. The standard
// algorithms are those of the host.
#include "fake_platform/fake_platform.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

FakePlatform fake;

namespace {

std::mutex fake_mutex;  // two threads record; hooks run outside of it

std::string shown(const std::string& argument) {
  return argument;
}
std::string shown(long long argument) {
  return std::to_string(argument);
}

template <typename... Args>
int answer(const char* function, int natural, const Args&... args) {
  std::string call = function;
  ((call += ' ' + shown(args)), ...);
  fake_record(std::move(call));
  return fake_result(function, natural);
}

int told(int result) {
  return result == silent_success ? 0 : result;
}

/// A getter of a text.
template <typename Size>
int text(const char* function, char* out, Size size, const std::string& stored, int natural = 1) {
  const int result = answer(function, natural);
  if (result != 0) fake_fill(out, static_cast<std::size_t>(size), stored);
  return told(result);
}

/// A getter of one value.
template <typename T>
int value(const char* function, T* out, const T& stored) {
  const int result = answer(function, 1);
  if (result != 0) *out = stored;
  return told(result);
}

/// A setter.
template <typename T, typename V>
int keep(const char* function, T& stored, V wanted) {
  const int result = answer(function, 1, +wanted);  // a byte is a number
  if (result != 0) stored = wanted;
  return told(result);
}

int interfaces(const char* function, ACT_IF_INFO* info, int* index) {
  const int result = answer(function, 1);
  std::ranges::copy(fake.interfaces, info);
  *index = fake.interfaces.empty() ? 0 : fake.interface_index;
  return result;
}

}  // namespace

void fake_record(std::string call) {
  const std::string told = fake.on_call ? call : "";
  {
    const std::lock_guard lock(fake_mutex);
    fake.calls.push_back(std::move(call));
  }
  if (fake.on_call) fake.on_call(told);
}

int fake_result(const char* function, int natural) {
  if (fake.decide) {
    if (const auto chosen = fake.decide(function)) return *chosen;
  }
  const std::lock_guard lock(fake_mutex);
  if (auto script = fake.once.find(function); script != fake.once.end() && !script->second.empty()) {
    const int result = script->second.front();
    script->second.pop_front();
    return result;
  }
  const auto fixed = fake.always.find(function);
  return fixed != fake.always.end() ? fixed->second : natural;
}

void fake_fill(char* out, std::size_t size, const std::string& text) {
  std::memcpy(out, text.c_str(), std::min(size, text.size() + 1));
}

void fake_reset() {
  for (const int peer : fake.peers) close(peer);
  fake = FakePlatform{};
}

int fake_open_sockets() {
  return static_cast<int>(std::ranges::count_if(fake.peers, [](int peer) {
    pollfd look{peer, 0, 0};
    return poll(&look, 1, 0) == 0 || (look.revents & POLLHUP) == 0;
  }));
}

Texts fake_calls(std::initializer_list<const char*> prefixes) {
  Texts found;
  for (const std::string& call : fake.calls) {
    if (std::ranges::any_of(prefixes, [&](const char* prefix) { return call.starts_with(prefix); })) {
      found.push_back(call);
    }
  }
  return found;
}

std::size_t fake_logged(const std::string& part) {
  return static_cast<std::size_t>(
      std::ranges::count_if(fake.log, [&](const std::string& line) { return line.find(part) != line.npos; }));
}

extern "C" {

// A getter or a setter a line.
// clang-format off

#define TEXT_GETTER(function, size_type, field) \
  int function(char* out, size_type size) { return text(#function, out, size, fake.field); }
#define VALUE_GETTER(function, type, field) \
  int function(type* out) { return value(#function, out, fake.field); }

// ---- tesselcfg ----

int dbg_get_level_token(int* level, char* token) {
  *level = fake.debug_level;
  return text("dbg_get_level_token", token, 32, fake.debug_token);
}
TEXT_GETTER(dev_get_model_name, int, model)
TEXT_GETTER(dev_get_firmware_version, int, firmware)
TEXT_GETTER(dev_get_spt_version, int, spt_version)
TEXT_GETTER(dev_get_oem_version, int, oem_version)
TEXT_GETTER(dev_get_brand_name, unsigned int, brand)
TEXT_GETTER(dev_get_product_name, unsigned int, product)
TEXT_GETTER(dev_get_camera_name, unsigned int, camera_name)
VALUE_GETTER(dev_get_product_type, char, product_type)
VALUE_GETTER(dev_get_hw_spec, unsigned long, hw_spec)
int dev_get_timezone(char* out) {
  const int result = answer("dev_get_timezone", 1);
  if (result != 0) std::memcpy(out, fake.timezone.data(), fake.timezone.size());
  return result;
}
VALUE_GETTER(dev_get_dst, char, dst)
int dev_get_refer_file_path(char* path, int size) {
  return text("dev_get_refer_file_path", path, size, fake.refer_path, fake.refer_path.empty() ? 0 : 1);
}
VALUE_GETTER(net_get_http_srv_port, int, http_port)
VALUE_GETTER(net_get_http_or_https, char, https)
VALUE_GETTER(net_get_dhcp_enable, char, dhcp)
int net_get_proxy_addr_port(char* host, int* port) {
  *port = fake.proxy_port;
  return text("net_get_proxy_addr_port", host, 64, fake.proxy_host);
}
int get_dev_sip_account(char* hid, char* password) {
  fake_fill(password, 52, fake.password);
  return text("get_dev_sip_account", hid, 64, fake.hid, fake.hid.empty() ? 0 : 1);
}
int cre_set_skyport_hid(char* hid) { return answer("cre_set_skyport_hid", 1, hid); }
int cre_get_skyport_domain_ip(char* domain, char* ip) {
  fake_fill(ip, 64, fake.domain_ip);
  return text("cre_get_skyport_domain_ip", domain, 64, fake.domain);
}
int cre_set_skyport_domain(char* domain) { return keep("cre_set_skyport_domain", fake.domain, domain); }
VALUE_GETTER(cre_get_skyport_enable_state, char, enabled)
int cre_set_skyport_enable_state(char enabled) { return keep("cre_set_skyport_enable_state", fake.enabled, enabled); }
int get_redirsrv_ip(char* ip) {
  return text("get_redirsrv_ip", ip, 16, fake.stored_redirect_ip, fake.stored_redirect_ip.empty() ? 0 : 1);
}
int set_redirsrv_ip(char* ip) { return keep("set_redirsrv_ip", fake.stored_redirect_ip, ip); }
TEXT_GETTER(cre_get_power_username, int, admin)
TEXT_GETTER(cre_get_power_user_passwd, int, admin_password)
int cre_get_max_user_count(char* count) {
  return value("cre_get_max_user_count", count, static_cast<char>(fake.users.size()));
}
int cre_get_user_name_by_count(unsigned int n, char* name, int size) {
  const bool known = n >= 1 && n <= fake.users.size();
  const int result = answer("cre_get_user_name_by_count", known ? 1 : 0, n);
  if (result != 0 && known) fake_fill(name, static_cast<std::size_t>(size), fake.users[n - 1]);
  return result;
}
int srv_get_aliasname_status(char* alias, char* status) {
  const int result = text("srv_get_aliasname_status", alias, 32, fake.alias);
  if (result != 0) *status = fake.alias_status;
  return result;
}
int srv_update_aliasname_status(char* alias, char status) {
  const int result = answer("srv_update_aliasname_status", 1, alias, int{status});
  if (result != 0) fake.alias = alias;
  if (result != 0) fake.alias_status = status;
  return result;
}
VALUE_GETTER(srv_get_skyport_alias_status, char, alias_status)
int srv_set_skyport_alias_status(char status) {
  return keep("srv_set_skyport_alias_status", fake.alias_status, status);
}
TEXT_GETTER(srv_get_skyport_alias_name, unsigned int, alias)
TEXT_GETTER(srv_get_skyport_last_alias_name, unsigned int, last_alias)
int srv_get_first_connection(char* out) { return text("srv_get_first_connection", out, 4096, fake.first_connection); }

// ---- sptcontrol ----

int SetSptOnLineStatus(int online) { return answer("SetSptOnLineStatus", 1, online); }
int SetSptURI(const char* uri) { return answer("SetSptURI", 1, uri); }

// ---- tessel, but the HTTP packets ----

int tessel_get_lock(const char* name) { return answer("tessel_get_lock", 1, name); }
int tessel_get_active_iface(ACT_IF_INFO* info, int* index) {
  return interfaces("tessel_get_active_iface", info, index);
}
int tessel_get_present_iface(ACT_IF_INFO* info, int* index) {
  return interfaces("tessel_get_present_iface", info, index);
}
const IF_METRIC* dev_get_if_metric(int* count) {
  answer("dev_get_if_metric", 1);
  *count = static_cast<int>(fake.metrics.size());
  return fake.metrics.empty() ? nullptr : fake.metrics.data();
}
int get_active_interface(const char* name, IFINFO* out) {
  const auto found = fake.binary_interfaces.find(name);
  const int result = answer("get_active_interface", found != fake.binary_interfaces.end() ? 1 : 0, name);
  if (result != 0 && found != fake.binary_interfaces.end()) *out = found->second;
  return result;
}
int fillActIfInfo(ACT_IF_INFO* out, IFINFO* in) {
  const int result = answer("fillActIfInfo", 1);
  if (result == silent_success) std::memset(out, 'x', sizeof(*out));
  if (result != 1) return told(result);
  inet_ntop(AF_INET, &in->ip, out->ip, sizeof(out->ip));
  inet_ntop(AF_INET, &in->mask, out->mask, sizeof(out->mask));
  inet_ntop(AF_INET, &in->gateway, out->gw, sizeof(out->gw));
  std::snprintf(out->mac, sizeof(out->mac), "%02X:%02X:%02X:%02X:%02X:%02X", in->mac[0], in->mac[1], in->mac[2],
                in->mac[3], in->mac[4], in->mac[5]);
  return result;
}
TEXT_GETTER(tessel_get_mac3, unsigned int, mac3)
int tessel_get_skyport_url(const char* domain, char* host) {
  const int result = answer("tessel_get_skyport_url", fake.redirect_host.empty() ? 0 : 1, domain);
  if (result != 0) fake_fill(host, 64, fake.redirect_host);
  return result;
}
int tessel_get_skyport_http_url(char* url) {
  return text("tessel_get_skyport_http_url", url, 64, fake.http_url, fake.http_url.empty() ? 0 : 1);
}
// clang-format on

// ---- upnpc: a router with a table ----

int Mupnpcp_discover(MupnpIgd* igd, int timeout) {
  const int result = answer("Mupnpcp_discover", fake.gateway ? 0 : 1, timeout);
  if (result == 0) *igd = fake.igd;
  return result;
}
int Mupnpcp_get_eip(char* ip, int timeout) {
  const int result = answer("Mupnpcp_get_eip", 0, timeout);
  if (result == 0) fake_fill(ip, MUPNP_IP_LEN, fake.router_ip);
  return result;
}
int Mupnpcp_query_eport_all(char* description, int index, int* external_port, char* protocol_name, int timeout) {
  const bool exists = index >= 0 && static_cast<std::size_t>(index) < fake.mappings.size();
  const int result = answer("Mupnpcp_query_eport_all", exists ? 0 : MUPNP_NOT_MAPPED, index, timeout);
  if (result != 0 || !exists) return result;
  const auto entry = std::next(fake.mappings.begin(), index);
  fake_fill(description, MUPNP_DESCRIPTION_LEN, entry->second.description);
  *external_port = entry->first;
  fake_fill(protocol_name, MUPNP_SHORT_LEN, "TCP");
  return result;
}
int Mupnpcp_query_eport_ex(char* description, char* internal_client, int* internal_port, int* lease_s,
                           int external_port, int protocol, int timeout) {
  const auto found = fake.mappings.find(external_port);
  const bool exists = found != fake.mappings.end();
  const int natural = !exists ? MUPNP_NOT_MAPPED : found->second.here ? MUPNP_MAPPED_HERE : MUPNP_MAPPED_ELSEWHERE;
  const int result = answer("Mupnpcp_query_eport_ex", natural, external_port, protocol, timeout);
  if (result != MUPNP_MAPPED_HERE && result != MUPNP_MAPPED_ELSEWHERE) return result;
  const FakeMapping mapping = exists ? found->second : FakeMapping{};
  fake_fill(description, MUPNP_DESCRIPTION_LEN, mapping.description);
  fake_fill(internal_client, MUPNP_CLIENT_LEN, result == MUPNP_MAPPED_HERE ? "192.168.1.20" : "192.168.1.99");
  *internal_port = mapping.internal_port;
  *lease_s = mapping.lease_s;
  return result;
}
int Mupnp_add_eport(const char* description, int external_port, int internal_port, int protocol, int timeout) {
  const int result = answer("Mupnp_add_eport", 0, description, external_port, internal_port, protocol, timeout);
  if (result == 0) fake.mappings[external_port] = {description, internal_port, true, 0};
  return result;
}
int Mupnp_del_eport(int external_port, int protocol, int timeout) {
  const bool exists = fake.mappings.contains(external_port);
  const int result = answer("Mupnp_del_eport", exists ? 0 : MUPNP_NONE, external_port, protocol, timeout);
  if (result == 0) fake.mappings.erase(external_port);
  return result;
}

}  // extern "C"
