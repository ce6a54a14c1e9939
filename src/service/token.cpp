// The request token, see token.h.
#include "service/token.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "core/debug_log.h"
#include "core/text.h"
#include "platform/tessel.h"
#include "service/blowfish.h"
#include "service/body_cipher.h"

namespace kestrel {

namespace {

constexpr int digit_groups = 5;  // of six digits each, all five the same
constexpr std::size_t digits_len = digit_groups * random_digits_len;
constexpr std::size_t cipher_len = 32;  // the 30 digits, padded
static_assert((digits_len + 7) / 8 * 8 == cipher_len);

/// Fills the text up to token_len characters with random numbers in hexadecimal. The generator is
/// seeded anew for every piece, so pieces of one second repeat; the service knows it so.
void fill_up(char (&text)[64]) {
  auto n = static_cast<int>(std::strlen(text));
  while (n < static_cast<int>(token_len)) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));
    char piece[9];
    format_text(piece, sizeof(piece), "%x", static_cast<unsigned>(std::rand()));
    copy_text(text + n, sizeof(text) - static_cast<std::size_t>(n), piece);
    n += static_cast<int>(std::strlen(piece));
    debug_log("outlen2=(%d)\n", n);
  }
}

}  // namespace

char* make_token(char* out, unsigned* len) {
  char digits[40] = "";
  char text[64] = "";
  static_assert(digits_len + blowfish_block_len <= sizeof(digits));
  char group[random_digits_len + 1];
  random_digits6(group);
  for (int i = 0; i < digit_groups; ++i) {
    std::memcpy(digits + static_cast<std::size_t>(i) * random_digits_len, group, random_digits_len);
  }
  auto padded_len = static_cast<std::int32_t>(digits_len);
  pad_to_block(reinterpret_cast<unsigned char*>(digits), &padded_len);
  char key[service_key_len + 1];
  make_service_key(key);
  debug_log(" ecnode bodylen=%d\n", static_cast<int>(std::strlen(digits)));
  bf_cfb8_encrypt(reinterpret_cast<unsigned char*>(digits), padded_len, reinterpret_cast<unsigned char*>(key),
                  service_key_len, cipher_iv, cipher_iv_len);
  // As a text on purpose: a zero byte of the cipher text ends what is encoded.
  b64_encode(digits, static_cast<unsigned>(std::strlen(digits)), text);
  fill_up(text);
  copy_bytes(out, token_len + 1, text, token_len);
  *len = token_len;
  return out;
}

}  // namespace kestrel
