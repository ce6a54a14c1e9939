// What the POST requests share: six random digits, the XML, the cipher.
#pragma once

#include <cstddef>

#include "core/text.h"
#include "service/blowfish.h"

namespace kestrel {

/// A plain body being written into a caller's array. What does not fit is cut, and the body must not be sent.
struct PostBody {
  char* text;  // terminated
  std::size_t size;
  std::size_t len;
  bool fits;
};

/// Begins a body in `text` with six random digits.
template <std::size_t N>
[[nodiscard]] PostBody begin_body(char (&text)[N]) {
  static_assert(N % blowfish_block_len == 0, "the cipher's padding is to fit behind every text");
  random_digits6(text);
  return {text, N, random_digits_len, true};
}

/// Appends formatted XML, as printf formats it.
[[gnu::format(printf, 2, 3)]] void put(PostBody& body, const char* format, ...);

}  // namespace kestrel
