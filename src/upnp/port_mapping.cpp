// The port-mapping strategy, see port_mapping.h: candidates one by one, and what to do with each.
#include "upnp/port_mapping.h"

#include <cstdlib>
#include <cstring>

#include "core/debug_log.h"
#include "core/device_context.h"
#include "core/text.h"

namespace kestrel {

namespace {

constexpr int max_passes = 50;

/// What a pass knows about its candidate.
struct Candidate {
  std::uint16_t port;
  std::uint16_t internal_port;
  const char* service_name;
  char description[MUPNP_DESCRIPTION_LEN];
  int mapped_internal_port;
};

/// Beside the results of UPF: the candidate cannot be had.
constexpr int next_candidate = -1;

/// The cases in which a mapping is added, or replaced, with the log lines of each.
struct MappingCase {
  const char* found;
  const char* deleted = nullptr;
  const char* delete_failed = nullptr;
  const char* added;
  const char* add_failed;
};

constexpr MappingCase other_internal_port = {
    .found = "same ip, different iport\n",
    .deleted = "A1 Port mapping delete port (%d) success\n",
    .delete_failed = "***A1 Port mapping delete port (%d) failed\n",
    .added = "A1 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***A1 Port mapping add port (%d) failed,try next\n",
};
constexpr MappingCase other_name = {
    .found = "different service name,ip may changed\n",
    .deleted = "A2 Port mapping delete port (%d) success\n",
    .delete_failed = "***A2 Port mapping delete port (%d) failed\n",
    .added = "A2 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***A2 Port mapping add port (%d) failed,try next\n",
};
constexpr MappingCase no_name = {
    .found = "***no service name\n",
    .deleted = "A3 Port mapping delete port (%d) success\n",
    .delete_failed = "***A3 Port mapping delete port (%d) failed\n",
    .added = "A3 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***A3 Port mapping add port (%d) failed,try next\n",
};
constexpr MappingCase own_of_old_address = {
    .found = "Previously Added by Me, my ip changed!\n",
    .deleted = "A4 Port mapping delete port (%d) success\n",
    .delete_failed = "***A4 Port mapping delete port (%d) failed,try next\n",  // this one alone says so
    .added = "A4 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***A4 Port mapping add port (%d) failed,try next\n",
};
constexpr MappingCase free_port = {
    .found = ">>ueport:(%d) EMPTY, start adding\n",
    .added = "B1 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***B1 Port mapping add port (%d) failed,try next\n",
};

int add(const MappingCase& lines, const Candidate& at) {
  if (add_eport_retry(at.service_name, at.port, at.internal_port, MUPNP_PROTOCOL_HTTP, mapping_attempts) != 1) {
    debug_log(lines.add_failed, at.port);
    return next_candidate;
  }
  debug_log(lines.added, at.internal_port, at.port);
  return upf_mapped;
}

int replace(const MappingCase& lines, const Candidate& at) {
  debug_log(lines.found, at.port);
  // Only "the router has no such mapping" counts as a failed delete; after any other failure the add
  // shows whether the port can be had.
  if (delete_port(at.port, mapping_attempts) == 0) {
    debug_log(lines.delete_failed, at.port);
    return next_candidate;
  }
  debug_log(lines.deleted, at.port);
  return add(lines, at);
}

/// What is done with a candidate, by what the router says of it. Returns a result of UPF, or next_candidate.
int act_on(int query_result, const Candidate& at) {
  const bool unnamed = at.description[0] == '\0';
  const bool own_name = std::strcmp(at.description, at.service_name) == 0;
  switch (query_result) {
    case MUPNP_MAPPED_HERE:
      if (unnamed) return replace(no_name, at);
      if (!own_name) return replace(other_name, at);
      if (at.mapped_internal_port != at.internal_port) return replace(other_internal_port, at);
      debug_log("ignore adding port mapping\n");
      return upf_mapped;
    case MUPNP_MAPPED_ELSEWHERE:  // ours only if it carries our name
      debug_log(">>ueport:(%d) occupied\n", at.port);
      if (own_name) return replace(own_of_old_address, at);
      if (unnamed) {
        debug_log(">>no service name, eport:(%d) occupied\n", at.port);
      } else {
        debug_log("eport:(%d) Added by:(%s), try netxt\n", at.port, at.description);
      }
      return next_candidate;
    case MUPNP_NOT_MAPPED:
      debug_log(free_port.found, at.port);
      return add(free_port, at);
    case upf_stopped:
      return upf_stopped;
    default:
      debug_log("unhandled return value(%d),UPF() failed\n", query_result);
      return upf_failed;
  }
}

std::uint16_t next_port(std::uint16_t port) {
  if (port == 0) return 80;
  if (port == 80) return 443;
  if (port == 443) return 8081;
  // A stored number from 1 to 8080 that is neither stays as it is.
  return port > 8080 ? static_cast<std::uint16_t>(port + 1) : port;
}

}  // namespace

int UPF(const char* uid, std::uint16_t internal_port, char* external_port, const std::uint32_t* reload) {
  Candidate at{};
  // The port stored by an earlier success is not tried again first: the search goes on behind it. No text is 0.
  at.port = next_port(static_cast<std::uint16_t>(std::atoi(external_port)));
  at.internal_port = internal_port;
  // Keeps the first candidate's number for all passes: later runs look for exactly this name.
  char service_name[MUPNP_DESCRIPTION_LEN];
  format_text(service_name, sizeof(service_name), "%s-1.2-%d", uid, at.port);
  at.service_name = service_name;
  for (int pass = 0; pass < max_passes; ++pass, at.port = next_port(at.port)) {
    debug_log("Querying eport:(%d)\n", at.port);
    if (load_word(*reload) == 1 || exit_requested()) return upf_failed;
    at.mapped_internal_port = 0;
    char internal_client[MUPNP_CLIENT_LEN] = "";
    int lease_s = 0;
    int result = query_eport_retry(at.description, internal_client, &at.mapped_internal_port, &lease_s, at.port,
                                   MUPNP_PROTOCOL_HTTP, mapping_attempts, reload);
    debug_log("ret=%d\n", result);
    result = act_on(result, at);
    if (result == next_candidate) continue;
    if (result == upf_mapped) format_text(external_port, port_len, "%d", at.port);
    return result;
  }
  return upf_failed;
}

}  // namespace kestrel
