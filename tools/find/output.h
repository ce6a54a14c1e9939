// What the tool prints: records as text, as table rows, as JSON or as fields, and texts of the network made
// harmless for a terminal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace finder {

/// How a command's result is told: to a person, as JSON, or as fields between semicolons for a shell script.
enum class Format { text, json, lines };

/// A number that people know by its hexadecimal digits; JSON has it as a number.
struct Hex {
  std::uint32_t number;
};

using Value = std::variant<std::string, std::uint64_t, bool, std::vector<std::uint64_t>, Hex>;

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

/// Prints a record on standard output: "label  value" lines, a JSON object on one line, or "key;value" lines.
void print_record(const Record& record, Format format);

/// A column of a table: whose value, what stands above it, and how wide it is at least while the rest is not known.
struct Column {
  const char* key;
  const char* label;
  std::size_t width;
};
using Columns = std::span<const Column>;

/// Prints records as an aligned table, as a JSON array of whole records, one a line, or a line of fields each. An
/// empty list is no table, but is a JSON array.
void print_table(const std::vector<Record>& records, Columns columns, Format format);

/// A table that grows: text and lines are printed record by record as they come; at the end a terminal that still
/// shows all of them gets the aligned table in their place. A JSON array comes at the end.
class GrowingTable {
 public:
  /// `columns` must outlive the table.
  GrowingTable(Columns columns, Format format) : columns_(columns), format_(format) {}
  void add(const Record& record);
  /// `records` are all that were added, in the order that a reader wants.
  void finish(const std::vector<Record>& records);

 private:
  void print_row(const std::string& row);
  Columns columns_;
  Format format_;
  std::size_t rows_ = 0;    // on the screen, heading included
  std::size_t widest_ = 0;  // of them, in columns of the screen
};

/// One line of a record's values, two blanks between them, for a running list.
std::string line_of(const Record& record, Columns columns);

/// A record's values as fields: semicolons between them; a semicolon or backslash in a value, a control character and
/// a byte that isn't UTF-8 are a backslash and three decimal digits.
std::string fields_of(const Record& record, Columns columns);

/// One sentence on standard error, with the program's name in front; its texts are made printable.
void complain(std::string_view sentence);

}  // namespace finder
