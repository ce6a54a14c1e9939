// The enable report: whether the user has the service switched on.
#include "core/debug_log.h"
#include "service/transaction.h"

namespace kestrel {

namespace {

LeftoverSocket leftover_socket;

constexpr Request enable_request = {
    .path = "/enable.html",
    .challenge_uri = "/upd.html",  // not this request's path; the next send replaces it
    .log = &log_of_reports,
    .body_len = " ecnode bodylen=%d\n",
    .builder_trace = "[%s:%d]\n",
    .body_read_behind = "reader.Body_Read=%d\n",
    .ok = " <-200 OK\n",
    .other_status = "Error=(%d)\n",
    .name = "srv_enable_dev_account",
    .after_send_failure = AfterSendFailure::receive,
    .failure_result = request_failed,
    .leftover = &leftover_socket,
};

}  // namespace

int srv_enable_dev_account(DeviceContext* ctx, int enable, AuthenticateInfo* auth) {
  debug_log(" ------------------------[ %s:%d ]------------------------\n", enable_request.name, __LINE__);
  debug_log(" hid=%s\n", ctx->hid);
  debug_log(" Enable=%d\n", enable);
  char text[1024];
  PostBody body = begin_body(text);
  put(body,
      "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
      "<ldev>\n<hid>%s</hid>\n<enable>%d</enable>\n</ldev>\n",
      ctx->hid, enable);
  debug_log("%s", text);
  return post(*ctx, enable_request, body, *auth);
}

}  // namespace kestrel
