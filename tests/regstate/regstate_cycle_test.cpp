// The registration from its beginning and over whole cycles: identity initialisation, the paths through the states,
// and what is carried from one cycle to the next.
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
const std::string refer = "kestreld # Timestamp=123456/refer HID00001 123456/kestreld # write refer file ";
const std::string refer_without = "kestreld # Timestamp=123456/refer  123456/kestreld # write refer file ";
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
    EXPECT_EQ(trace.take(), uid_line + (before ? "" : no_account) + refer_without + "success/");
  }
  begin(START);
  now.run = 0;  // as in the zero record of the first start
  state_init(now);
  EXPECT_EQ(now.run, 1U);
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
                                                      {"Lb", ""},
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
    fake.on_wait = [&, &signals = during](unsigned) {
      const char signal = signals.at(holds++);
      if (signal == 'c' || signal == 'b') now.configure = 1;
      if (signal == 'r' || signal == 'b') now.dev_reload = 1;
      if (signal == 't') now.run = 0;
    };
    if (configure != 0) wait_note_signal();  // seen long ago: cuts no hold short
    // Meanwhile the finder tells of the cycle that has ended.
    trace.on_call = [&](const std::string& call) {
      if (!call.starts_with("wait_regardless")) return;
      EXPECT_EQ(now.state, LumenDevPartDone);
      EXPECT_EQ(now.upd.resut, 7U);
    };
    const std::uint64_t begun = fake.clock_s;
    start_over(now);
    EXPECT_EQ(fake.clock_s - begun, 120 * holds);
    EXPECT_EQ(trace.take(), expected);
    EXPECT_EQ(now.configure, 0U);
    EXPECT_EQ(now.state, START);
    EXPECT_EQ(last.state, LumenDevPartDone);
    EXPECT_EQ(last.last, nullptr);
    EXPECT_EQ(auth_fail_count.natm, 36U);
  }
}

}  // namespace
}  // namespace kestrel
