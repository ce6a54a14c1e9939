// What the POST requests share: six random digits, the XML, the cipher.
#ifndef KESTREL_SERVICE_POST_BODY_H
#define KESTREL_SERVICE_POST_BODY_H

#include <cstddef>

namespace kestrel {

/// A plain body being written into a caller's array. What does not fit is cut, and the body must not be sent.
struct PostBody {
  char* text;  // terminated
  std::size_t size;
  std::size_t len;
  bool fits;
};

/// Begins a body in `text` (`size` bytes, more than the digits take) with six random digits.
[[nodiscard]] PostBody begin_body(char* text, std::size_t size);

/// Appends formatted XML, as printf formats it.
[[gnu::format(printf, 2, 3)]] void put(PostBody& body, const char* format, ...);

}  // namespace kestrel

#endif
