// Addresses: what counts as private, the device uid, and the padding to cipher blocks.
#ifndef KESTREL_NET_ADDRESS_H
#define KESTREL_NET_ADDRESS_H

#include <cstdint>

namespace kestrel {

/// The block of the body cipher, in bytes.
constexpr std::int32_t cipher_block_len = 8;

/// 1 when the dotted text lies in 10.0.0.0/8, 172.16.0.0/12 or 192.168.0.0/16, else 0. Only these count
/// as private; loopback, link-local, shared address space and texts that are no address are public.
int is_private_ip(const char* ip);

/// Writes the device uid, the model name, "_" and six characters of the MAC address, to `uid`, a buffer
/// of uid_len bytes. Returns 1, or 0 when `size` is below 1 or the platform does not know one of the
/// two (`uid` is then untouched). A long model name is cut so that the MAC stays whole.
int make_uid(char* uid, int size);

/// Appends zero bytes to the data at `buffer` until `*len` is a multiple of the cipher block. The caller
/// guarantees room for cipher_block_len - 1 bytes behind the data. A length below 1 stays as it is.
void pad_to_block(unsigned char* buffer, std::int32_t* len);

}  // namespace kestrel

#endif
