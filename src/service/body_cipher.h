// What the service and the daemon share: two secrets, the key made from them, and how a body travels
// (XML, Blowfish CFB-8, base64). docs/service-protocol.md has worked examples.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/log_format.h"

namespace kestrel {

/// The service key: 32 hexadecimal characters (the characters themselves), and a terminator.
constexpr std::size_t service_key_len = 32;

/// The IV of every use of the cipher.
inline constexpr unsigned char cipher_iv[] = "58585858";
constexpr int cipher_iv_len = sizeof(cipher_iv) - 1;
static_assert(cipher_iv_len == 8);

inline constexpr char hex_digits[] = "0123456789abcdef";

/// Characters of hex_encode_md5's text, terminator included.
constexpr std::size_t md5_hex_len = 33;

/// Writes a digest as 32 lowercase hexadecimal digits, high nibble first, and a terminator.
void hex_encode_md5(const unsigned char digest[16], char out[md5_hex_len]);

/// Derives the service key: the MD5 of first secret ":" second secret, in hexadecimal.
void make_service_key(char key[service_key_len + 1]);

/// Enciphers the terminated text in `body` (an array of `size` bytes) under the service key and puts
/// the base64 text of it in its place: zero padding to a whole cipher block first, then
/// `bodylen_format` is logged with the padded length. Returns the length of
/// the base64 text, or 0 when it would not fit into `size` bytes (`body` is then empty).
[[nodiscard]] int encipher_body(char* body, std::size_t size, LogFormat<'d'> bodylen_format);

/// Deciphers an answer's body: `len` characters of base64. Returns the plain text, terminated, which
/// the caller frees with free(); null when there is no memory.
[[nodiscard]] char* decipher_body(const char* body, std::int32_t len);

}  // namespace kestrel
