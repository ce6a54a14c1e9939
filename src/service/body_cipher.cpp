// The service's body cipher, see body_cipher.h.
#include "service/body_cipher.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/tessel.h"
#include "service/blowfish.h"

namespace kestrel {

namespace {

constexpr char first_secret[] = "4RkMCwa7tebVLzo2H";
constexpr char second_secret[] = "quilmore";

/// Behind a base64 text: its end, and lines of encoders that break them.
constexpr std::size_t encoder_room = 256;

void hex_encode_md5(const unsigned char (&digest)[16], char* out) {
  constexpr char digits[] = "0123456789abcdef";
  for (const unsigned char byte : digest) {
    *out++ = digits[byte >> 4];
    *out++ = digits[byte & 0x0F];
  }
  *out = '\0';
}

void apply(decltype(&bf_cfb8_encrypt) cipher, char* bytes, std::int32_t len) {
  char key[md5_hex_len];
  md5_of_joined({first_secret, second_secret}, key);
  cipher(reinterpret_cast<unsigned char*>(bytes), len, reinterpret_cast<const unsigned char*>(key), sizeof(key) - 1,
         cipher_iv, cipher_iv_len);
}

/// Zeroed, so that a text in it ends whatever the library does.
HeapText make_heap_text(std::size_t size) {
  return HeapText(static_cast<char*>(std::calloc(size, 1)));
}

}  // namespace

void md5_of_joined(std::initializer_list<const char*> parts, char* out) {
  MD5_CTX md5;
  MD5Init(&md5);
  bool first = true;
  for (const char* part : parts) {
    unsigned char colon[] = {':'};
    if (!first) MD5Update(&md5, colon, sizeof(colon));
    first = false;
    // The library takes its input by a pointer to non-const and leaves it as it is.
    MD5Update(&md5, reinterpret_cast<unsigned char*>(const_cast<char*>(part)),
              static_cast<unsigned>(std::strlen(part)));
  }
  unsigned char digest[16];
  MD5Final(digest, &md5);
  hex_encode_md5(digest, out);
}

void encipher(char* bytes, std::int32_t len) {
  apply(bf_cfb8_encrypt, bytes, len);
}

HeapText encipher_body(char* body, LogFormat<'d'> bodylen_format) {
  auto len = static_cast<std::int32_t>(std::strlen(body));
  pad_to_block(reinterpret_cast<unsigned char*>(body), &len);
  log_if(bodylen_format, len);
  encipher(body, len);
  const auto bytes = static_cast<std::size_t>(len);
  HeapText encoded = make_heap_text(4 * ((bytes + 2) / 3) + encoder_room);
  if (encoded == nullptr) return nullptr;
  b64_encode(body, static_cast<unsigned>(len), encoded.get());
  // A library without memory of its own leaves nothing: that is no body.
  return encoded.get()[0] != '\0' ? std::move(encoded) : nullptr;
}

HeapText decipher_body(const char* body, std::int32_t len) {
  // As long as the text, and a little: whatever the decoder's exact bound, the plain text is shorter.
  HeapText plain = make_heap_text(static_cast<std::size_t>(len) + sizeof(std::int32_t));
  if (plain == nullptr) return plain;
  const int decoded = b64_decode(body, static_cast<unsigned>(len), plain.get());
  const std::int32_t plain_len = std::clamp(decoded, 0, len);
  apply(bf_cfb8_decrypt, plain.get(), plain_len);
  plain.get()[plain_len] = '\0';
  return plain;
}

}  // namespace kestrel
