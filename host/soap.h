// Calls of a gateway's actions.
#ifndef KESTREL_HOST_SOAP_H
#define KESTREL_HOST_SOAP_H

#include <string>
#include <string_view>
#include <vector>

#include "gateway.h"

namespace host {

struct SoapArgument {
  const char* name;
  std::string value;
};

enum {
  SOAP_OK = 0,
  SOAP_NO_ANSWER = -1,    // nothing whole came in time
  SOAP_BAD_ANSWER = 100,  // something came that is no answer; below every UPnP error code
};

struct SoapAnswer {
  int result = SOAP_NO_ANSWER;  // one of the above, or the UPnP error code (400 to 899)
  std::string xml;              // of an answer without error
};

/// Calls the action and waits for its answer, until the deadline. Nothing is sent to a service that is
/// no longer on the interface's network.
SoapAnswer soap_call(const ConnectionService& service, const char* action, const std::vector<SoapArgument>& arguments,
                     const Interface& from, const Deadline& deadline);

/// An output argument; empty when the answer lacks it.
std::string element_of(const SoapAnswer& answer, std::string_view name);

}  // namespace host

#endif
