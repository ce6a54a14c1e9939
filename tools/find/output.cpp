// Text, table and JSON output; the one file that knows the JSON library.
#include "output.h"

#include <fmt/format.h>

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <cwchar>
#include <cwctype>
#include <nlohmann/json.hpp>
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
    std::string operator()(const std::string& text) const { return printable(text); }
    std::string operator()(std::uint64_t number) const { return fmt::to_string(number); }
    std::string operator()(bool yes) const { return yes ? "yes" : "no"; }
    std::string operator()(const std::vector<std::uint64_t>& numbers) const {
      std::string all;
      for (const std::uint64_t n : numbers) all += fmt::format("{}0x{:04X}", all.empty() ? "" : " ", n);
      return all;
    }
  };
  return std::visit(Visitor{}, value);
}

std::string shown(const Value& value) {
  std::string text = to_text(value);
  return text.empty() ? "-" : text;
}

std::string cell(const Record& record, std::string_view key) {
  const auto item = std::ranges::find(record, key, &Item::key);
  return item == record.end() ? "-" : shown(item->value);
}

std::string to_json(const Record& record) {
  Json object = Json::object();
  for (const Item& item : record) std::visit([&](const auto& value) { object[item.key] = value; }, item.value);
  // ASCII only: what isn't UTF-8 is replaced, controls are escaped, so a terminal is safe too.
  return object.dump(-1, ' ', true, Json::error_handler_t::replace);
}

void put_line(std::string text) {
  text.erase(text.find_last_not_of(' ') + 1);
  fmt::print("{}\n", text);
}

const char* heading(const std::vector<Record>& records, std::string_view key) {
  const auto item = std::ranges::find(records.front(), key, &Item::key);
  return item == records.front().end() ? "" : item->label;
}

}  // namespace

std::string printable(std::string_view foreign) {
  std::string out;
  each_character(foreign, [&](std::string_view bytes, int columns) { out += columns < 0 ? "?" : bytes; });
  return out;
}

void print_record(const Record& record, bool json) {
  if (json) return put_line(to_json(record));
  std::size_t widest = 0;
  for (const Item& item : record) {
    if (item.label != nullptr) widest = std::max(widest, width(item.label));
  }
  for (const Item& item : record) {
    if (item.label != nullptr) put_line(pad(item.label, widest + 2) + shown(item.value));
  }
}

void print_table(const std::vector<Record>& records, std::initializer_list<const char*> columns, bool json) {
  if (json) {
    for (std::size_t i = 0; i < records.size(); ++i) fmt::print("{}{}", i == 0 ? "[" : ",\n ", to_json(records[i]));
    fmt::print("{}\n", records.empty() ? "[]" : "]");
    return;
  }
  if (records.empty()) return;
  std::vector<std::string> lines(records.size() + 1);
  for (const char* key : columns) {
    std::vector<std::string> cells{heading(records, key)};
    for (const Record& record : records) cells.push_back(cell(record, key));
    std::size_t widest = 0;
    for (const std::string& text : cells) widest = std::max(widest, width(text));
    for (std::size_t i = 0; i < cells.size(); ++i) lines[i] += pad(std::move(cells[i]), widest + 2);
  }
  for (std::string& line : lines) put_line(std::move(line));
}

std::string line_of(const Record& record, std::initializer_list<const char*> columns) {
  std::string line;
  for (const char* key : columns) line += (line.empty() ? "" : "  ") + cell(record, key);
  return line;
}

void complain(std::string_view sentence) {
  fmt::print(stderr, "kestrel-find: {}\n", printable(sentence));
}

}  // namespace finder
