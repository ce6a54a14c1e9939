// Encoder and decoder of the LAN finder protocol; everything they know stands in wire.h.
#include "wire.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <nettle/base64.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>

namespace finder {
namespace {

constexpr std::size_t at_argument = header_len + credentials::payload_len;

void put(std::vector<std::uint8_t>& out, Field f, std::size_t base, std::uint32_t value) {
  for (std::size_t i = 0; i < f.size; ++i) out.at(base + f.at + i) = static_cast<std::uint8_t>(value >> (8 * i));
}

bool put_base64(std::vector<std::uint8_t>& out, Field f, std::string_view plain) {
  if (plain.size() > credentials::max_plain_len) return false;
  std::array<char, BASE64_ENCODE_RAW_LENGTH(credentials::max_plain_len)> text{};
  base64_encode_raw(text.data(), plain.size(), reinterpret_cast<const std::uint8_t*>(plain.data()));
  static_assert(text.size() < credentials::user.size && text.size() < credentials::password.size);
  std::copy_n(text.begin(), BASE64_ENCODE_RAW_LENGTH(plain.size()),
              out.begin() + static_cast<std::ptrdiff_t>(header_len + f.at));
  return true;
}

}  // namespace

const OpInfo* find_op(std::uint16_t opcode) {
  const auto* row = std::ranges::find(known_ops, static_cast<Op>(opcode), &OpInfo::op);
  return row == std::end(known_ops) ? nullptr : row;
}

Bytes Reader::take(Field f) {
  if (f.at > bytes_.size() || f.size > bytes_.size() - f.at) {
    ok_ = false;
    return {};
  }
  return bytes_.subspan(f.at, f.size);
}

std::uint32_t Reader::number(Field f) {
  std::uint32_t value = 0;
  unsigned shift = 0;
  for (const std::uint8_t byte : take(f)) {
    value |= std::uint32_t{byte} << shift;
    shift += 8;
  }
  return value;
}

std::string Reader::text(Field f) {
  const Bytes field = take(f);
  return {field.begin(), std::ranges::find(field, 0)};
}

Mac Reader::mac(Field f) {
  Mac mac{};
  const Bytes field = take(f);
  std::copy_n(field.begin(), std::min(field.size(), mac.size()), mac.begin());
  return mac;
}

in_addr Reader::address(Field f) {
  in_addr address{};
  const Bytes field = take(f);
  if (field.size() == sizeof address) std::memcpy(&address, field.data(), sizeof address);
  return address;
}

std::vector<std::uint8_t> encode(const Request& request) {
  namespace h = request_header;
  const OpInfo* info = find_op(static_cast<std::uint16_t>(request.op));
  const bool protected_op = info != nullptr && info->needs_administrator;
  std::vector<std::uint8_t> out(protected_op ? at_argument : header_len);
  if (protected_op) {
    if (!put_base64(out, credentials::user, request.user)) return {};
    if (!put_base64(out, credentials::password, request.password)) return {};
    out.insert(out.end(), request.argument.begin(), request.argument.end());
  }
  put(out, h::magic, 0, request_magic);
  put(out, h::tag, 0, request.tag);
  put(out, h::opcode, 0, static_cast<std::uint16_t>(request.op));
  std::ranges::copy(request.mac, out.begin() + h::mac.at);
  put(out, h::length, 0, static_cast<std::uint32_t>(out.size() - header_len));
  return out;
}

bool Reply::authentication_refused() const {
  const OpInfo* info = find_op(opcode);
  return info != nullptr && info->needs_administrator && result == 1 && payload.size() == small_reply::payload_len &&
         std::ranges::all_of(payload, [](std::uint8_t b) { return b == 0; });
}

std::optional<Reply> decode(Bytes datagram) {
  namespace h = reply_header;
  Reader in(datagram.first(std::min(datagram.size(), header_len)));
  Reply reply;
  const bool ours = in.number(h::magic) == reply_magic;
  reply.tag = static_cast<std::uint16_t>(in.number(h::tag));
  reply.opcode = static_cast<std::uint16_t>(in.number(h::opcode));
  reply.mac = in.mac(h::mac);
  reply.address = in.address(h::address);
  reply.result = static_cast<std::uint16_t>(in.number(h::result));
  const std::size_t length = in.number(h::length);
  if (!in.ok() || !ours || datagram.size() != header_len + length) return std::nullopt;
  const Bytes payload = datagram.subspan(header_len);
  reply.payload.assign(payload.begin(), payload.end());
  return reply;
}

std::optional<Survey> decode_survey(Bytes payload) {
  namespace f = survey_reply;
  Reader in(payload);
  Survey s;
  s.brand = in.text(f::brand);
  s.product = in.text(f::product);
  s.model = in.text(f::model);
  s.oem_version = in.text(f::oem_version);
  s.product_type = static_cast<std::uint16_t>(in.number(f::product_type));
  s.hardware = in.number(f::hardware);
  s.interface_mac = in.mac(f::interface_mac);
  s.name = in.text(f::name);
  s.address = in.address(f::address);
  s.http_port = static_cast<std::uint16_t>(in.number(f::http_port));
  s.mask = in.address(f::mask);
  s.gateway = in.address(f::gateway);
  s.dns1 = in.address(f::dns1);
  s.dns2 = in.address(f::dns2);
  s.dhcp = in.number(f::dhcp) != 0;
  s.local_time = in.text(f::local_time);
  s.timezone = static_cast<std::uint16_t>(in.number(f::timezone));
  s.dst = in.number(f::dst) != 0;
  if (!in.ok()) return std::nullopt;
  return s;
}

std::optional<ServiceSurvey> decode_service_survey(Bytes payload) {
  namespace f = service_survey_reply;
  Reader in(payload);
  ServiceSurvey s;
  s.brand = in.text(f::brand);
  s.model = in.text(f::model);
  s.oem_version = in.text(f::oem_version);
  s.client_version = in.text(f::client_version);
  s.own_mac = in.mac(f::own_mac);
  s.name = in.text(f::name);
  s.url = in.text(f::url);
  s.address = in.address(f::address);
  s.http_port = static_cast<std::uint16_t>(in.number(f::http_port));
  s.https = in.number(f::https) != 0;
  if (!in.ok()) return std::nullopt;
  return s;
}

std::string to_text(const Mac& mac) {
  return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

std::optional<Mac> parse_mac(std::string_view text) {
  Mac mac{};
  for (std::size_t i = 0; i < mac.size(); ++i) {
    const std::size_t end = std::min(text.find_first_of(":-"), text.size());
    const auto [stop, error] = std::from_chars(text.data(), text.data() + end, mac[i], 16);
    if (error != std::errc() || stop != text.data() + end || end > 2) return std::nullopt;
    if ((end == text.size()) != (i + 1 == mac.size())) return std::nullopt;
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return mac;
}

std::string to_text(in_addr address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  return inet_ntop(AF_INET, &address, text.data(), text.size()) == nullptr ? "" : text.data();
}

}  // namespace finder
