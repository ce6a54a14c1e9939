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

/// A hexadecimal digit's value; -1 for anything else.
int hex_value(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  const char letter = static_cast<char>(digit | 0x20);
  return letter >= 'a' && letter <= 'f' ? letter - 'a' + 10 : -1;
}

}  // namespace

std::uint16_t request_u16(const FinderRequest& request, std::size_t offset) {
  return static_cast<std::uint16_t>(request.bytes[offset] | request.bytes[offset + 1] << 8);
}

bool request_text(const FinderRequest& request, std::size_t offset, std::size_t len, char* out, std::size_t size) {
  return copy_bytes(out, size, reinterpret_cast<const char*>(request.bytes) + offset, len);
}

void put_text(FinderReply& reply, std::size_t size, const char* text) {
  static constexpr char zeros[finder_text_len] = {};
  const std::size_t len = strnlen(text, size - 1);
  put_bytes(reply, text, len);
  put_bytes(reply, zeros, size - len);
}

void put_words(FinderReply& reply, std::uint32_t first, std::uint32_t second, std::uint32_t third) {
  for (const std::uint32_t word : {first, second, third, 0U}) put_u32(reply, word);
}

FinderMac parse_mac(const char* text) {
  FinderMac mac{};
  for (std::uint8_t& byte : mac) {
    for (int digit = 0; (digit = hex_value(*text)) >= 0; ++text) byte = static_cast<std::uint8_t>(byte << 4 | digit);
    if (*text == ':') ++text;
  }
  return mac;
}

void Finderd_build_header(std::uint8_t* buf, const FinderRequest& request, std::uint16_t result, std::uint16_t length) {
  store_u16(buf + at_magic, finder_reply_magic);
  std::memcpy(buf + at_tag, request.bytes + at_tag, at_mac - at_tag);
  const FinderMac mac = parse_mac(request.my_mac);
  std::memcpy(buf + at_mac, mac.data(), mac.size());
  std::memcpy(buf + at_ip, &request.iface->ip, at_result - at_ip);
  store_u16(buf + at_result, result);
  store_u16(buf + at_flag, finder_reply_flag);
  store_u16(buf + at_length, length);
}

}  // namespace kestrel
