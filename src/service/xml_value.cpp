// The XML reader, see xml_value.h.
#include "service/xml_value.h"

#include <cstring>

#include "core/text.h"

namespace kestrel {

int get_xml_value(const char* text, const char* tag, unsigned taglen, char* out, std::size_t size) {
  char opening[66];
  char closing[66];
  format_text(opening, sizeof(opening), "<%s>", tag);
  if (format_text(closing, sizeof(closing), "</%s>", tag) < 0) return 0;  // the longer one
  const char* start = std::strstr(text, opening);
  if (start == nullptr) return 0;
  start += taglen + 2;
  // Searched from the start of the text on purpose: a closing tag that stands before the opening one
  // makes the value a missing one, even when another closing tag follows.
  const char* end = std::strstr(text, closing);
  if (end == nullptr || end < start) return 0;
  copy_bytes(out, size, start, static_cast<std::size_t>(end - start));
  return 1;
}

}  // namespace kestrel
