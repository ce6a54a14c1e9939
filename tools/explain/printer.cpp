// Text and JSON, see printer.h.
#include "printer.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "output.h"

namespace explain {
namespace {

using Json = nlohmann::ordered_json;

constexpr unsigned told_in_state = 3;           // lines of one kind in a state that are told before they are counted
constexpr std::size_t max_cycle_events = 1000;  // a cycle of the daemon's has 700 at most
constexpr std::string_view head = "  line  at least  state";
constexpr std::size_t text_column = 36;
/// Elements of a request that say little about why a camera is off line.
constexpr std::array<std::string_view, 12> untold = {"mac",  "ptype", "model", "ver",    "sptver", "oif",
                                                     "mask", "gw",    "tch",   "tstamp", "chno",   "stype"};

std::string clock_text(std::uint64_t seconds) {
  return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::string line_text(const Event& event, std::string_view state, std::string_view text) {
  return fmt::format("{:>6} {:>9}  {:<18}{}\n", event.line, clock_text(event.waited_s), state, text);
}

std::string exchange_text(const Event& event) {
  return finder::printable(
      fmt::format("{}-> {}  <- {}", event.aside ? "(beside) " : "", event.row->meaning, event.text));
}

std::string sent_text(const Event& event) {
  std::string text;
  for (const auto& [key, value] : event.sent) {
    if (std::find(untold.begin(), untold.end(), key) == untold.end()) text += fmt::format(" {}={}", key, value);
  }
  return text.empty() ? text : fmt::format("{:{}}   sent{}\n", "", text_column, finder::printable(text));
}

const char* kind_of(const Event& event) {
  if (event.exchange) return "exchange";
  switch (event.row->mark) {
    case Mark::good:
      return "success";
    case Mark::bad:
      return "failure";
    case Mark::wait:
      return "wait";
    case Mark::state:
      return "state";
    case Mark::plain:
    case Mark::request:
    case Mark::answer:
      break;
  }
  return "note";
}

std::string dumped(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

Json verdict_json(const Verdict& verdict, const LogEnd& end) {
  Json since = {{"line", verdict.since_line},
                {"cycle", verdict.since_cycle},
                {"at_least_s", end.waited_s - verdict.since_waited_s},
                {"or_earlier", verdict.since_start}};
  Json json = {{"type", "verdict"}, {"standing", name_of(verdict.standing)}, {"why", finder::printable(verdict.why)}};
  json["since"] = verdict.since_line != 0 ? since : Json();
  const auto put = [&](const char* key, const std::string& text) {
    json[key] = text.empty() ? Json() : Json(finder::printable(text));
  };
  put("step", verdict.step);
  put("answer", verdict.answer);
  put("router_code", verdict.router_code);
  json["next"] = verdict.next;
  if (end.changed != 0) json["log_changed"] = fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", fmt::gmtime(end.changed));
  return json;
}

}  // namespace

void Printer::take(const Event& event) {
  if (format_ == Format::json) return print_json(event);
  if (event.cycle_begins) end_state(), fold_cycle();
  // What has no meaning has a name only so that others can look for it.
  if (event.text.empty()) return;
  tell(event);
}

void Printer::print_json(const Event& event) {
  if (event.text.empty()) return;
  Json json = {{"type", kind_of(event)},
               {"name", finder::printable(event.name)},
               {"line", event.line},
               {"cycle", event.cycle},
               {"at_least_s", event.waited_s},
               {"state", event.state},
               {"text", finder::printable(event.text)}};
  for (const std::string& argument : event.arguments) json["values"].push_back(finder::printable(argument));
  if (event.exchange) {
    json["request"] = event.row->meaning;
    json["answer"] = event.answer != nullptr ? Json(event.answer->name) : Json();
    json["beside"] = event.aside;
    for (const auto& [key, value] : event.sent) json["sent"][finder::printable(key)] = finder::printable(value);
  }
  write(dumped(json));
}

void Printer::tell(const Event& event) {
  const bool state = !event.exchange && event.row->mark == Mark::state;
  if (state || event.name == "start") end_state();
  const bool failure = !event.exchange && event.row->mark == Mark::bad;
  if (!state && ++in_state_[event.name] > told_in_state + (event.exchange ? told_in_state : 0)) {
    ++untold_;
    return;
  }
  const std::string text = event.exchange ? exchange_text(event) : finder::printable(event.text);
  std::string told = line_text(event, state ? event.state : "", failure ? "! " + text : text);
  if (event.exchange) told += sent_text(event);
  // The port from which a request came is another each time.
  put({event.name == "seen" ? event.name : event.name + text, std::move(told)});
  if (live_) fold_cycle();
}

void Printer::put(Told told) {
  cycle_.push_back(std::move(told));
  if (cycle_.size() < max_cycle_events) return;
  fold_cycle();
  printed_key_.clear();
}

void Printer::fold_cycle() {
  if (cycle_.empty()) return;
  std::string key;
  for (const Told& told : cycle_) key += told.key + "\n";
  if (!live_ && key == printed_key_) {
    ++alike_;
  } else {
    end_run();
    if (!headed_) write(fmt::format("{:<{}}what\n", head, text_column));
    headed_ = true;
    for (const Told& told : cycle_) write(told.text);
    printed_key_ = std::move(key);
  }
  cycle_.clear();
}

void Printer::end_run() {
  if (alike_ > 0) write(fmt::format("{:{}}({} more cycles like this one)\n", "", text_column, alike_));
  alike_ = 0;
}

void Printer::end_state() {
  if (untold_ > 0) put({"more", fmt::format("{:{}}({} more lines like these)\n", "", text_column, untold_)});
  untold_ = 0;
  in_state_.clear();
}

void Printer::flush() {
  end_state();
  fold_cycle();
  end_run();
}

void Printer::remark(const std::string& text) {
  flush();
  write(format_ == Format::json ? dumped({{"type", "remark"}, {"text", text}})
                                : fmt::format("{:{}}({})\n", "", text_column, text));
}

void Printer::print_verdict(const Verdict& verdict, const LogEnd& end) {
  flush();
  if (format_ == Format::json) return write(dumped(verdict_json(verdict, end)));
  std::string text = fmt::format("\nVerdict: {}\n", name_of(verdict.standing));
  const auto put = [&](std::string_view label, const std::string& value) {
    if (!value.empty()) text += fmt::format("  {:<9}{}\n", label, finder::printable(value));
  };
  if (verdict.since_line != 0) {
    std::string since = fmt::format("line {}, in cycle {}{}", verdict.since_line, verdict.since_cycle,
                                    verdict.since_start ? ", or before the log begins" : "");
    const std::uint64_t waited_s = end.waited_s - verdict.since_waited_s;
    if (waited_s > 0) since += fmt::format("; at least {} before the log's last line", clock_text(waited_s));
    if (end.changed != 0) since += fmt::format("; the file is of {:%Y-%m-%d %H:%M:%S}", fmt::localtime(end.changed));
    put("since", since);
  }
  put("why", verdict.why);
  put("step", verdict.step);
  put("answer", verdict.answer);
  put("router", verdict.router_code.empty() ? "" : "code " + verdict.router_code);
  for (const std::string& next : verdict.next) put("look at", next);
  write(text);
}

void Printer::write(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || (live_ && std::fflush(stdout) != 0)) {
    throw std::runtime_error("can't write to standard output");
  }
}

}  // namespace explain
