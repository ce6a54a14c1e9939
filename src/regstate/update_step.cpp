// PublicMode, NoUPnP, NATM and UpnpPfFailed: the states that end a cycle by the update step, which is
// defaults, decision, device update and counters, with a row of particulars for each.
#include <array>

#include "core/debug_log.h"
#include "regstate/auth_fail_count.h"
#include "regstate/handlers.h"
#include "regstate/need_update.h"
#include "regstate/state_table.h"
#include "service/requests.h"

namespace kestrel {

namespace {

/// What the states differ in. The texts' blanks and exclamation marks are theirs.
struct Particulars {
  RegState state;
  const char* header;
  const char* need_line;
  const char* bypass_line;
  RegState success;
  RegState retry;  // after a tolerated authentication failure
  std::uint32_t auth_limit;
  std::uint32_t AuthFailCounts::*count;
};

enum Row { public_mode, no_upnp, natm, upnp_pf_failed };

constexpr std::array<Particulars, 4> update_steps = {{
    {PublicMode, "***[PublicMode]***\n", " ==>Need update!\n", " ==>!BYPASS update!\n", LumenDevDone, IpReady,
     auth_fail_limit, &AuthFailCounts::public_mode},
    {NoUPnP, "***[NoUPnP]***\n", " ==>!Need update!\n", " ==>!BYPASS update!\n", LumenDevPartDone, NoUPnP,
     auth_fail_limit, &AuthFailCounts::no_upnp},
    {NATM, "***[NATM]***\n", " ==>!Need update!\n", " ==>!BYPASS update!\n", LumenDevPartDone, NATM,
     auth_fail_limit_natm, &AuthFailCounts::natm},
    {UpnpPfFailed, "***[UpnpPfFailed]***\n", " ==>!Need update!\n", "==>!BYPASS update!\n", LumenDevPartDone,
     UpnpPfFailed, auth_fail_limit, &AuthFailCounts::upnp_pf_failed},
}};
static_assert(update_steps[public_mode].state == PublicMode && update_steps[no_upnp].state == NoUPnP &&
              update_steps[natm].state == NATM && update_steps[upnp_pf_failed].state == UpnpPfFailed);

void update_step(DeviceContext& ctx, const Particulars& step) {
  debug_log(step.header);
  fill_defaults(ctx);
  store_word(ctx.prefinal_state, step.state);
  if (need_update(ctx) == 0) {
    debug_log(step.bypass_line);
    set_update_result(ctx, update_bypassed);
    set_state(ctx, step.success);
    return;
  }
  debug_log(step.need_line);
  std::uint32_t& count = auth_fail_count.*step.count;
  const int result = srv_update(&ctx, &ctx.update_word, &ctx.auth_info);
  if (result == request_challenged && count != step.auth_limit) {
    ++count;
    set_state(ctx, step.retry);
    return;
  }
  count = 0;
  if (result == request_ok) {
    set_update_result(ctx, update_done);
    set_state(ctx, step.success);
  } else {
    set_update_result(ctx, result == request_challenged ? update_auth_failed : update_failed);
    set_state(ctx, LumenDevNotReady);
  }
}

}  // namespace

void go_PublicMode(DeviceContext* ctx) {
  // The camera is its own external end.
  ctx->ue = ctx->i;
  update_step(*ctx, update_steps[public_mode]);
}

void go_NoUPnP(DeviceContext* ctx) {
  update_step(*ctx, update_steps[no_upnp]);
}

void go_NATM(DeviceContext* ctx) {
  update_step(*ctx, update_steps[natm]);
}

void go_UpnpPfFailed(DeviceContext* ctx) {
  update_step(*ctx, update_steps[upnp_pf_failed]);
}

}  // namespace kestrel
