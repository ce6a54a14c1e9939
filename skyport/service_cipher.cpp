#include "service_cipher.h"

#include <nettle/base64.h>
#include <nettle/blowfish.h>
#include <nettle/cfb.h>
#include <nettle/md5.h>

#include <algorithm>
#include <array>
#include <cstdint>

namespace service_cipher {
namespace {

constexpr std::string_view first_secret = "4RkMCwa7tebVLzo2H";
constexpr std::string_view second_secret = "quilmore";
constexpr std::string_view iv = "58585858";
static_assert(iv.size() == BLOWFISH_BLOCK_SIZE && block_len == BLOWFISH_BLOCK_SIZE);

const std::uint8_t* bytes(std::string_view text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

void encrypt_block(const void* context, std::size_t length, std::uint8_t* out, const std::uint8_t* in) {
  blowfish_encrypt(static_cast<const blowfish_ctx*>(context), length, out, in);
}

}  // namespace

const std::string service_key = md5_hex({first_secret, second_secret});
const std::string refer_key = "MorvbTUcwe5pidKrZhu8N216";

std::string md5_hex(std::initializer_list<std::string_view> parts) {
  std::string joined;
  for (const std::string_view& part : parts) joined.append(&part == parts.begin() ? "" : ":").append(part);
  return md5_hex(joined);
}

std::string md5_hex(std::string_view text) {
  md5_ctx context;
  md5_init(&context);
  md5_update(&context, text.size(), bytes(text));
  std::array<std::uint8_t, MD5_DIGEST_SIZE> digest{};
  md5_digest(&context, digest.size(), digest.data());
  std::string hex;
  for (const std::uint8_t byte : digest) {
    hex += "0123456789abcdef"[byte >> 4];
    hex += "0123456789abcdef"[byte & 15];
  }
  return hex;
}

std::string cfb8(bool encipher, std::string_view key, std::string_view in) {
  std::string out(in.size(), '\0');
  if (in.empty()) return out;
  blowfish_ctx context;
  blowfish_set_key(&context, key.size(), bytes(key));
  std::array<std::uint8_t, BLOWFISH_BLOCK_SIZE> feedback{};
  std::copy(iv.begin(), iv.end(), feedback.begin());
  const auto run = encipher ? cfb8_encrypt : cfb8_decrypt;
  run(&context, encrypt_block, feedback.size(), feedback.data(), in.size(), reinterpret_cast<std::uint8_t*>(out.data()),
      bytes(in));
  return out;
}

std::string base64(std::string_view raw) {
  std::string out(BASE64_ENCODE_RAW_LENGTH(raw.size()), '\0');
  base64_encode_raw(out.data(), raw.size(), bytes(raw));
  return out;
}

Unbase64 read_base64(std::string_view text) {
  Unbase64 result;
  base64_decode_ctx context;
  base64_decode_init(&context);
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::uint8_t byte = 0;
    const int n = base64_decode_single(&context, &byte, text[i]);
    if (n < 0) return {{}, i, false};
    if (n > 0) result.raw += static_cast<char>(byte);
  }
  result.cut = base64_decode_final(&context) != 1;
  return result;
}

std::string unbase64(std::string_view text) {
  Unbase64 result = read_base64(text);
  return result.cut || result.bad_at != std::string::npos ? "not base64" : std::move(result.raw);
}

std::string seal(std::string_view plain) {
  return base64(cfb8(true, service_key, plain));
}

std::string unseal(std::string_view text) {
  return cfb8(false, service_key, unbase64(text));
}

}  // namespace service_cipher
