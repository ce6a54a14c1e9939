// The plain body of a POST, see post_body.h.
#include "service/post_body.h"

#include <cstdarg>
#include <cstdio>

namespace kestrel {

void put(PostBody& body, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int len = std::vsnprintf(body.text + body.len, body.size - body.len, format, args);
  va_end(args);
  // A length below 0 is none that fits either.
  body.fits = body.fits && static_cast<std::size_t>(len) < body.size - body.len;
  if (body.fits) body.len += static_cast<std::size_t>(len);
}

}  // namespace kestrel
