// What writes: settings, the status, a mapping. Each puts back what it found.
#include <cstring>

#include "check.h"
#include "platform/sptcontrol.h"
#include "platform/tesselcfg.h"
#include "platform/upnpc.h"

namespace platform_check {

namespace {

/// A cleared buffer that a library cannot leave; each call of the same row takes another.
char* room(std::size_t which) {
  static Guarded rooms[5];
  rooms[which].fill(0);
  return rooms[which].text();
}

constexpr unsigned alias_len = 32;
constexpr char no_matter[] = "has nothing to do with it";
constexpr char kept_old[] = "tells the tool that it was refused, or goes on with the old one";

/// A text that is stored and read back, and the old one put back.
void store(Finding& finding, int (*get)(char*), int (*set)(char*), const char* test) {
  char* const old = room(0);
  char* const now = room(1);
  char* const wanted = room(2);
  std::memcpy(wanted, test, std::strlen(test) + 1);
  if (get(old) == 0 || old[0] == '\0') return tell(finding, "none is stored that could be put back, not tried");
  const int result = set(wanted);
  get(now);
  set(old);
  char* const back = room(3);
  get(back);
  tell(finding, "result %d, \"%.40s\"", result, now);
  if (std::strcmp(now, test) != 0) note(finding, kept_old, "\"%.40s\" was not stored", test);
  if (result == 0 && std::strcmp(now, test) == 0)
    note(finding, "looks whether it was stored", "result 0 though stored");
  if (std::strcmp(old, back) != 0) note(finding, no_matter, "\"%.40s\" could not be put back", old);
}

int get_domain(char* domain) {
  static Guarded ip;
  return cre_get_skyport_domain_ip(domain, ip.text());
}

void domain(Finding& finding) {
  store(finding, get_domain, cre_set_skyport_domain, "platform-check.test");
}
void redirect_server(Finding& finding) {
  store(finding, get_redirsrv_ip, set_redirsrv_ip, "192.0.2.77");
}

void host_id(Finding& finding) {
  char* const hid = room(0);
  char* const password = room(1);
  if (get_dev_sip_account(hid, password) == 0) return tell(finding, "no account, not tried");
  const int result = cre_set_skyport_hid(hid);
  tell(finding, "result %d", result);
  if (result == 0) note(finding, "logs a failure, and goes on", "result 0");
}

void enable_switch(Finding& finding) {
  char* const old = room(0);
  char* const now = room(1);
  if (cre_get_skyport_enable_state(old) == 0) return tell(finding, "cannot be read, not tried");
  const char wanted = *old == 0 ? 1 : 0;
  const int result = cre_set_skyport_enable_state(wanted);
  cre_get_skyport_enable_state(now);
  cre_set_skyport_enable_state(*old);
  char* const back = room(2);
  cre_get_skyport_enable_state(back);
  tell(finding, "result %d, %d", result, *now);
  if (*now != wanted) note(finding, kept_old, "the switch keeps %d", *now);
  if (*back != *old) note(finding, no_matter, "%d could not be put back", *old);
}

void alias(Finding& finding) {
  static Guarded statuses;
  char* const old = room(0);
  char* const now = room(1);
  char* const only = room(2);
  char* const status = room(3);
  char test[] = "platform-check";
  statuses.fill(0);
  char* const old_status = statuses.text();
  if (srv_get_aliasname_status(old, old_status) == 0) return tell(finding, "cannot be read, not tried");
  const int result = srv_update_aliasname_status(test, ALIAS_REQUESTED);
  srv_get_aliasname_status(now, status);
  srv_set_skyport_alias_status(ALIAS_FAILED);
  srv_get_skyport_alias_status(only);
  srv_update_aliasname_status(old, *old_status);
  char* const back = room(4);
  srv_get_skyport_alias_name(back, alias_len);
  tell(finding, "result %d, \"%.31s\", %d, then %d", result, now, *status, *only);
  if (result == 0) note(finding, "refuses the tool's alias", "result 0");
  if (std::strcmp(now, test) != 0 || *status != ALIAS_REQUESTED) {
    note(finding, "shows the tool another one", "the alias or its status was not stored");
  }
  if (*only != ALIAS_FAILED) note(finding, "has no use for that", "the status alone was not stored");
  if (std::strcmp(old, back) != 0) note(finding, no_matter, "\"%.40s\" could not be put back", old);
}

/// The daemon says it anew with its next state.
void status(Finding& finding) {
  SetSptOnLineStatus(0);
  SetSptURI("http://platform-check.test");
  tell(finding, "returned");
}

void mapping(Finding& finding) {
  constexpr int port = 50997, timeout_s = 8;
  constexpr char description[] = "kestrel-platform-check";
  auto* const gateway = static_cast<MupnpIgd*>(static_cast<void*>(room(2)));
  if (Mupnpcp_discover(gateway, timeout_s) != 0) return tell(finding, "no gateway, not tried");
  char* const text = room(0);
  char* const client = room(1);
  int internal = 0, lease_s = 0;
  const int before = Mupnpcp_query_eport_ex(text, client, &internal, &lease_s, port, MUPNP_PROTOCOL_HTTP, timeout_s);
  if (before != MUPNP_NOT_MAPPED) return tell(finding, "port %d is not free: %d, not tried", port, before);
  const int added = Mupnp_add_eport(description, port, 80, MUPNP_PROTOCOL_HTTP, timeout_s);
  if (added != 0) return tell(finding, "the router refuses: %d", added);
  const int found = Mupnpcp_query_eport_ex(text, client, &internal, &lease_s, port, MUPNP_PROTOCOL_HTTP, timeout_s);
  const int deleted = Mupnp_del_eport(port, MUPNP_PROTOCOL_HTTP, timeout_s);
  const int again = Mupnp_del_eport(port, MUPNP_PROTOCOL_HTTP, timeout_s);
  tell(finding, "added, found %d, deleted %d, again %d", found, deleted, again);
  if (found != MUPNP_MAPPED_HERE || internal != 80)
    note(finding, "takes another port", "the mapping is not known as ours");
  if (std::strcmp(text, description) != 0)
    note(finding, "never removes its mappings", "the description is \"%.40s\"", text);
  if (deleted != 0) note(finding, "tries 5 times, and leaves it", "a mapping cannot be deleted: %d", deleted);
}

constexpr Row own(const char* name, const char* asked, void (*examine)(Finding&), int limit_ms = quick_ms) {
  return {name, asked, nullptr, {}, Result::unused, "", false, examine, true, limit_ms};
}

constexpr Row rows[] = {
    own("cre_set_skyport_hid", "the same host id", host_id),
    own("cre_set_skyport_domain", "another, and back", domain),
    own("cre_set_skyport_enable_state", "the other, and back", enable_switch),
    own("set_redirsrv_ip", "another, and back", redirect_server),
    own("srv_update_aliasname_status", "another, and back", alias),
    own("SetSptOnLineStatus, SetSptURI", "off line, a URI", status),
    own("Mupnp_add_eport, del_eport", "port 50997, and away", mapping, 6 * router_ms),
};

}  // namespace

Rows writing_rows() {
  return {rows, sizeof(rows) / sizeof(rows[0])};
}

}  // namespace platform_check
