// The one XML reader of the daemon: the text of an element, found by its name.
#pragma once

#include <cstddef>

namespace kestrel {

/// Copies the text between "<tag>" and "</tag>" to `out` (`size` bytes, cut to fit, terminated).
/// `taglen` is the length of `tag`, at most 62. Returns 1; 0 with `out` untouched when the opening tag is
/// absent, or when no closing tag stands behind it: the first closing tag of the whole text counts.
int get_xml_value(const char* text, const char* tag, unsigned taglen, char* out, std::size_t size);

}  // namespace kestrel
