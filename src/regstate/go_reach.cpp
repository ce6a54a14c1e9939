// IpReady, InternetReady and NATMode: the external address, and which of the paths the cycle takes.
#include <cstring>

#include "core/debug_log.h"
#include "core/gateway_texts.h"
#include "core/wait.h"
#include "net/address.h"
#include "platform/upnpc.h"
#include "regstate/auth_fail_count.h"
#include "regstate/handlers.h"
#include "regstate/state_init.h"
#include "regstate/steps.h"
#include "service/requests.h"
#include "upnp/port_mapping.h"

namespace kestrel {

namespace {

constexpr int attempts = 2;
constexpr unsigned undecided_pause_s = 10;

}  // namespace

void go_IpReady(DeviceContext* ctx) {
  debug_log("***[IpReady]***\n");
  store_word(ctx->prefinal_state, IpReady);
  for (int attempt = 0; attempt < attempts; ++attempt) {
    const int result = srv_get_eip(ctx);
    if (result == request_ok) {
      auth_fail_count.ip_ready = 0;
      set_state(*ctx, InternetReady);
      return;
    }
    if (result == request_challenged) {
      if (!tolerated(auth_fail_count.ip_ready, auth_fail_limit)) give_up(*ctx, auth_fail_count.ip_ready);
      return;
    }
    if (std::strlen(ctx->proxy.ip) < min_proxy_ip_len) return give_up(*ctx, auth_fail_count.ip_ready);
    if (exit_requested(*ctx)) return;
    debug_log("[kestreld]: Test proxy srv.........\n");
    store_word(ctx->proxy_tested, 1);
  }
  // Neither route decided. This state runs again; refused connections would have it spin.
  wait_while(ctx->run, undecided_pause_s);
}

void go_InternetReady(DeviceContext* ctx) {
  debug_log("***[InternetReady]***\n");
  if (std::strcmp(ctx->e.ip, ctx->i.ip) == 0) {
    set_state(*ctx, PublicMode);
  } else if (is_private_ip(ctx->i.ip) != 0) {
    debug_log("  diff eip, private iip\n");
    set_state(*ctx, NATMode);
  } else {
    debug_log("  diff eip, public iip\n");
    set_state(*ctx, PublicMode);
  }
}

void go_NATMode(DeviceContext* ctx) {
  debug_log("***[NATMode]***\n");
  debug_log("***[UPnP]***\n");
  for (int attempt = 0; attempt < attempts; ++attempt) {
    if (load_word(ctx->dev_reload) != 0) {
      set_state(*ctx, START);
      return;
    }
    if (upnp_found_at_init != 0) {
      upnp_found_at_init = 0;
      set_state(*ctx, UPnP);
      return;
    }
    if (find_gateway(&ctx->igd) == 0) {
      for (const GatewayText& text : gateway_texts) log_if(text.found_line, gateway_text(ctx->igd, text));
      set_state(*ctx, UPnP);
      return;
    }
    set_state(*ctx, NoUPnP);
    if (exit_requested(*ctx)) return;
  }
}

}  // namespace kestrel
