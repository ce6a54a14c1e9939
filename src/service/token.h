// The request token, a fresh client nonce for every authenticated request.
#pragma once

#include <cstddef>

namespace kestrel {

constexpr std::size_t token_len = 32;

/// Writes a token of exactly 32 printable characters and a terminator to `out` (token_len + 1 bytes),
/// stores 32 in `*len` and returns `out`. Any thread may call.
char* make_token(char* out, unsigned* len);

}  // namespace kestrel
