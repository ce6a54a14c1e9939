// The port-mapping strategy: one external port of the router, mapped to the camera's HTTP port.
#pragma once

#include <cstdint>

#include "platform/upnpc.h"

namespace kestrel {

/// Results of UPF and, the last one, of query_eport_retry.
constexpr int upf_failed = 0;
constexpr int upf_mapped = 1;
constexpr int upf_stopped = 5;  // a reload was requested

/// Seconds that a call of the UPnP library may take.
constexpr int UPNP_DEF_TIMEOUT = 8;

/// Attempts for every query, add and delete of a cycle.
constexpr int mapping_attempts = 2;

/// Obtains a mapping to `internal_port`. `external_port` is the record's `ue.port` text (port_len
/// bytes): read for the first candidate, and written with the port that was obtained. The candidates are
/// 80, 443, 8081, 8082, ... 65535, 0, 80; at most 50 are tried, each for at most two queries, two deletes and
/// two adds. `reload` is the reload flag, which a signal handler may set meanwhile. Returns upf_mapped, upf_failed or
/// upf_stopped; a mapping of another device is never touched. An exit request ends the search and every repetition of
/// this room's functions; a call under way is let finish. Main thread only, like all of this room.
[[nodiscard]] int UPF(const char* uid, std::uint16_t internal_port, char* external_port, const std::uint32_t* reload);

/// Looks a mapping up, again after a time-out. Texts of 64 bytes each, terminated. Returns the library's result
/// (MUPNP_MAPPED_HERE and so on), or upf_stopped when a reload was requested.
[[nodiscard]] int query_eport_retry(char* description, char* internal_client, int* internal_port, int* lease_s,
                                    int external_port, int protocol, int attempts, const std::uint32_t* reload);

/// Adds a mapping. Returns 1 when it was added, 0 when all attempts failed.
[[nodiscard]] int add_eport_retry(const char* description, std::uint16_t external_port, std::uint16_t internal_port,
                                  int protocol, int attempts);

/// Deletes a mapping, by one attempt at least. Returns 1 when it was deleted, 0 when the router has none (or at the
/// fourth failed attempt), and the library's last result, which is not 0, when fewer attempts have run out.
[[nodiscard]] int delete_port(std::uint16_t external_port, int attempts);

/// Searches for the gateway and fills its description, every text of it terminated. 0 when one was found.
[[nodiscard]] int find_gateway(MupnpIgd* igd);

/// Asks the gateway for its external address (`ip`, ip_len bytes, terminated). 0 on success; MUPNP_NONE
/// or another value on failure.
[[nodiscard]] int get_router_address(char* ip);

/// Deletes every mapping that this device left behind in any earlier run, known by its description.
/// Stops at the first index that the router does not answer for. Returns 0 always.
int remove_own_mappings(const char* uid);

}  // namespace kestrel
