// The data-server query: which access server serves this device.
#include "core/debug_log.h"
#include "service/transaction.h"
#include "service/xml_value.h"

namespace kestrel {

namespace {

constexpr Request daip_request = {
    .path = "/daip.html",
    .method = "GET",
    .challenge_uri = "/ext.html",  // the address query's, as the service's protocol has it
    .send_len = 1024,
    .log = &log_of_queries,
    .body_read = " Body_Read=%d\n",
    .ok = " <-200 OK receiced!\n",
    .name = "srv_get_daip",
};

void read_daip(DeviceContext& ctx, const char* plain, void* /*sink*/) {
  debug_log(" decodestr:\n%s\n", plain);
  get_xml_value(plain, "da_eip", 6, ctx.da_ip, sizeof(ctx.da_ip));
  debug_log(" ==> Physical DA eip: %s\n", ctx.da_ip);
}

}  // namespace

int srv_get_daip(DeviceContext* ctx) {
  debug_log(" ------------------------[ %s:%d ]------------------------\n", daip_request.name, __LINE__);
  return run_exchange(*ctx, daip_request, ctx->redir_ip, nullptr, ctx->auth_info, read_daip, nullptr);
}

}  // namespace kestrel
