// The table of the daemon's log lines (log_lines.txt, which is compiled in) and finding a line in it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace explain {

enum class Mark { plain, good, bad, wait, state, request, answer };
enum class Condition { none, if_zero, unless_zero };

/// One row. The texts stand in the program's own memory.
struct Row {
  Mark mark;
  Condition condition;
  int wait_s;  // of a wait; -1: the line's first number
  std::string_view name;
  std::string_view text;     // the daemon's format
  std::string_view meaning;  // empty: told by nobody
  std::string_view next;     // what to look at; empty: nothing in particular
};

struct Match {
  const Row* row;
  std::vector<std::string_view> arguments;  // into the line
};

/// All rows, in the table's order. Throws std::runtime_error when the table is malformed.
const std::vector<Row>& rows();

/// The rows that fit a line (without blanks at its ends): its meaning, and waits, states and answers besides.
std::vector<Match> find_rows(std::string_view line);

/// The row of a mark and name, null when there is none. The first one has the advice.
const Row* row_named(Mark mark, std::string_view name);

/// True when the line is the format filled in; `arguments` take what "%d" and "%s" stand for. A "%s" ends where what
/// follows it begins for the first time, so the time is linear in the line.
bool fits(std::string_view format, std::string_view line, std::vector<std::string_view>& arguments);

/// The row's meaning with the arguments in their places.
std::string meaning_of(const Match& match);

/// The argument as a number; 0 when there is none.
long long number(const Match& match, std::size_t index);

/// Without blanks, tabs and carriage returns at both ends.
std::string_view trimmed(std::string_view text);

}  // namespace explain
