// What every file that implements a platform function starts from: the platform's headers with their
// functions exported, and the guard that keeps exceptions on this side of the C ABI.
#pragma once

#pragma GCC visibility push(default)
#include "platform/sptcontrol.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"
#include "platform/upnpc.h"
#pragma GCC visibility pop

#include <cstddef>
#include <cstring>
#include <string_view>

namespace host {

/// Runs `body` and gives its result, or `failure` when it threw (out of memory, say).
template <typename Body, typename Result>
Result guarded(Result failure, Body&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return failure;
  }
}

/// Copies `text` into a caller's buffer of `size` bytes, cut to fit (never inside a UTF-8 character)
/// and terminated. False, with nothing written, when there is no buffer.
inline bool put_text(char* out, std::size_t size, std::string_view text) {
  if (out == nullptr || size == 0) return false;
  std::size_t len = text.size();
  if (len >= size) {
    len = size - 1;
    while (len > 0 && (static_cast<unsigned char>(text[len]) & 0xC0U) == 0x80U) --len;
  }
  if (len > 0) std::memcpy(out, text.data(), len);
  out[len] = '\0';
  return true;
}

}  // namespace host
