// What the service and the daemon share: two secrets, the key made from them, and how a body travels
// (XML, Blowfish CFB-8, base64). docs/service-protocol.md has worked examples.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <memory>

#include "core/log_format.h"

namespace kestrel {

/// The IV of every use of the cipher.
inline constexpr unsigned char cipher_iv[] = "58585858";
constexpr int cipher_iv_len = sizeof(cipher_iv) - 1;
static_assert(cipher_iv_len == 8);

/// Characters of an MD5 in hexadecimal, terminator included.
constexpr std::size_t md5_hex_len = 33;

/// Writes the MD5 of several texts joined by ':' to `out` (md5_hex_len bytes): 32 lowercase hexadecimal digits, high
/// nibble first, and a terminator.
void md5_of_joined(std::initializer_list<const char*> parts, char* out);

/// Gives memory back as it was taken, by malloc.
struct HeapDeleter {
  void operator()(void* memory) const { std::free(memory); }
};
using HeapText = std::unique_ptr<char, HeapDeleter>;

/// Enciphers `len` bytes in place under the service key: the MD5 of first secret ":" second secret, its 32 hexadecimal
/// characters themselves.
void encipher(char* bytes, std::int32_t len);

/// Enciphers the terminated text in `body` in place, with zero bytes behind it to a whole cipher block, for which there
/// is room; `bodylen_format` is logged with the length of that. Returns its base64 text; null when there is no
/// memory.
[[nodiscard]] HeapText encipher_body(char* body, LogFormat<'d'> bodylen_format);

/// Deciphers an answer's body: `len` characters of base64. Returns the plain text, terminated; null when there is no
/// memory.
[[nodiscard]] HeapText decipher_body(const char* body, std::int32_t len);

}  // namespace kestrel
