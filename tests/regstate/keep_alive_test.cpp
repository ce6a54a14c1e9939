// LumenDevDone behind a mapping: the turns of the keep-alive and all the ways out of it.
#include "regstate/regstate_fakes.h"

namespace kestrel {
namespace {

using KeepAlive = RegstateTest;

const std::string turn_begins = " Enable=1, Last_Spt_Enabled=1/wait (230)secs to connect back!/wait 230/";
const std::string cut = "go_LumenDevDone:# connect back failed, delete pf & start over! /delete 58081 2/reload/";
const std::string reloading =
    "go_LumenDevDone:# LumenDevDone go to reload, delete pf port=58081/delete 58081 2/reload/";

/// A test that is challenged, with so many numbered repeats, up to the wait behind the last.
std::string challenged(int repeats) {
  std::string text = "cb/Connect back need authentication!/cb/wait 1/";
  for (int retry = 1; retry <= repeats; ++retry)
    text += "Retry connect back #" + std::to_string(retry) + "!/cb/wait 1/";
  return text;
}

TEST_F(KeepAlive, EndsAndRepeats) {
  const std::string head = "online 1/***[LumenDevDone]***/" + turn_begins, passed = "cb/Connect back ok!/";
  const std::string ok = "Retry Connect back ok!/", last_repeat = challenged(8) + "Retry connect back #9!/cb/";
  const std::string reached = "Connect back ok!/" + turn_begins + "cb/" + cut;  // and in the next turn not any more
  const struct {
    const char* results;
    const char *call, *signal;  // comes in this call
    std::string trace;
    unsigned on;  // of auth_info, kept for the next cycle
  } rows[] = {
      {"", "wait 230", "reload", head + reloading, 1},
      {"", "cb", "reload", head + passed + reloading, 0},
      {"cb=0", "cb", "reload", head + "cb/" + cut, 0},
      {"delete=0", "wait 230", "reload", head + reloading.substr(0, reloading.size() - 7), 1},
      {"", "wait 230", "exit", head, 0},
      {"", "cb", "exit", head + passed, 0},
      {"cb=0", "cb", "exit", head + "cb/", 0},
      {"cb=2", "cb", "exit", head + "cb/", 0},
      {"cb=2,2", "wait 1", "exit", head + challenged(0), 0},
      {"cb=-1", "", "", head + "cb/" + cut, 0},
      {"cb=2,1,0", "", "", head + challenged(0) + ok + reached, 0},
      {"cb=2,0,0,1,0", "", "", head + challenged(2) + ok + reached, 0},
      {"cb=2,0,0,0", "", "", head + challenged(2) + cut, 0},  // silent once too often
      {"cb=2,2,2,0", "", "", head + challenged(2) + cut, 0},
      // Another status ends the repeats as a 1 does.
      {"cb=2,3", "", "", head + challenged(0) + ok + cut, 0},
      {"cb=2,2,2,-1", "", "", head + challenged(2) + ok + cut, 0},
      // Reached at the last of 9 repeats, or not.
      {"cb=2,2,0,2,2,2,2,2,2,2,1,0", "", "", head + last_repeat + reached, 0},
      {"cb=2,2,2,2,2,2,2,2,2,2,2", "", "", head + last_repeat + cut, 0},
      // A store that does not answer says nothing about what the user wants.
      {"cre_get_skyport_enable_state=0 cb=0", "", "", head + "cb/" + cut, 0},
      {"cb=1,1,0", "", "", head + passed + turn_begins + passed + turn_begins + "cb/" + cut, 0},
      {"cb=0", "wait 230", "configure", head + "cb/" + cut + "sleep 120 secs/hold 120/", 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.trace);
    begin(LumenDevDone, row.results);
    const std::string signal = row.signal;
    trace.on_call = [&](const std::string& call) {
      if (call != row.call) return;
      if (signal == "reload") now.dev_reload = 1;
      if (signal == "configure") now.configure = 1;
      if (signal == "exit") now.run = 0;
      if (signal == "exit") now.state = UNKNOWN;
    };
    turn();
    EXPECT_EQ(trace.take(), row.trace);
    EXPECT_EQ(now.state, START);
    EXPECT_EQ(now.run, signal == "exit" ? 0U : 1U);
    EXPECT_EQ(now.dev_reload, signal == "reload" ? 1U : 0U);
    EXPECT_EQ(now.auth_info.on, row.on);
    EXPECT_STREQ(last.ue.port, "58081");
  }
}

}  // namespace
}  // namespace kestrel
