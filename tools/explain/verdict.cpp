// Judging events, see verdict.h.
#include "verdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace explain {
namespace {

/// Failures that keep a cycle from going on, in a loop of its own: there is no state to tell of them.
constexpr std::array<std::string_view, 5> blocking = {"no-account", "no-service", "no-lan", "no-port", "no-switch"};
/// Failures that carry a code of the router or of the UPnP library.
constexpr std::array<std::string_view, 2> coded = {"no-router-address", "router-error"};

template <std::size_t N>
bool is_one_of(std::string_view name, const std::array<std::string_view, N>& names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::string advice_of(std::string_view name) {
  const auto found = std::find_if(rows().begin(), rows().end(), [&](const Row& row) {
    return row.name == name && row.mark != Mark::request && !row.next.empty();
  });
  return found != rows().end() ? std::string(found->next) : std::string();
}

struct Reason {
  std::string_view answer;
  const char* why;
};
constexpr std::array<Reason, 4> reasons = {{
    {"no-connection", "the service can't be reached"},
    {"no-route", "the camera's own network leads nowhere"},
    {"silent", "the service takes the connection and does not answer"},
    {"challenged", "the service refuses the camera's credentials"},
}};

}  // namespace

const char* name_of(Standing standing) {
  constexpr std::array<const char*, 4> names = {"not decided", "off line", "registered only",
                                                "registered and reachable"};
  return names[static_cast<std::size_t>(standing)];
}

void Judge::take(const Event& event) {
  if (event.aside) return;
  if (event.cycle_begins) {
    failures_.clear();
    last_failure_.clear();
    request_.clear();
    router_ip_.clear();
    enabled_ = -1;
  }
  if (event.exchange) return take_exchange(event);
  if (event.row->mark == Mark::state) return take_state(event);
  if (event.row->mark == Mark::bad) return take_failure(event);
  const std::string_view name = event.row->name;
  if (name == "seen") seen_ip_ = event.arguments[0];
  if (name == "router-ip") router_ip_ = event.arguments[0];
  if (name == "port-query") port_ = event.arguments[0];
  if (name == "switch") enabled_ = event.arguments[0] == "0" ? 0 : 1;
  if (name == "start") {
    state_.clear();
    started_ = true;
    settle(Standing::undecided, event, "the daemon has started and not come to the end of a cycle");
  }
  if (name == "reloading") settle(Standing::off_line, event, "a reload is under way: everything starts anew");
  if (name == "exit-signal") end(event, "the daemon was told to end");
  if (name == "tool-kill") end(event, event.text);
}

void Judge::take_exchange(const Event& event) {
  const std::string step = fmt::format("{} ({})", event.row->next, event.row->meaning);
  const std::string_view answer = event.answer != nullptr ? event.answer->name : "status";
  const bool again = challenged_ && request_ == step;
  challenged_ = answer == "challenged";
  request_ = step;
  kind_ = answer;
  answer_ = challenged_ && again ? "401 once more: it refuses the credentials" : event.text;
  advice_ = advice_of(answer);
}

void Judge::take_state(const Event& event) {
  before_ = std::exchange(state_, event.name);
  if (event.name == "LumenDevDone") {
    if (before_ == "PublicMode") {
      settle(Standing::registered, event,
             "it has a public address, which the daemon does not have tested from outside");
      verdict_.next = {"whether a connection from outside to its HTTP port comes through"};
    } else {
      settle(Standing::reachable, event, fmt::format("the service has reached it by the router's port {}", port_));
    }
  } else if (event.name == "LumenDevPartDone") {
    settle(Standing::registered, event, "");
    blame_router();
  } else if (event.name == "LumenDevNotReady") {
    settle(Standing::off_line, event, "");
    blame_service();
  }
}

void Judge::take_failure(const Event& event) {
  last_failure_ = event.name;
  Failure& failure = failures_[event.name];
  failure.text = event.text;
  failure.next = advice_of(event.name);
  if (is_one_of(event.name, coded)) failure.code = event.arguments[0];
  if (event.name == "unreached") {
    failure.step = request_;
    failure.answer = answer_;
  }
  ++failure.count;
  if (is_one_of(event.name, blocking)) {
    settle(Standing::off_line, event, event.text);
    verdict_.next = {failure.next};
  } else if (event.name == "unreached" && state_ == "LumenDevDone") {
    const bool tested = advice_.empty() || answer_ == "404";
    settle(Standing::registered, event,
           tested ? "the service reaches it no more" : fmt::format("the test from outside failed: {}", answer_));
    verdict_.step = request_;
    verdict_.answer = answer_;
    verdict_.next = {answer_ == "404" ? failure.next : advice_};
  }
}

void Judge::end(const Event& event, const std::string& why) {
  std::string before;
  if (verdict_.decided()) before = fmt::format("; before that it was {}, {}", name_of(verdict_.standing), verdict_.why);
  settle(Standing::off_line, event, why + before);
}

void Judge::settle(Standing standing, const Event& event, std::string why) {
  const bool first = !started_ && !verdict_.decided();
  if (standing != verdict_.standing || first || verdict_.since_line == 0) {
    verdict_.since_line = event.line;
    verdict_.since_cycle = event.cycle;
    verdict_.since_waited_s = event.waited_s;
    verdict_.since_start = first;
  }
  verdict_.standing = standing;
  verdict_.why = std::move(why);
  verdict_.step.clear();
  verdict_.answer.clear();
  verdict_.router_code.clear();
  verdict_.next.clear();
}

void Judge::blame_service() {
  if (enabled_ == 0) {
    verdict_.why = "the user has switched the service off";
    verdict_.next = {"the switch in the camera's settings"};
    return;
  }
  if (request_.empty() || kind_ == "ok") {
    verdict_.why = "the log does not show what failed";
    return;
  }
  verdict_.step = request_;
  verdict_.answer = answer_;
  const auto* reason = std::find_if(reasons.begin(), reasons.end(), [&](const Reason& r) { return r.answer == kind_; });
  verdict_.why = reason != reasons.end() ? reason->why : "the service refused what was asked of it";
  if (!advice_.empty()) verdict_.next.push_back(advice_);
}

void Judge::blame_router() {
  std::string code_advice;
  for (const auto& [name, failure] : failures_) {
    if (failure.code.empty()) continue;
    verdict_.router_code = failure.code;
    code_advice = failure.next;
  }
  const auto failed = failures_.find(last_failure_);
  if (before_ == "NATM") {
    verdict_.why = fmt::format("more than one NAT: the router's outside address is {}, the service sees {}",
                               router_ip_.empty() ? "another" : router_ip_, seen_ip_.empty() ? "another" : seen_ip_);
    verdict_.next = {advice_of(before_)};
  } else if (before_ == "NoUPnP") {
    verdict_.why = "no UPnP gateway has answered, so no port leads to it";
    verdict_.next = {advice_of(before_)};
  } else if (failed != failures_.end()) {
    const Failure& failure = failed->second;
    const std::string times = failure.count > 1 ? fmt::format(" ({} times)", failure.count) : "";
    const char* what = failed->first == "unreached" ? "the router maps ports, but " : "no mapping to be had: ";
    verdict_.why = what + failure.text + times;
    verdict_.step = failure.step;
    verdict_.answer = failure.answer;
    if (!failure.next.empty()) verdict_.next.push_back(failure.next);
  } else {
    verdict_.why = "no mapping to be had";
  }
  const bool told = std::find(verdict_.next.begin(), verdict_.next.end(), code_advice) != verdict_.next.end();
  if (!code_advice.empty() && !told) verdict_.next.push_back(code_advice);
}

Verdict Judge::verdict() const {
  Verdict now = verdict_;
  if (!now.decided() && now.why.empty()) now.why = "the log does not show the end of a cycle";
  return now;
}

}  // namespace explain
