// The connection report: the device's first-connection record, sent when it has changed. The finder
// thread sends it, so nothing here is shared with the other requests.
#include <cstdlib>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "platform/tesselcfg.h"
#include "service/transaction.h"

namespace kestrel {

namespace {

LeftoverSocket leftover_socket;

constexpr Request report_request = {
    .path = "/conn_report.html",
    .method = "POST",
    .challenge_uri = "/conn_report.html",
    .send_len = 8192,
    .log = &log_of_reports,
    .body_len = " ecnode bodylen=%d\n",
    .ok = "200 OK\n",
    .not_found = "Error=(%d)\n",
    .other_status = "Error=(%d)\n",
    .name = "conn_report",
    .after_send_failure = AfterSendFailure::receive,
    .leftover = &leftover_socket,
};

constexpr std::size_t plain_len = 4096;   // digits, XML and terminator
constexpr std::size_t base64_len = 5632;  // 4 * (4096 + 8) / 3, and room

int report(DeviceContext* ctx, AuthenticateInfo* auth, char* last_report, char (&record)[first_connection_len],
           char (&text)[base64_len]) {
  zero(record);
  srv_get_first_connection(record);
  terminate(record);
  if (std::strcmp(record, last_report) == 0) return request_ok;
  PostBody body = begin_body(text, plain_len);
  put(body, "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<ldev>\n%s</ldev>\n", record);
  if (!body.fits) {
    debug_log("[kestreld] *** first-connection record too long, not reported\n");
    return request_no_answer;
  }
  // Before anything is sent, on purpose: a report that fails is not sent again until the record changes.
  copy_text(last_report, first_connection_len, record);
  debug_log("----------sz_xml_data packet----------\n");
  debug_log("%s\n", text);
  debug_log("----------end sz_xml_data-------------\n");
  return post(*ctx, report_request, body, *auth);
}

}  // namespace

int conn_report(DeviceContext* ctx, AuthenticateInfo* auth, char* last_report) {
  struct Texts {
    char record[first_connection_len];
    char text[base64_len];
  };
  // Not on the stack, which keeps for good what it once took.
  auto* texts = static_cast<Texts*>(std::malloc(sizeof(Texts)));
  if (texts == nullptr) return request_no_answer;
  const int result = report(ctx, auth, last_report, texts->record, texts->text);
  std::free(texts);
  return result;
}

}  // namespace kestrel
