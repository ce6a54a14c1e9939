// The story in a log: events, cycle by cycle, out of lines.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "reader.h"
#include "table.h"

namespace explain {

/// What a line tells. The log has no times: `waited_s` is the sum of the waits that had passed since its first line,
/// and so the least time that had.
struct Event {
  const Row* row = nullptr;     // of an exchange: that of the request
  const Row* answer = nullptr;  // of an exchange only; null when the log does not tell what came
  std::uint64_t line = 0;
  unsigned cycle = 0;  // 0 before the first
  std::uint64_t waited_s = 0;
  std::string state;
  std::string name;
  std::string text;
  std::vector<std::string> arguments;
  std::vector<std::pair<std::string, std::string>> sent;  // elements of an exchange's request
  bool exchange = false;
  bool aside = false;  // of the finder's thread: it says nothing about the registration
  bool cycle_begins = false;
};

using EventSink = std::function<void(const Event& event)>;

class Story {
 public:
  explicit Story(EventSink sink) : sink_(std::move(sink)) {}
  void take(const Line& line);
  /// True when the log had a line that the daemon writes.
  [[nodiscard]] bool is_daemons() const { return !previous_.empty(); }
  [[nodiscard]] std::uint64_t waited_s() const { return waited_s_; }

 private:
  struct Exchange {
    bool open = false;
    bool reports = false;  // its lines are not indented
    bool sending = false;  // its elements have been seen
    std::string name;
    std::string detail;
    const Row* no_route = nullptr;
    std::uint64_t line = 0;
    std::vector<std::pair<std::string, std::string>> sent;
  };
  void take_entry(std::string_view text);
  void take_element(std::string_view text);
  void take_row(const Match& match);
  void enter(const Match& match);
  void begin_cycle();
  void count_wait(const Match& match);
  void pass_wait();
  void take_exchange(const Match& match);
  Exchange& exchange_of(const Match& answer);
  void begin_exchange(std::string_view name, bool aside);
  void end_exchange(Exchange& exchange, const Match* answer);
  void tell(Event event);
  EventSink sink_;
  Exchange exchange_;  // of the main thread
  Exchange beside_;    // of the finder's
  std::string state_;
  std::string_view previous_;  // the name of the last row
  std::uint64_t line_ = 0;
  std::uint64_t waited_s_ = 0;
  std::uint64_t pending_wait_s_ = 0;
  unsigned cycle_ = 0;
  bool indented_ = false;       // the present line begins with a blank
  bool marked_ = false;         // lines begin with the daemon's mark
  bool cycle_begins_ = false;   // with the next event
  bool second_header_ = false;  // of UPnP
};

}  // namespace explain
