#include "cipher.h"

#include <nettle/base64.h>
#include <nettle/blowfish.h>
#include <nettle/cfb.h>
#include <nettle/md5.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace skyport {
namespace {

constexpr std::string_view kFirstSecret = "4RkMCwa7tebVLzo2H";
constexpr std::string_view kSecondSecret = "quilmore";
constexpr std::string_view kIv = "58585858";
constexpr size_t kDigits = 6;
static_assert(kIv.size() == BLOWFISH_BLOCK_SIZE);

using Bytes = std::vector<uint8_t>;
using CfbFunction = void (*)(const void*, nettle_cipher_func*, size_t, uint8_t*, size_t, uint8_t*, const uint8_t*);

void encrypt_block(const void* context, size_t length, uint8_t* out, const uint8_t* in) {
  blowfish_encrypt(static_cast<const blowfish_ctx*>(context), length, out, in);
}

Bytes run_cipher(CfbFunction cfb, const Bytes& in) {
  const std::string key = md5_hex({kFirstSecret, kSecondSecret});
  blowfish_ctx context;
  blowfish_set_key(&context, key.size(), reinterpret_cast<const uint8_t*>(key.data()));
  std::array<uint8_t, BLOWFISH_BLOCK_SIZE> iv{};
  std::copy(kIv.begin(), kIv.end(), iv.begin());
  Bytes out(in.size());
  if (!in.empty()) cfb(&context, encrypt_block, BLOWFISH_BLOCK_SIZE, iv.data(), in.size(), out.data(), in.data());
  return out;
}

bool from_base64(std::string_view text, Bytes& out) {
  base64_decode_ctx context;
  base64_decode_init(&context);
  out.resize(BASE64_DECODE_LENGTH(text.size()));
  size_t length = out.size();
  if (base64_decode_update(&context, &length, out.data(), text.size(), text.data()) != 1) return false;
  out.resize(length);
  return base64_decode_final(&context) == 1;
}

bool is_base64_character(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' || c == '/' || c == '=';
}

}  // namespace

std::string md5_hex(std::initializer_list<std::string_view> parts) {
  md5_ctx context;
  md5_init(&context);
  bool first = true;
  for (const std::string_view part : parts) {
    if (!first) md5_update(&context, 1, reinterpret_cast<const uint8_t*>(":"));
    md5_update(&context, part.size(), reinterpret_cast<const uint8_t*>(part.data()));
    first = false;
  }
  std::array<uint8_t, MD5_DIGEST_SIZE> digest{};
  md5_digest(&context, digest.size(), digest.data());
  std::string text;
  for (const uint8_t byte : digest) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

std::string encode_answer(std::string_view xml) {
  const Bytes cipher = run_cipher(cfb8_encrypt, Bytes(xml.begin(), xml.end()));
  std::string text(BASE64_ENCODE_RAW_LENGTH(cipher.size()), '\0');
  base64_encode_raw(text.data(), cipher.size(), cipher.data());
  return text;
}

RequestBody decode_request(std::string_view base64) {
  RequestBody body;
  Bytes cipher;
  // nettle skips white space; the wire carries none.
  if (!std::all_of(base64.begin(), base64.end(), is_base64_character) || !from_base64(base64, cipher)) {
    body.error = "body is not base64";
    return body;
  }
  const Bytes bytes = run_cipher(cfb8_decrypt, cipher);
  const std::string plain(bytes.begin(), bytes.end());
  const size_t end = plain.find_last_not_of('\0') + 1;  // npos + 1 is 0: nothing but zeros
  body.digits = plain.substr(0, std::min(kDigits, end));
  body.xml = plain.substr(body.digits.size(), end - body.digits.size());
  if (body.digits.size() != kDigits || body.digits.find_first_not_of("0123456789") != std::string::npos)
    body.error = "body does not begin with six digits";
  else if (plain.size() % BLOWFISH_BLOCK_SIZE != 0)
    body.error = "body is not padded to a multiple of 8";
  else if (plain.size() - end >= BLOWFISH_BLOCK_SIZE)
    body.error = "body is padded by a whole block or more";
  return body;
}

}  // namespace skyport
