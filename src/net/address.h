// Addresses: what counts as private, the first interface, and the device uid.
#pragma once

#include "platform/tessel.h"

namespace kestrel {

/// 1 when the dotted text lies in 10.0.0.0/8, 172.16.0.0/12 or 192.168.0.0/16, else 0. Only these count
/// as private; loopback, link-local, shared address space and texts that are no address are public.
int is_private_ip(const char* ip);

/// Forces a terminator into every text.
void terminate_texts(ACT_IF_INFO& info);

/// Fills `out` with the first interface that `get` gives, every text terminated. Returns the index that it gives, 0
/// when there is none.
int first_iface(int (*get)(ACT_IF_INFO* info, int* index), ACT_IF_INFO& out);

/// Writes the device uid, the model name, "_" and six characters of the MAC address, to `uid`, a buffer
/// of uid_len bytes. Returns 1, or 0 when `size` is below 1 or the platform does not know one of the
/// two (`uid` is then untouched). A long model name is cut so that the MAC stays whole.
int make_uid(char* uid, int size);

}  // namespace kestrel
