// The status port's stream of what happens, for pages that follow it (server-sent events).
#pragma once

#include "http.h"
#include "requests.h"

namespace skyport {

/// An endless answer: "hello" with the service's start and time, then "exchanges", "devices" and "faults" as they
/// come, each with JSON as its data. Begins with the exchanges after the query's since=ID, or with the next one.
Answer get_events(Service& service, const Request& request);

}  // namespace skyport
