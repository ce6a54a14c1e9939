// The cipher between a camera and its service, by nettle: Blowfish in 8-bit cipher feedback, carried in base64. The
// one implementation outside the daemon: the bench service, the tools and the tests check the daemon's own with it.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

namespace service_cipher {

inline constexpr std::size_t block_len = 8;   // of the cipher; a request's body is padded to a multiple of it
inline constexpr std::size_t digits_len = 6;  // decimal digits in front of a request's XML

/// MD5 of the parts joined by ':', as 32 lowercase hexadecimal digits.
std::string md5_hex(std::initializer_list<std::string_view> parts);
std::string md5_hex(std::string_view text);

/// Key of bodies, answers and tokens: the 32 hexadecimal digits of a digest, as text.
extern const std::string service_key;
/// Key of the refer file.
extern const std::string refer_key;

/// Enciphers or deciphers under the IV that everything uses; as long as `in`.
std::string cfb8(bool encipher, std::string_view key, std::string_view in);

std::string base64(std::string_view raw);

/// Base64 undone. `bad_at` is the offset of the first byte that is none, and then `raw` is empty; npos when all is
/// base64. `cut` tells of a length that is no multiple of 4. Blanks and line ends are passed over.
struct Unbase64 {
  std::string raw;
  std::size_t bad_at = std::string::npos;
  bool cut = false;
};
Unbase64 read_base64(std::string_view text);

/// The bytes of base64, or "not base64".
std::string unbase64(std::string_view text);

/// What travels: `plain` enciphered under the service's key and in base64, and back.
std::string seal(std::string_view plain);
std::string unseal(std::string_view text);

}  // namespace service_cipher
