// Body cipher of the service, on nettle: Blowfish in 8-bit cipher feedback under the key that both
// ends derive from their shared secrets, carried in base64.
#ifndef SKYPORT_CIPHER_H
#define SKYPORT_CIPHER_H

#include <initializer_list>
#include <string>
#include <string_view>

namespace skyport {

/// MD5 of the parts joined by ':', as 32 lowercase hexadecimal digits.
std::string md5_hex(std::initializer_list<std::string_view> parts);

/// The text of an answer: base64 of the enciphered `xml`.
std::string encode_answer(std::string_view xml);

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

#endif
