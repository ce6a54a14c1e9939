// HTTP Digest, see digest.h.
#include "service/digest.h"

#include <cstring>

#include "core/text.h"
#include "service/body_cipher.h"

namespace kestrel {

void digest_calc_response(const char* user, const char* realm, const char* pass, const char* nonce, std::uint32_t nc,
                          const char* qop, const char* method, const char* uri, const char* cnonce, char* out) {
  char ha1[md5_hex_len];
  char ha2[md5_hex_len];
  md5_of_joined({user, realm, pass}, ha1);
  if (std::strcmp(qop, "auth-int") == 0) {
    char entity[md5_hex_len];
    md5_of_joined({""}, entity);
    md5_of_joined({method, uri, entity}, ha2);
  } else {
    md5_of_joined({method, uri}, ha2);
  }
  if (qop[0] == '\0') {
    md5_of_joined({ha1, nonce, ha2}, out);
  } else {
    char count[12];
    format_text(count, sizeof(count), "%8.8d", static_cast<int>(nc));
    md5_of_joined({ha1, nonce, count, cnonce, qop, ha2}, out);
  }
}

int make_digest_header(const AuthenticateInfo* info, char* out) {
  return format_text(out, digest_header_len,
                     "Digest username=\"%s\", realm=\"%s\", qop=\"%s\", algorithm=\"%s\", uri=\"%s\" , nonce=\"%s\", "
                     "nc=%8.8d, cnonce=\"%s\", response=\"%s\"",
                     info->user, info->realm, info->qop, info->algorithm, info->uri, info->nonce,
                     static_cast<int>(info->nc), info->cnonce, info->response);
}

}  // namespace kestrel
