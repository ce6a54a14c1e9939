// The plain body of a POST, see post_body.h.
#include "service/post_body.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "core/text.h"

namespace kestrel {

int write_body(char* body, std::size_t size, const char* xml_format, ...) {
  std::memset(body, 0, size);
  random_digits6(body);
  const std::size_t room = size - random_digits_len;
  va_list args;
  va_start(args, xml_format);
  const int len = std::vsnprintf(body + random_digits_len, room, xml_format, args);
  va_end(args);
  return len >= 0 && static_cast<std::size_t>(len) < room ? 1 : 0;
}

}  // namespace kestrel
