// The decision whether the service must be told again.
#pragma once

#include "core/device_context.h"

namespace kestrel {

/// Compares the current record with its last one, logs both, and returns 1 when the device update must
/// be sent in this cycle, 0 when nothing that the service knows has changed. The caller has filled the
/// defaults and set `prefinal_state` to its own state.
int need_update(const DeviceContext& current);

}  // namespace kestrel
