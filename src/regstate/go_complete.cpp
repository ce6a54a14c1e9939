// LumenDevPartDone, LumenDevDone and LumenDevNotReady: the ends of a cycle, their waits, and the keep-alive.
#include "core/debug_log.h"
#include "core/wait.h"
#include "platform/sptcontrol.h"
#include "regstate/handlers.h"
#include "regstate/steps.h"
#include "service/requests.h"

namespace kestrel {

namespace {

constexpr int off_line = 0;
constexpr int on_line = 1;

constexpr unsigned cycle_s = 300;
constexpr unsigned cycle_after_auth_failure_s = 60;
constexpr unsigned keep_alive_s = 230;  // below the idle time after which common routers drop a mapping
constexpr unsigned connect_back_pause_s = 1;
constexpr int connect_back_retries = 9;         // 9 s in all
constexpr int connect_back_silent_retries = 2;  // of them without an answer

void wait_and_start_over(DeviceContext& ctx, unsigned seconds) {
  debug_log("wait (%d)secs to start over!\n", static_cast<int>(seconds));
  wait_while(ctx.run, seconds);
  start_over(ctx);
}

/// A challenge came: tests again with credentials, and for a while more. Returns the latest result.
int connect_back_with_credentials(DeviceContext& ctx) {
  debug_log("Connect back need authentication!\n");
  int result = srv_connectback(&ctx);
  for (int retry = 1; retry <= connect_back_retries; ++retry) {
    wait_while(ctx.run, connect_back_pause_s);
    if (exit_requested(ctx)) break;
    if (result == request_no_answer && retry > connect_back_silent_retries) break;
    if (result != request_challenged && result != request_no_answer) {
      // Any other status ends the repeats with this line too, although only 1 counts as reached.
      debug_log("Retry Connect back ok!\n");
      break;
    }
    debug_log("Retry connect back #%d!\n", retry);
    result = srv_connectback(&ctx);
  }
  return result;
}

bool still_reachable(DeviceContext& ctx) {
  int result = srv_connectback(&ctx);
  if (result == request_challenged && !exit_requested(ctx)) result = connect_back_with_credentials(ctx);
  if (result == request_ok) {
    debug_log("Connect back ok!\n");
    return true;
  }
  // A test that an exit request cut short says nothing about the mapping.
  if (!exit_requested(ctx)) {
    debug_log("%s:%d connect back failed, delete pf & start over! \n", "go_LumenDevDone", __LINE__);
    delete_mapping(ctx);
  }
  return false;
}

bool reload_requested(DeviceContext& ctx) {
  if (load_word(ctx.dev_reload) != 1) return false;
  debug_log("%s:%d LumenDevDone go to reload, delete pf port=%d\n", "go_LumenDevDone", __LINE__, mapped_port(ctx));
  delete_mapping(ctx);
  start_over(ctx);
  return true;
}

/// Until the mapping stops working, the user switches the service off, or a signal comes.
void keep_alive(DeviceContext& ctx) {
  // An exit request lets the turn end and does not begin another, whose waits would be skipped.
  do {
    const int enabled = read_enable_switch(ctx);
    if (enabled == 0) {
      report_enable_up_to_3(ctx, enabled);
      return set_state(ctx, LumenDevNotReady);
    }
    debug_log("wait (%d)secs to connect back!\n", static_cast<int>(keep_alive_s));
    wait_while(ctx.run, keep_alive_s);
    if (reload_requested(ctx)) return;
    if (exit_requested(ctx) || !still_reachable(ctx)) break;
    ctx.auth_info.on = 0;
    if (reload_requested(ctx)) return;
  } while (!exit_requested(ctx));
  ctx.auth_info.on = 0;
  start_over(ctx);
}

}  // namespace

void go_LumenDevPartDone(DeviceContext* ctx) {
  SetSptOnLineStatus(on_line);
  debug_log("***[LumenDevPartDone]***\n");
  wait_and_start_over(*ctx, cycle_s);
}

void go_LumenDevNotReady(DeviceContext* ctx) {
  SetSptOnLineStatus(off_line);
  debug_log("***[LumenDevNotReady]***\n");
  debug_log("%d\n", static_cast<int>(ctx->upd.resut));
  ctx->IsNeedQueryDAIP = 1;
  wait_and_start_over(*ctx, ctx->upd.resut == update_auth_failed ? cycle_after_auth_failure_s : cycle_s);
}

void go_LumenDevDone(DeviceContext* ctx) {
  SetSptOnLineStatus(on_line);
  debug_log("***[LumenDevDone]***\n");
  if (ctx->prefinal_state == UpnpPfReady) {
    keep_alive(*ctx);
  } else {
    wait_and_start_over(*ctx, cycle_s);
  }
}

}  // namespace kestrel
