// What the POST requests share: six random digits, the XML, the cipher.
#pragma once

#include <cstddef>

namespace kestrel {

/// A plain body being written into a caller's array. What does not fit is cut, and the body must not be sent.
struct PostBody {
  char* text;        // terminated
  std::size_t size;  // of the array, which its base64 text takes later
  std::size_t plain_size;
  std::size_t len;
  bool fits;
};

/// Begins a body in `text` (`size` bytes) with six random digits, of `plain_size` bytes at most, terminator included;
/// more than the digits take.
[[nodiscard]] PostBody begin_body(char* text, std::size_t size, std::size_t plain_size);

/// The same for a whole array, which may be all plain text.
template <std::size_t N>
[[nodiscard]] PostBody begin_body(char (&text)[N], std::size_t plain_size = N) {
  return begin_body(text, N, plain_size);
}

/// Appends formatted XML, as printf formats it.
[[gnu::format(printf, 2, 3)]] void put(PostBody& body, const char* format, ...);

}  // namespace kestrel
