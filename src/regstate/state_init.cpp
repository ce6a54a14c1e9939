// Identity initialisation, see state_init.h.
#include "regstate/state_init.h"

#include <unistd.h>

#include "core/debug_log.h"
#include "core/signals_blocked.h"
#include "core/text.h"
#include "core/wait.h"
#include "net/address.h"
#include "platform/tesselcfg.h"
#include "regstate/state_table.h"
#include "regstate/steps.h"
#include "service/requests.h"
#include "upnp/port_mapping.h"

namespace kestrel {

std::uint32_t upnp_found_at_init = 0;

namespace {

constexpr char module_name[] = "kestreld";
constexpr unsigned account_retry_s = 3;

/// Sets `run` and `state` anew. An exit request that came before stands: it left UNKNOWN, which nothing else writes,
/// and is not taken back. No signal may come between the look and the stores.
void start_running(DeviceContext& current) {
  const SignalsBlocked blocked;
  store_word(current.run, load_word(current.state) == UNKNOWN ? 0U : 1U);
  set_state(current, START);
  store_word(current.dev_reload, 0U);
}

void reset(DeviceContext& current) {
  start_running(current);
  clear_cycle(current);
  clear_results(current);
  zero(current.hid);
  zero(current.sname);
  zero(current.uid);
  zero(current.auth_info);
  current.IsNeedQueryDAIP = 1;
  current.Last_Spt_Enabled = -1;
}

/// One look for the account. Libraries may fill longer texts than the record holds.
bool take_account(DeviceContext& current) {
  char hid[64] = "";
  char password[64] = "";
  debug_log("try to get_dev_sip_account\n");
  if (get_dev_sip_account(hid, password) == 0) return false;
  copy_bytes(current.hid, sizeof(current.hid), hid, sizeof(hid));
  copy_bytes(current.auth_info.pass, sizeof(current.auth_info.pass), password, sizeof(password));
  debug_log("get_dev_sip_account success, hid=%s, password=%s\n", current.hid, current.auth_info.pass);
  debug_log("=> hid=(%s)\n", current.hid);
  copy_text(current.auth_info.user, current.hid);
  debug_log("=> user=(%s)\n", current.auth_info.user);
  debug_log("=> pass=(%s)\n", current.auth_info.pass);
  if (cre_set_skyport_hid(current.hid) == 0) debug_log("[kestreld] *** set skyport hid failed!\n");
  return true;
}

void await_account(DeviceContext& current) {
  while (!exit_requested(current) && !take_account(current)) {
    debug_log("get_dev_sip_account fail, sleep 3 sec to try again..\n");
    wait_while(current.run, account_retry_s);
  }
}

void publish_identity(DeviceContext& current) {
  random_digits6(current.Timestamp);
  debug_log("%s %d Timestamp=%s\r\n", module_name, __LINE__, current.Timestamp);
  const bool written = write_refer_file(current.hid, current.Timestamp) != 0;
  debug_log(written ? "%s %d write refer file success\r\n" : "%s %d write refer file failed\r\n", module_name,
            __LINE__);
}

}  // namespace

void state_init(DeviceContext& current) {
  zero(*current.last);
  reset(current);
  if (make_uid(current.uid, sizeof(current.uid)) != 0) debug_log("=> uid=(%s)\n", current.uid);
  await_account(current);
  publish_identity(current);
  store_word(current.pid, getpid());
  if (!exit_requested(current) && find_gateway(&current.igd) == 0) {
    remove_own_mappings(current.uid);
    upnp_found_at_init = 1;
  }
  install_handlers(current);
}

}  // namespace kestrel
