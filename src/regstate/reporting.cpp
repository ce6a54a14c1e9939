// PublicMode, NoUPnP, NATM, UpnpPfReady and UpnpPfFailed: the states that end a cycle by a report to the service,
// in one way, with a row of particulars for each.
#include <algorithm>
#include <array>

#include "core/debug_log.h"
#include "core/gateway_texts.h"
#include "core/text.h"
#include "regstate/auth_fail_count.h"
#include "regstate/handlers.h"
#include "regstate/need_update.h"
#include "regstate/steps.h"
#include "service/requests.h"

namespace kestrel {

namespace {

/// What becomes of the mapping: nothing, or it is tested before the report and deleted when that fails.
enum class Mapping { none, tested };

/// What the states differ in. The texts' blanks and exclamation marks are theirs.
struct Reporting {
  RegState state;
  LogFormat<> header;
  LogFormat<> need_line;
  LogFormat<> bypass_line;
  RegState success;
  RegState retry;            // after a tolerated challenge
  std::uint32_t auth_limit;  // challenges tolerated
  std::uint32_t AuthFailCounts::*count;
  Mapping mapping;
};

constexpr std::array<Reporting, 5> reportings = {{
    {PublicMode, "***[PublicMode]***\n", " ==>Need update!\n", " ==>!BYPASS update!\n", LumenDevDone, IpReady,
     auth_fail_limit, &AuthFailCounts::public_mode, Mapping::none},
    {NoUPnP, "***[NoUPnP]***\n", " ==>!Need update!\n", " ==>!BYPASS update!\n", LumenDevPartDone, NoUPnP,
     auth_fail_limit, &AuthFailCounts::no_upnp, Mapping::none},
    {NATM, "***[NATM]***\n", " ==>!Need update!\n", " ==>!BYPASS update!\n", LumenDevPartDone, NATM,
     auth_fail_limit_natm, &AuthFailCounts::natm, Mapping::none},
    {UpnpPfReady, "***[UpnpPfReady]***\n", " ==>!Need update!\n", "==>!BYPASS update!\n", LumenDevDone, UpnpPfReady,
     auth_fail_limit, &AuthFailCounts::upnp_pf_ready, Mapping::tested},
    {UpnpPfFailed, "***[UpnpPfFailed]***\n", " ==>!Need update!\n", "==>!BYPASS update!\n", LumenDevPartDone,
     UpnpPfFailed, auth_fail_limit, &AuthFailCounts::upnp_pf_failed, Mapping::none},
}};

void fill_empty(char* text, std::size_t size, const char* value) {
  if (text[0] == '\0') copy_text(text, size, value);
}

/// A mapping that the service does not know serves nobody.
void delete_unreported(DeviceContext& ctx, int result) {
  if (result == request_challenged) {
    debug_log("%s:%d UpnpPfReady: srv_update reach AUTH_FAIL_COUNT, delete pf port=%d\n", "go_UpnpPfReady", __LINE__,
              mapped_port(ctx));
  } else {
    debug_log("%s:%d UpnpPfReady srv_update failed, delete pf port=%d\n", "go_UpnpPfReady", __LINE__, mapped_port(ctx));
  }
  delete_mapping(ctx);
}

void end_cycle(DeviceContext& ctx, UpdateResult result, RegState next) {
  set_update_result(ctx, result);
  set_state(ctx, next);
}

void report(DeviceContext& ctx, RegState state) {
  const Reporting& row = *std::ranges::find(reportings, state, &Reporting::state);
  log_if(row.header);
  fill_defaults(ctx);
  store_word(ctx.prefinal_state, state);
  if (row.mapping == Mapping::tested && !mapping_works(ctx, " connect back test ok\n", "go_UpnpPfReady", NAT1)) return;
  if (need_update(ctx) == 0) {
    log_if(row.bypass_line);
    return end_cycle(ctx, update_bypassed, row.success);
  }
  log_if(row.need_line);
  std::uint32_t& count = auth_fail_count.*row.count;
  const int result = srv_update(&ctx, &ctx.update_word, &ctx.auth_info);
  if (result == request_challenged && tolerated(count, row.auth_limit)) return set_state(ctx, row.retry);
  count = 0;
  if (result == request_ok) return end_cycle(ctx, update_done, row.success);
  if (row.mapping == Mapping::tested && !exit_requested(ctx)) delete_unreported(ctx, result);
  end_cycle(ctx, result == request_challenged ? update_auth_failed : update_failed, LumenDevNotReady);
}

}  // namespace

void fill_defaults(DeviceContext& ctx) {
  fill_empty(ctx.ue.ip, sizeof(ctx.ue.ip), "null");
  fill_empty(ctx.ue.port, sizeof(ctx.ue.port), "0");
  for (const GatewayText& text : gateway_texts) fill_empty(gateway_text(ctx.igd, text), text.size, "n/a");
}

void go_PublicMode(DeviceContext* ctx) {
  // The camera is its own external end.
  ctx->ue = ctx->i;
  report(*ctx, PublicMode);
}

void go_NoUPnP(DeviceContext* ctx) {
  report(*ctx, NoUPnP);
}

void go_NATM(DeviceContext* ctx) {
  report(*ctx, NATM);
}

void go_UpnpPfReady(DeviceContext* ctx) {
  report(*ctx, UpnpPfReady);
}

void go_UpnpPfFailed(DeviceContext* ctx) {
  report(*ctx, UpnpPfFailed);
}

}  // namespace kestrel
