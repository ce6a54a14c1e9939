// Who may use the status port: it has no password, so a page of the internet in this machine's browser must not.
#pragma once

#include <string>

#include "http.h"

namespace skyport {

/// Why a request of the status port is refused, or an empty text. Its Host must be localhost, a loopback address or
/// the address that it came in by: a name of the internet that was made to lead here has another. Its Origin, when
/// there is one, must be that Host.
std::string visitor_error(const Request& request);

}  // namespace skyport
