// The verdict: whether the camera can be reached, since when, and why not.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "story.h"

namespace explain {

enum class Standing { undecided, off_line, registered, reachable };

struct Verdict {
  Standing standing = Standing::undecided;
  std::string why;
  std::string step;               // the request that failed; empty: none did
  std::string answer;             // what the service answered to it
  std::string router_code;        // of the router or the UPnP library
  std::vector<std::string> next;  // what to look at
  // Since when: the line and cycle of it, and the waits that had passed by then.
  std::uint64_t since_line = 0;
  unsigned since_cycle = 0;
  std::uint64_t since_waited_s = 0;
  bool since_start = true;  // nothing in the log stands before it

  [[nodiscard]] bool decided() const { return standing != Standing::undecided; }
};

/// What the standing is called: "registered and reachable", "registered only", "off line", "not decided".
const char* name_of(Standing standing);

/// Judges events one by one.
class Judge {
 public:
  void take(const Event& event);
  /// As of the last event.
  [[nodiscard]] Verdict verdict() const;

 private:
  struct Failure {
    std::string text;
    std::string next;
    std::string code;
    std::string step;
    std::string answer;
    std::uint64_t count = 0;
  };
  void take_exchange(const Event& event);
  void take_state(const Event& event);
  void take_failure(const Event& event);
  void settle(Standing standing, const Event& event, std::string why);
  void end(const Event& event, const std::string& why);
  void blame_service();
  void blame_router();
  Verdict verdict_;
  std::map<std::string, Failure, std::less<>> failures_;  // of this cycle, by the names of their rows
  std::string last_failure_;
  std::string before_;  // the state before the present one
  std::string state_;
  std::string seen_ip_;
  std::string router_ip_;
  std::string port_;
  std::string request_;  // the last exchange: its step, what came, and what to look at
  std::string answer_;
  std::string_view kind_;  // the name of the answer's row
  std::string advice_;
  bool started_ = false;  // the log shows a start of the daemon
  bool challenged_ = false;
  int enabled_ = -1;
};

}  // namespace explain
