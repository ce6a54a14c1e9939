// Blowfish (B. Schneier, 1993), enciphering direction only, and the 8-bit cipher-feedback mode that the
// service's bodies, the tokens and the refer file use.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {

constexpr std::size_t blowfish_block_len = 8;  // bytes

/// Appends zero bytes to the data at `buffer` until `*len` is a multiple of the block. The caller guarantees
/// room for blowfish_block_len - 1 bytes behind the data. A length below 1 stays as it is.
void pad_to_block(unsigned char* buffer, std::int32_t* len);

/// Enciphers `len` bytes in place in CFB-8 (NIST SP 800-38A, 6.3, s = 8). The length stays the same;
/// any length is allowed. The key schedule runs for every call. Nothing happens when `iv_len` is not 8
/// or `key_len` is below 1.
void bf_cfb8_encrypt(unsigned char* buffer, std::int32_t len, const unsigned char* key, int key_len,
                     const unsigned char* iv, int iv_len);

/// The reverse of bf_cfb8_encrypt, with the same arguments.
void bf_cfb8_decrypt(unsigned char* buffer, std::int32_t len, const unsigned char* key, int key_len,
                     const unsigned char* iv, int iv_len);

}  // namespace kestrel
