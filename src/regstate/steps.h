// Steps that several state handlers share.
#pragma once

#include "core/device_context.h"

namespace kestrel {

/// The enable report and the DAIP query, guarded by their counters of authentication failures. Return
/// the request's result. Where it is neither 1 nor a tolerated 2, `upd.resut` says "authentication
/// failed" and the state is LumenDevNotReady, which a later success of the caller overwrites.
[[nodiscard]] int report_enable(DeviceContext& ctx, int enabled);
[[nodiscard]] int query_daip(DeviceContext& ctx);

/// Ends the cycle with "authentication failed" in LumenDevNotReady; the counter of failures begins anew.
void give_up(DeviceContext& ctx, std::uint32_t& count);

/// Reports the switch up to three times without a pause, until the service takes it, which sets
/// `Last_Spt_Enabled`. Returns true when it did.
bool report_enable_up_to_3(DeviceContext& ctx, int enabled);

/// The user's switch for the service, which is logged: 0 or 1; what was last reported (-1 for nothing) when it cannot
/// be read.
int read_enable_switch(const DeviceContext& ctx);

/// Deletes the mapping of `ue.port` and, when it was deleted, has the camera's port forwarder reload.
void delete_mapping(DeviceContext& ctx);

/// `ue.port` as a number of 16 bits.
std::uint16_t mapped_port(const DeviceContext& ctx);

/// Has the service test the mapping, some seconds after it was made, and logs `ok_line` when it works. One that does
/// not is given up, which is logged with the handler's name, and the next state written: `again`, or UpnpPfFailed when
/// no more ports are to be tried, with `ue.port` "0". With an exit request nothing is done about it.
[[nodiscard]] bool mapping_works(DeviceContext& ctx, const char* ok_line, const char* handler, RegState again);

/// Fills what the service must not see empty: `ue.ip` "null", `ue.port` "0", the gateway's texts "n/a".
void fill_defaults(DeviceContext& ctx);

/// Forgets what a cycle has learned: the mapping, the gateway, the addresses, the relay.
void clear_cycle(DeviceContext& current);

/// Forgets how it ended: the failed tests and the update's result.
void clear_results(DeviceContext& current);

/// Ends the cycle: keeps it as the last record and begins anew at START, after the configuration hold
/// when one was asked for.
void start_over(DeviceContext& current);

/// Seconds that the configuration hold adds for every request.
constexpr unsigned configuration_hold_s = 120;

}  // namespace kestrel
