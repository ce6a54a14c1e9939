// Reading the table, and matching lines against its formats.
#include "table.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>

namespace explain {
namespace {

constexpr char table_text[] =
#include "table_text.inc"
    ;

std::string_view cut(std::string_view& rest, std::string_view separator) {
  const std::size_t at = rest.find(separator);
  const std::string_view first = rest.substr(0, at);
  rest = at == std::string_view::npos ? std::string_view() : rest.substr(at + separator.size());
  return first;
}

struct MarkWord {
  std::string_view word;
  Mark mark;
};
constexpr std::array<MarkWord, 7> mark_words = {{
    {".", Mark::plain},
    {"+", Mark::good},
    {"!", Mark::bad},
    {"wait", Mark::wait},
    {"state", Mark::state},
    {"request", Mark::request},
    {"answer", Mark::answer},
}};

void read_mark(std::string_view text, Row& row) {
  const std::string_view word = cut(text, " ");
  const auto* found =
      std::find_if(mark_words.begin(), mark_words.end(), [&](const MarkWord& m) { return m.word == word; });
  if (found == mark_words.end()) throw std::runtime_error("no mark: " + std::string(word));
  row.mark = found->mark;
  if (text == "if 0") row.condition = Condition::if_zero;
  if (text == "unless 0") row.condition = Condition::unless_zero;
  if (row.mark == Mark::wait && text != "{0}") {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), row.wait_s);
    if (error != std::errc() || end != text.data() + text.size()) throw std::runtime_error("no wait in the table");
  }
}

std::vector<Row> read_table() {
  std::vector<Row> table;
  std::string_view rest = table_text;
  while (!rest.empty()) {
    std::string_view line = cut(rest, "\n");
    if (line.empty() || line.front() == '#') continue;
    Row row{Mark::plain, Condition::none, -1, {}, {}, {}, {}};
    read_mark(cut(line, " | "), row);
    row.name = cut(line, " | ");
    row.text = cut(line, " | ");
    row.meaning = cut(line, " | ");
    row.next = line;
    if (row.text.empty()) throw std::runtime_error("no text in the table: " + std::string(row.name));
    if (row.meaning == "-") row.meaning = {};
    table.push_back(row);
  }
  return table;
}

bool is_number(std::string_view text) {
  if (!text.empty() && text.front() == '-') text.remove_prefix(1);
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::size_t conversion_at(std::string_view format, std::size_t from) {
  for (std::size_t at = format.find('%', from); at != std::string_view::npos; at = format.find('%', at + 1)) {
    if (at + 1 < format.size() && (format[at + 1] == 'd' || format[at + 1] == 's')) return at;
  }
  return format.size();
}

/// The rows that lines with this first character may fit, in the table's order.
const std::vector<const Row*>& rows_for(char first) {
  static const auto index = [] {
    std::array<std::vector<const Row*>, 256> by_character;
    for (const Row& row : rows()) {
      for (std::size_t c = 0; c < by_character.size(); ++c) {
        const bool may = row.text.front() == '%' || static_cast<unsigned char>(row.text.front()) == c;
        if (may && row.mark != Mark::request) by_character[c].push_back(&row);
      }
    }
    return by_character;
  }();
  return index[static_cast<unsigned char>(first)];
}

bool holds(const Match& match) {
  if (match.row->condition == Condition::none) return true;
  return (number(match, 0) == 0) == (match.row->condition == Condition::if_zero);
}

}  // namespace

const std::vector<Row>& rows() {
  static const std::vector<Row> table = read_table();
  return table;
}

bool fits(std::string_view format, std::string_view line, std::vector<std::string_view>& arguments) {
  arguments.clear();
  std::size_t at = conversion_at(format, 0);
  if (!line.starts_with(format.substr(0, at))) return false;
  line.remove_prefix(at);
  while (at < format.size()) {
    const bool decimal = format[at + 1] == 'd';
    const std::size_t next = conversion_at(format, at + 2);
    const std::string_view literal = format.substr(at + 2, next - at - 2);
    const bool last = next == format.size();
    std::size_t end = literal.empty() ? std::string_view::npos : line.find(literal);
    // What ends the format ends the line too.
    if (last) end = line.ends_with(literal) ? line.size() - literal.size() : std::string_view::npos;
    if (end == std::string_view::npos) return false;
    arguments.push_back(line.substr(0, end));
    if (decimal && !is_number(arguments.back())) return false;
    line.remove_prefix(end + literal.size());
    at = next;
  }
  return line.empty();
}

std::vector<Match> find_rows(std::string_view line) {
  std::vector<Match> found;
  if (line.empty()) return found;
  bool has_meaning = false;
  Match match;
  for (const Row* row : rows_for(line.front())) {
    const bool meaning = row->mark == Mark::plain || row->mark == Mark::good || row->mark == Mark::bad;
    if (meaning && has_meaning) continue;
    match.row = row;
    if (!fits(row->text, line, match.arguments) || !holds(match)) continue;
    has_meaning = has_meaning || meaning;
    found.push_back(match);
  }
  return found;
}

const Row* row_named(Mark mark, std::string_view name) {
  for (const Row& row : rows()) {
    if (row.mark == mark && row.name == name) return &row;
  }
  return nullptr;
}

std::string meaning_of(const Match& match) {
  std::string text;
  std::string_view rest = match.row->meaning;
  while (!rest.empty()) {
    text += cut(rest, "{");
    if (rest.empty()) break;
    const auto index = static_cast<std::size_t>(rest.front() - '0');
    if (index < match.arguments.size()) text += match.arguments[index];
    rest.remove_prefix(std::min<std::size_t>(2, rest.size()));
  }
  return text;
}

long long number(const Match& match, std::size_t index) {
  long long value = 0;
  if (index < match.arguments.size()) {
    const std::string_view text = match.arguments[index];
    std::from_chars(text.data(), text.data() + text.size(), value);
  }
  return value;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace explain
