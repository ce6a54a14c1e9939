// The plain body of a POST, see post_body.h.
#include "service/post_body.h"

#include <cstdarg>
#include <cstdio>

#include "core/text.h"

namespace kestrel {

PostBody begin_body(char* text, std::size_t size, std::size_t plain_size) {
  random_digits6(text);
  return {text, size, plain_size, random_digits_len, true};
}

void put(PostBody& body, const char* format, ...) {
  const std::size_t room = body.plain_size - body.len;
  va_list args;
  va_start(args, format);
  const int len = std::vsnprintf(body.text + body.len, room, format, args);
  va_end(args);
  if (len < 0 || static_cast<std::size_t>(len) >= room) {
    body.fits = false;
    return;
  }
  body.len += static_cast<std::size_t>(len);
}

}  // namespace kestrel
