// Text, table, JSON and field output; the one file that knows the JSON library.
#include "output.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <cwctype>
#include <nlohmann/json.hpp>
#include <type_traits>
#include <utility>

namespace finder {
namespace {

using Json = nlohmann::ordered_json;

// Left-to-right and right-to-left marks, embeddings, overrides and isolates.
bool turns_direction(wchar_t c) {
  return c == 0x061C || (c >= 0x200E && c <= 0x200F) || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

// Columns that a printable text takes; calls seen(bytes, columns) for every character of it.
template <typename Seen>
void each_character(std::string_view text, Seen seen) {
  static const bool utf8 = std::setlocale(LC_CTYPE, "C.UTF-8") != nullptr;
  std::mbstate_t state{};
  while (!text.empty()) {
    wchar_t c = 0;
    std::size_t n = std::mbrtowc(&c, text.data(), text.size(), &state);
    int columns = -1;
    if (n == 0 || n > text.size()) {  // NUL, a cut sequence or a wrong byte
      state = {};
      n = 1;
    } else if ((utf8 || n == 1) && std::iswprint(static_cast<std::wint_t>(c)) != 0 && !turns_direction(c)) {
      columns = wcwidth(c);
    }
    seen(text.substr(0, n), columns);
    text.remove_prefix(n);
  }
}

std::size_t width(std::string_view printable_text) {
  std::size_t total = 0;
  each_character(printable_text,
                 [&](std::string_view, int columns) { total += static_cast<unsigned>(std::max(columns, 0)); });
  return total;
}

std::string pad(std::string text, std::size_t columns) {
  const std::size_t used = width(text);
  if (used < columns) text.append(columns - used, ' ');
  return text;
}

std::string to_text(const Value& value) {
  struct Visitor {
    std::string operator()(const std::string& text) const { return text; }
    std::string operator()(std::uint64_t number) const { return fmt::to_string(number); }
    std::string operator()(bool yes) const { return yes ? "yes" : "no"; }
    std::string operator()(const std::vector<std::uint64_t>& numbers) const {
      std::string all;
      for (const std::uint64_t n : numbers) all += fmt::format("{}0x{:04X}", all.empty() ? "" : " ", n);
      return all;
    }
    std::string operator()(Hex hex) const { return fmt::format("0x{:08X}", hex.number); }
  };
  return std::visit(Visitor{}, value);
}

std::string shown(const Value& value) {
  std::string text = printable(to_text(value));
  return text.empty() ? "-" : text;
}

const Value& value_of(const Record& record, std::string_view key) {
  static const Value missing;
  const auto item = std::ranges::find(record, key, &Item::key);
  return item == record.end() ? missing : item->value;
}

std::string cell(const Record& record, std::string_view key) {
  return shown(value_of(record, key));
}

std::string escaped(std::string_view foreign) {
  std::string out;
  each_character(foreign, [&](std::string_view bytes, int columns) {
    if (columns >= 0 && bytes != ";" && bytes != "\\") {
      out += bytes;
      return;
    }
    for (const char c : bytes) out += fmt::format("\\{:03}", static_cast<unsigned char>(c));
  });
  return out;
}

Json json_of(const Value& value) {
  return std::visit(
      [](const auto& plain) -> Json {
        if constexpr (std::is_same_v<std::decay_t<decltype(plain)>, Hex>)
          return plain.number;
        else
          return plain;
      },
      value);
}

std::string to_json(const Record& record) {
  Json object = Json::object();
  for (const Item& item : record) object[item.key] = json_of(item.value);
  // ASCII only: what isn't UTF-8 is replaced, controls are escaped, so a terminal is safe too.
  return object.dump(-1, ' ', true, Json::error_handler_t::replace);
}

void put_line(std::string text) {
  text.erase(text.find_last_not_of(' ') + 1);
  fmt::print("{}\n", text);
}

std::string heading_of(Columns columns) {
  std::string line;
  for (const Column& column : columns) line += pad(column.label, column.width) + "  ";
  return line;
}

// Rows and columns of the terminal on standard output; none when it is no terminal that can move its cursor.
winsize screen() {
  winsize size{};
  const char* term = std::getenv("TERM");
  if (isatty(STDOUT_FILENO) == 0 || term == nullptr || std::string_view(term) == "dumb" ||
      ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) {
    return {};
  }
  return size;
}

}  // namespace

std::string printable(std::string_view foreign) {
  std::string out;
  each_character(foreign, [&](std::string_view bytes, int columns) { out += columns < 0 ? "?" : bytes; });
  return out;
}

void print_record(const Record& record, Format format) {
  if (format == Format::json) return put_line(to_json(record));
  if (format == Format::lines) {
    for (const Item& item : record) fmt::print("{};{}\n", item.key, escaped(to_text(item.value)));
    return;
  }
  std::size_t widest = 0;
  for (const Item& item : record) {
    if (item.label != nullptr) widest = std::max(widest, width(item.label));
  }
  for (const Item& item : record) {
    if (item.label != nullptr) put_line(pad(item.label, widest + 2) + shown(item.value));
  }
}

void print_table(const std::vector<Record>& records, Columns columns, Format format) {
  if (format == Format::json) {
    for (std::size_t i = 0; i < records.size(); ++i) fmt::print("{}{}", i == 0 ? "[" : ",\n ", to_json(records[i]));
    fmt::print("{}\n", records.empty() ? "[]" : "]");
    return;
  }
  if (format == Format::lines) {
    for (const Record& record : records) fmt::print("{}\n", fields_of(record, columns));
    return;
  }
  if (records.empty()) return;
  std::vector<std::string> lines(records.size() + 1);
  for (const Column& column : columns) {
    std::vector<std::string> cells{column.label};
    for (const Record& record : records) cells.push_back(cell(record, column.key));
    std::size_t widest = 0;
    for (const std::string& text : cells) widest = std::max(widest, width(text));
    for (std::size_t i = 0; i < cells.size(); ++i) lines[i] += pad(std::move(cells[i]), widest + 2);
  }
  for (std::string& line : lines) put_line(std::move(line));
}

void GrowingTable::print_row(const std::string& row) {
  put_line(row);
  std::fflush(stdout);
  ++rows_;
  widest_ = std::max(widest_, width(row));
}

void GrowingTable::add(const Record& record) {
  if (format_ == Format::json) return;
  if (format_ == Format::lines) return print_row(fields_of(record, columns_));
  if (rows_ == 0) print_row(heading_of(columns_));
  std::string row;
  for (const Column& column : columns_) row += pad(cell(record, column.key), column.width) + "  ";
  print_row(row);
}

void GrowingTable::finish(const std::vector<Record>& records) {
  if (format_ == Format::json) return print_table(records, columns_, format_);
  const winsize size = screen();
  // A row that was wrapped or has left the screen can't be taken back.
  if (format_ != Format::text || rows_ == 0 || rows_ >= size.ws_row || widest_ > size.ws_col) return;
  fmt::print("\033[{}A\033[J", rows_);
  print_table(records, columns_, format_);
}

std::string line_of(const Record& record, Columns columns) {
  std::string line;
  for (const Column& column : columns) line += (line.empty() ? "" : "  ") + cell(record, column.key);
  return line;
}

std::string fields_of(const Record& record, Columns columns) {
  std::string line;
  for (const Column& column : columns) {
    if (&column != columns.data()) line += ';';
    line += escaped(to_text(value_of(record, column.key)));
  }
  return line;
}

void complain(std::string_view sentence) {
  fmt::print(stderr, "kestrel-find: {}\n", printable(sentence));
}

}  // namespace finder
