// The transition tables of the states as data, written out with all that a path does, and what is explored.
#ifndef KESTREL_TESTS_REGSTATE_ROWS_H
#define KESTREL_TESTS_REGSTATE_ROWS_H

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "core/device_context.h"

namespace kestrel {

/// What the callees can answer, and its letter in a trace if that is another: 'x' is any failure, 'r' one during
/// which a reload is requested.
const std::map<std::string, std::string> answers = {
    {"eip", "1 2 0x 3x"},  {"cb", "1 2x 0x 3x -1x"}, {"update", "1 2 0x 404x"}, {"enable", "1 2 3x"},
    {"daip", "1 2 0x"},    {"upf", "1 5 0x"},        {"delete", "1 0x 7x"},     {"discover", "0 1x 2r"},
    {"router", "0 4 -1x"}, {"proxy", "1 0x"},        {"redirect", "1 0x"},      {"net_get_http_srv_port", "1 0x"}};

/// What is varied in a state, besides the results.
const struct {
  RegState state;
  const char* given;
} explorations[] = {
    {START, "count=0,1,2 switch=0,1 enabled=-1,0,1 askdaip=0,1 iface=1"},
    {START, "switch=0 enabled=0 iface=1,0,-1 run=0,1"},
    {IpReady, "auth=0,1,2 proxylen=0,6,7 run=0,1"},
    {NATMode, "reload=0,1 found=0,1"},
    {PublicMode, "auth=0,1,2 changed=0,1"},
    {UPnP, ""},
    {NoUPnP, "auth=0,1,2 changed=0,1"},
    {UPnP_B, "pfok=0,1"},
    {NATU, "fails=0,1,2,3,4 run=0,1"},
    {NAT1, "pfok=0,1"},
    {NATM, "auth=0,1,2,3 changed=0,1"},
    {UpnpPfReady, "auth=0,1,2 fails=0,1,2,3,4 changed=0,1 run=0,1"},
    {UpnpPfFailed, "auth=0,1,2 changed=0,1"},
    {LumenDevPartDone, "run=0,1"},
    {LumenDevDone, "prefinal=4,6,11,13 run=0,1"},
    {LumenDevDone, "prefinal=12 switch=0 count=0,1,2"},
    {LumenDevNotReady, "resut=0,2,3 run=0,1"},
};

/// A transition. `given` are the ranges for which it holds, `trace` is what happens, `then` what becomes of the
/// records. In a trace "dropped" is a delete of the mapping, with the forwarder's reload
/// when it worked, "enable ok" and the like up to three guarded attempts.
struct Row {
  RegState state;
  std::string given, trace;
  RegState next;
  std::string then;
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
    {IpReady, "", ip_ready + "eip=1/", InternetReady, "prefinal auth=0"},
    {IpReady, "auth=0-1", ip_ready + "eip=2/", IpReady, "prefinal auth+1"},
    {IpReady, "auth=2", ip_ready + "eip=2/", LumenDevNotReady, "prefinal auth=0 resut=2"},
    {IpReady, "proxylen=0-6", ip_ready + "eip=x/", LumenDevNotReady, "prefinal auth=0 resut=2"},
    {IpReady, "proxylen=7", through_proxy + "eip=1/", InternetReady, "prefinal tested auth=0"},
    {IpReady, "proxylen=7 auth=0-1", through_proxy + "eip=2/", IpReady, "prefinal tested auth+1"},
    {IpReady, "proxylen=7 auth=2", through_proxy + "eip=2/", LumenDevNotReady, "prefinal tested auth=0 resut=2"},
    {IpReady, "proxylen=7", through_proxy + through_proxy.substr(ip_ready.size()) + "wait 10/", IpReady,
     "prefinal tested"},

    {NATMode, "reload=1", natmode, START, ""},
    {NATMode, "reload=0 found=1", natmode, UPnP, "found=0"},
    {NATMode, "reload=0 found=0", natmode + gateway, UPnP, ""},
    {NATMode, "reload=0 found=0", natmode + "discover=x/" + gateway, UPnP, ""},
    {NATMode, "reload=0 found=0", natmode + "discover=x/discover=x/", NoUPnP, ""},
    {NATMode, "reload=0 found=0", natmode + "discover=r/", START, "reload=1"},
    {NATMode, "reload=0 found=0", natmode + "discover=x/discover=r/", NoUPnP, "reload=1"},

    {UPnP, "", upnp + "router=0/upnpcp_get_eip ret=0/", UPnP_A, ""},
    {UPnP, "", upnp + "router=4/upnpcp_get_eip ret=4/", UPnP_B, ""},
    {UPnP, "", again + "router=0/upnpcp_get_eip ret=0/", UPnP_A, ""},
    {UPnP, "", again + "router=4/upnpcp_get_eip ret=4/", UPnP_B, ""},
    {UPnP, "", again + "router=x/upnpcp_get_eip ret=-1/", UPnP_B, ""},

    {UPnP_B, "", "***[UPnP_B.]***/" + upf + "1/! port forward ok/", NATU, "pfok=1"},
    {UPnP_B, "", "***[UPnP_B.]***/" + upf + "5/", START, ""},
    {UPnP_B, "", "***[UPnP_B.]***/" + upf + "x/! port forward failed/", UpnpPfFailed, "pfok=0"},

    {NATU, "", natu + "1/connect back test ok/", UpnpPfReady, "ue.ip=e.ip"},
    {NATU, "fails=0-2", natu + unreachable, UPnP_B, "fails+1 pfok=0"},
    {NATU, "fails=3-4", natu + unreachable, UpnpPfFailed, "fails+1 pfok=0 ue.port=0"},

    {NAT1, "pfok=1", "***[NAT1]***/Mapping already exist!, jump to next!/", UpnpPfReady, ""},
    {NAT1, "pfok=0", "***[NAT1]***/" + upf + "1/", UpnpPfReady, "pfok=1"},
    {NAT1, "pfok=0", "***[NAT1]***/" + upf + "5/", START, ""},
    {NAT1, "pfok=0", "***[NAT1]***/" + upf + "x/", UpnpPfFailed, "pfok=0"},

    {UpnpPfReady, "fails=0-2", not_ready, NAT1, "prefinal defaults fails+1 pfok=0"},
    {UpnpPfReady, "fails=3-4", not_ready, UpnpPfFailed, "prefinal defaults fails+1 pfok=0 ue.port=0"},
    {UpnpPfReady, "changed=0", ready + "1/ connect back test ok/==>!BYPASS update!/", LumenDevDone,
     "prefinal defaults resut=3"},
    {UpnpPfReady, "changed=1", update + "1/", LumenDevDone, "prefinal defaults auth=0 resut=1"},
    {UpnpPfReady, "changed=1 auth=0-1", update + "2/", UpnpPfReady, "prefinal defaults auth+1"},
    {UpnpPfReady, "changed=1 auth=2", update + refused + "dropped/", LumenDevNotReady,
     "prefinal defaults auth=0 resut=2"},
    {UpnpPfReady, "changed=1", update + failed + "dropped/", LumenDevNotReady, "prefinal defaults auth=0 resut=0"},

    {LumenDevPartDone, "", "online 1/***[LumenDevPartDone]***/" + wait_300, START, "over"},
    {LumenDevDone, "prefinal=4-11", "online 1/***[LumenDevDone]***/" + wait_300, START, "over"},
    {LumenDevDone, "prefinal=13", "online 1/***[LumenDevDone]***/" + wait_300, START, "over"},
    {LumenDevDone, "prefinal=12", off + "ok/", LumenDevNotReady, "enabled=0"},
    {LumenDevDone, "prefinal=12", off + "failed/ update Enable state(0) fail!/", LumenDevNotReady, ""},
    {LumenDevNotReady, "resut=2", none + "2/wait (60)secs to start over!/wait 60/", START, "askdaip=1 over"},
    {LumenDevNotReady, "resut=0", none + "0/" + wait_300, START, "askdaip=1 over"},
    {LumenDevNotReady, "resut=3", none + "3/" + wait_300, START, "askdaip=1 over"},
};

/// The states of the update step and what they differ in.
const struct {
  RegState state;
  std::string header, need, bypass;
  RegState success, retry;
  int tolerated;  // authentication failures
  std::string before;
} update_states[] = {
    {PublicMode, "***[PublicMode]***/", " ==>Need update!/", " ==>!BYPASS update!/", LumenDevDone, IpReady, 2, "ue=i "},
    {NoUPnP, "***[NoUPnP]***/", " ==>!Need update!/", " ==>!BYPASS update!/", LumenDevPartDone, NoUPnP, 2, ""},
    {NATM, "***[NATM]***/", " ==>!Need update!/", " ==>!BYPASS update!/", LumenDevPartDone, NATM, 3, ""},
    {UpnpPfFailed, "***[UpnpPfFailed]***/", " ==>!Need update!/", "==>!BYPASS update!/", LumenDevPartDone, UpnpPfFailed,
     2, ""},
};

inline std::vector<Row> update_rows() {
  std::vector<Row> rows;
  for (const auto& s : update_states) {
    const std::string limit = std::to_string(s.tolerated);
    const std::string below = std::to_string(s.tolerated - 1);
    const std::string then = s.before + "prefinal defaults ";
    const std::string sent = s.header + s.need + "update=";
    rows.push_back({s.state, "changed=0", s.header + s.bypass, s.success, then + "resut=3"});
    rows.push_back({s.state, "changed=1", sent + "1/", s.success, then + "auth=0 resut=1"});
    rows.push_back({s.state, "changed=1 auth=0-" + below, sent + "2/", s.retry, then + "auth+1"});
    rows.push_back({s.state, "changed=1 auth=" + limit, sent + "2/", LumenDevNotReady, then + "auth=0 resut=2"});
    rows.push_back({s.state, "changed=1", sent + "x/", LumenDevNotReady, then + "auth=0 resut=0"});
  }
  return rows;
}

/// What the enable switch against what was last reported makes of START.
struct SwitchRow {
  std::string given, trace;
  bool goes_on;  // to the query of the access server
  std::string then;
};

inline std::vector<SwitchRow> switch_rows() {
  std::vector<SwitchRow> rows;
  for (const std::string on : {"0", "1"}) {
    for (const std::string reported : {"-1", "0", "1"}) {
      const std::string given = "switch=" + on + " enabled=" + reported;
      const std::string trace = " Enable=" + on + ", Last_Spt_Enabled=" + reported + "/";
      const std::string report = trace + " must update Enable state(" + on + ")/enable ";
      const bool same = on == reported;
      rows.push_back({given, same ? trace : report + "ok/", on == "1", same ? "" : "enabled=" + on + " "});
      if (!same) rows.push_back({given, report + "failed/ update Enable state(" + on + ") fail!/", false, ""});
    }
  }
  return rows;
}

inline std::vector<Row> start_rows() {
  std::vector<Row> rows;
  for (const bool with_relay : {true, false}) {
    const std::string uri = "uri http://192.0.2.10/";
    const std::string found = with_relay ? uri + "proxy=1/ [kestreld]: proxy srv:(10.9.8.7):(3128)/"
                                         : uri + "proxy=x/ [kestreld] *** get proxy ip failed!/";
    const std::string relayed = with_relay ? "relay " : "";
    rows.push_back(
        {START, "", found + "redirect=x/ [kestreld] *** get ddns ip failed!/wait 10/", START, relayed + "redir=0"});
    const std::string begun = found + "redirect=1/ ***[START]***/";
    rows.push_back({START, "iface=-1-0", begun + " [kestreld]: *** No IP/wait 10/", START, relayed + "redir active"});
    const std::string addressed = begun + " [kestreld]: iface=(1) active ip is=192.168.1.30/port=";
    const std::string then = relayed + "redir active i.ip ";
    rows.push_back({START, "iface=1", addressed + "x/ [kestreld]: *** get http srv port failed/wait 10/", START, then});
    for (const SwitchRow& s : switch_rows()) {
      const std::string given = "iface=1 " + s.given;
      const std::string trace = addressed + "1/" + s.trace;
      const std::string done = then + "i.port " + s.then;
      if (!s.goes_on) {
        rows.push_back({START, given, trace, LumenDevNotReady, done});
        continue;
      }
      const std::string ask = trace + " IsNeedQueryDAIP=1/ must Query DAIP/daip ";
      rows.push_back({START, given + " askdaip=0", trace + " IsNeedQueryDAIP=0/", IpReady, done});
      rows.push_back({START, given + " askdaip=1", ask + "ok/", IpReady, done + "askdaip=0"});
      rows.push_back({START, given + " askdaip=1", ask + "failed/ get daip fail!/", LumenDevNotReady, done});
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
