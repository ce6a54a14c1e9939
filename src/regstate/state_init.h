// Identity initialisation: what every registration begins with.
#pragma once

#include "core/device_context.h"

namespace kestrel {

/// Set by state_init when it found the gateway, so that NATMode may skip its own search once.
extern std::uint32_t upnp_found_at_init;

/// Resets both records and establishes the device's identity: uid, host id, account, timestamp, refer
/// file, and a first look for the gateway. Blocks until the platform has an account, or until an exit is
/// requested. Leaves the state at START. Main thread only.
void state_init(DeviceContext& current);

}  // namespace kestrel
