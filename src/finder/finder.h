// The LAN finder service: what the thread's entry calls, in this order.
#pragma once

#include "core/device_context.h"

namespace kestrel {

/// Keeps a copy of the Digest state for the finder's own requests. Called by the main thread before the
/// finder thread exists; later changes of the record's state are not seen.
void Finderd_take_auth(const AuthenticateInfo& auth);

// From here on, finder thread only.

/// Sets the finder record to its beginning.
void Finderd_CST();

/// Finds the interfaces and opens a socket for each. Returns 1, or 0 at the first failure: what was
/// opened until then is served all the same.
int Finderd_init();

/// Hands the current record over.
void Finderd_set_context(DeviceContext* context);

/// Serves requests, sends the connection report whenever 15 seconds pass without one, and at the latest after 60,
/// and looks then for changed interfaces, until the record's `run` is 0.
void Finderd_loop();

/// Closes the sockets.
void Finderd_DST();

}  // namespace kestrel
