// The alias request, and the follow-up that records the service's verdict in the store.
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "platform/tesselcfg.h"
#include "service/transaction.h"
#include "service/xml_value.h"

namespace kestrel {

namespace {

LeftoverSocket leftover_socket;

/// This request logs what the queries log, but for the lines that it shares with the reports.
constexpr ExchangeLog log_of_alias = [] {
  ExchangeLog log = log_of_reports;
  log.buffer_length = log_of_queries.buffer_length;
  log.send_buffer = "%s\n";
  log.portnum = log_of_queries.portnum;
  log.sent = log_of_queries.sent;
  log.body_read = log_of_queries.body_read;
  log.body = log_of_queries.body;
  return log;
}();

void read_verdict(DeviceContext& /*ctx*/, const char* plain, void* sink) {
  auto* verdict = static_cast<char*>(sink);
  debug_log("\ndecodestr:\n  %s\n\n", plain);
  if (get_xml_value(plain, "ahret", 5, verdict, verdict_len) == 0 || verdict[0] == '\0') return;
  debug_log("==>[ahret] %c\n", verdict[0]);
}

constexpr Request alias_request = {
    .path = "/alias.html",
    .challenge_uri = "/alias.html",
    .log = &log_of_alias,
    .body_len = "ecnode bodylen=%d\n",
    .ok = "200 OK\n",
    .not_found = "Error:(%d)\n",
    .name = "srv_alias",
    .leftover = &leftover_socket,
    .read_answer = read_verdict,
};

constexpr int follow_up_attempts = 10;
constexpr std::size_t alias_len = 32;

/// Stores what the service decided. Returns 0 when it took the alias, -1 otherwise.
int store_verdict(char verdict, char* alias) {
  if (verdict == '0') {
    debug_log("(0)alias change ok.\n");
    if (srv_update_aliasname_status(alias, ALIAS_OK) == 0) {
      debug_log("[kestreld] *** srv_update_aliasname_status failed\n");
    }
    return 0;
  }
  if (verdict == '2') {
    debug_log("(2)alias duplicated.\n");
    if (srv_set_skyport_alias_status(ALIAS_DUPLICATE) == 0) {
      debug_log("[kestreld] *** srv_set_skyport_alias_status ALIAS_DUPLICATE failed!\n");
    }
    return -1;
  }
  if (verdict == '1') {
    debug_log("(1)Unknown error.\n");
  } else if (verdict != '\0') {  // an answer without a verdict has no character to log
    debug_log("(%c)Unknown error.\n", verdict);
  }
  if (srv_set_skyport_alias_status(ALIAS_FAILED) == 0) {
    debug_log("[kestreld] *** srv_set_skyport_alias_status ALIAS_FAILED failed!\n");
  }
  return -1;
}

}  // namespace

int srv_alias(DeviceContext* ctx, const char* alias, char* verdict) {
  debug_log("------------------------[ %s:%d ]------------------------\n", alias_request.name, __LINE__);
  debug_log(" auth_info->on=%d\n", static_cast<int>(ctx->auth_info.on));
  char text[1024];
  PostBody body = begin_body(text);
  put(body,
      "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
      "<ldev>\n<hid>%s</hid>\n<redirip>%s</redirip>\n<ah>%s</ah>\n</ldev>\n",
      ctx->hid, ctx->redir_ip, alias);
  debug_log("%s\n", text);
  return post(*ctx, alias_request, body, ctx->auth_info, verdict);
}

int alias_follow_up() {
  char alias[64] = "";  // 32 bytes are meant; finder and store allow up to 64
  char status = 0;
  if (srv_get_aliasname_status(alias, &status) == 0) debug_log("[kestreld] *** srv_get_aliasname_status error\n");
  alias[alias_len - 1] = '\0';
  if ((status & ALIAS_REQUESTED) == 0) {
    debug_log("keep original URL\n");
    return -1;
  }
  debug_log("update alias URL\n");
  char verdict[verdict_len] = "";
  for (int i = 0; i < follow_up_attempts && (i == 0 || !exit_requested()); ++i) {
    if (srv_alias(&current_record, alias, verdict) == request_ok) {
      debug_log("server alias return success.\n");
      return store_verdict(verdict[0], alias);
    }
    debug_log("server alias return fail.\n");
  }
  return -1;
}

}  // namespace kestrel
