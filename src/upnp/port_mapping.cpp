// The port-mapping strategy, see port_mapping.h: candidates one by one, and what to do with each.
#include "upnp/port_mapping.h"

#include <array>
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
  char internal_client[MUPNP_CLIENT_LEN];
  int mapped_internal_port;
  int lease_s;
};

enum class Outcome { mapped, next_candidate };

/// The cases in which a mapping is replaced or added, with the log lines of each.
struct MappingCase {
  const char* found;
  const char* deleted;
  const char* added;
  const char* add_failed;
  const char* delete_failed;
};

constexpr MappingCase other_internal_port = {
    .found = "same ip, different iport\n",
    .deleted = "A1 Port mapping delete port (%d) success\n",
    .added = "A1 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***A1 Port mapping add port (%d) failed,try next\n",
    .delete_failed = "***A1 Port mapping delete port (%d) failed\n",
};
constexpr MappingCase other_name = {
    .found = "different service name,ip may changed\n",
    .deleted = "A2 Port mapping delete port (%d) success\n",
    .added = "A2 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***A2 Port mapping add port (%d) failed,try next\n",
    .delete_failed = "***A2 Port mapping delete port (%d) failed\n",
};
constexpr MappingCase no_name = {
    .found = "***no service name\n",
    .deleted = "A3 Port mapping delete port (%d) success\n",
    .added = "A3 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***A3 Port mapping add port (%d) failed,try next\n",
    .delete_failed = "***A3 Port mapping delete port (%d) failed\n",
};
constexpr MappingCase own_of_old_address = {
    .found = "Previously Added by Me, my ip changed!\n",
    .deleted = "A4 Port mapping delete port (%d) success\n",
    .added = "A4 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***A4 Port mapping add port (%d) failed,try next\n",
    .delete_failed = "***A4 Port mapping delete port (%d) failed,try next\n",  // this one alone says so
};
constexpr MappingCase free_port = {
    .found = ">>ueport:(%d) EMPTY, start adding\n",
    .deleted = nullptr,
    .added = "B1 Port mapping i(%d)-e(%d) ok!\n",
    .add_failed = "***B1 Port mapping add port (%d) failed,try next\n",
    .delete_failed = nullptr,
};

Outcome add(const MappingCase& lines, const Candidate& at) {
  if (add_eport_retry(at.service_name, at.port, at.internal_port, MUPNP_PROTOCOL_HTTP, mapping_attempts) != 1) {
    debug_log(lines.add_failed, at.port);
    return Outcome::next_candidate;
  }
  debug_log(lines.added, at.internal_port, at.port);
  return Outcome::mapped;
}

Outcome replace(const MappingCase& lines, const Candidate& at) {
  debug_log(lines.found, at.port);
  // Only "the router has no such mapping" counts as a failed delete; after any other failure the add
  // shows whether the port can be had.
  if (delete_port(at.port, mapping_attempts) == 0) {
    debug_log(lines.delete_failed, at.port);
    return Outcome::next_candidate;
  }
  debug_log(lines.deleted, at.port);
  return add(lines, at);
}

/// The mapping points at this device.
Outcome handle_mapped_here(const Candidate& at) {
  if (at.description[0] == '\0') return replace(no_name, at);
  if (std::strcmp(at.description, at.service_name) != 0) return replace(other_name, at);
  if (at.mapped_internal_port != at.internal_port) return replace(other_internal_port, at);
  debug_log("ignore adding port mapping\n");
  return Outcome::mapped;
}

/// The mapping points at another internal client: ours only if it carries our name.
Outcome handle_mapped_elsewhere(const Candidate& at) {
  debug_log(">>ueport:(%d) occupied\n", at.port);
  if (at.description[0] == '\0') {
    debug_log(">>no service name, eport:(%d) occupied\n", at.port);
    return Outcome::next_candidate;
  }
  if (std::strcmp(at.description, at.service_name) != 0) {
    debug_log("eport:(%d) Added by:(%s), try netxt\n", at.port, at.description);
    return Outcome::next_candidate;
  }
  return replace(own_of_old_address, at);
}

Outcome handle_not_mapped(const Candidate& at) {
  debug_log(free_port.found, at.port);
  return add(free_port, at);
}

struct ResultRow {
  int query_result;
  Outcome (*handle)(const Candidate& at);
};

constexpr std::array<ResultRow, 3> result_rows = {{
    {MUPNP_MAPPED_HERE, handle_mapped_here},
    {MUPNP_MAPPED_ELSEWHERE, handle_mapped_elsewhere},
    {MUPNP_NOT_MAPPED, handle_not_mapped},
}};

int query(Candidate& at, const std::uint32_t* reload) {
  at.mapped_internal_port = 0;
  at.lease_s = 0;
  zero(at.internal_client);
  const int result = query_eport_retry(at.description, at.internal_client, &at.mapped_internal_port, &at.lease_s,
                                       at.port, MUPNP_PROTOCOL_HTTP, mapping_attempts, reload);
  debug_log("ret=%d\n", result);
  return result;
}

}  // namespace

std::uint16_t next_port(std::uint16_t port) {
  switch (port) {
    case 0:
      return 80;
    case 80:
      return 443;
    case 443:
      return 8081;
    default:
      return port > 8080 ? static_cast<std::uint16_t>(port + 1) : port;
  }
}

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
    const int result = query(at, reload);
    if (result == upf_stopped) return upf_stopped;
    const ResultRow* row = nullptr;
    for (const ResultRow& candidate : result_rows) {
      if (candidate.query_result == result) row = &candidate;
    }
    if (row == nullptr) {
      debug_log("unhandled return value(%d),UPF() failed\n", result);
      return upf_failed;
    }
    if (row->handle(at) == Outcome::mapped) {
      format_text(external_port, port_len, "%d", at.port);
      return upf_mapped;
    }
  }
  return upf_failed;
}

}  // namespace kestrel
