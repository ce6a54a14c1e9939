// HTTP Digest, see digest.h.
#include "service/digest.h"

#include <cstring>
#include <initializer_list>

#include "core/text.h"
#include "service/body_cipher.h"

namespace kestrel {

namespace {

constexpr std::size_t nc_text_len = 12;

/// The MD5 of several texts joined by ':', in hexadecimal.
void hash_joined(std::initializer_list<const char*> parts, char (&out)[md5_hex_len]) {
  MD5_CTX md5;
  MD5Init(&md5);
  bool first = true;
  for (const char* part : parts) {
    unsigned char colon[] = {':'};
    if (!first) MD5Update(&md5, colon, 1);
    first = false;
    // The library takes its input by a pointer to non-const and leaves it as it is.
    MD5Update(&md5, reinterpret_cast<unsigned char*>(const_cast<char*>(part)),
              static_cast<unsigned>(std::strlen(part)));
  }
  unsigned char digest[16];
  MD5Final(digest, &md5);
  hex_encode_md5(digest, out);
}

}  // namespace

void digest_calc_response(const char* user, const char* realm, const char* pass, const char* nonce, std::uint32_t nc,
                          const char* qop, const char* method, const char* uri, const char* cnonce, char* out) {
  char ha1[md5_hex_len];
  char ha2[md5_hex_len];
  char response[md5_hex_len];
  hash_joined({user, realm, pass}, ha1);
  if (std::strcmp(qop, "auth-int") == 0) {
    char entity[md5_hex_len];
    hash_joined({""}, entity);
    hash_joined({method, uri, entity}, ha2);
  } else {
    hash_joined({method, uri}, ha2);
  }
  if (qop[0] == '\0') {
    hash_joined({ha1, nonce, ha2}, response);
  } else {
    char count[nc_text_len];
    format_text(count, sizeof(count), "%8.8d", static_cast<int>(nc));
    hash_joined({ha1, nonce, count, cnonce, qop, ha2}, response);
  }
  if (out != nullptr) copy_text(out, md5_hex_len, response);
}

int make_digest_header(const AuthenticateInfo* info, char* out) {
  return format_text(out, digest_header_len,
                     "Digest username=\"%s\", realm=\"%s\", qop=\"%s\", algorithm=\"%s\", uri=\"%s\" , nonce=\"%s\", "
                     "nc=%8.8d, cnonce=\"%s\", response=\"%s\"",
                     info->user, info->realm, info->qop, info->algorithm, info->uri, info->nonce,
                     static_cast<int>(info->nc), info->cnonce, info->response);
}

}  // namespace kestrel
