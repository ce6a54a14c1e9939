// LumenDevDone behind a mapping: the turns of the keep-alive and all the ways out of it.
#include <algorithm>
#include <array>
#include <regex>

#include "regstate/regstate_fakes.h"

namespace kestrel {
namespace {

using KeepAlive = RegstateTest;

const std::string turn_begins = " Enable=1, Last_Spt_Enabled=1/wait (230)secs to connect back!/wait 230/";
const std::string switched_off =
    " Enable=0, Last_Spt_Enabled=1/ must update Enable state(0)/enable 0/ >>ret=1 "
    "auth_fail_count=31/";
const std::string cut = "go_LumenDevDone:# connect back failed, delete pf & start over! /delete 58081 2/reload/";
const std::string reloading =
    "go_LumenDevDone:# LumenDevDone go to reload, delete pf port=58081/delete 58081 2/reload/";

/// All sequences of connect-back results of one turn. 'x' is another status, which ends the repeats as a 1 does.
TEST_F(KeepAlive, RepeatsTheTest) {
  struct {
    std::regex results;
    bool ok_line, reached;
    int paths = 0;
  } rows[] = {
      {std::regex("1"), false, true},
      {std::regex("[0x]"), false, false},
      {std::regex("2[02]{0,2}1|2[02]{2}2{1,6}1"), true, true},
      {std::regex("2[02]{0,2}x|2[02]{2}2{1,6}x"), true, false},
      {std::regex("2[02]{2}2{0,6}0"), false, false},  // silent once too often
      {std::regex("2[02]{2}2{7}1"), false, true},     // reached at the last of 9 repeats
      {std::regex("2[02]{2}2{7}[02x]"), false, false},
  };
  Choices choices;
  do {
    begin(LumenDevDone);
    std::string results;
    fake.decide = [&](const char* function) -> std::optional<int> {
      if (function != std::string("cb")) return std::nullopt;
      const std::size_t choice = choices.choose(5);
      results += "120xx"[choice];
      return std::array{1, 2, 0, 3, -1}[choice];
    };
    fake.on_wait = [&](unsigned seconds) { fake.enabled = seconds == 230 ? 0 : fake.enabled; };
    turn();
    const auto row = std::ranges::find_if(rows, [&](const auto& r) { return std::regex_match(results, r.results); });
    ASSERT_NE(row, std::end(rows)) << results;
    ++row->paths;
    std::string expected = "online 1/***[LumenDevDone]***/" + turn_begins + "cb/";
    if (results[0] == '2') expected += "Connect back need authentication!/cb/";
    for (std::size_t retry = 1; retry < results.size() && retry <= 9; ++retry) {
      expected += "wait 1/";
      if (retry + 1 < results.size()) expected += "Retry connect back #" + std::to_string(retry) + "!/cb/";
    }
    if (row->ok_line) expected += "Retry Connect back ok!/";
    expected += row->reached ? "Connect back ok!/" + switched_off : cut;
    EXPECT_EQ(trace.take(), expected) << results;
    EXPECT_EQ(now.state, row->reached ? LumenDevNotReady : START) << results;
    EXPECT_EQ(last.state, row->reached ? START : LumenDevDone) << results;  // start_over or not
    EXPECT_EQ(now.auth_info.on, 0U) << results;
  } while (choices.next());
  for (const auto& row : rows) EXPECT_GT(row.paths, 0) << &row - rows;
}

TEST_F(KeepAlive, Ends) {
  const std::string head = "online 1/***[LumenDevDone]***/" + turn_begins, passed = "cb/Connect back ok!/";
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
      {"cb=2,2", "wait 1", "exit", head + "cb/Connect back need authentication!/cb/wait 1/", 0},
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
