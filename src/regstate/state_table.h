// The state table: names and handlers of the states, and the record's defaults.
#ifndef KESTREL_REGSTATE_STATE_TABLE_H
#define KESTREL_REGSTATE_STATE_TABLE_H

#include "core/device_context.h"

namespace kestrel {

/// The state's name as the log and the tools know it; "UNKNOWN" for any number outside 0..16.
const char* state_name(RegState state);

/// Writes the 17 handlers into the record, indexed by state.
void install_handlers(DeviceContext& ctx);

/// Fills what the service must not see empty: `ue.ip` "null", `ue.port` "0", the gateway's texts "n/a".
void fill_defaults(DeviceContext& ctx);

}  // namespace kestrel

#endif
