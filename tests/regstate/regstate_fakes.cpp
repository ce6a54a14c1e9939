// The records at the beginning of a test, and the router's side, see regstate_fakes.h.
#include "regstate/regstate_fakes.h"

#include <cstring>

#include "core/text.h"
#include "regstate/auth_fail_count.h"
#include "regstate/state_init.h"
#include "regstate/state_table.h"
#include "upnp/port_mapping.h"

namespace kestrel {

const Trace::Names regstate_calls = {{"SetSptOnLineStatus ", "online "},
                                     {"SetSptURI ", "uri "},
                                     {"run_shell /etc/rc.d/init.d/portForwarder.sh reload", "reload"},
                                     {"wait_regardless ", "hold "},
                                     {"net_get_http_srv_port", "port"},
                                     {"get_dev_", ""},
                                     {"tessel_get_", ""},
                                     {"dev_get_", ""},
                                     {"cre_get_", ""}};

void RegstateTest::begin(RegState state, const char* results) {
  fake_reset();
  trace.listen(results);
  auth_fail_count = {31, 32, 33, 34, 35, 36, 37, 38};
  upnp_found_at_init = 0;
  std::memset(static_cast<void*>(&now), 0, sizeof(now));
  std::memset(static_cast<void*>(&last), 0, sizeof(last));
  install_handlers(now);
  now.last = &last;
  now.run = 1;
  now.state = state;
  now.prefinal_state = state == LumenDevDone ? UpnpPfReady : NoUPnP;
  now.pfok = 1;
  now.upd = {7, 99};
  now.auth_info.on = 1;
  now.Last_Spt_Enabled = 1;
  copy_text(now.uid, "LC_0A0B0C");
  copy_text(now.hid, "HID00001");
  copy_text(now.redir_ip, "192.0.2.1");
  now.e = seen_by_service = {"203.0.113.5", "4711"};
  now.i = {"192.168.1.20", "50080"};
  now.ue = {"10.1.2.3", "58081"};
  now.proxy = {"10.0.0.9", "1"};
  now.proxy_tested = state >= LumenDevPartDone ? 1 : 0;
  now.igd = {"F", "", "", "", "", "", ""};
  if (state == NoUPnP) now.ue = {};
  fake.http_port = 50081;
  fake.igd = {"F", "M", "U", "", "N", "D", "P"};
  fake.router_ip = now.ue.ip;
  fake.interfaces = {{"192.168.1.30", "00:11:22:0A:0B:0C", "255.255.255.0", "192.168.1.1", "eth0"}};
}

int UPF(const char* uid, std::uint16_t internal_port, char* external_port, const std::uint32_t* /*reload*/) {
  const int result = called("upf " + std::string(uid) + " " + std::to_string(internal_port) + " " + external_port, 1);
  if (result == 1 && external_port[0] == '\0') copy_text(external_port, port_len, "80");
  return result;
}

int delete_port(std::uint16_t external_port, int attempts) {
  return called("delete " + std::to_string(external_port) + " " + std::to_string(attempts), 1);
}

int find_gateway(MupnpIgd* igd) {
  const int result = called("discover", fake.gateway ? 0 : 1);
  if (result == 0) *igd = fake.igd;
  return result;
}

int get_router_address(char* ip) {
  const int result = called("router", 0);
  if (result == 0) copy_text(ip, ip_len, fake.router_ip.c_str());
  return result;
}

int remove_own_mappings(const char* uid) {
  return called("clean " + std::string(uid), 0);
}

}  // namespace kestrel
