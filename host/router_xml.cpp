// The XML of routers by pugixml, see router_xml.h.
#include "router_xml.h"

#include <algorithm>

namespace host {

namespace {

constexpr std::string_view blanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

}  // namespace

void read_router_xml(const std::string& text, pugi::xml_document& document) {
  if (document.load_buffer(text.data(), text.size())) return;
  pugi::xml_node last = document.last_child();
  while (last.last_child()) last = last.last_child();
  last.parent().remove_child(last);
}

std::string_view local_name(const pugi::xml_node& node) {
  const std::string_view name = node.name();
  return name.substr(name.find(':') + 1);
}

bool is_element(const pugi::xml_node& node, std::string_view name) {
  return node.type() == pugi::node_element && local_name(node) == name;
}

pugi::xml_node find_element(const pugi::xml_node& top, std::string_view name) {
  return top.find_node([&](const pugi::xml_node& node) { return is_element(node, name); });
}

std::string text_of(const pugi::xml_node& node) {
  std::string text;
  for (const pugi::xml_node child : node) {
    if (child.type() == pugi::node_pcdata || child.type() == pugi::node_cdata) text += child.value();
  }
  return std::string(trimmed(text));
}

std::string child_text(const pugi::xml_node& node, std::string_view name) {
  return text_of(node.find_child([&](const pugi::xml_node& child) { return is_element(child, name); }));
}

}  // namespace host
