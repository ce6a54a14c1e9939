// The calls to the router with their repetitions, see port_mapping.h.
#include <cstring>

#include "core/debug_log.h"
#include "core/device_context.h"
#include "core/gateway_texts.h"
#include "core/text.h"
#include "platform/upnpc.h"
#include "upnp/port_mapping.h"

namespace kestrel {

namespace {

/// The attempt, counted from 0, whose failure is reported; callers that pass fewer attempts never see it.
constexpr int reported_attempt = 3;

/// Turns of the clean-up: more than any router's table has entries. It ends the clean-up with a router that
/// reports its deletes as done and keeps the mappings.
constexpr int max_clean_up_turns = 1024;

}  // namespace

int query_eport_retry(char* description, char* internal_client, int* internal_port, int* lease_s, int external_port,
                      int protocol, int attempts, const std::uint32_t* reload) {
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (load_word(*reload) == 1 || exit_requested()) return upf_stopped;
    print_console(
        "before Mupnpcp_query_eport_ex,sname=%s,newInternalClient=%s,newInternalPort=%d\nnewLeaseDuration=%d,ueport=%d,"
        "type=%d,UPNP_DEF_TIMEOUT=%d\n\n",
        description, internal_client, *internal_port, *lease_s, external_port, protocol, UPNP_DEF_TIMEOUT);
    const int result = Mupnpcp_query_eport_ex(description, internal_client, internal_port, lease_s, external_port,
                                              protocol, UPNP_DEF_TIMEOUT);
    // Also of a call that timed out: the next attempt prints them.
    description[MUPNP_DESCRIPTION_LEN - 1] = internal_client[MUPNP_CLIENT_LEN - 1] = '\0';
    print_console("after Mupnpcp_query_eport_ex, ret = %d\n", result);
    if (result != MUPNP_NO_ANSWER) return result;
    debug_log("*** timeout! in querying eport:(%d) retry(%d)\n", external_port, attempt);
    if (attempt == reported_attempt) {
      debug_log("*** query eport:(%d) failed! stop\n", external_port);
      break;
    }
  }
  return MUPNP_NO_ANSWER;
}

int add_eport_retry(const char* description, std::uint16_t external_port, std::uint16_t internal_port, int protocol,
                    int attempts) {
  for (int attempt = 0; attempt < attempts && !exit_requested(); ++attempt) {
    if (Mupnp_add_eport(description, external_port, internal_port, protocol, UPNP_DEF_TIMEOUT) == 0) {
      debug_log("Port mapping i(%d)-e(%d) ok!\n", internal_port, external_port);
      return 1;
    }
    if (attempt == reported_attempt) {
      debug_log("*** Port mapping add port %d failed\n", external_port);
      break;
    }
  }
  return 0;
}

int delete_port(std::uint16_t external_port, int attempts) {
  for (int attempt = 0;; ++attempt) {
    debug_log("!delete port=%d\n", external_port);
    const int result = Mupnp_del_eport(external_port, MUPNP_PROTOCOL_HTTP, UPNP_DEF_TIMEOUT);
    if (result == 0) {
      debug_log("Port mapping delete port (%d) success\n", external_port);
      return 1;
    }
    if (result == MUPNP_NONE) return 0;
    if (attempt == reported_attempt) {
      debug_log("*** Port mapping delete port (%d) failed\n", external_port);
      return 0;
    }
    if (attempt + 1 == attempts || exit_requested()) return result;
  }
}

int find_gateway(MupnpIgd* igd) {
  const int result = Mupnpcp_discover(igd, UPNP_DEF_TIMEOUT);
  for (const GatewayText& text : gateway_texts) gateway_text(*igd, text)[text.size - 1] = '\0';
  return result;
}

int get_router_address(char* ip) {
  char found[MUPNP_CLIENT_LEN];  // 16 bytes are meant; a library with IPv6 in mind may fill more
  copy_text(found, ip);
  const int result = Mupnpcp_get_eip(found, UPNP_DEF_TIMEOUT);
  copy_bytes(ip, ip_len, found, sizeof(found));
  return result;
}

int remove_own_mappings(const char* uid) {
  char prefix[MUPNP_DESCRIPTION_LEN];
  format_text(prefix, sizeof(prefix), "%s-1.2", uid);
  debug_log("======== uid_info : %s ========\n", prefix);
  const std::size_t prefix_len = std::strlen(prefix);
  int index = 0;
  for (int turn = 0; turn < max_clean_up_turns && !exit_requested(); ++turn) {
    char description[MUPNP_DESCRIPTION_LEN] = "";
    char protocol_name[MUPNP_SHORT_LEN] = "";
    int external_port = 0;
    if (Mupnpcp_query_eport_all(description, index, &external_port, protocol_name, UPNP_DEF_TIMEOUT) != 0) return 0;
    terminate(description);
    if (std::strncmp(description, prefix, prefix_len) != 0) {
      debug_log("===========> Occupy by other service <=============\n\n");
      ++index;
      continue;
    }
    debug_log("===========> Remove pollution ExtPort(%d) myself<=============\n\n", external_port);
    // The router's table closes up behind a deleted entry, so its index holds the next one.
    if (Mupnp_del_eport(external_port, MUPNP_PROTOCOL_HTTP, UPNP_DEF_TIMEOUT) != 0) ++index;
  }
  return 0;
}

}  // namespace kestrel
