// The service's cipher once more, by nettle: what the daemon's own is checked against.
#ifndef KESTREL_TESTS_NETTLE_CIPHER_H
#define KESTREL_TESTS_NETTLE_CIPHER_H

#include <nettle/base64.h>
#include <nettle/blowfish.h>
#include <nettle/cfb.h>
#include <nettle/md5.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace nettle_cipher {

inline std::uint8_t* bytes(std::string& text) {
  return reinterpret_cast<std::uint8_t*>(text.data());
}
inline const std::uint8_t* bytes(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

inline std::string md5_hex(const std::string& text) {
  md5_ctx md5;
  std::uint8_t digest[MD5_DIGEST_SIZE];
  md5_init(&md5);
  md5_update(&md5, text.size(), bytes(text));
  md5_digest(&md5, sizeof(digest), digest);
  std::string hex;
  for (const std::uint8_t byte : digest) {
    hex += "0123456789abcdef"[byte >> 4];
    hex += "0123456789abcdef"[byte & 15];
  }
  return hex;
}

inline const std::string service_key = md5_hex("4RkMCwa7tebVLzo2H:quilmore");
inline const std::string refer_key = "MorvbTUcwe5pidKrZhu8N216";

/// Blowfish in CFB-8 under the IV that everything uses.
inline std::string cfb8(bool encrypt, const std::string& key, const std::string& in) {
  blowfish_ctx blowfish;
  blowfish_set_key(&blowfish, key.size(), bytes(key));
  std::uint8_t iv[BLOWFISH_BLOCK_SIZE];
  std::memcpy(iv, "58585858", sizeof(iv));
  const auto run = encrypt ? cfb8_encrypt : cfb8_decrypt;
  std::string out(in.size(), '\0');
  run(&blowfish, reinterpret_cast<nettle_cipher_func*>(blowfish_encrypt), sizeof(iv), iv, in.size(), bytes(out),
      bytes(in));
  return out;
}

inline std::string base64(const std::string& in) {
  std::string out(BASE64_ENCODE_RAW_LENGTH(in.size()), '\0');
  base64_encode_raw(out.data(), in.size(), bytes(in));
  return out;
}

/// "not base64" for what is none.
inline std::string unbase64(const std::string& in) {
  base64_decode_ctx context;
  base64_decode_init(&context);
  std::string out(BASE64_DECODE_LENGTH(in.size()), '\0');
  std::size_t len = 0;
  if (base64_decode_update(&context, &len, bytes(out), in.size(), in.data()) == 0 ||
      base64_decode_final(&context) == 0) {
    return "not base64";
  }
  out.resize(len);
  return out;
}

/// A body as it travels, and back.
inline std::string seal(const std::string& plain) {
  return base64(cfb8(true, service_key, plain));
}
inline std::string unseal(const std::string& body) {
  return cfb8(false, service_key, unbase64(body));
}

}  // namespace nettle_cipher

#endif
