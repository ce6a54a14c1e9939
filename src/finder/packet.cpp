// The finder's one decoder and one encoder, see packet.h. Bytes are moved one by one or by memcpy, since
// fields stand at odd offsets.
#include "finder/packet.h"

#include <cstring>

#include "core/text.h"

namespace kestrel {

namespace {

void store_u16(std::uint8_t* at, std::uint16_t value) {
  at[0] = static_cast<std::uint8_t>(value & 0xFF);
  at[1] = static_cast<std::uint8_t>(value >> 8);
}

/// A hexadecimal digit's value, -1 for any other character.
int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  const int letter = (c | 0x20) - 'a';
  return letter >= 0 && letter < 6 ? letter + 10 : -1;
}

}  // namespace

std::uint16_t request_u16(const FinderRequest& request, std::size_t offset) {
  return static_cast<std::uint16_t>(request.bytes[offset] | request.bytes[offset + 1] << 8);
}

bool request_text(const FinderRequest& request, std::size_t offset, std::size_t len, char* out, std::size_t size) {
  return copy_bytes(out, size, reinterpret_cast<const char*>(request.bytes) + offset, len);
}

void put_bytes(FinderReply& reply, std::size_t offset, const void* bytes, std::size_t len) {
  if (offset > reply.payload_len || len > reply.payload_len - offset) return;
  std::memcpy(reply.bytes + finder_header_len + offset, bytes, len);
}

void put_u8(FinderReply& reply, std::size_t offset, std::uint8_t value) {
  put_bytes(reply, offset, &value, 1);
}

void put_u16(FinderReply& reply, std::size_t offset, std::uint16_t value) {
  std::uint8_t bytes[2];
  store_u16(bytes, value);
  put_bytes(reply, offset, bytes, sizeof(bytes));
}

void put_u32(FinderReply& reply, std::size_t offset, std::uint32_t value) {
  put_u16(reply, offset, static_cast<std::uint16_t>(value & 0xFFFF));
  put_u16(reply, offset + 2, static_cast<std::uint16_t>(value >> 16));
}

void put_text(FinderReply& reply, std::size_t offset, std::size_t size, const char* text) {
  put_bytes(reply, offset, text, strnlen(text, size - 1));
}

void parse_mac(const char* text, std::uint8_t (&mac)[finder_mac_len]) {
  for (std::uint8_t& byte : mac) {
    byte = 0;
    for (int digit = 0; (digit = hex_value(*text)) >= 0; ++text) byte = static_cast<std::uint8_t>(byte << 4 | digit);
    if (*text == ':') ++text;
  }
}

void Finderd_build_header(std::uint8_t* buf, const FinderRequest& request, std::uint16_t result, std::uint16_t length) {
  store_u16(buf + at_magic, finder_reply_magic);
  std::memcpy(buf + at_tag, request.bytes + at_tag, at_mac - at_tag);
  std::uint8_t mac[finder_mac_len];
  parse_mac(request.my_mac, mac);
  std::memcpy(buf + at_mac, mac, sizeof(mac));
  std::memcpy(buf + at_ip, &request.iface->ip, at_result - at_ip);
  store_u16(buf + at_result, result);
  store_u16(buf + at_flag, finder_reply_flag);
  store_u16(buf + at_length, length);
}

}  // namespace kestrel
