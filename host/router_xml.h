// What is needed of the XML that routers write.
#pragma once

#include <pugixml.hpp>
#include <string>
#include <string_view>

namespace host {

/// Reads the text into `document`, in any encoding that it declares. Of one that is not well-formed it keeps
/// what comes before the fault, without the last piece, which may be half of one. Entities that a text
/// defines itself stay as they are written. Takes up to 25 bytes for each byte of the text, and no stack
/// for its depth.
void read_router_xml(const std::string& text, pugi::xml_document& document);

/// The node's name without its namespace prefix.
[[nodiscard]] std::string_view local_name(const pugi::xml_node& node);

/// Whether the node is an element of that name, whatever its namespace prefix.
[[nodiscard]] bool is_element(const pugi::xml_node& node, std::string_view name);

/// The first element of that name below `top`, at any depth, in the order of the text; a null node when there
/// is none.
[[nodiscard]] pugi::xml_node find_element(const pugi::xml_node& top, std::string_view name);

/// The node's own text without blanks around it: entities resolved, CDATA unwrapped, comments left out.
[[nodiscard]] std::string text_of(const pugi::xml_node& node);

/// The text of the node's first child of that name; empty when there is none.
[[nodiscard]] std::string child_text(const pugi::xml_node& node, std::string_view name);

}  // namespace host
