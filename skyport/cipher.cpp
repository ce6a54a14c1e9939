#include "cipher.h"

#include <algorithm>

#include "service_cipher.h"

namespace skyport {

RequestBody decode_request(std::string_view base64) {
  using service_cipher::block_len, service_cipher::digits_len;
  RequestBody body;
  const service_cipher::Unbase64 sealed = service_cipher::read_base64(base64);
  // The wire carries no blanks, which the reader passes over.
  const size_t bad_at = std::min(sealed.bad_at, base64.find_first_of(" \t\r\n\v\f"));
  if (sealed.cut || bad_at != std::string::npos) {
    body.error = "body is not base64 at byte " + std::to_string(std::min(bad_at, base64.size()));
    return body;
  }
  const std::string plain = service_cipher::cfb8(false, service_cipher::service_key, sealed.raw);
  const size_t end = plain.find_last_not_of('\0') + 1;  // npos + 1 is 0: nothing but zeros
  body.digits = plain.substr(0, std::min(digits_len, end));
  body.xml = plain.substr(body.digits.size(), end - body.digits.size());
  const size_t digits_end = std::min(body.digits.find_first_not_of("0123456789"), body.digits.size());
  if (digits_end != digits_len)
    body.error = "body does not begin with six digits: none at byte " + std::to_string(digits_end);
  else if (plain.size() % block_len != 0)
    body.error = "body is not padded to a multiple of 8: it ends at byte " + std::to_string(plain.size());
  else if (plain.size() - end >= block_len)
    body.error = "body is padded by a whole block or more at byte " + std::to_string(end);
  return body;
}

}  // namespace skyport
