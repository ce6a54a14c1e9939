#include "request_body.h"

#include <algorithm>
#include <pugixml.hpp>

#include "net.h"

namespace skyport {
namespace {

bool fits(Text text, const std::string& value) {
  uint64_t number = 0;
  switch (text) {
    case Text::any:
      return true;
    case Text::one:
      return value == "1";
    case Text::number:
      return parse_number(value, UINT32_MAX, number);
    case Text::address:
      return is_ipv4(value);
    case Text::port:
      return parse_number(value, UINT16_MAX, number) && number > 0;
    case Text::protocol:
      return value == "T" || value == "TP";
    case Text::http:
      return value == "HTTP";
  }
  return false;
}

bool continues_utf8(std::string_view text, size_t at, size_t count) {
  for (size_t i = 1; i <= count; ++i)
    if (at + i >= text.size() || (static_cast<unsigned char>(text[at + i]) & 0xC0) != 0x80) return false;
  return true;
}

std::string at_byte(size_t offset) {
  return " at byte " + std::to_string(offset);
}

/// What pugixml lets pass and XML forbids, and where: control characters, bytes that are not UTF-8, a bare '&'.
std::string character_error(std::string_view xml, size_t& i) {
  for (i = 0; i < xml.size(); ++i) {
    const auto c = static_cast<unsigned char>(xml[i]);
    if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') return "a control character";
    if (c >= 0x80) {
      const size_t more = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
      if (c < 0xC2 || c > 0xF4 || !continues_utf8(xml, i, more)) return "bytes that are not UTF-8";
      i += more;
    }
    if (c == '&') {
      const size_t end =
          xml.find_first_not_of("#abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789", i + 1);
      if (end == std::string_view::npos || xml[end] != ';' || end == i + 1) return "a bare '&'";
    }
  }
  return "";
}

/// Parses a request's XML; `ldev` becomes its one element. An empty text or what is wrong.
std::string parse_xml(const std::string& xml, pugi::xml_document& document, pugi::xml_node& ldev) {
  if (!xml.starts_with(xml_head)) {
    const auto differ = std::ranges::mismatch(xml, xml_head).in1 - xml.begin();
    return "XML does not begin with its declaration and <ldev>" + at_byte(static_cast<size_t>(differ));
  }
  if (!xml.ends_with(xml_tail)) return "XML does not end with </ldev>" + at_byte(xml.size());
  size_t bad_at = 0;
  if (const std::string error = character_error(xml, bad_at); !error.empty())
    return "XML holds " + error + at_byte(bad_at);
  const pugi::xml_parse_result result = document.load_buffer(
      xml.data(), xml.size(),
      pugi::parse_default | pugi::parse_declaration | pugi::parse_fragment | pugi::parse_ws_pcdata_single,
      pugi::encoding_utf8);
  if (!result)
    return std::string("XML is not well-formed: ") + result.description() + at_byte(static_cast<size_t>(result.offset));
  for (const pugi::xml_node node : document) {
    if (node.type() == pugi::node_declaration && node == document.first_child()) continue;
    if (node.type() != pugi::node_element || ldev) return "XML is not well-formed: more than one element at the top";
    ldev = node;
  }
  return "";
}

bool has_elements(pugi::xml_node node) {
  return std::any_of(node.begin(), node.end(), [](pugi::xml_node n) { return n.type() == pugi::node_element; });
}

std::string add_leaf(pugi::xml_node node, const std::string& path, Fields& out) {
  if (node.type() != pugi::node_element) return "XML has text outside its elements";
  if (has_elements(node)) return "XML is nested too deep in <" + path + ">";
  out.emplace_back(path, node.child_value());
  return "";
}

/// The leaves of a body, each as its path ("hid" or "dev/hid") and text.
std::string read_leaves(pugi::xml_node ldev, Fields& out) {
  for (const pugi::xml_node child : ldev) {
    const std::string name = child.name();
    if (!has_elements(child)) {
      if (std::string error = add_leaf(child, name, out); !error.empty()) return error;
      continue;
    }
    for (const pugi::xml_node leaf : child)
      if (std::string error = add_leaf(leaf, name + "/" + leaf.name(), out); !error.empty()) return error;
  }
  return "";
}

/// Holds the body's leaves against its table.
std::string table_error(std::span<const Element> table, const Fields& fields) {
  for (const Element& element : table) {
    const auto times =
        std::count_if(fields.begin(), fields.end(), [&](const auto& f) { return f.first == element.path; });
    if (times != 1) return std::string(times == 0 ? "body lacks <" : "body has twice <") + element.path + ">";
  }
  for (size_t i = 0; i < fields.size(); ++i) {
    const auto& [path, value] = fields[i];
    const auto row =
        std::find_if(table.begin(), table.end(), [&path = path](const Element& e) { return path == e.path; });
    if (row == table.end()) return "body has an unknown element <" + path + ">";
    if (row != table.begin() + static_cast<std::ptrdiff_t>(i)) return "body has <" + path + "> out of its order";
    if (!fits(row->text, value)) return std::string("body's <").append(path).append("> can't be ").append(value);
  }
  return "";
}

}  // namespace

std::string read_body(const std::string& text, std::span<const Element> table, RequestBody& body, Fields& fields) {
  body = decode_request(text);
  if (!body.error.empty()) return body.error;
  pugi::xml_document document;
  pugi::xml_node ldev;
  if (std::string error = parse_xml(body.xml, document, ldev); !error.empty()) return error;
  if (!table.empty()) {
    if (std::string error = read_leaves(ldev, fields); !error.empty()) return error;
    return table_error(table, fields);
  }
  const bool has_text = std::string_view(ldev.child_value()).find_first_not_of(" \t\r\n") != std::string_view::npos;
  return has_text ? "XML has text outside its elements" : "";
}

}  // namespace skyport
