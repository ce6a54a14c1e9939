// What the state machine calls, in the place of service/, upnp/ and net/server_location.cpp: the results come from
// the fake platform's scripts, by the names of the trace.
#pragma once

#include <utility>
#include <vector>

#include "core/device_context.h"
#include "fake_platform/fixture.h"
#include "support/trace.h"

namespace kestrel {

/// Where the service sees the camera; what the external address query learns.
extern Endpoint seen_by_service;

/// Records a call, and gives its scripted result, or the natural one.
int called(const std::string& call, int natural);

/// The relay and the redirect server, as the fakes know them.
constexpr Endpoint relay = {"10.9.8.7", "3128"};
constexpr char redirect_server[] = "192.0.2.10";

/// The fakes' own calls are "eip", "daip", "enable SWITCH", "update", "cb", "upf UID INTERNAL EXTERNAL", "delete PORT
/// ATTEMPTS", "discover", "router", "clean UID", "proxy", "redirect" and "refer HID TIMESTAMP".
extern const Trace::Names regstate_calls;

/// Exhaustive exploration, depth first: run the whole path, then next() until it says that all choices were taken.
class Choices {
 public:
  std::size_t choose(std::size_t count) {
    if (at_ == digits_.size()) digits_.emplace_back(0, count);
    return digits_[at_++].first;
  }
  bool next() {
    at_ = 0;
    while (!digits_.empty() && digits_.back().first + 1 == digits_.back().second) digits_.pop_back();
    if (digits_.empty()) return false;
    ++digits_.back().first;
    return true;
  }

 private:
  std::vector<std::pair<std::size_t, std::size_t>> digits_;  // what was chosen, of how many
  std::size_t at_ = 0;
};

class RegstateTest : public FakeTest {
 protected:
  DeviceContext now{}, last{};
  Trace trace{regstate_calls};

  void SetUp() override { begin(START); }
  /// Records in which every text is known and every counter is beyond its limits.
  void begin(RegState state, const char* results = "");
  /// Calls the state's handler.
  void turn() { now.handlers[now.state](&now); }
};

}  // namespace kestrel
