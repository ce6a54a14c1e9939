// The finder's wire format. Integers are little-endian, addresses are in network byte order.
//
//   request                                 reply
//   0   magic 0xFDFD                        0   magic 0xFEEE
//   2   tag                                 2   tag, echoed
//   4   opcode                              4   opcode, echoed
//   6   target MAC, or FF:FF:FF:FF:FF:FF    6   the camera's MAC
//   12  not read, 8 bytes                   12  address of the receiving interface
//                                           16  result
//                                           18  1
//   20  payload length                      20  payload length
//   22  user name, base64, 64 bytes         22  payload
//   86  password, base64, 64 bytes
//   150 argument, up to the end
#pragma once

#include <endian.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/device_context.h"
#include "platform/tessel.h"

namespace kestrel {

constexpr std::size_t finder_header_len = 22;
constexpr std::size_t finder_mac_len = 6;
constexpr std::size_t finder_credential_len = 64;                              // on the wire: no room for an end
constexpr std::size_t finder_credential_text_len = finder_credential_len + 1;  // as a text

constexpr std::uint16_t finder_request_magic = 0xFDFD;
constexpr std::uint16_t finder_reply_magic = 0xFEEE;
constexpr std::uint16_t finder_reply_flag = 1;

enum FinderOffset : std::size_t {
  at_magic = 0,
  at_tag = 2,
  at_opcode = 4,
  at_mac = 6,
  at_ip = 12,
  at_result = 16,
  at_flag = 18,
  at_length = 20,
  at_user = 22,
  at_password = 86,
  at_arg = 150,
};
static_assert(at_length + 2 == finder_header_len && at_mac + finder_mac_len == at_ip);
static_assert(at_user + finder_credential_len == at_password && at_password + finder_credential_len == at_arg);

enum FinderOpcode : std::uint16_t {
  op_survey = 0x00A1,
  op_user_probe = 0x00A3,  // asked for by no handler; an ordinary user's authority reaches only this far
  op_list = 0x00A5,
  op_get_enable = 0x00D1,
  op_set_enable = 0x00D2,
  op_self_conf_result = 0x0102,
  op_get_url = 0x0105,
  op_get_alias = 0x0106,
  op_set_alias = 0x0107,
  op_alias_status = 0x0108,
  op_spt_survey = 0x0109,
  op_set_domain = 0x010A,
};

constexpr std::size_t finder_survey_len = 312;  // the longest payload of a reply
constexpr std::size_t finder_text_len = 64;

/// The buffer of one request, and the longest argument, up to its end.
constexpr std::size_t finder_request_len = 1024;
constexpr std::size_t finder_arg_len = finder_request_len - at_arg;
constexpr std::size_t finder_alias_len = 64;

/// What the finder remembers of the aliases that were set through it.
struct FinderAlias {
  std::uint32_t alias_handle;         // 1 to 1024
  char last_alias[finder_alias_len];  // the last one that was accepted
};

/// A request, and all that an operation works on.
struct FinderRequest {
  const std::uint8_t* bytes;  // finder_request_len of them, zero behind the datagram
  const IFINFO* iface;        // by which it came
  const char* my_mac;         // MyMAC, the camera's own address as text
  const DeviceContext* ctx;   // the current record: shared words only
  FinderAlias* alias;
};

/// Reads a field of a request, whose buffer holds every offset.
std::uint16_t request_u16(const FinderRequest& request, std::size_t offset);

/// Copies a text field of a request that reaches from `offset` over `len` bytes at most: terminated, cut to
/// `size`. Returns true when all of it fitted.
bool request_text(const FinderRequest& request, std::size_t offset, std::size_t len, char* out, std::size_t size);

/// A reply being written, one field behind the other: what was put is its payload. What the longest payload has no
/// room for is left out.
struct FinderReply {
  std::uint8_t bytes[finder_header_len + finder_survey_len];
  std::size_t len = finder_header_len;
};

inline void put_bytes(FinderReply& reply, const void* bytes, std::size_t len) {
  if (len > sizeof(reply.bytes) - reply.len) return;
  std::memcpy(reply.bytes + reply.len, bytes, len);
  reply.len += len;
}
/// Puts an object as it stands: bytes, and addresses in network byte order.
template <typename T>
void put(FinderReply& reply, const T& object) {
  put_bytes(reply, &object, sizeof(object));
}
/// Puts a number, whose width is the field's. Some C libraries' htole16 and htole32 have no type of their own.
inline void put_u16(FinderReply& reply, std::uint16_t number) {
  const std::uint16_t wire = htole16(number);
  put(reply, wire);
}
inline void put_u32(FinderReply& reply, std::uint32_t number) {
  const std::uint32_t wire = htole32(number);
  put(reply, wire);
}
/// Puts a text into a field of `size` bytes, finder_text_len at most: cut, and zero behind it.
void put_text(FinderReply& reply, std::size_t size, const char* text);
/// Puts the 16 bytes of a small reply: three numbers, and a fourth that is always 0.
void put_words(FinderReply& reply, std::uint32_t first, std::uint32_t second = 0, std::uint32_t third = 0);

using FinderMac = std::array<std::uint8_t, finder_mac_len>;

/// The camera's own MAC address, parsed from MyMAC.
FinderMac parse_mac(const char* text);

/// Writes the 22-byte reply header to `buf` for a request.
void Finderd_build_header(std::uint8_t* buf, const FinderRequest& request, std::uint16_t result, std::uint16_t length);

}  // namespace kestrel
