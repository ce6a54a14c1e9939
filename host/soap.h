// Calls of a gateway's actions.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "gateway.h"

namespace host {

struct SoapArgument {
  const char* name;
  std::string value;
};

constexpr int soap_ok = 0;
constexpr int soap_no_answer = -1;    // nothing whole came in time
constexpr int soap_bad_answer = 100;  // something came that is no answer; below every UPnP error code

struct SoapAnswer {
  int result = soap_no_answer;                 // one of the above, or the UPnP error code (400 to 899)
  std::map<std::string, std::string> outputs;  // by name; of an answer without error
};

/// Calls the action and waits for its answer, until the deadline. Nothing is sent to a service that is
/// no longer on the interface's network.
SoapAnswer soap_call(const ConnectionService& service, const char* action, const std::vector<SoapArgument>& arguments,
                     const Interface& from, const Deadline& deadline);

/// An output argument; empty when the answer lacks it.
std::string output_of(const SoapAnswer& answer, const std::string& name);

}  // namespace host
