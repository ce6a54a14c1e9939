// The few words that are needed of the XML that routers write, well-formed or not.
#ifndef KESTREL_HOST_XML_TEXT_H
#define KESTREL_HOST_XML_TEXT_H

#include <optional>
#include <string>
#include <string_view>

namespace host {

/// The text of the first element of that name, whatever its namespace prefix: blanks around it taken
/// away, entities resolved, CDATA unwrapped, up to the next tag. Nothing when there is no such element.
std::optional<std::string> element_text(std::string_view xml, std::string_view name);

/// The text with the characters that XML needs for itself written as entities.
std::string escaped(std::string_view text);

}  // namespace host

#endif
