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

constexpr std::size_t kArgumentAt = kHeaderSize + credentials::kSize;

void put(std::vector<std::uint8_t>& out, Field f, std::size_t base, std::uint32_t value) {
  for (std::size_t i = 0; i < f.size; ++i) out.at(base + f.at + i) = static_cast<std::uint8_t>(value >> (8 * i));
}

bool put_base64(std::vector<std::uint8_t>& out, Field f, std::string_view plain) {
  if (plain.size() > credentials::kMaxPlain) return false;
  std::array<char, BASE64_ENCODE_RAW_LENGTH(credentials::kMaxPlain)> text{};
  base64_encode_raw(text.data(), plain.size(), reinterpret_cast<const std::uint8_t*>(plain.data()));
  static_assert(text.size() < credentials::kUser.size && text.size() < credentials::kPassword.size);
  std::copy_n(text.begin(), BASE64_ENCODE_RAW_LENGTH(plain.size()),
              out.begin() + static_cast<std::ptrdiff_t>(kHeaderSize + f.at));
  return true;
}

}  // namespace

const OpInfo* find_op(std::uint16_t opcode) {
  const auto* row = std::ranges::find(kOps, static_cast<Op>(opcode), &OpInfo::op);
  return row == std::end(kOps) ? nullptr : row;
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
  std::vector<std::uint8_t> out(protected_op ? kArgumentAt : kHeaderSize);
  if (protected_op) {
    if (!put_base64(out, credentials::kUser, request.user)) return {};
    if (!put_base64(out, credentials::kPassword, request.password)) return {};
    out.insert(out.end(), request.argument.begin(), request.argument.end());
  }
  put(out, h::kMagic, 0, kRequestMagic);
  put(out, h::kTag, 0, request.tag);
  put(out, h::kOpcode, 0, static_cast<std::uint16_t>(request.op));
  std::ranges::copy(request.mac, out.begin() + h::kMac.at);
  put(out, h::kLength, 0, static_cast<std::uint32_t>(out.size() - kHeaderSize));
  return out;
}

bool Reply::authentication_refused() const {
  const OpInfo* info = find_op(opcode);
  return info != nullptr && info->needs_administrator && result == 1 && payload.size() == small_reply::kSize &&
         std::ranges::all_of(payload, [](std::uint8_t b) { return b == 0; });
}

std::optional<Reply> decode(Bytes datagram) {
  namespace h = reply_header;
  Reader in(datagram.first(std::min(datagram.size(), kHeaderSize)));
  Reply reply;
  const bool ours = in.number(h::kMagic) == kReplyMagic;
  reply.tag = static_cast<std::uint16_t>(in.number(h::kTag));
  reply.opcode = static_cast<std::uint16_t>(in.number(h::kOpcode));
  reply.mac = in.mac(h::kMac);
  reply.address = in.address(h::kAddress);
  reply.result = static_cast<std::uint16_t>(in.number(h::kResult));
  const std::size_t length = in.number(h::kLength);
  if (!in.ok() || !ours || datagram.size() != kHeaderSize + length) return std::nullopt;
  const Bytes payload = datagram.subspan(kHeaderSize);
  reply.payload.assign(payload.begin(), payload.end());
  return reply;
}

std::optional<Survey> decode_survey(Bytes payload) {
  namespace f = survey_reply;
  Reader in(payload);
  Survey s;
  s.brand = in.text(f::kBrand);
  s.product = in.text(f::kProduct);
  s.model = in.text(f::kModel);
  s.oem_version = in.text(f::kOemVersion);
  s.product_type = static_cast<std::uint16_t>(in.number(f::kProductType));
  s.hardware = in.number(f::kHardware);
  s.interface_mac = in.mac(f::kInterfaceMac);
  s.name = in.text(f::kName);
  s.address = in.address(f::kAddress);
  s.http_port = static_cast<std::uint16_t>(in.number(f::kHttpPort));
  s.mask = in.address(f::kMask);
  s.gateway = in.address(f::kGateway);
  s.dns1 = in.address(f::kDns1);
  s.dns2 = in.address(f::kDns2);
  s.dhcp = in.number(f::kDhcp) != 0;
  s.local_time = in.text(f::kLocalTime);
  s.timezone = static_cast<std::uint16_t>(in.number(f::kTimezone));
  s.dst = in.number(f::kDst) != 0;
  if (!in.ok()) return std::nullopt;
  return s;
}

std::optional<ServiceSurvey> decode_service_survey(Bytes payload) {
  namespace f = service_survey_reply;
  Reader in(payload);
  ServiceSurvey s;
  s.brand = in.text(f::kBrand);
  s.model = in.text(f::kModel);
  s.oem_version = in.text(f::kOemVersion);
  s.client_version = in.text(f::kClientVersion);
  s.own_mac = in.mac(f::kOwnMac);
  s.name = in.text(f::kName);
  s.url = in.text(f::kUrl);
  s.address = in.address(f::kAddress);
  s.http_port = static_cast<std::uint16_t>(in.number(f::kHttpPort));
  s.https = in.number(f::kHttps) != 0;
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
