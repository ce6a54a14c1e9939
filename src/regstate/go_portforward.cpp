// UPnP to NAT1: the router's address, a mapping, and the proof from outside that it works.
#include <cstdlib>
#include <cstring>

#include "core/debug_log.h"
#include "net/address.h"
#include "platform/upnpc.h"
#include "regstate/handlers.h"
#include "regstate/steps.h"
#include "upnp/port_mapping.h"

namespace kestrel {

namespace {

constexpr int address_attempts = 2;

/// Has a port mapped, and writes the next state: `mapped` when that worked. Returns UPF's result.
int obtain_mapping(DeviceContext& ctx, RegState mapped) {
  const auto internal_port = static_cast<std::uint16_t>(std::atoi(ctx.i.port));
  const int result = UPF(ctx.uid, internal_port, ctx.ue.port, &ctx.dev_reload);
  if (result == upf_stopped) {
    set_state(ctx, START);
  } else {
    ctx.pfok = result == upf_mapped ? 1 : 0;
    set_state(ctx, result == upf_mapped ? mapped : UpnpPfFailed);
  }
  return result;
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
  const int result = obtain_mapping(*ctx, NATU);
  if (result == upf_stopped) return;
  debug_log(result == upf_mapped ? "! port forward ok\n" : "! port forward failed\n");
}

void go_NATU(DeviceContext* ctx) {
  debug_log("***[NATU.]***\n");
  if (!mapping_works(*ctx, "connect back test ok\n", "go_NATU", UPnP_B)) return;
  std::memcpy(ctx->ue.ip, ctx->e.ip, sizeof(ctx->ue.ip));
  set_state(*ctx, UpnpPfReady);
}

void go_NAT1(DeviceContext* ctx) {
  debug_log("***[NAT1]***\n");
  if (ctx->pfok == 1) {
    debug_log("Mapping already exist!, jump to next!\n");
    set_state(*ctx, UpnpPfReady);
    return;
  }
  // Without the test that NATU makes: UpnpPfReady makes it.
  static_cast<void>(obtain_mapping(*ctx, UpnpPfReady));
}

}  // namespace kestrel
