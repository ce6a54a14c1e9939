// The service's listeners, and the faults that break an answer on the wire.
#pragma once

#include "http.h"
#include "requests.h"

namespace skyport {

/// Serves one request: decides, records the exchange, and applies the fault that strikes it.
/// `relay_only`: the listener takes absolute URLs alone.
Answer serve_request(Service& service, const Request& request, bool relay_only);

/// Records a connection that ended without a whole request; `status` 0: without an answer.
void note_broken(Service& service, const Request& request, unsigned status, const std::string& error);

}  // namespace skyport
