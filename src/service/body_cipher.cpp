// The service's body cipher, see body_cipher.h.
#include "service/body_cipher.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "core/debug_log.h"
#include "platform/tessel.h"
#include "service/blowfish.h"

namespace kestrel {

namespace {

constexpr char first_secret[] = "4RkMCwa7tebVLzo2H";
constexpr char second_secret[] = "quilmore";
static_assert(sizeof(first_secret) - 1 == 17 && sizeof(second_secret) - 1 == 8);

constexpr std::size_t base64_len(std::size_t len) {
  return 4 * ((len + 2) / 3);
}

template <std::size_t N>
void update_with_text(MD5_CTX* md5, const char (&text)[N]) {
  unsigned char bytes[N];
  std::memcpy(bytes, text, N);
  MD5Update(md5, bytes, N - 1);
}

const unsigned char* as_bytes(const char* text) {
  return reinterpret_cast<const unsigned char*>(text);
}

}  // namespace

void hex_encode_md5(const unsigned char digest[16], char out[md5_hex_len]) {
  for (std::size_t i = 0; i < 16; ++i) {
    out[2 * i] = hex_digits[digest[i] >> 4];
    out[2 * i + 1] = hex_digits[digest[i] & 0x0F];
  }
  out[md5_hex_len - 1] = '\0';
}

void make_service_key(char key[service_key_len + 1]) {
  MD5_CTX md5;
  unsigned char digest[16];
  MD5Init(&md5);
  update_with_text(&md5, first_secret);
  update_with_text(&md5, ":");
  update_with_text(&md5, second_secret);
  MD5Final(digest, &md5);
  hex_encode_md5(digest, key);
}

int encipher_body(char* body, std::size_t size, LogFormat<'d'> bodylen_format) {
  const std::size_t plain_len = std::strlen(body);
  auto* cipher = static_cast<unsigned char*>(std::malloc(plain_len + blowfish_block_len));
  if (cipher == nullptr) {
    body[0] = '\0';
    return 0;
  }
  std::copy_n(body, plain_len, cipher);
  auto len = static_cast<std::int32_t>(plain_len);
  pad_to_block(cipher, &len);
  char key[service_key_len + 1];
  make_service_key(key);
  log_if(bodylen_format, len);
  bf_cfb8_encrypt(cipher, len, as_bytes(key), service_key_len, cipher_iv, cipher_iv_len);
  // No more than was touched already; and an end, whatever the library does.
  std::memset(body, 0, plain_len);
  int encoded = 0;
  if (base64_len(static_cast<std::size_t>(len)) < size) {
    body[base64_len(static_cast<std::size_t>(len))] = '\0';
    encoded = b64_encode(cipher, static_cast<unsigned>(len), body);
  }
  std::free(cipher);
  return encoded;
}

char* decipher_body(const char* body, std::int32_t len) {
  // One byte more than the text is long: whatever the decoder's exact bound, the plain text is shorter.
  const auto size = static_cast<std::size_t>(len) + 4;
  auto* plain = static_cast<char*>(std::calloc(size, 1));
  if (plain == nullptr) return nullptr;
  std::int32_t plain_len = b64_decode(body, static_cast<unsigned>(len), plain);
  if (plain_len < 0) plain_len = 0;
  if (plain_len > len) plain_len = len;
  char key[service_key_len + 1];
  make_service_key(key);
  bf_cfb8_decrypt(reinterpret_cast<unsigned char*>(plain), plain_len, as_bytes(key), service_key_len, cipher_iv,
                  cipher_iv_len);
  plain[plain_len] = '\0';
  return plain;
}

}  // namespace kestrel
