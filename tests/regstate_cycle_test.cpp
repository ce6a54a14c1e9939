// The registration from its beginning and over whole cycles: identity initialisation, the paths through the states,
// and what is carried from one cycle to the next.
#include <unistd.h>

#include <cstring>

#include "regstate/auth_fail_count.h"
#include "regstate/state_init.h"
#include "regstate/state_table.h"
#include "regstate/steps.h"
#include "regstate_fakes.h"

namespace kestrel {
namespace {

using RegstateCycle = RegstateTest;

TEST_F(RegstateCycle, UnknownStatesHaveAName) {
  EXPECT_STREQ(state_name(UNKNOWN), "UNKNOWN");
  EXPECT_STREQ(state_name(static_cast<RegState>(-1)), "UNKNOWN");
}

TEST_F(RegstateCycle, DefaultsFillOnlyWhatIsEmpty) {
  const auto filled = [this](const Endpoint& ue, const MupnpIgd& igd) {
    now.ue = ue;
    now.igd = igd;
    fill_defaults(now);
    const MupnpIgd& g = now.igd;
    return std::string(now.ue.ip) + ' ' + now.ue.port + ' ' + g.friendlyName + ' ' + g.manufacturer + ' ' +
           g.manufacturerURL + ' ' + g.modelName + ' ' + g.modelNumber + ' ' + g.modelDescription + ' ' +
           g.presentationURL;
  };
  EXPECT_EQ(filled({"", ""}, {}), "null 0 n/a n/a n/a n/a n/a n/a n/a");
  EXPECT_EQ(filled({"0.0.0.0", "1"}, {"F", "M", "U", "m", "N", "D", "P"}), "0.0.0.0 1 F M U m N D P");
}

// ---- Identity initialisation ----

const std::string uid_line = "=> uid=(LC-100_0A0B0C)/";
const std::string account =
    "try to get_dev_sip_account/get_dev_sip_account success, hid=HID00001, password=secret/"
    "=> hid=(HID00001)/=> user=(HID00001)/=> pass=(secret)/cre_set_skyport_hid HID00001/";
const std::string no_account =
    "try to get_dev_sip_account/get_dev_sip_account fail, sleep 3 sec to try again../wait 3/";
const std::string refer = "kestreld # Timestamp=012345/refer HID00001 012345/kestreld # write refer file success/";
const std::string discovered = "discover/clean LC-100_0A0B0C/";

TEST_F(RegstateCycle, IdentityInitialisation) {
  const struct {
    const char *name, *results;
    std::string trace;
  } rows[] = {
      {"AllWell", "", uid_line + account + refer + discovered},
      {"NoUid", "dev_get_model_name=0", account + refer + "discover/clean /"},
      {"LateAccount", "get_dev_sip_account=0,0,0",
       uid_line + no_account + no_account + no_account + account + refer + discovered},
      {"HidIsNotStored", "cre_set_skyport_hid=0",
       uid_line + account + "[kestreld] *** set skyport hid failed!/" + refer + discovered},
      {"NoReferFile", "refer=0",
       uid_line + account + "kestreld # Timestamp=012345/refer HID00001 012345/kestreld # write refer file failed/" +
           discovered},
      {"NoGateway", "discover=-1", uid_line + account + refer + "discover/"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    begin(LumenDevDone, row.results);
    now.dev_reload = now.configure = now.cb_fail_count = 1;
    std::strcpy(now.sname, "x");
    last = now;
    const bool gateway = row.name != std::string("NoGateway");
    DeviceContext expected{};
    expected.run = expected.configure = expected.IsNeedQueryDAIP = 1;
    expected.prefinal_state = now.prefinal_state;
    if (row.name != std::string("NoUid")) std::strcpy(expected.uid, "LC-100_0A0B0C");
    std::strcpy(expected.hid, "HID00001");
    if (gateway) expected.igd = fake.igd;
    expected.last = &last;
    expected.pid = getpid();
    std::strcpy(expected.redir_ip, now.redir_ip);
    std::strcpy(expected.auth_info.user, "HID00001");
    std::strcpy(expected.auth_info.pass, "secret");
    install_handlers(expected);
    expected.Last_Spt_Enabled = -1;
    std::strcpy(expected.Timestamp, "012345");

    std::memset(static_cast<void*>(now.handlers), 0, sizeof(now.handlers));
    state_init(now);
    EXPECT_EQ(trace.take(), row.trace);
    EXPECT_EQ(std::memcmp(&now, &expected, sizeof(now)), 0);
    EXPECT_EQ(upnp_found_at_init, gateway ? 1U : 0U);
    const DeviceContext zero{};
    EXPECT_EQ(std::memcmp(&last, &zero, sizeof(last)), 0);
    EXPECT_EQ(fake_logged("Timestamp=012345\r\n"), 1U);
  }
}

TEST_F(RegstateCycle, LongAccountIsCutToItsFields) {
  fake.hid = std::string(100, 'h');
  fake.password = std::string(100, 'p');
  state_init(now);
  EXPECT_EQ(std::string(now.hid), std::string(8, 'h'));
  EXPECT_EQ(std::string(now.auth_info.user), std::string(8, 'h'));
  EXPECT_EQ(std::string(now.auth_info.pass), std::string(51, 'p'));
}

TEST_F(RegstateCycle, ExitRequestIsNotTakenBack) {
  const std::string rest =
      "kestreld # Timestamp=012345/refer  012345/kestreld # write refer file success/" + discovered;
  now.run = 0;
  now.state = UNKNOWN;
  state_init(now);
  EXPECT_EQ(now.run, 0U);
  EXPECT_EQ(trace.take(), uid_line + rest);

  begin(START, "get_dev_sip_account=0,0,0");
  fake.on_wait = [&](unsigned) {
    now.run = 0;
    now.state = UNKNOWN;
  };
  state_init(now);
  EXPECT_EQ(now.run, 0U);
  EXPECT_STREQ(now.hid, "");
  EXPECT_EQ(trace.take(), uid_line + no_account + rest);

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

/// Two cycles from state_init on: the states up to the last one, and the update's result there.
TEST_F(RegstateCycle, Walks) {
  const std::string net = "START IpReady InternetReady ";
  const std::string nat = net + "NATMode UPnP ";
  const std::string nat1 = nat + "UPnP_A NAT1 UpnpPfReady LumenDevDone ";
  const std::string natu = nat + "UPnP_B NATU UpnpPfReady LumenDevDone ";
  const std::string natm = nat + "UPnP_A NATM ";
  const std::string noupnp = net + "NATMode NoUPnP ";
  const struct {
    const char *name, *results, *router_ip, *own_ip;
    std::string first, second;
  } rows[] = {
      {"MappingFails", "upf=0,0 router=4,4", "", "192.168.1.30", nat + "UPnP_B UpnpPfFailed LumenDevPartDone 1",
       nat + "UPnP_B UpnpPfFailed LumenDevPartDone 3"},
      {"KnownRouterAddress", "cb=1,0", "203.0.113.5", "192.168.1.30", nat1 + "1", nat1 + "3"},
      {"UnknownRouterAddress", "router=4,4 cb=1,1,0", "", "192.168.1.30", natu + "1", natu + "3"},
      {"DoubleNat", "", "10.0.0.2", "192.168.1.30", natm + "LumenDevPartDone 1", natm + "LumenDevPartDone 3"},
      {"FourRefusalsInNatm", "update=2,2,2,2", "10.0.0.2", "192.168.1.30", natm + "NATM NATM NATM LumenDevNotReady 2",
       natm + "LumenDevPartDone 1"},
      {"ThreeRefusals", "discover=1,1,1,1,1 update=2,2,2", "", "192.168.1.30",
       noupnp + "NoUPnP NoUPnP LumenDevNotReady 2", noupnp + "LumenDevPartDone 1"},
      {"RefusalsInPublicMode", "update=2,2", "", "203.0.113.5",
       net + "PublicMode IpReady InternetReady PublicMode IpReady InternetReady PublicMode LumenDevDone 1",
       net + "PublicMode LumenDevDone 3"},
      {"RefusalsOfTwoCycles", "eip=1,1,0 update=2,2,2", "", "203.0.113.5",
       net + "PublicMode IpReady InternetReady PublicMode IpReady LumenDevNotReady 2",
       net + "PublicMode LumenDevNotReady 2"},
      {"NeverReached", "router=4,4 cb=0,0,0,0,1,1", "", "192.168.1.30",
       nat + "UPnP_B NATU UPnP_B NATU UPnP_B NATU UPnP_B NATU UpnpPfFailed LumenDevPartDone 1", natu + "1"},
      {"RemappedOnce", "router=4,0 cb=1,2,1,0", "203.0.113.5", "192.168.1.30",
       nat + "UPnP_B NATU UpnpPfReady NAT1 UpnpPfReady LumenDevDone 1", nat1 + "3"},
      {"Interrupted", "upf=5 cb=1,0", "203.0.113.5", "192.168.1.30", nat + "UPnP_A NAT1 " + nat1 + "1", nat1 + "3"},
      {"ServiceGone", "eip=0", "10.0.0.2", "192.168.1.30", "START IpReady LumenDevNotReady 2",
       natm + "LumenDevPartDone 1"},
      {"NoAccessServer", "daip=0,2,0", "10.0.0.2", "192.168.1.30", "START LumenDevNotReady 2",
       natm + "LumenDevPartDone 1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    begin(START, row.results);
    auth_fail_count = {};
    fake.router_ip = row.router_ip;
    std::strcpy(fake.interfaces.front().ip, row.own_ip);
    state_init(now);
    for (const std::string* expected : {&row.first, &row.second}) {
      std::string path;
      for (int turns = 0; turns < 40 && now.state < LumenDevPartDone; ++turns) {
        path += std::string(state_name(now.state)) + " ";
        turn();
      }
      EXPECT_EQ(path + state_name(now.state) + " " + std::to_string(now.upd.resut), *expected);
      if (expected == &row.second) break;
      turn();
      EXPECT_EQ(now.state, START);
    }
  }
}

TEST_F(RegstateCycle, UriOfTheDomain) {
  const struct {
    const char *domain, *asked;
  } rows[] = {{"skyport.test", "skyport.test"}, {"lbskyport.test", "skyport.test"},
              {"LBlb.test", "lb.test"},         {"Lb", ""},
              {"albert.test", "albert.test"},   {"l", "l"}};
  for (const auto& row : rows) {
    begin(START);
    fake.domain = row.domain;
    fake.redirect_host = std::string(80, 'h');  // the library's 64 bytes, without a terminator
    turn();
    EXPECT_EQ(fake_calls({"tessel_get_skyport_url", "SetSptURI"}),
              (Texts{std::string("tessel_get_skyport_url ") + row.asked, "SetSptURI http://" + std::string(63, 'h')}));
  }
}

// ---- From cycle to cycle ----

TEST_F(RegstateCycle, ConfigurationHold) {
  const std::string hold = "sleep 120 secs/hold 120/";
  const struct {
    const char* name;
    std::uint32_t run, configure, reload;
    std::string during;  // the signals of each hold: configure, reload, terminate
    std::string trace;
  } rows[] = {
      {"NotAsked", 1, 0, 0, "", ""},
      {"Asked", 1, 1, 0, "-", hold},
      {"AskedAgain", 1, 1, 0, "cc-", hold + hold + hold},
      {"ReloadBefore", 1, 1, 1, "", ""},
      {"ReloadMeanwhile", 1, 1, 0, "r", hold},
      {"BothMeanwhile", 1, 1, 0, "b", hold},
      {"ExitMeanwhile", 1, 1, 0, "t", hold},
      {"ExitBefore", 0, 1, 0, "-", hold},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    begin(LumenDevPartDone);
    now.run = row.run;
    now.configure = row.configure;
    now.dev_reload = row.reload;
    std::size_t holds = 0;
    fake.on_wait = [&](unsigned) {
      const char signal = row.during.at(holds++);
      if (signal == 'c' || signal == 'b') now.configure = 1;
      if (signal == 'r' || signal == 'b') now.dev_reload = 1;
      if (signal == 't') now.run = 0;
    };
    start_over(now);
    EXPECT_EQ(trace.take(), row.trace);
    EXPECT_EQ(now.configure, 0U);
    EXPECT_EQ(now.state, START);
    EXPECT_EQ(last.state, LumenDevPartDone);
    EXPECT_EQ(last.last, nullptr);
  }
}

// Nothing but the states resets the counters.
TEST_F(RegstateCycle, CountersOfFailuresSurvive) {
  const AuthFailCounts before = {1, 2, 1, 2, 1, 2, 1, 2};
  auth_fail_count = before;
  start_over(now);
  state_init(now);
  EXPECT_EQ(std::memcmp(&auth_fail_count, &before, sizeof(before)), 0);
}

// Beyond what START shows of them: the state that they write, which a later success overwrites.
TEST_F(RegstateCycle, GuardedRequestsGiveUp) {
  for (const bool report : {true, false}) {
    begin(START, "enable=1,2,2,2,404 daip=1,2,2,2,404");
    auth_fail_count.enable_report = auth_fail_count.daip_query = 2;
    for (const int result : {1, 2, 2, 2, 404}) {
      now.state = START;
      const std::uint32_t count = report ? auth_fail_count.enable_report : auth_fail_count.daip_query;
      EXPECT_EQ(report ? report_enable(now, 0) : query_daip(now), result);
      EXPECT_EQ(now.state, result == 404 || (result == 2 && count == 2) ? LumenDevNotReady : START) << result;
    }
  }
}

}  // namespace
}  // namespace kestrel
