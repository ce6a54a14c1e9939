// Words out of and for XML, see xml_text.h.
#include "xml_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace host {

namespace {

constexpr std::string_view blanks = " \t\r\n";
constexpr std::string_view cdata_start = "<![CDATA[";
constexpr std::string_view cdata_end = "]]>";
constexpr std::string_view comment_start = "<!--";
constexpr std::string_view comment_end = "-->";

struct Entity {
  std::string_view name;
  char character;
};
constexpr std::array<Entity, 5> entities{{{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}}};
constexpr std::size_t max_entity_len = 10;  // "#x0010FFFF" without the signs around it

std::string_view trimmed(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
  return text.substr(0, text.find_last_not_of(blanks) + 1);
}

void append_utf8(std::string& out, std::uint32_t code) {
  const auto trail = [&](unsigned shift) { out += static_cast<char>(0x80U | ((code >> shift) & 0x3FU)); };
  if (code < 0x80) {
    out += static_cast<char>(code);
  } else if (code < 0x800) {
    out += static_cast<char>(0xC0U | code >> 6U);
    trail(0);
  } else if (code < 0x10000) {
    out += static_cast<char>(0xE0U | code >> 12U);
    trail(6), trail(0);
  } else {
    out += static_cast<char>(0xF0U | code >> 18U);
    trail(12), trail(6), trail(0);
  }
}

/// Appends what the entity stands for; false when it is none.
bool append_entity(std::string& out, std::string_view name) {
  if (!name.starts_with('#')) {
    const auto* found = std::ranges::find(entities, name, &Entity::name);
    if (found == entities.end()) return false;
    out += found->character;
    return true;
  }
  name.remove_prefix(1);
  const bool hexadecimal = name.starts_with('x');
  if (hexadecimal) name.remove_prefix(1);
  std::uint32_t code = 0;
  const char* end = name.data() + name.size();
  const auto [stopped, error] = std::from_chars(name.data(), end, code, hexadecimal ? 16 : 10);
  if (error != std::errc{} || stopped != end || code == 0 || code > 0x10FFFF) return false;
  append_utf8(out, code);
  return true;
}

std::string resolved(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::size_t plain = std::min(text.find('&'), text.size());
    out.append(text.substr(0, plain));
    text.remove_prefix(plain);
    if (text.empty()) break;
    const std::size_t end = text.substr(0, max_entity_len + 2).find(';');
    if (end != std::string_view::npos && append_entity(out, text.substr(1, end - 1))) {
      text.remove_prefix(end + 1);
    } else {
      out += '&';  // written bare, as some do
      text.remove_prefix(1);
    }
  }
  return out;
}

std::string content_at(std::string_view xml) {
  const std::string_view start = xml.substr(std::min(xml.find_first_not_of(blanks), xml.size()));
  if (start.starts_with(cdata_start)) {
    const std::string_view inside = start.substr(cdata_start.size());
    return std::string(trimmed(inside.substr(0, inside.find(cdata_end))));
  }
  return resolved(trimmed(xml.substr(0, xml.find('<'))));
}

}  // namespace

std::optional<std::string> element_text(std::string_view xml, std::string_view name) {
  for (std::size_t at = 0; (at = xml.find('<', at)) != std::string_view::npos;) {
    if (xml.substr(at).starts_with(comment_start)) {
      at = xml.find(comment_end, at);
      continue;
    }
    const std::size_t end = xml.find_first_of("<>", ++at);
    if (end == std::string_view::npos) break;
    if (xml[end] == '<') continue;  // a bare "<" is no tag
    std::string_view tag = xml.substr(at, end - at);
    const bool empty = tag.ends_with('/');
    tag = tag.substr(0, tag.find_first_of(" \t\r\n/"));
    tag.remove_prefix(tag.find(':') + 1);
    if (tag == name) return empty ? std::string() : content_at(xml.substr(end + 1));
  }
  return std::nullopt;
}

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    const auto* found = std::ranges::find(entities, c, &Entity::character);
    if (found == entities.end()) {
      out += c;
    } else {
      out.append("&").append(found->name).append(";");
    }
  }
  return out;
}

}  // namespace host
