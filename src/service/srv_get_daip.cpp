// The data-server query: which access server serves this device.
#include "core/debug_log.h"
#include "service/transaction.h"
#include "service/xml_value.h"

namespace kestrel {

namespace {

void read_daip(DeviceContext& ctx, const char* plain, void* /*sink*/) {
  debug_log(" decodestr:\n%s\n", plain);
  get_xml_value(plain, "da_eip", 6, ctx.da_ip, sizeof(ctx.da_ip));
  debug_log(" ==> Physical DA eip: %s\n", ctx.da_ip);
}

constexpr Request daip_request = {
    .path = "/daip.html",
    .challenge_uri = "/ext.html",  // the address query's, as the service's protocol has it
    .log = &log_of_queries,
    .ok = " <-200 OK receiced!\n",
    .name = "srv_get_daip",
    .read_answer = read_daip,
};

}  // namespace

int srv_get_daip(DeviceContext* ctx) {
  debug_log(" ------------------------[ %s:%d ]------------------------\n", daip_request.name, __LINE__);
  return run_exchange(*ctx, daip_request, ctx->redir_ip, "", ctx->auth_info);
}

}  // namespace kestrel
