// HTTP Digest (RFC 2617) as the service takes it: the nonce count is decimal, and the header has a
// blank before the comma behind the uri.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/tessel.h"

namespace kestrel {

/// The buffer of an Authorization value, terminator included.
constexpr std::size_t digest_header_len = 512;

/// Computes the Digest response over terminated texts and writes its 32 hexadecimal digits and a
/// terminator to `out` (34 bytes). Without a qop the count and the client nonce
/// do not enter; with "auth-int" the entity is the empty body.
void digest_calc_response(const char* user, const char* realm, const char* pass, const char* nonce, std::uint32_t nc,
                          const char* qop, const char* method, const char* uri, const char* cnonce, char* out);

/// Writes the Authorization value for `info` to `out`, digest_header_len bytes. Returns its length, or
/// -1 when it does not fit.
int make_digest_header(const AuthenticateInfo* info, char* out);

}  // namespace kestrel
