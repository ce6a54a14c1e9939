// libtessel: MD5 and base64.
#include <nettle/base64.h>
#include <nettle/md5.h>

#include <climits>
#include <cstdint>
#include <new>
#include <type_traits>

#include "abi.h"

static_assert(sizeof(md5_ctx) <= sizeof(MD5_CTX));
static_assert(std::alignment_of_v<md5_ctx> <= std::alignment_of_v<MD5_CTX>);

namespace {

md5_ctx* state_of(MD5_CTX* context) {
  return std::launder(reinterpret_cast<md5_ctx*>(context->opaque));
}

constexpr int not_base64 = -1;

/// The value of a base64 character; not_base64 for any other.
int value_of(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  return c == '/' ? 63 : not_base64;
}

}  // namespace

extern "C" {

void MD5Init(MD5_CTX* context) {
  md5_init(new (context->opaque) md5_ctx);
}

void MD5Update(MD5_CTX* context, unsigned char* data, unsigned int len) {
  if (len > 0) md5_update(state_of(context), len, data);
}

void MD5Final(unsigned char digest[16], MD5_CTX* context) {
  md5_digest(state_of(context), MD5_DIGEST_SIZE, digest);
}

int b64_encode(const void* in, unsigned int len, void* out) {
  auto* text = static_cast<char*>(out);
  const std::size_t encoded = BASE64_ENCODE_RAW_LENGTH(std::size_t{len});
  if (encoded > INT_MAX) {
    *text = '\0';
    return 0;
  }
  if (len > 0) base64_encode_raw(text, len, static_cast<const std::uint8_t*>(in));
  text[encoded] = '\0';
  return static_cast<int>(encoded);
}

// nettle's decoder skips blanks and gives nothing for a text that breaks off; this one stops at both and
// keeps what it has.
int b64_decode(const void* in, unsigned int len, void* out) {
  const auto* text = static_cast<const unsigned char*>(in);
  auto* bytes = static_cast<unsigned char*>(out);
  int count = 0;
  unsigned pending = 0;  // bits that do not fill a byte yet, the newest lowest
  unsigned bits = 0;
  for (unsigned i = 0; i < len; ++i) {
    const int value = value_of(text[i]);
    if (value == not_base64) break;
    pending = (pending << 6U | static_cast<unsigned>(value)) & 0xFFFU;
    bits += 6;
    if (bits < 8) continue;
    bits -= 8;
    bytes[count++] = static_cast<unsigned char>(pending >> bits);
  }
  bytes[count] = '\0';
  return count;
}

}  // extern "C"
