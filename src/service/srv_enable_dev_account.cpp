// The enable report: whether the user has the service switched on.
#include "core/debug_log.h"
#include "service/body_cipher.h"
#include "service/post_body.h"
#include "service/transaction.h"

namespace kestrel {

namespace {

LeftoverSocket leftover_socket;

constexpr ExchangeLog with_own_lines(ExchangeLog log) {
  log.body_read = "reader.Body_Read=%d\n";
  log.ok = " <-200 OK\n";
  return log;
}

constexpr Request enable_request = {
    .path = "/enable.html",
    .method = "POST",
    .challenge_uri = "/upd.html",  // not this request's path; the next send replaces it
    .send_len = 1024,
    .log = with_own_lines(log_of_reports),
    .builder_trace = "[%s:%d]\n",
    .name = "srv_enable_dev_account",
    .after_send_failure = AfterSendFailure::receive,
    .no_answer_result = request_failed,
    .other_status_result = request_failed,
    .leftover = &leftover_socket,
};

constexpr std::size_t plain_len = 1024;

}  // namespace

int srv_enable_dev_account(DeviceContext* ctx, int enable, AuthenticateInfo* auth) {
  debug_log(" ------------------------[ %s:%d ]------------------------\n", enable_request.name, __LINE__);
  debug_log(" hid=%s\n", ctx->hid);
  debug_log(" Enable=%d\n", enable);
  char text[plain_len];
  PostBody body = begin_body(text, sizeof(text));
  put(body,
      "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
      "<ldev>\n<hid>%s</hid>\n<enable>%d</enable>\n</ldev>\n",
      ctx->hid, enable);
  debug_log("%s", text);
  if (!body.fits || encipher_body(text, sizeof(text), " ecnode bodylen=%d\n") == 0) return request_failed;
  return run_exchange(*ctx, enable_request, ctx->redir_ip, text, *auth, nullptr, nullptr);
}

}  // namespace kestrel
