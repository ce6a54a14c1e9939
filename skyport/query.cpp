#include "query.h"

#include <algorithm>
#include <charconv>

#include "net.h"

namespace skyport {
namespace {

/// A value with its "%41" undone; what is no such thing stays.
std::string decoded(const std::string& text) {
  std::string plain;
  for (size_t at = 0; at < text.size(); ++at) {
    unsigned byte = 0;
    const char* const digits = text.data() + at + 1;
    const bool escaped =
        text[at] == '%' && at + 2 < text.size() && std::from_chars(digits, digits + 2, byte, 16).ptr == digits + 2;
    plain += escaped ? static_cast<char>(byte) : text[at];
    if (escaped) at += 2;
  }
  return plain;
}

}  // namespace

std::string read_query(const std::string& target, std::initializer_list<QueryField> fields) {
  const size_t mark = target.find('?');
  if (mark == std::string::npos) return "";
  for (size_t at = mark + 1; at <= target.size();) {
    const size_t end = std::min(target.find('&', at), target.size());
    const std::string part = target.substr(at, end - at);
    const size_t equals = std::min(part.find('='), part.size());
    const auto* const field = std::find_if(fields.begin(), fields.end(),
                                           [&](const QueryField& f) { return part.substr(0, equals) == f.name; });
    if (field == fields.end() || equals == part.size())
      return "the query's '" + part + "' is not NAME=VALUE of this path";
    const std::string value = decoded(part.substr(equals + 1));
    if (field->text != nullptr) *field->text = value;
    if (field->number != nullptr && !parse_number(value, INT64_MAX, *field->number))
      return "the query's '" + part + "' is not a number";
    at = end + 1;
  }
  return "";
}

}  // namespace skyport
