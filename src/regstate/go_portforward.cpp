// UPnP to NAT1: the router's address, a mapping, and the proof from outside that it works.
#include <cstdlib>
#include <cstring>

#include "core/debug_log.h"
#include "core/wait.h"
#include "net/address.h"
#include "platform/upnpc.h"
#include "regstate/handlers.h"
#include "regstate/steps.h"
#include "service/requests.h"
#include "upnp/port_mapping.h"

namespace kestrel {

namespace {

constexpr int address_attempts = 2;

int obtain_mapping(DeviceContext& ctx) {
  const auto internal_port = static_cast<std::uint16_t>(std::atoi(ctx.i.port));
  const int result = UPF(ctx.uid, internal_port, ctx.ue.port, &ctx.dev_reload);
  if (result != upf_stopped) ctx.pfok = result == upf_mapped ? 1 : 0;
  return result;
}

/// Where UPnP_B and NAT1 go with the strategy's result.
RegState after_mapping(int result, RegState mapped) {
  if (result == upf_mapped) return mapped;
  return result == upf_stopped ? START : UpnpPfFailed;
}

}  // namespace

void go_UPnP(DeviceContext* ctx) {
  debug_log("***[UPnP]***\n");
  for (int attempt = 0; attempt < address_attempts; ++attempt) {
    const int result = get_router_address(ctx->ue.ip);
    debug_log("upnpcp_get_eip ret=%d\n", result);
    set_state(*ctx, result == 0 ? UPnP_A : UPnP_B);
    if (result == 0 || result == MUPNP_NONE || exit_requested(*ctx)) return;
  }
}

void go_UPnP_A(DeviceContext* ctx) {
  debug_log("***[UPnP_A.]***\n");
  const char* ue = ctx->ue.ip;
  if (ue[0] == '\0' || std::strcmp(ue, "0.0.0.0") == 0 || std::strcmp(ue, "null") == 0) {
    set_state(*ctx, UPnP_B);
  } else if (std::strcmp(ue, ctx->e.ip) == 0 || is_private_ip(ue) == 0) {
    set_state(*ctx, NAT1);
  } else {
    // The router itself sits behind another NAT.
    set_state(*ctx, NATM);
  }
}

void go_UPnP_B(DeviceContext* ctx) {
  debug_log("***[UPnP_B.]***\n");
  const int result = obtain_mapping(*ctx);
  if (result == upf_mapped) {
    debug_log("! port forward ok\n");
  } else if (result != upf_stopped) {
    debug_log("! port forward failed\n");
  }
  set_state(*ctx, after_mapping(result, NATU));
}

void go_NATU(DeviceContext* ctx) {
  debug_log("***[NATU.]***\n");
  wait_while(ctx->run, settle_s);
  if (srv_connectback(ctx) == request_ok) {
    debug_log("connect back test ok\n");
    std::memcpy(ctx->ue.ip, ctx->e.ip, sizeof(ctx->ue.ip));
    set_state(*ctx, UpnpPfReady);
    return;
  }
  // A test that an exit request cut short says nothing about the mapping.
  if (exit_requested(*ctx)) return;
  debug_log("%s:%d connect back failed, delete pf\n", "go_NATU", __LINE__);
  set_state(*ctx, give_up_mapping(*ctx) ? UpnpPfFailed : UPnP_B);
}

void go_NAT1(DeviceContext* ctx) {
  debug_log("***[NAT1]***\n");
  if (ctx->pfok == 1) {
    debug_log("Mapping already exist!, jump to next!\n");
    set_state(*ctx, UpnpPfReady);
    return;
  }
  // Without the test that NATU makes: UpnpPfReady makes it.
  set_state(*ctx, after_mapping(obtain_mapping(*ctx), UpnpPfReady));
}

}  // namespace kestrel
