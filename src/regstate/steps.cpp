// Steps that several state handlers share, see steps.h.
#include "regstate/steps.h"

#include <cstdlib>

#include "core/debug_log.h"
#include "core/shell.h"
#include "core/text.h"
#include "core/wait.h"
#include "platform/tesselcfg.h"
#include "regstate/auth_fail_count.h"
#include "service/requests.h"
#include "upnp/port_mapping.h"

namespace kestrel {

AuthFailCounts auth_fail_count{};

namespace {

constexpr int enable_attempts = 3;

/// Seconds that a router has to put a mapping into force before it is tested.
constexpr unsigned settle_s = 5;

/// A camera's mapping is given up when more connect-backs than this have failed in a cycle.
constexpr std::uint32_t max_cb_fails = 3;

/// Judges a guarded request by its result and its counter.
int guard(DeviceContext& ctx, int result, std::uint32_t& count) {
  debug_log(" >>ret=%d auth_fail_count=%d\n", result, static_cast<int>(count));
  if (result == request_ok) {
    count = 0;
  } else if (result != request_challenged || !tolerated(count, auth_fail_limit)) {
    give_up(ctx, count);
  }
  return result;
}

/// While the flag is set: each request that comes during the hold adds another one, a reload ends it.
void hold_for_configuration(DeviceContext& current) {
  while (load_word(current.configure) != 0) {
    // Armed behind the clearing: a request that comes in between has set the flag again and is served by
    // another turn, and none that came before cuts this sleep short.
    store_word(current.configure, 0U);
    wait_arm();
    if (load_word(current.dev_reload) != 0) return;
    debug_log("sleep %d secs\n", static_cast<int>(configuration_hold_s));
    wait_regardless(configuration_hold_s);
  }
}

}  // namespace

void give_up(DeviceContext& ctx, std::uint32_t& count) {
  count = 0;
  set_update_result(ctx, update_auth_failed);
  set_state(ctx, LumenDevNotReady);
}

int report_enable(DeviceContext& ctx, int enabled) {
  return guard(ctx, srv_enable_dev_account(&ctx, enabled, &ctx.auth_info), auth_fail_count.enable_report);
}

int query_daip(DeviceContext& ctx) {
  return guard(ctx, srv_get_daip(&ctx), auth_fail_count.daip_query);
}

bool report_enable_up_to_3(DeviceContext& ctx, int enabled) {
  debug_log(" must update Enable state(%d)\n", enabled);
  for (int attempt = 0; attempt < enable_attempts; ++attempt) {
    if (attempt > 0 && exit_requested(ctx)) break;
    if (report_enable(ctx, enabled) == request_ok) {
      ctx.Last_Spt_Enabled = static_cast<std::int8_t>(enabled);
      return true;
    }
  }
  debug_log(" update Enable state(%d) fail!\n", enabled);
  return false;
}

int read_enable_switch(const DeviceContext& ctx) {
  char enabled = unfilled_byte;
  const bool failed = cre_get_skyport_enable_state(&enabled) == 0 && enabled == unfilled_byte;
  const int wanted = failed ? ctx.Last_Spt_Enabled : static_cast<unsigned char>(enabled);
  if (wanted < 0) {
    debug_log(" [kestreld]: *** get skyport enable state failed\n");
  } else {
    debug_log(" Enable=%d, Last_Spt_Enabled=%d\n", wanted, ctx.Last_Spt_Enabled);
  }
  return wanted;
}

std::uint16_t mapped_port(const DeviceContext& ctx) {
  return static_cast<std::uint16_t>(std::atoi(ctx.ue.port));
}

void delete_mapping(DeviceContext& ctx) {
  if (delete_port(mapped_port(ctx), mapping_attempts) == 1) run_shell("/etc/rc.d/init.d/portForwarder.sh reload");
}

bool mapping_works(DeviceContext& ctx, const char* ok_line, const char* handler, RegState again) {
  wait_while(ctx.run, settle_s);
  if (srv_connectback(&ctx) == request_ok) {
    debug_log(ok_line);
    return true;
  }
  // A test that an exit request cut short says nothing about the mapping.
  if (exit_requested(ctx)) return false;
  debug_log("%s:%d connect back failed, delete pf\n", handler, __LINE__);
  delete_mapping(ctx);
  ctx.pfok = 0;
  if (++ctx.cb_fail_count > max_cb_fails) {
    copy_text(ctx.ue.port, "0");
    again = UpnpPfFailed;
  }
  set_state(ctx, again);
  return false;
}

void clear_cycle(DeviceContext& current) {
  current.pfok = 0;
  zero(current.igd);
  zero(current.e);
  zero(current.i);
  zero(current.ue);
  // The flag first: the finder's report takes its route from both.
  store_word(current.proxy_tested, 0);
  store_text(current.proxy.ip, "");
  store_text(current.proxy.port, "");
}

void clear_results(DeviceContext& current) {
  current.cb_fail_count = 0;
  set_update_result(current, update_failed);
  current.upd.starttime = 0;
}

void start_over(DeviceContext& current) {
  *current.last = current;
  current.last->last = nullptr;
  clear_cycle(current);
  // State and result still tell of the old cycle meanwhile.
  hold_for_configuration(current);
  set_state(current, START);
  clear_results(current);
}

}  // namespace kestrel
