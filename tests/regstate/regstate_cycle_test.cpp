// The registration from its beginning and over whole cycles: identity initialisation, the paths through the states,
// what is carried from one cycle to the next, and the keep-alive.
#include <unistd.h>

#include <cstring>
#include <tuple>

#include "core/wait.h"
#include "regstate/auth_fail_count.h"
#include "regstate/regstate_fakes.h"
#include "regstate/state_init.h"
#include "regstate/state_table.h"
#include "regstate/steps.h"

namespace kestrel {
namespace {

using RegstateCycle = RegstateTest;

const std::string uid_line = "=> uid=(LC-100_0A0B0C)/";
const std::string account =
    "try to get_dev_sip_account/get_dev_sip_account success, hid=HID00001, password=secret/"
    "=> hid=(HID00001)/=> user=(HID00001)/=> pass=(secret)/cre_set_skyport_hid HID00001/";
const std::string no_account =
    "try to get_dev_sip_account/get_dev_sip_account fail, sleep 3 sec to try again../wait 3/";
const std::string written = "kestreld # write refer file ";
const std::string stamp = "kestreld # Timestamp=123456/refer ", refer = stamp + "HID00001 123456/" + written;
const std::string discovered = "discover/clean LC-100_0A0B0C/";

TEST_F(RegstateCycle, IdentityInitialisation) {
  const struct {
    const char *results, *uid;
    bool gateway;
    std::string trace;
  } rows[] = {
      {"dev_get_model_name=0", "", true, account + refer + "success/discover/clean /"},
      {"get_dev_sip_account=0,0,0 refer=0", "LC-100_0A0B0C", true,
       uid_line + no_account + no_account + no_account + account + refer + "failed/" + discovered},
      {"cre_set_skyport_hid=0 discover=-1", "LC-100_0A0B0C", false,
       uid_line + account + "[kestreld] *** set skyport hid failed!/" + refer + "success/discover/"},
  };
  for (const auto& row : rows) {
    begin(LumenDevDone, row.results);
    now.dev_reload = now.configure = now.cb_fail_count = 1;
    now.run = 0;  // without UNKNOWN no exit request: it is so at the first start
    std::strcpy(now.sname, "x");
    last = now;
    DeviceContext expected{};
    expected.run = expected.configure = expected.IsNeedQueryDAIP = 1;
    expected.prefinal_state = now.prefinal_state;
    std::strcpy(expected.uid, row.uid);
    std::strcpy(expected.hid, "HID00001");
    if (row.gateway) expected.igd = fake.igd;
    expected.last = &last;
    expected.pid = getpid();
    std::strcpy(expected.redir_ip, now.redir_ip);
    std::strcpy(expected.auth_info.user, "HID00001");
    std::strcpy(expected.auth_info.pass, "secret");
    install_handlers(expected);
    expected.Last_Spt_Enabled = -1;
    std::strcpy(expected.Timestamp, "123456");

    std::memset(static_cast<void*>(now.handlers), 0, sizeof(now.handlers));
    state_init(now);
    EXPECT_EQ(trace.take(), row.trace);
    EXPECT_EQ(std::memcmp(&now, &expected, sizeof(now)), 0) << row.trace;
    EXPECT_EQ(upnp_found_at_init, row.gateway ? 1U : 0U);
    const DeviceContext zero{};
    EXPECT_EQ(std::memcmp(&last, &zero, sizeof(last)), 0);
    EXPECT_EQ(auth_fail_count.natm, 36U);  // nothing but the states resets the counters
  }
}

TEST_F(RegstateCycle, LongTextsAreCutToTheirFields) {
  fake.hid = std::string(100, 'h');
  fake.password = std::string(100, 'p');
  fake.model = std::string(100, 'M');
  state_init(now);
  EXPECT_EQ(std::string(now.hid) + now.auth_info.user, std::string(16, 'h'));
  EXPECT_EQ(std::string(now.auth_info.pass), std::string(51, 'p'));
  EXPECT_EQ(std::string(now.uid), std::string(56, 'M') + "_0A0B0C");
  std::memset(static_cast<void*>(fake.interfaces.data()), 'x', sizeof(ACT_IF_INFO));
  turn();
  std::string lengths;
  for (const char* text :
       {now.active_if.ip, now.active_if.mac, now.active_if.mask, now.active_if.gw, now.active_if.name, now.i.ip})
    lengths += std::to_string(std::strlen(text)) + " ";
  EXPECT_EQ(lengths, "15 17 15 15 15 15 ");
}

TEST_F(RegstateCycle, ExitRequestIsNotTakenBack) {
  for (const bool before : {true, false}) {
    begin(START, "get_dev_sip_account=0,0,0");
    const auto request_exit = [&](unsigned = 0) {
      now.run = 0;
      now.state = UNKNOWN;
    };
    if (before) request_exit();
    fake.on_wait = request_exit;
    state_init(now);
    EXPECT_EQ(now.run, 0U);
    EXPECT_EQ(trace.take(), uid_line + (before ? "" : no_account) + stamp + " 123456/" + written + "success/");
  }
}

// ---- Paths ----

TEST_F(RegstateCycle, AddressesDecideThePath) {
  const struct {
    RegState state;
    const char *e, *i, *ue, *trace;
    RegState next;
  } rows[] = {
      {InternetReady, "192.168.1.2", "192.168.1.2", "", "", PublicMode},
      {InternetReady, "1.2.3.4", "192.168.1.2", "", "  diff eip, private iip/", NATMode},
      {InternetReady, "1.2.3.4", "1.2.3.40", "", "  diff eip, public iip/", PublicMode},
      {UPnP_A, "", "", "", "", UPnP_B},
      {UPnP_A, "0.0.0.0", "", "0.0.0.0", "", UPnP_B},
      {UPnP_A, "1.2.3.4", "", "null", "", UPnP_B},
      {UPnP_A, "10.0.0.1", "", "10.0.0.1", "", NAT1},
      {UPnP_A, "1.2.3.4", "", "1.2.3.5", "", NAT1},
      {UPnP_A, "1.2.3.4", "", "172.16.0.1", "", NATM},
  };
  for (const auto& row : rows) {
    begin(row.state);
    std::strcpy(now.e.ip, row.e);
    std::strcpy(now.i.ip, row.i);
    std::strcpy(now.ue.ip, row.ue);
    turn();
    const std::string header = row.state == UPnP_A ? "***[UPnP_A.]***/" : "***[InternetReady]***/";
    EXPECT_EQ(trace.take() + state_name(now.state), header + row.trace + state_name(row.next))
        << row.e << ' ' << row.ue;
  }
}

TEST_F(RegstateCycle, UriOfTheDomain) {
  const std::string d(80, 'd');  // the library's 64 bytes, without a terminator
  const std::pair<std::string, std::string> rows[] = {{"skyport.test", "skyport.test"},
                                                      {"lbskyport.test", "skyport.test"},
                                                      {"LBlb.test", "lb.test"},
                                                      {"albert.test", "albert.test"},
                                                      {"l", "l"},
                                                      {d, d.substr(0, 63)}};
  for (const auto& [domain, asked] : rows) {
    begin(START);
    fake.domain = domain;
    fake.redirect_host = std::string(80, 'h');
    turn();
    EXPECT_EQ(fake_calls({"tessel_get_skyport_url", "SetSptURI"}),
              (Texts{"tessel_get_skyport_url " + asked, "SetSptURI http://" + std::string(63, 'h')}));
  }
}

// ---- From cycle to cycle ----

TEST_F(RegstateCycle, ConfigurationHold) {
  // `run`, `configure` and `dev_reload` at the beginning; the signals of each hold: configure, reload, both, terminate
  const std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::string> rows[] = {
      {1, 0, 0, ""}, {1, 1, 1, ""}, {1, 1, 0, "cc-"}, {1, 1, 0, "r"}, {1, 1, 0, "b"}, {1, 1, 0, "t"}, {0, 1, 0, "-"},
  };
  for (const auto& [run, configure, reload, during] : rows) {
    SCOPED_TRACE(during);
    begin(LumenDevPartDone);
    now.run = run;
    now.configure = configure;
    now.dev_reload = reload;
    std::string expected;
    for (std::size_t i = 0; i < during.size(); ++i) expected += "sleep 120 secs/hold 120/";
    std::size_t holds = 0;
    // Meanwhile the finder tells of the cycle that has ended.
    fake.on_wait = [&, &signals = during](unsigned) {
      EXPECT_EQ(now.state, LumenDevPartDone);
      EXPECT_EQ(now.upd.resut, 7U);
      const char signal = signals.at(holds++);
      if (signal == 'c' || signal == 'b') now.configure = 1;
      if (signal == 'r' || signal == 'b') now.dev_reload = 1;
      if (signal == 't') now.run = 0;
    };
    if (configure != 0) wait_note_signal();  // seen long ago: cuts no hold short
    const std::uint64_t begun = fake.clock_s;
    start_over(now);
    EXPECT_EQ(fake.clock_s - begun, 120 * holds);
    EXPECT_EQ(trace.take(), expected);
    EXPECT_EQ(now.configure, 0U);
    EXPECT_EQ(now.state, START);
  }
}

// ---- LumenDevDone behind a mapping: the turns of the keep-alive and all the ways out of it ----

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

TEST_F(RegstateCycle, KeepAliveRepeatsAndEnds) {
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
      {"", "wait 230", "exit", head, 0},
      {"", "cb", "exit", head + passed, 0},
      {"cb=0", "cb", "exit", head + "cb/", 0},
      {"cb=2", "cb", "exit", head + "cb/", 0},
      {"cb=2,2", "wait 1", "exit", head + challenged(0), 0},
      {"cb=2,1,0", "", "", head + challenged(0) + ok + reached, 0},
      {"cb=2,0,0,1,0", "", "", head + challenged(2) + ok + reached, 0},
      {"cb=2,0,0,0", "", "", head + challenged(2) + cut, 0},  // silent once too often
      {"cb=2,2,2,0", "", "", head + challenged(2) + cut, 0},
      // Another status ends the repeats as a 1 does.
      {"cb=2,3", "", "", head + challenged(0) + ok + cut, 0},
      // Reached at the last of 9 repeats, or not.
      {"cb=2,2,0,2,2,2,2,2,2,2,1,0", "", "", head + last_repeat + reached, 0},
      {"cb=2,2,2,2,2,2,2,2,2,2,2", "", "", head + last_repeat + cut, 0},
      // A store that does not answer says nothing about what the user wants.
      {"cre_get_skyport_enable_state=0 cb=0", "", "", head + "cb/" + cut, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.trace);
    begin(LumenDevDone, row.results);
    const std::string signal = row.signal;
    trace.on_call = [&](const std::string& call) {
      if (call != row.call) return;
      if (signal == "reload") now.dev_reload = 1;
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
