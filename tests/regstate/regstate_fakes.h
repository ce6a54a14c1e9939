// What the state machine calls, in the place of service/, upnp/ and net/server_location.cpp: the results come from
// the fake platform's scripts, by the names of the trace.
#ifndef KESTREL_TESTS_REGSTATE_FAKES_H
#define KESTREL_TESTS_REGSTATE_FAKES_H

#include "core/device_context.h"
#include "fake_platform/fixture.h"
#include "support/trace.h"

namespace kestrel {

/// Where the service sees the camera; what the external address query learns.
extern Endpoint seen_by_service;

/// The relay and the redirect server, as the fakes know them.
constexpr Endpoint relay = {"10.9.8.7", "3128"};
constexpr char redirect_server[] = "192.0.2.10";

/// The fakes' own calls are "eip", "daip", "enable SWITCH", "update", "cb", "upf UID INTERNAL EXTERNAL", "delete PORT
/// ATTEMPTS", "discover", "router", "clean UID", "proxy", "redirect" and "refer HID TIMESTAMP".
extern const Trace::Names regstate_calls;

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

#endif
