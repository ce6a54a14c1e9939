// Addresses: what counts as private, and the device uid.
#ifndef KESTREL_NET_ADDRESS_H
#define KESTREL_NET_ADDRESS_H

namespace kestrel {

/// 1 when the dotted text lies in 10.0.0.0/8, 172.16.0.0/12 or 192.168.0.0/16, else 0. Only these count
/// as private; loopback, link-local, shared address space and texts that are no address are public.
int is_private_ip(const char* ip);

/// Writes the device uid, the model name, "_" and six characters of the MAC address, to `uid`, a buffer
/// of uid_len bytes. Returns 1, or 0 when `size` is below 1 or the platform does not know one of the
/// two (`uid` is then untouched). A long model name is cut so that the MAC stays whole.
int make_uid(char* uid, int size);

}  // namespace kestrel

#endif
