// What the tool prints: records as text, as table rows or as JSON, and texts of the network made
// harmless for a terminal.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace finder {

using Value = std::variant<std::string, std::uint64_t, bool, std::vector<std::uint64_t>>;

/// One fact. Its key names it in JSON; its label stands before it (or above it) in text.
struct Item {
  const char* key;
  const char* label;  // null: JSON only
  Value value;
};
using Record = std::vector<Item>;

/// A foreign text that can go to a terminal: every byte that isn't UTF-8, every control character
/// and every character that turns the writing direction becomes '?'.
std::string printable(std::string_view foreign);

/// Prints a record on standard output: "label  value" lines, or a JSON object on one line.
void print_record(const Record& record, bool json);

/// Prints records as an aligned table of the columns named by key, or as a JSON array of whole
/// records, one a line. An empty list is no table, but is a JSON array.
void print_table(const std::vector<Record>& records, std::initializer_list<const char*> columns, bool json);

/// One line of the values named by key, two blanks between them, for a running list.
std::string line_of(const Record& record, std::initializer_list<const char*> columns);

/// One sentence on standard error, with the program's name in front; its texts are made printable.
void complain(std::string_view sentence);

}  // namespace finder
