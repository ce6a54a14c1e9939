// The state table: names and handlers of the states.
#pragma once

#include "core/device_context.h"

namespace kestrel {

/// The state's name as the log and the tools know it; "UNKNOWN" for any number outside 0..16.
const char* state_name(RegState state);

/// Writes the 17 handlers into the record, indexed by state.
void install_handlers(DeviceContext& ctx);

}  // namespace kestrel
