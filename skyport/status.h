// The status port: what the service knows, for people and scripts, and the orders that it takes.
#ifndef KESTREL_SKYPORT_STATUS_H
#define KESTREL_SKYPORT_STATUS_H

#include "http.h"
#include "requests.h"

namespace skyport {

/// Serves one request of the status port.
Answer serve_status(Service& service, const Request& request);

}  // namespace skyport

#endif
