// The bodies of requests: how they are read, and what each path wants of its own.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cipher.h"

namespace skyport {

/// Elements of a body in their order: name, text.
using Fields = std::vector<std::pair<std::string, std::string>>;

/// What stands around the elements of every body and answer.
inline constexpr std::string_view xml_head = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<ldev>\n";
inline constexpr std::string_view xml_tail = "</ldev>\n";

/// What an element's text must be.
enum class Text { any, one, number, address, port, protocol, http };

struct Element {
  const char* path;
  Text text;
};

// The bodies, element by element in the order of the wire.
inline constexpr Element update_elements[] = {
    {"dev/hid", Text::any},      {"dev/mac", Text::any},    {"dev/ptype", Text::one}, {"dev/model", Text::any},
    {"dev/ver", Text::any},      {"dev/sptver", Text::any}, {"dev/oif", Text::any},   {"dev/mask", Text::any},
    {"dev/gw", Text::any},       {"dev/eip", Text::any},    {"dev/ueip", Text::any},  {"dev/iip", Text::any},
    {"dev/tch", Text::one},      {"dev/tstamp", Text::any}, {"ch/chno", Text::one},   {"ch/name", Text::any},
    {"ch/prot", Text::protocol}, {"ch/stype", Text::http},  {"ch/eport", Text::any},  {"ch/ueport", Text::any},
    {"ch/iport", Text::any},     {"ch/st", Text::number},
};
inline constexpr Element connect_back_elements[] = {
    {"hid", Text::any}, {"eip", Text::address}, {"ueport", Text::port}, {"tstamp", Text::any}};
inline constexpr Element alias_elements[] = {{"hid", Text::any}, {"redirip", Text::any}, {"ah", Text::any}};
inline constexpr Element enable_elements[] = {{"hid", Text::any}, {"enable", Text::number}};

/// Takes a body apart: `body` gets its digits and XML, as far as they could be read, `fields` the leaves of the XML,
/// each as its path ("hid" or "dev/hid") and text. They are held against `table`; an empty one allows any elements, and
/// leaves `fields` alone. Returns an empty text or what is wrong.
std::string read_body(const std::string& text, std::span<const Element> table, RequestBody& body, Fields& fields);

}  // namespace skyport
