// The state of the service as plain text, for people at a terminal.
#pragma once

#include "http.h"
#include "requests.h"

namespace skyport {

/// Devices, faults in force, and the last exchanges.
Answer text_page(Service& service);

}  // namespace skyport
