// The transition tables of the states as data, written out with all that a path does, and what is explored.
#pragma once

#include <cstdio>
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

using Counter = std::uint32_t AuthFailCounts::*;

const std::map<RegState, Counter> own_counters = {{IpReady, &AuthFailCounts::ip_ready},
                                                  {PublicMode, &AuthFailCounts::public_mode},
                                                  {NoUPnP, &AuthFailCounts::no_upnp},
                                                  {NATM, &AuthFailCounts::natm},
                                                  {UpnpPfReady, &AuthFailCounts::upnp_pf_ready},
                                                  {UpnpPfFailed, &AuthFailCounts::upnp_pf_failed}};

/// What the code works on, or is expected to leave.
struct World {
  DeviceContext& now;
  DeviceContext& last;
  AuthFailCounts& counts;
  std::uint32_t& found_at_init;
  std::uint32_t& own_count() const { return counts.*own_counters.at(now.state); }
};

/// Something in the world that gets a value: before a turn, or by it. Those without a value are only done by a turn.
using Step = void (*)(World w, int value);

constexpr Step run = [](World w, int v) { w.now.run = static_cast<std::uint32_t>(v); };
constexpr Step auth = [](World w, int v) { w.own_count() = static_cast<std::uint32_t>(v); };
constexpr Step count = [](World w, int v) {  // the guards'
  w.counts.enable_report = w.counts.daip_query = static_cast<std::uint32_t>(v);
};
constexpr Step fails = [](World w, int v) { w.now.cb_fail_count = static_cast<std::uint32_t>(v); };
constexpr Step pfok = [](World w, int v) { w.now.pfok = static_cast<std::uint32_t>(v); };
constexpr Step reload = [](World w, int v) { w.now.dev_reload = static_cast<std::uint32_t>(v); };
constexpr Step resut = [](World w, int v) { w.now.upd.resut = static_cast<std::uint32_t>(v); };
constexpr Step askdaip = [](World w, int v) { w.now.IsNeedQueryDAIP = static_cast<std::uint32_t>(v); };
constexpr Step enabled = [](World w, int v) { w.now.Last_Spt_Enabled = static_cast<std::int8_t>(v); };
constexpr Step came_from = [](World w, int v) { w.now.prefinal_state = static_cast<RegState>(v); };
constexpr Step proxylen = [](World w, int v) { std::snprintf(w.now.proxy.ip, ip_len, "%.*s", v, "10.0.0.1"); };
constexpr Step iface = [](World, int v) { fake.interface_index = v; };
constexpr Step found = [](World w, int v) { w.found_at_init = static_cast<std::uint32_t>(v); };
/// The user's switch: 0, 1, unreadable, or on_unsaid, which is 1 with a result that says failure.
constexpr int unreadable = -1, on_unsaid = 2;
constexpr Step switched = [](World, int v) {
  fake.enabled = v == 0 ? 0 : 1;
  if (v == unreadable) fake.always["cre_get_skyport_enable_state"] = 0;
  if (v == on_unsaid) fake.always["cre_get_skyport_enable_state"] = silent_success;
};
/// 0: the last cycle was the same.
constexpr Step changed = [](World w, int v) {
  if (v != 0) return;
  w.last = w.now;
  w.last.last = nullptr;
  w.last.state = LumenDevDone;
  w.last.prefinal_state = w.now.state;
};

constexpr Step prefinal = [](World w, int) { w.now.prefinal_state = w.now.state; };
constexpr Step more_auth = [](World w, int) { ++w.own_count(); };
constexpr Step unreached = [](World w, int) { w.now.pfok = 0, ++w.now.cb_fail_count; };
constexpr Step tested = [](World w, int) { w.now.proxy_tested = 1; };
constexpr Step ue_is_i = [](World w, int) { w.now.ue = w.now.i; };
constexpr Step ue_ip_is_e_ip = [](World w, int) { std::memcpy(w.now.ue.ip, w.now.e.ip, ip_len); };
constexpr Step no_port = [](World w, int) { std::strncpy(w.now.ue.port, "0", port_len); };
constexpr Step no_ue = [](World w, int) { w.now.ue = {"null", "0"}; };
constexpr Step gateway_told = [](World w, int) { w.now.igd = fake.igd; };
constexpr Step defaults = [](World w, int) { w.now.igd = {"F", "n/a", "n/a", "n/a", "n/a", "n/a", "n/a"}; };
constexpr Step relay_known = [](World w, int) { w.now.proxy = relay; };
constexpr Step redir_known = [](World w, int) { std::strncpy(w.now.redir_ip, redirect_server, ip_len); };
constexpr Step redir_unknown = [](World w, int) { std::memset(w.now.redir_ip, 0, ip_len); };
constexpr Step active = [](World w, int) { w.now.active_if = fake.interfaces.front(); };
constexpr Step i_ip = [](World w, int) { std::strcpy(w.now.i.ip, "192.168.1.30"); };
constexpr Step i_port = [](World w, int) { std::strcpy(w.now.i.port, "50081"); };
/// start_over.
constexpr Step over = [](World w, int) {
  w.last = w.now;
  w.last.last = nullptr;
  w.now.pfok = w.now.cb_fail_count = 0;
  w.now.upd = {0, 0};
  w.now.igd = {};
  w.now.e = w.now.i = w.now.ue = w.now.proxy = {};
  w.now.proxy_tested = 0;
};

/// A step that a turn takes.
struct Effect {
  Step step;
  int value;
  Effect(Step s, int v = 0) : step(s), value(v) {}
};
using Effects = std::vector<Effect>;

inline Effects operator+(Effects effects, const Effects& more) {
  effects.insert(effects.end(), more.begin(), more.end());
  return effects;
}

/// The values for which a row holds, both ends included.
struct Range {
  Step step;
  int from, to = from;
};
using Ranges = std::vector<Range>;

/// What is varied in a state, besides the results.
struct Exploration {
  RegState state;
  std::vector<std::pair<Step, std::vector<int>>> given;
};

const std::vector<Exploration> explorations = {
    {START, {{count, {0, 1, 2}}, {switched, {-1, 0, 1, 2}}, {enabled, {-1, 0, 1}}, {askdaip, {0, 1}}, {run, {0, 1}}}},
    {START, {{switched, {0}}, {enabled, {0}}, {iface, {1, 0, -1}}, {run, {0, 1}}}},
    {IpReady, {{auth, {0, 1, 2}}, {proxylen, {0, 6, 7}}, {run, {0, 1}}}},
    {NATMode, {{reload, {0, 1}}, {found, {0, 1}}, {run, {0, 1}}}},
    {PublicMode, {{auth, {0, 1, 2}}, {changed, {0, 1}}}},
    {UPnP, {{run, {0, 1}}}},
    {NoUPnP, {{auth, {0, 1, 2}}, {changed, {0, 1}}}},
    {UPnP_B, {{pfok, {0, 1}}}},
    {NATU, {{fails, {0, 1, 2, 3, 4}}, {run, {0, 1}}}},
    {NAT1, {{pfok, {0, 1}}}},
    {NATM, {{auth, {0, 1, 2, 3}}, {changed, {0, 1}}}},
    {UpnpPfReady, {{auth, {0, 1, 2}}, {fails, {0, 1, 2, 3, 4}}, {changed, {0, 1}}, {run, {0, 1}}}},
    {UpnpPfFailed, {{auth, {0, 1, 2}}, {changed, {0, 1}}}},
    {LumenDevPartDone, {{run, {0, 1}}}},
    {LumenDevDone, {{came_from, {PublicMode, NoUPnP, NATM, UpnpPfFailed}}, {run, {0, 1}}}},
    {LumenDevDone, {{came_from, {UpnpPfReady}}, {switched, {0}}, {count, {0, 1, 2}}, {run, {0, 1}}}},
    {LumenDevNotReady, {{resut, {0, 2, 3}}, {run, {0, 1}}}},
};

/// A transition: for which values it holds, what happens, the next state, and what becomes of the records. In a trace
/// "dropped" is a delete of the mapping, with the forwarder's reload when it worked, "enable ok" and the like all
/// the guarded attempts: up to three, and one after an exit request.
struct Row {
  RegState state;
  Ranges given;
  std::string trace;
  RegState next;
  Effects then;
};
using Rows = std::vector<Row>;

const std::string ip_ready = "***[IpReady]***/";
const std::string test_proxy = "eip=x/[kestreld]: Test proxy srv........./", proxied = ip_ready + test_proxy;
const std::string natmode = "***[NATMode]***/***[UPnP]***/";
const std::string gateway =
    "discover=0/manufacturer=[M]/manufacturer=[U]/friendlyName=[F]/modelName=[]/modelNumber=[N]/modelDescription=[D]/"
    "presentationURL=[P]/";
const std::string upnp = "***[UPnP]***/", again = upnp + "router=x/upnpcp_get_eip ret=-1/";
const std::string upf = "upf LC_0A0B0C 50080 58081=", upnp_b = "***[UPnP_B.]***/" + upf;
const std::string nat1 = "***[NAT1]***/";
const std::string natu = "***[NATU.]***/wait 5/cb=";
const std::string no_natu = natu + "x/go_NATU:# connect back failed, delete pf/dropped/";
const std::string pf = "wait 5/cb=1/ connect back test ok/";
const std::string no_pf = "***[UpnpPfReady]***/wait 5/cb=x/go_UpnpPfReady:# connect back failed, delete pf/dropped/";
const std::string part_done = "online 1/***[LumenDevPartDone]***/", done = "online 1/***[LumenDevDone]***/";
const std::string refused =
    "go_UpnpPfReady:# UpnpPfReady: srv_update reach AUTH_FAIL_COUNT, delete pf port=58081/dropped/";
const std::string failed = "go_UpnpPfReady:# UpnpPfReady srv_update failed, delete pf port=58081/dropped/";
const std::string off = done + " Enable=0, Last_Spt_Enabled=1/ must update Enable state(0)/enable ";
const std::string not_ready = "online 0/***[LumenDevNotReady]***/";
const std::string wait_60 = "wait (60)secs to start over!/wait 60/";
const std::string wait_300 = "wait (300)secs to start over!/wait 300/";

const Effects gives_up = {prefinal, {auth, 0}, {resut, 2}};

const Rows plain_rows = {
    {IpReady, {}, ip_ready + "eip=1/", InternetReady, {prefinal, {auth, 0}}},
    {IpReady, {{auth, 0, 1}}, ip_ready + "eip=2/", IpReady, {prefinal, more_auth}},
    {IpReady, {{auth, 2}}, ip_ready + "eip=2/", LumenDevNotReady, gives_up},
    {IpReady, {{proxylen, 0, 6}}, ip_ready + "eip=x/", LumenDevNotReady, gives_up},
    {IpReady, {{proxylen, 7}, {run, 0}}, ip_ready + "eip=x/", IpReady, {prefinal}},
    {IpReady, {{proxylen, 7}, {run, 1}}, proxied + "eip=1/", InternetReady, {prefinal, tested, {auth, 0}}},
    {IpReady, {{proxylen, 7}, {run, 1}, {auth, 0, 1}}, proxied + "eip=2/", IpReady, {prefinal, tested, more_auth}},
    {IpReady, {{proxylen, 7}, {run, 1}, {auth, 2}}, proxied + "eip=2/", LumenDevNotReady, gives_up + Effects{tested}},
    {IpReady, {{proxylen, 7}, {run, 1}}, proxied + test_proxy + "wait 10/", IpReady, {prefinal, tested}},

    {NATMode, {{reload, 1}}, natmode, START, {}},
    {NATMode, {{reload, 0}, {found, 1}}, natmode, UPnP, {{found, 0}}},
    {NATMode, {{reload, 0}, {found, 0}}, natmode + gateway, UPnP, {gateway_told}},
    {NATMode, {{reload, 0}, {found, 0}, {run, 0}}, natmode + "discover=x/", NoUPnP, {}},
    {NATMode, {{reload, 0}, {found, 0}, {run, 0}}, natmode + "discover=r/", NoUPnP, {{reload, 1}}},
    {NATMode, {{reload, 0}, {found, 0}, {run, 1}}, natmode + "discover=x/" + gateway, UPnP, {gateway_told}},
    {NATMode, {{reload, 0}, {found, 0}, {run, 1}}, natmode + "discover=x/discover=x/", NoUPnP, {}},
    {NATMode, {{reload, 0}, {found, 0}, {run, 1}}, natmode + "discover=r/", START, {{reload, 1}}},
    {NATMode, {{reload, 0}, {found, 0}, {run, 1}}, natmode + "discover=x/discover=r/", NoUPnP, {{reload, 1}}},

    {UPnP, {}, upnp + "router=0/upnpcp_get_eip ret=0/", UPnP_A, {}},
    {UPnP, {}, upnp + "router=4/upnpcp_get_eip ret=4/", UPnP_B, {}},
    {UPnP, {{run, 0}}, again, UPnP_B, {}},
    {UPnP, {{run, 1}}, again + "router=0/upnpcp_get_eip ret=0/", UPnP_A, {}},
    {UPnP, {{run, 1}}, again + "router=4/upnpcp_get_eip ret=4/", UPnP_B, {}},
    {UPnP, {{run, 1}}, again + "router=x/upnpcp_get_eip ret=-1/", UPnP_B, {}},

    {UPnP_B, {}, upnp_b + "1/! port forward ok/", NATU, {{pfok, 1}}},
    {UPnP_B, {}, upnp_b + "5/", START, {}},
    {UPnP_B, {}, upnp_b + "x/! port forward failed/", UpnpPfFailed, {{pfok, 0}}},

    {NATU, {}, natu + "1/connect back test ok/", UpnpPfReady, {ue_ip_is_e_ip}},
    {NATU, {{run, 0}}, natu + "x/", NATU, {}},
    {NATU, {{run, 1}, {fails, 0, 2}}, no_natu, UPnP_B, {unreached}},
    {NATU, {{run, 1}, {fails, 3, 4}}, no_natu, UpnpPfFailed, {unreached, no_port}},

    {NAT1, {{pfok, 1}}, nat1 + "Mapping already exist!, jump to next!/", UpnpPfReady, {}},
    {NAT1, {{pfok, 0}}, nat1 + upf + "1/", UpnpPfReady, {{pfok, 1}}},
    {NAT1, {{pfok, 0}}, nat1 + upf + "5/", START, {}},
    {NAT1, {{pfok, 0}}, nat1 + upf + "x/", UpnpPfFailed, {{pfok, 0}}},

    {UpnpPfReady, {{run, 0}}, "***[UpnpPfReady]***/wait 5/cb=x/", UpnpPfReady, {prefinal, defaults}},
    {UpnpPfReady, {{run, 1}, {fails, 0, 2}}, no_pf, NAT1, {prefinal, defaults, unreached}},
    {UpnpPfReady, {{run, 1}, {fails, 3, 4}}, no_pf, UpnpPfFailed, {prefinal, defaults, unreached, no_port}},

    {LumenDevPartDone, {}, part_done + wait_300, START, {over}},
    // Not for UpnpPfReady, which has rows of its own.
    {LumenDevDone, {{came_from, PublicMode, UpnpPfFailed}}, done + wait_300, START, {over}},
    {LumenDevDone, {{came_from, UpnpPfReady}}, off + "ok/", LumenDevNotReady, {{enabled, 0}}},
    {LumenDevDone, {{came_from, UpnpPfReady}}, off + "failed/ update Enable state(0) fail!/", LumenDevNotReady, {}},
    {LumenDevNotReady, {{resut, 2}}, not_ready + "2/" + wait_60, START, {{askdaip, 1}, over}},
    {LumenDevNotReady, {{resut, 0}}, not_ready + "0/" + wait_300, START, {{askdaip, 1}, over}},
    {LumenDevNotReady, {{resut, 3}}, not_ready + "3/" + wait_300, START, {{askdaip, 1}, over}},
};

/// The reporting states and what they differ in.
const struct {
  RegState state;
  std::string name, tested, need, bypass;
  RegState success, retry;
  int tolerated;  // challenges
  Effects first;
  std::string refused, failed;  // before LumenDevNotReady
} reporting_states[] = {
    {PublicMode, "PublicMode", "", "Need", " ==>!", LumenDevDone, IpReady, 2, {ue_is_i}, "", ""},
    {NoUPnP, "NoUPnP", "", "!Need", " ==>!", LumenDevPartDone, NoUPnP, 2, {no_ue}, "", ""},
    {NATM, "NATM", "", "!Need", " ==>!", LumenDevPartDone, NATM, 3, {}, "", ""},
    {UpnpPfReady, "UpnpPfReady", pf, "!Need", "==>!", LumenDevDone, UpnpPfReady, 2, {}, refused, failed},
    {UpnpPfFailed, "UpnpPfFailed", "", "!Need", "==>!", LumenDevPartDone, UpnpPfFailed, 2, {}, "", ""},
};

inline Rows reporting_rows() {
  Rows rows;
  for (const auto& s : reporting_states) {
    const Effects then = s.first + Effects{prefinal, defaults}, ended = then + Effects{{auth, 0}};
    const std::string begun = "***[" + s.name + "]***/" + s.tested;
    const std::string sent = begun + " ==>" + s.need + " update!/update=", limit = "2/" + s.refused;
    const std::string bypassed = begun + s.bypass + "BYPASS update!/";
    rows.push_back({s.state, {{changed, 0}}, bypassed, s.success, then + Effects{{resut, 3}}});
    rows.push_back({s.state, {{changed, 1}}, sent + "1/", s.success, ended + Effects{{resut, 1}}});
    rows.push_back(
        {s.state, {{changed, 1}, {auth, 0, s.tolerated - 1}}, sent + "2/", s.retry, then + Effects{more_auth}});
    const Effects at_limit = ended + Effects{{resut, 2}}, lost = ended + Effects{{resut, 0}};
    rows.push_back({s.state, {{run, 1}, {changed, 1}, {auth, s.tolerated}}, sent + limit, LumenDevNotReady, at_limit});
    rows.push_back({s.state, {{run, 1}, {changed, 1}}, sent + "x/" + s.failed, LumenDevNotReady, lost});
    if (s.refused.empty()) continue;
    // With an exit request nothing is done about the mapping.
    rows.push_back({s.state, {{run, 0}, {changed, 1}, {auth, s.tolerated}}, sent + "2/", LumenDevNotReady, at_limit});
    rows.push_back({s.state, {{run, 0}, {changed, 1}}, sent + "x/", LumenDevNotReady, lost});
  }
  return rows;
}

/// What START makes of the enable switch and of what was last reported, behind `begun`.
inline Rows switch_rows(const std::string& begun, const Effects& then) {
  Rows rows;
  for (const int read : {unreadable, 0, 1, on_unsaid}) {
    for (const int reported : {-1, 0, 1}) {
      Ranges given = {{switched, read}, {enabled, reported}, {iface, 1}};
      const int wanted = read == unreadable ? reported : read == on_unsaid ? 1 : read;
      if (wanted == -1) {
        const char* line = " [kestreld]: *** get skyport enable state failed/wait 10/";
        rows.push_back({START, given, begun + line, START, then});
        continue;
      }
      const std::string on = std::to_string(wanted);
      std::string trace = begun + " Enable=" + on + ", Last_Spt_Enabled=" + std::to_string(reported) + "/";
      if (wanted != reported) {
        trace += " must update Enable state(" + on + ")/enable ";
        const std::string unsaid = trace + "failed/ update Enable state(" + on + ") fail!/";
        rows.push_back({START, given, unsaid, LumenDevNotReady, then});
        trace += "ok/";
      }
      const Effects done_so_far = then + Effects{{enabled, wanted}};
      if (wanted == 0) {
        rows.push_back({START, given, trace, LumenDevNotReady, done_so_far});
        continue;
      }
      const std::string ask = trace + " IsNeedQueryDAIP=1/ must Query DAIP/daip ";
      given.push_back({askdaip, 0});
      rows.push_back({START, given, trace + " IsNeedQueryDAIP=0/", IpReady, done_so_far});
      given.back() = {askdaip, 1};
      rows.push_back({START, given, ask + "ok/", IpReady, done_so_far + Effects{{askdaip, 0}}});
      rows.push_back({START, given, ask + "failed/ get daip fail!/", LumenDevNotReady, done_so_far});
    }
  }
  return rows;
}

inline Rows start_rows() {
  Rows rows;
  const std::pair<std::string, Effects> ways[] = {
      {"uri http://192.0.2.10/proxy=1/ [kestreld]: proxy srv:(10.9.8.7):(3128)/", {relay_known}},
      {"uri http://192.0.2.10/proxy=x/ [kestreld] *** get proxy ip failed!/", {}}};
  for (const auto& [way, then] : ways) {
    const std::string no_server = way + "redirect=x/ [kestreld] *** get ddns ip failed!/wait 10/";
    rows.push_back({START, {}, no_server, START, then + Effects{redir_unknown}});
    const std::string begun = way + "redirect=1/ ***[START]***/";
    const Effects located = then + Effects{redir_known, active}, addressed = located + Effects{i_ip};
    rows.push_back({START, {{iface, -1, 0}}, begun + " [kestreld]: *** No IP/wait 10/", START, located});
    const std::string at = begun + " [kestreld]: iface=(1) active ip is=192.168.1.30/port=";
    const std::string no_http = at + "x/ [kestreld]: *** get http srv port failed/wait 10/";
    rows.push_back({START, {{iface, 1}}, no_http, START, addressed});
    for (const Row& row : switch_rows(at + "1/", addressed + Effects{i_port})) rows.push_back(row);
  }
  return rows;
}

}  // namespace kestrel
