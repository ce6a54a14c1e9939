// IpReady, InternetReady and NATMode: the external address, and which of the paths the cycle takes.
#include <cstring>

#include "core/debug_log.h"
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

void give_up(DeviceContext& ctx) {
  auth_fail_count.ip_ready = 0;
  set_update_result(ctx, update_auth_failed);
  set_state(ctx, LumenDevNotReady);
}

void log_gateway(const MupnpIgd& igd) {
  debug_log("manufacturer=[%s]\n", igd.manufacturer);
  debug_log("manufacturer=[%s]\n", igd.manufacturerURL);  // the label repeats; it is meant
  debug_log("friendlyName=[%s]\n", igd.friendlyName);
  debug_log("modelName=[%s]\n", igd.modelName);
  debug_log("modelNumber=[%s]\n", igd.modelNumber);
  debug_log("modelDescription=[%s]\n", igd.modelDescription);
  debug_log("presentationURL=[%s]\n", igd.presentationURL);
}

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
      if (auth_fail_count.ip_ready == auth_fail_limit) return give_up(*ctx);
      ++auth_fail_count.ip_ready;
      return;
    }
    if (std::strlen(ctx->proxy.ip) < min_proxy_ip_len) return give_up(*ctx);
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
      log_gateway(ctx->igd);
      set_state(*ctx, UPnP);
      return;
    }
    set_state(*ctx, NoUPnP);
  }
}

}  // namespace kestrel
