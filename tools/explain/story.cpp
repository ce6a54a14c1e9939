// Lines to events, see story.h.
#include "story.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace explain {
namespace {

constexpr std::string_view daemons_mark = "KLOG";
constexpr std::string_view console_noise = " Strange bug";  // standard output only, and without a line end
// What an exchange keeps of its request's elements; the daemon's have 25.
constexpr std::size_t max_elements = 64;
constexpr std::size_t max_element_len = 256;

template <std::size_t N>
bool is_one_of(std::string_view name, const std::array<std::string_view, N>& names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

/// With one of these the main thread goes on after a wait. The finder's thread writes in between.
constexpr std::array<std::string_view, 3> ends_of_waits = {"turn", "account-query", "request"};
/// These cut a wait short.
constexpr std::array<std::string_view, 4> cuts_of_waits = {"start", "reload-signal", "hold-signal", "exit-signal"};
constexpr std::array<std::string_view, 3> cycle_beginnings = {"no-relay-name", "no-relay", "relay"};
constexpr std::array<std::string_view, 2> requests_of_finder = {"conn_report", "srv_alias"};

std::string connection_failure(const std::string& detail) {
  if (detail.empty()) return "no connection: refused, or unreachable";
  return "no connection: " + detail;
}

}  // namespace

void Story::take(const Line& line) {
  std::string_view text = line.text;
  line_ = line.number;
  while (text.starts_with(console_noise)) text.remove_prefix(console_noise.size());
  const bool marked = text.starts_with(daemons_mark);
  if (marked) text.remove_prefix(daemons_mark.size());
  marked_ = marked_ || marked;
  indented_ = text.starts_with(' ');
  text = trimmed(text);
  // A line without the mark goes on with a text that may be anybody's.
  if (marked || !marked_) take_entry(text);
  take_element(text);
}

void Story::take_entry(std::string_view text) {
  for (const Match& match : find_rows(text)) {
    take_row(match);
    previous_ = match.row->name;
  }
}

void Story::take_element(std::string_view text) {
  Exchange& exchange = exchange_.open && !exchange_.sending ? exchange_ : beside_;
  if (!exchange.open || exchange.sending || exchange.sent.size() >= max_elements) return;
  std::vector<std::string_view> parts;
  if (text.size() > max_element_len || !fits("<%s>%s</%s>", text, parts) || parts[0] != parts[2]) return;
  exchange.sent.emplace_back(parts[0], parts[1]);
}

void Story::take_row(const Match& match) {
  const Row& row = *match.row;
  if (row.mark == Mark::wait) return count_wait(match);
  if (is_one_of(row.name, cuts_of_waits)) pending_wait_s_ = 0;
  if (is_one_of(row.name, cycle_beginnings) && previous_ != "no-relay-name") begin_cycle();
  if (row.name == "start") {
    exchange_ = beside_ = {};
    state_.clear();
  }
  take_exchange(match);
  if (row.mark == Mark::answer) return;
  if (row.mark == Mark::state) return enter(match);
  Event event;
  event.row = &row;
  event.text = row.name == "start" ? "the daemon starts" : meaning_of(match);
  event.arguments.assign(match.arguments.begin(), match.arguments.end());
  tell(std::move(event));
}

void Story::enter(const Match& match) {
  // NATMode announces UPnP under its own header, before it has found any.
  const bool announced = match.row->name == "UPnP" && state_ == "NATMode" && !second_header_;
  second_header_ = announced;
  if (announced) return;
  state_ = match.row->name;
  Event event;
  event.row = match.row;
  event.text = match.row->meaning;
  tell(std::move(event));
}

void Story::begin_cycle() {
  ++cycle_;
  cycle_begins_ = true;
  state_ = "START";
}

void Story::count_wait(const Match& match) {
  pass_wait();
  pending_wait_s_ = match.row->wait_s >= 0 ? static_cast<std::uint64_t>(match.row->wait_s)
                                           : static_cast<std::uint64_t>(std::clamp(number(match, 0), 0LL, 3600LL));
  Event event;
  event.row = match.row;
  event.text = fmt::format("waits {} s {}", pending_wait_s_, match.row->meaning);
  tell(std::move(event));
}

void Story::pass_wait() {
  waited_s_ += pending_wait_s_;
  pending_wait_s_ = 0;
}

void Story::take_exchange(const Match& match) {
  const std::string_view name = match.row->name;
  const bool of_finder = name == "request" && is_one_of(match.arguments[0], requests_of_finder);
  if (is_one_of(name, ends_of_waits) && !of_finder) pass_wait();
  if (match.row->mark == Mark::answer) return end_exchange(exchange_of(match), &match);
  if (name == "request") {
    begin_exchange(match.arguments[0], of_finder);
  } else if (name == "report-body" && (!exchange_.open || exchange_.name != "srv_update")) {
    begin_exchange("conn_report", true);
  } else if (name == "sending") {
    exchange_.sending = beside_.sending = true;
  } else if (name == "timed-out") {
    exchange_.detail = beside_.detail = "nothing came within 20 s";
  } else if (name == "no-route") {
    exchange_.detail = beside_.detail = fmt::format("no way there (errno {})", number(match, 0));
    exchange_.no_route = beside_.no_route = match.row;
  } else if (name == "too-long") {
    (exchange_.open ? exchange_ : beside_) = {};
  } else if (name == "exit-signal") {
    exchange_ = {};
  } else if (name == "turn" || name == "guard") {
    end_exchange(exchange_, nullptr);
  }
}

/// Whose answer it is. The queries' lines are indented, and those of the finder's requests are not; between two
/// reports nothing tells.
Story::Exchange& Story::exchange_of(const Match& answer) {
  const bool queries_own = indented_ || answer.row->text == "<-200 OK receiced!";
  if (!beside_.open || queries_own) return exchange_;
  return exchange_.open && exchange_.reports && exchange_.line < beside_.line ? exchange_ : beside_;
}

void Story::begin_exchange(std::string_view name, bool aside) {
  Exchange& exchange = aside ? beside_ : exchange_;
  end_exchange(exchange, nullptr);
  exchange = {};
  if (row_named(Mark::request, name) == nullptr) return;
  exchange.open = true;
  exchange.reports = name.find("_get_") == std::string_view::npos;
  exchange.name = name;
  exchange.line = line_;
}

void Story::end_exchange(Exchange& exchange, const Match* answer) {
  if (!exchange.open) return;
  exchange.open = false;
  // Reports name every answer; one without was never sent.
  if (answer == nullptr && exchange.reports) return;
  Event event;
  event.exchange = true;
  event.aside = &exchange == &beside_;
  event.row = row_named(Mark::request, exchange.name);
  event.sent = std::move(exchange.sent);
  if (answer == nullptr) {
    event.text = "something else than 200 and 401, which the log does not name";
  } else {
    const bool failed = answer->row->name == "no-connection";
    event.answer = failed && exchange.no_route != nullptr ? exchange.no_route : answer->row;
    event.text = failed ? connection_failure(exchange.detail) : meaning_of(*answer);
  }
  tell(std::move(event));
}

void Story::tell(Event event) {
  event.name = event.row->name;
  event.line = line_;
  event.cycle = cycle_;
  event.waited_s = waited_s_;
  event.state = state_;
  event.cycle_begins = std::exchange(cycle_begins_, false);
  sink_(event);
}

}  // namespace explain
