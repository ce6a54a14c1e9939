// The connect-back test: the service opens a connection to the camera's public address and port.
#include <cstring>

#include "core/debug_log.h"
#include "net/address.h"
#include "service/transaction.h"

namespace kestrel {

namespace {

constexpr Request connectback_request = {
    .path = "/connectbk.html",
    .challenge_uri = "/connectbk.html",
    .send_len = 2048,
    .log = &log_of_reports,
    .body_len = "ecnode bodylen=%d\n",
    .ok = "200 OK\n",
    .no_status = "reader.PacketHeader->StatusCode==NULL\n",
    .not_found = "Error:(%d)\n",
    .other_status = "Unknow Error!\n",
    .name = "srv_connectback",
    .after_send_failure = AfterSendFailure::send_result,
};

/// The address at which the service shall find the camera: the router's own, unless the router does
/// not know it or sits behind another NAT.
const char* address_to_test(const DeviceContext& dev) {
  const char* ue = dev.ue.ip;
  if (ue[0] == '\0' || std::strcmp(ue, "0.0.0.0") == 0 || std::strcmp(ue, "null") == 0) return dev.e.ip;
  if (is_private_ip(ue) == 0) {
    debug_log("  use ueip=%s:%s doing connect back test\n", ue, dev.ue.port);
    return ue;
  }
  debug_log("  use eip=%s:%s doing connect back test\n", dev.e.ip, dev.ue.port);
  return dev.e.ip;
}

}  // namespace

int srv_connectback(DeviceContext* dev) {
  debug_log("------------------------[ %s:%d ]------------------------\n", connectback_request.name, __LINE__);
  debug_log("  hid=%s\n", dev->hid);
  debug_log("  eip=%s\n", dev->e.ip);
  debug_log("  ueip=%s\n", dev->ue.ip);
  debug_log("  ueport=%s\n", dev->ue.port);
  debug_log("  timestamp=%s\n", dev->Timestamp);
  if (dev->ue.port[0] == '\0') {
    debug_log("[kestreld]: *** invalid parameters\n");
    return request_no_answer;
  }
  char text[1024];
  PostBody body = begin_body(text);
  put(body,
      "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n"
      "<ldev>\n"
      "<hid>%s</hid>\n"
      "<eip>%s</eip>\n"
      "<ueport>%s</ueport>\n"
      "<tstamp>%s</tstamp>\n"
      "</ldev>\n",
      dev->hid, address_to_test(*dev), dev->ue.port, dev->Timestamp);
  return post(*dev, connectback_request, body, dev->auth_info);
}

}  // namespace kestrel
