// The connection report: the device's first-connection record, sent when it has changed. The finder
// thread sends it, so nothing here is shared with the other requests.
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "platform/tesselcfg.h"
#include "service/body_cipher.h"
#include "service/transaction.h"

namespace kestrel {

namespace {

LeftoverSocket leftover_socket;

constexpr Request report_request = {
    .path = "/conn_report.html",
    .challenge_uri = "/conn_report.html",
    .send_len = 8192,
    .log = &log_of_reports,
    .body_len = " ecnode bodylen=%d\n",
    .ok = "200 OK\n",
    .other_status = "Error=(%d)\n",
    .name = "conn_report",
    .after_send_failure = AfterSendFailure::receive,
    .leftover = &leftover_socket,
};

struct Texts {
  char record[first_connection_len];
  char body[4096];  // digits, XML and terminator
};

}  // namespace

int conn_report(DeviceContext* ctx, AuthenticateInfo* auth, char* last_report) {
  // Not on the stack, which keeps for good what it once took. Zero, for a platform that fills nothing.
  const std::unique_ptr<Texts, HeapDeleter> texts(static_cast<Texts*>(std::calloc(1, sizeof(Texts))));
  if (texts == nullptr) return request_no_answer;
  srv_get_first_connection(texts->record);
  terminate(texts->record);
  if (std::strcmp(texts->record, last_report) == 0) return request_ok;
  PostBody body = begin_body(texts->body);
  put(body, "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<ldev>\n%s</ldev>\n", texts->record);
  if (!body.fits) {
    debug_log("[kestreld] *** first-connection record too long, not reported\n");
    return request_no_answer;
  }
  // Before anything is sent, on purpose: a report that fails is not sent again until the record changes.
  copy_text(last_report, first_connection_len, texts->record);
  debug_log("----------sz_xml_data packet----------\n");
  debug_log("%s\n", body.text);
  debug_log("----------end sz_xml_data-------------\n");
  return post(*ctx, report_request, body, *auth);
}

}  // namespace kestrel
