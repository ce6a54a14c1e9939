// The status port: what the service knows, for people and scripts, and the orders that it takes.
#pragma once

#include "http.h"
#include "requests.h"

namespace skyport {

/// Serves one request of the status port.
Answer serve_status(Service& service, const Request& request);

}  // namespace skyport
