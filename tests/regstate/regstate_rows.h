// The transition tables of the states as data, written out with all that a path does, and what is explored.
#ifndef KESTREL_TESTS_REGSTATE_ROWS_H
#define KESTREL_TESTS_REGSTATE_ROWS_H

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/device_context.h"
#include "regstate/auth_fail_count.h"
#include "regstate/regstate_fakes.h"

namespace kestrel {

/// What the callees can answer, and its letter in a trace if that is another: 'x' is any failure, 'r' one during
/// which a reload is requested.
const std::map<std::string, std::string> answers = {
    {"eip", "1 2 0x 3x"},  {"cb", "1 2x 0x 3x -1x"}, {"update", "1 2 0x 404x"}, {"enable", "1 2 3x"},
    {"daip", "1 2 0x"},    {"upf", "1 5 0x"},        {"delete", "1 0x 7x"},     {"discover", "0 1x 2r"},
    {"router", "0 4 -1x"}, {"proxy", "1 0x"},        {"redirect", "1 0x"},      {"net_get_http_srv_port", "1 0x"}};

/// What is varied before a turn, and what a turn changes.
enum Variable {
  run,
  auth,   // the state's own counter of challenges
  count,  // the guards' counters
  fails,
  pfok,
  reload,
  resut,
  askdaip,
  enabled,
  prefinal_of,  // a RegState
  proxylen,     // characters of the relay's address
  switched,     // the user's switch
  iface,
  found,    // the gateway, by state_init
  changed,  // 0: the last cycle was the same
};

/// What the code works on, or is expected to leave.
struct World {
  DeviceContext& now;
  DeviceContext& last;
  AuthFailCounts& counts;
  std::uint32_t& found_at_init;
};

/// A range of values, both ends included: for which a row holds.
struct Range {
  Variable variable;
  int from, to;
  Range(Variable v, int first, int last_one) : variable(v), from(first), to(last_one) {}
  Range(Variable v, int value) : Range(v, value, value) {}
};
using Ranges = std::vector<Range>;

/// What a turn does to the records.
struct Effect {
  void (*apply)(World w, Variable variable, int value);
  Variable variable = run;
  int value = 0;
};
using Effects = std::vector<Effect>;

inline Effects operator+(Effects effects, const Effects& more) {
  effects.insert(effects.end(), more.begin(), more.end());
  return effects;
}

const std::map<RegState, std::uint32_t AuthFailCounts::*> own_counters = {
    {IpReady, &AuthFailCounts::ip_ready},
    {PublicMode, &AuthFailCounts::public_mode},
    {NoUPnP, &AuthFailCounts::no_upnp},
    {NATM, &AuthFailCounts::natm},
    {UpnpPfReady, &AuthFailCounts::upnp_pf_ready},
    {UpnpPfFailed, &AuthFailCounts::upnp_pf_failed}};

/// Gives a variable its value.
inline void set(World w, Variable variable, int value) {
  const auto word = static_cast<std::uint32_t>(value);
  switch (variable) {
    case run:
      w.now.run = word;
      break;
    case auth:
      w.counts.*own_counters.at(w.now.state) = word;
      break;
    case count:
      w.counts.enable_report = w.counts.daip_query = word;
      break;
    case fails:
      w.now.cb_fail_count = word;
      break;
    case pfok:
      w.now.pfok = word;
      break;
    case reload:
      w.now.dev_reload = word;
      break;
    case resut:
      w.now.upd.resut = word;
      break;
    case askdaip:
      w.now.IsNeedQueryDAIP = word;
      break;
    case enabled:
      w.now.Last_Spt_Enabled = static_cast<std::int8_t>(value);
      break;
    case prefinal_of:
      w.now.prefinal_state = static_cast<RegState>(value);
      break;
    case proxylen:
      std::strncpy(w.now.proxy.ip, std::string("10.0.0.1", word).c_str(), ip_len);
      break;
    case switched:
      fake.enabled = static_cast<char>(value);
      break;
    case iface:
      fake.interface_index = value;
      break;
    case found:
      w.found_at_init = word;
      break;
    case changed:
      if (value != 0) break;
      w.last = w.now;
      w.last.last = nullptr;
      w.last.state = LumenDevDone;
      w.last.prefinal_state = w.now.state;
      break;
  }
}

inline Effect becomes(Variable variable, int value) {
  return {set, variable, value};
}

const Effect prefinal = {[](World w, Variable, int) { w.now.prefinal_state = w.now.state; }};
const Effect one_more_auth = {[](World w, Variable, int) { ++(w.counts.*own_counters.at(w.now.state)); }};
const Effect one_more_fail = {[](World w, Variable, int) { ++w.now.cb_fail_count; }};
const Effect tested = {[](World w, Variable, int) { w.now.proxy_tested = 1; }};
const Effect ue_is_i = {[](World w, Variable, int) { w.now.ue = w.now.i; }};
const Effect ue_ip_is_e_ip = {[](World w, Variable, int) { std::memcpy(w.now.ue.ip, w.now.e.ip, ip_len); }};
const Effect ue_port_is_0 = {[](World w, Variable, int) { std::strncpy(w.now.ue.port, "0", port_len); }};
const Effect defaults = {[](World w, Variable, int) { std::strcpy(w.now.igd.modelName, "n/a"); }};
const Effect relay_known = {[](World w, Variable, int) { w.now.proxy = relay; }};
const Effect redir_known = {[](World w, Variable, int) { std::strncpy(w.now.redir_ip, redirect_server, ip_len); }};
const Effect redir_unknown = {[](World w, Variable, int) { std::memset(w.now.redir_ip, 0, ip_len); }};
const Effect active = {[](World w, Variable, int) { w.now.active_if = fake.interfaces.front(); }};
const Effect i_ip = {[](World w, Variable, int) { std::strcpy(w.now.i.ip, "192.168.1.30"); }};
const Effect i_port = {[](World w, Variable, int) { std::strcpy(w.now.i.port, "80"); }};
/// start_over.
const Effect over = {[](World w, Variable, int) {
  w.last = w.now;
  w.last.last = nullptr;
  w.now.pfok = w.now.cb_fail_count = 0;
  w.now.upd = {0, 0};
  w.now.igd = {};
  w.now.e = w.now.i = w.now.ue = w.now.proxy = {};
  w.now.proxy_tested = 0;
}};

/// What is varied in a state, besides the results.
struct Exploration {
  RegState state;
  std::vector<std::pair<Variable, std::vector<int>>> given;
};

const std::vector<Exploration> explorations = {
    {START, {{count, {0, 1, 2}}, {switched, {0, 1}}, {enabled, {-1, 0, 1}}, {askdaip, {0, 1}}, {iface, {1}}}},
    {START, {{switched, {0}}, {enabled, {0}}, {iface, {1, 0, -1}}, {run, {0, 1}}}},
    {IpReady, {{auth, {0, 1, 2}}, {proxylen, {0, 6, 7}}, {run, {0, 1}}}},
    {NATMode, {{reload, {0, 1}}, {found, {0, 1}}}},
    {PublicMode, {{auth, {0, 1, 2}}, {changed, {0, 1}}}},
    {UPnP, {}},
    {NoUPnP, {{auth, {0, 1, 2}}, {changed, {0, 1}}}},
    {UPnP_B, {{pfok, {0, 1}}}},
    {NATU, {{fails, {0, 1, 2, 3, 4}}, {run, {0, 1}}}},
    {NAT1, {{pfok, {0, 1}}}},
    {NATM, {{auth, {0, 1, 2, 3}}, {changed, {0, 1}}}},
    {UpnpPfReady, {{auth, {0, 1, 2}}, {fails, {0, 1, 2, 3, 4}}, {changed, {0, 1}}, {run, {0, 1}}}},
    {UpnpPfFailed, {{auth, {0, 1, 2}}, {changed, {0, 1}}}},
    {LumenDevPartDone, {{run, {0, 1}}}},
    {LumenDevDone, {{prefinal_of, {PublicMode, NoUPnP, NATM, UpnpPfFailed}}, {run, {0, 1}}}},
    {LumenDevDone, {{prefinal_of, {UpnpPfReady}}, {switched, {0}}, {count, {0, 1, 2}}}},
    {LumenDevNotReady, {{resut, {0, 2, 3}}, {run, {0, 1}}}},
};

/// A transition: for which values it holds, what happens, the next state, and what becomes of the records. In a trace
/// "dropped" is a delete of the mapping, with the forwarder's reload when it worked, "enable ok" and the like up to
/// three guarded attempts.
struct Row {
  RegState state;
  Ranges given;
  std::string trace;
  RegState next;
  Effects then;
};

const std::string ip_ready = "***[IpReady]***/";
const std::string through_proxy = "***[IpReady]***/eip=x/[kestreld]: Test proxy srv........./";
const std::string natmode = "***[NATMode]***/***[UPnP]***/";
const std::string gateway =
    "discover=0/manufacturer=[M]/manufacturer=[U]/friendlyName=[F]/modelName=[]/modelNumber=[N]/modelDescription=[D]/"
    "presentationURL=[P]/";
const std::string upnp = "***[UPnP]***/";
const std::string again = "***[UPnP]***/router=x/upnpcp_get_eip ret=-1/";
const std::string upf = "upf LC_0A0B0C 50080 58081=";
const std::string natu = "***[NATU.]***/wait 5/cb=";
const std::string unreachable = "x/go_NATU:# connect back failed, delete pf/dropped/";
const std::string ready = "***[UpnpPfReady]***/wait 5/cb=";
const std::string not_ready = ready + "x/go_UpnpPfReady:# connect back failed, delete pf/dropped/";
const std::string update = ready + "1/ connect back test ok/ ==>!Need update!/update=";
const std::string refused = "2/go_UpnpPfReady:# UpnpPfReady: srv_update reach AUTH_FAIL_COUNT, delete pf port=58081/";
const std::string failed = "x/go_UpnpPfReady:# UpnpPfReady srv_update failed, delete pf port=58081/";
const std::string off =
    "online 1/***[LumenDevDone]***/ Enable=0, Last_Spt_Enabled=1/ must update Enable state(0)/enable ";
const std::string none = "online 0/***[LumenDevNotReady]***/";
const std::string wait_300 = "wait (300)secs to start over!/wait 300/";

const std::vector<Row> plain_rows = {
    {IpReady, {}, ip_ready + "eip=1/", InternetReady, {prefinal, becomes(auth, 0)}},
    {IpReady, {{auth, 0, 1}}, ip_ready + "eip=2/", IpReady, {prefinal, one_more_auth}},
    {IpReady, {{auth, 2}}, ip_ready + "eip=2/", LumenDevNotReady, {prefinal, becomes(auth, 0), becomes(resut, 2)}},
    {IpReady,
     {{proxylen, 0, 6}},
     ip_ready + "eip=x/",
     LumenDevNotReady,
     {prefinal, becomes(auth, 0), becomes(resut, 2)}},
    {IpReady, {{proxylen, 7}, {run, 0}}, ip_ready + "eip=x/", IpReady, {prefinal}},
    {IpReady, {{proxylen, 7}, {run, 1}}, through_proxy + "eip=1/", InternetReady, {prefinal, tested, becomes(auth, 0)}},
    {IpReady,
     {{proxylen, 7}, {run, 1}, {auth, 0, 1}},
     through_proxy + "eip=2/",
     IpReady,
     {prefinal, tested, one_more_auth}},
    {IpReady,
     {{proxylen, 7}, {run, 1}, {auth, 2}},
     through_proxy + "eip=2/",
     LumenDevNotReady,
     {prefinal, tested, becomes(auth, 0), becomes(resut, 2)}},
    {IpReady,
     {{proxylen, 7}, {run, 1}},
     through_proxy + through_proxy.substr(ip_ready.size()) + "wait 10/",
     IpReady,
     {prefinal, tested}},

    {NATMode, {{reload, 1}}, natmode, START, {}},
    {NATMode, {{reload, 0}, {found, 1}}, natmode, UPnP, {becomes(found, 0)}},
    {NATMode, {{reload, 0}, {found, 0}}, natmode + gateway, UPnP, {}},
    {NATMode, {{reload, 0}, {found, 0}}, natmode + "discover=x/" + gateway, UPnP, {}},
    {NATMode, {{reload, 0}, {found, 0}}, natmode + "discover=x/discover=x/", NoUPnP, {}},
    {NATMode, {{reload, 0}, {found, 0}}, natmode + "discover=r/", START, {becomes(reload, 1)}},
    {NATMode, {{reload, 0}, {found, 0}}, natmode + "discover=x/discover=r/", NoUPnP, {becomes(reload, 1)}},

    {UPnP, {}, upnp + "router=0/upnpcp_get_eip ret=0/", UPnP_A, {}},
    {UPnP, {}, upnp + "router=4/upnpcp_get_eip ret=4/", UPnP_B, {}},
    {UPnP, {}, again + "router=0/upnpcp_get_eip ret=0/", UPnP_A, {}},
    {UPnP, {}, again + "router=4/upnpcp_get_eip ret=4/", UPnP_B, {}},
    {UPnP, {}, again + "router=x/upnpcp_get_eip ret=-1/", UPnP_B, {}},

    {UPnP_B, {}, "***[UPnP_B.]***/" + upf + "1/! port forward ok/", NATU, {becomes(pfok, 1)}},
    {UPnP_B, {}, "***[UPnP_B.]***/" + upf + "5/", START, {}},
    {UPnP_B, {}, "***[UPnP_B.]***/" + upf + "x/! port forward failed/", UpnpPfFailed, {becomes(pfok, 0)}},

    {NATU, {}, natu + "1/connect back test ok/", UpnpPfReady, {ue_ip_is_e_ip}},
    {NATU, {{fails, 0, 2}}, natu + unreachable, UPnP_B, {one_more_fail, becomes(pfok, 0)}},
    {NATU, {{fails, 3, 4}}, natu + unreachable, UpnpPfFailed, {one_more_fail, becomes(pfok, 0), ue_port_is_0}},

    {NAT1, {{pfok, 1}}, "***[NAT1]***/Mapping already exist!, jump to next!/", UpnpPfReady, {}},
    {NAT1, {{pfok, 0}}, "***[NAT1]***/" + upf + "1/", UpnpPfReady, {becomes(pfok, 1)}},
    {NAT1, {{pfok, 0}}, "***[NAT1]***/" + upf + "5/", START, {}},
    {NAT1, {{pfok, 0}}, "***[NAT1]***/" + upf + "x/", UpnpPfFailed, {becomes(pfok, 0)}},

    {UpnpPfReady, {{fails, 0, 2}}, not_ready, NAT1, {prefinal, defaults, one_more_fail, becomes(pfok, 0)}},
    {UpnpPfReady,
     {{fails, 3, 4}},
     not_ready,
     UpnpPfFailed,
     {prefinal, defaults, one_more_fail, becomes(pfok, 0), ue_port_is_0}},
    {UpnpPfReady,
     {{changed, 0}},
     ready + "1/ connect back test ok/==>!BYPASS update!/",
     LumenDevDone,
     {prefinal, defaults, becomes(resut, 3)}},
    {UpnpPfReady,
     {{changed, 1}},
     update + "1/",
     LumenDevDone,
     {prefinal, defaults, becomes(auth, 0), becomes(resut, 1)}},
    {UpnpPfReady, {{changed, 1}, {auth, 0, 1}}, update + "2/", UpnpPfReady, {prefinal, defaults, one_more_auth}},
    {UpnpPfReady,
     {{changed, 1}, {auth, 2}},
     update + refused + "dropped/",
     LumenDevNotReady,
     {prefinal, defaults, becomes(auth, 0), becomes(resut, 2)}},
    {UpnpPfReady,
     {{changed, 1}},
     update + failed + "dropped/",
     LumenDevNotReady,
     {prefinal, defaults, becomes(auth, 0), becomes(resut, 0)}},

    {LumenDevPartDone, {}, "online 1/***[LumenDevPartDone]***/" + wait_300, START, {over}},
    {LumenDevDone, {{prefinal_of, PublicMode, NATM}}, "online 1/***[LumenDevDone]***/" + wait_300, START, {over}},
    {LumenDevDone, {{prefinal_of, UpnpPfFailed}}, "online 1/***[LumenDevDone]***/" + wait_300, START, {over}},
    {LumenDevDone, {{prefinal_of, UpnpPfReady}}, off + "ok/", LumenDevNotReady, {becomes(enabled, 0)}},
    {LumenDevDone, {{prefinal_of, UpnpPfReady}}, off + "failed/ update Enable state(0) fail!/", LumenDevNotReady, {}},
    {LumenDevNotReady,
     {{resut, 2}},
     none + "2/wait (60)secs to start over!/wait 60/",
     START,
     {becomes(askdaip, 1), over}},
    {LumenDevNotReady, {{resut, 0}}, none + "0/" + wait_300, START, {becomes(askdaip, 1), over}},
    {LumenDevNotReady, {{resut, 3}}, none + "3/" + wait_300, START, {becomes(askdaip, 1), over}},
};

/// The states of the update step and what they differ in.
const struct {
  RegState state;
  std::string header, need, bypass;
  RegState success, retry;
  int tolerated;  // authentication failures
  Effects before;
} update_states[] = {
    {PublicMode,
     "***[PublicMode]***/",
     " ==>Need update!/",
     " ==>!BYPASS update!/",
     LumenDevDone,
     IpReady,
     2,
     {ue_is_i}},
    {NoUPnP, "***[NoUPnP]***/", " ==>!Need update!/", " ==>!BYPASS update!/", LumenDevPartDone, NoUPnP, 2, {}},
    {NATM, "***[NATM]***/", " ==>!Need update!/", " ==>!BYPASS update!/", LumenDevPartDone, NATM, 3, {}},
    {UpnpPfFailed,
     "***[UpnpPfFailed]***/",
     " ==>!Need update!/",
     "==>!BYPASS update!/",
     LumenDevPartDone,
     UpnpPfFailed,
     2,
     {}},
};

inline std::vector<Row> update_rows() {
  std::vector<Row> rows;
  for (const auto& s : update_states) {
    const Effects then = s.before + Effects{prefinal, defaults};
    const Effects gives_up = then + Effects{becomes(auth, 0), becomes(resut, 2)};
    const std::string sent = s.header + s.need + "update=";
    rows.push_back({s.state, {{changed, 0}}, s.header + s.bypass, s.success, then + Effects{becomes(resut, 3)}});
    rows.push_back(
        {s.state, {{changed, 1}}, sent + "1/", s.success, then + Effects{becomes(auth, 0), becomes(resut, 1)}});
    rows.push_back(
        {s.state, {{changed, 1}, {auth, 0, s.tolerated - 1}}, sent + "2/", s.retry, then + Effects{one_more_auth}});
    rows.push_back({s.state, {{changed, 1}, {auth, s.tolerated}}, sent + "2/", LumenDevNotReady, gives_up});
    rows.push_back(
        {s.state, {{changed, 1}}, sent + "x/", LumenDevNotReady, then + Effects{becomes(auth, 0), becomes(resut, 0)}});
  }
  return rows;
}

/// What the enable switch against what was last reported makes of START.
struct SwitchRow {
  Ranges given;
  std::string trace;
  bool goes_on;  // to the query of the access server
  Effects then;
};

inline std::vector<SwitchRow> switch_rows() {
  std::vector<SwitchRow> rows;
  for (const int on : {0, 1}) {
    for (const int reported : {-1, 0, 1}) {
      const Ranges given = {{switched, on}, {enabled, reported}};
      const std::string state = std::to_string(on);
      const std::string trace = " Enable=" + state + ", Last_Spt_Enabled=" + std::to_string(reported) + "/";
      const std::string report = trace + " must update Enable state(" + state + ")/enable ";
      if (on == reported) {
        rows.push_back({given, trace, on == 1, {}});
        continue;
      }
      rows.push_back({given, report + "ok/", on == 1, {becomes(enabled, on)}});
      rows.push_back({given, report + "failed/ update Enable state(" + state + ") fail!/", false, {}});
    }
  }
  return rows;
}

inline std::vector<Row> start_rows() {
  std::vector<Row> rows;
  const std::string uri = "uri http://192.0.2.10/";
  const std::pair<std::string, Effects> ways[] = {
      {uri + "proxy=1/ [kestreld]: proxy srv:(10.9.8.7):(3128)/", {relay_known}},
      {uri + "proxy=x/ [kestreld] *** get proxy ip failed!/", {}}};
  for (const auto& [way, relayed] : ways) {
    rows.push_back({START,
                    {},
                    way + "redirect=x/ [kestreld] *** get ddns ip failed!/wait 10/",
                    START,
                    relayed + Effects{redir_unknown}});
    const std::string begun = way + "redirect=1/ ***[START]***/";
    const Effects located = relayed + Effects{redir_known, active};
    rows.push_back({START, {{iface, -1, 0}}, begun + " [kestreld]: *** No IP/wait 10/", START, located});
    const std::string addressed = begun + " [kestreld]: iface=(1) active ip is=192.168.1.30/port=";
    const Effects then = located + Effects{i_ip};
    rows.push_back(
        {START, {{iface, 1}}, addressed + "x/ [kestreld]: *** get http srv port failed/wait 10/", START, then});
    for (const SwitchRow& s : switch_rows()) {
      Ranges given = s.given;
      given.emplace_back(iface, 1);
      const std::string trace = addressed + "1/" + s.trace;
      const Effects done = then + Effects{i_port} + s.then;
      if (!s.goes_on) {
        rows.push_back({START, given, trace, LumenDevNotReady, done});
        continue;
      }
      const std::string ask = trace + " IsNeedQueryDAIP=1/ must Query DAIP/daip ";
      given.emplace_back(askdaip, 0);
      rows.push_back({START, given, trace + " IsNeedQueryDAIP=0/", IpReady, done});
      given.back() = {askdaip, 1};
      rows.push_back({START, given, ask + "ok/", IpReady, done + Effects{becomes(askdaip, 0)}});
      rows.push_back({START, given, ask + "failed/ get daip fail!/", LumenDevNotReady, done});
    }
  }
  return rows;
}

/// The guard of the enable report and the DAIP query: its counter after each result, by the counter before; and
/// whether it writes that the authentication failed.
const std::map<char, std::vector<std::pair<std::uint32_t, bool>>> guard = {
    {'1', {{0, false}, {0, false}, {0, false}}},
    {'2', {{1, false}, {2, false}, {0, true}}},
    {'x', {{0, true}, {0, true}, {0, true}}},
};

}  // namespace kestrel

#endif
