// Bodies as the service takes them apart and answers.
#pragma once

#include <string>
#include <string_view>

namespace skyport {

/// A request's body laid open. `error` is empty when all of it is as it must be; otherwise it says
/// in a few words what is wrong, and `xml` holds what could be read all the same.
struct RequestBody {
  std::string digits;  // the six decimal digits before the XML
  std::string xml;
  std::string error;
};

/// Takes the base64 text of a request's body apart: six digits, XML, 0 to 7 zero bytes.
RequestBody decode_request(std::string_view base64);

}  // namespace skyport
