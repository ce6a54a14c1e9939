// The external-address query: from which public address and port the service sees the camera.
#include "core/debug_log.h"
#include "service/transaction.h"
#include "service/xml_value.h"

namespace kestrel {

namespace {

void read_eip(DeviceContext& ctx, const char* plain, void* /*sink*/) {
  get_xml_value(plain, "ext_ip", 6, ctx.e.ip, sizeof(ctx.e.ip));
  get_xml_value(plain, "ext_port", 8, ctx.e.port, sizeof(ctx.e.port));
  debug_log(" ==>[eip:eport] %s:%s\n", ctx.e.ip, ctx.e.port);
}

constexpr Request eip_request = {
    .path = "/ext.html",
    .challenge_uri = "/ext.html",
    .log = &log_of_queries,
    .connect_to = " connect to %s:%d\n",
    .ok = "<-200 OK receiced!\n",
    .name = "srv_get_eip",
    .read_answer = read_eip,
};

}  // namespace

int srv_get_eip(DeviceContext* ctx) {
  debug_log(" ------------------------[ %s:%d ]------------------------\n", eip_request.name, __LINE__);
  return run_exchange(*ctx, eip_request, ctx->da_ip, "", ctx->auth_info);
}

}  // namespace kestrel
