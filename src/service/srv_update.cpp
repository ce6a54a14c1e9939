// The device update: identity, versions, network and reachability of the camera.
#include <cstring>

#include "core/debug_log.h"
#include "core/gateway_texts.h"
#include "core/text.h"
#include "net/address.h"
#include "platform/tesselcfg.h"
#include "service/transaction.h"

namespace kestrel {

namespace {

LeftoverSocket leftover_socket;

constexpr Request update_request = {
    .path = "/iupd.html",
    .challenge_uri = "/iupd.html",
    .send_len = 2048,
    .log = &log_of_reports,
    .body_len = "ecnode bodylen=%d\n",
    .ok = "200 OK\n",
    .other_status = "Error=(%d)\n",
    .name = "srv_update",
    .after_send_failure = AfterSendFailure::receive,
    .leftover = &leftover_socket,
};

constexpr int device_type = 1;
constexpr int channel_count = 1;
constexpr int channel_number = 1;
constexpr char service_type[] = "HTTP";

/// What the platform adds to the record for a report.
struct Particulars {
  ACT_IF_INFO present;  // its MAC is the camera's
  char model[64];
  char firmware[32];
  char client[32];
  char channel[uid_len + 16];
  const char* protocol;
};

Particulars gather(const DeviceContext& dev) {
  Particulars out{};
  format_text(out.channel, sizeof(out.channel), "%s-1.2-%s", dev.uid, dev.ue.port);
  dev_get_model_name(out.model, sizeof(out.model));
  dev_get_firmware_version(out.firmware, sizeof(out.firmware));
  dev_get_spt_version(out.client, sizeof(out.client));
  terminate(out.model);
  terminate(out.firmware);
  terminate(out.client);
  out.protocol = through_relay(dev) ? "TP" : "T";
  static_cast<void>(first_iface(tessel_get_present_iface, out.present));
  return out;
}

void log_values(const DeviceContext& dev, const Particulars& p) {
  debug_log("  srv_update()\n");
  debug_log("  hid=%s\n", dev.hid);
  debug_log("  mac=%s\n", p.present.mac);
  debug_log("  ptype=%d\n", device_type);
  debug_log("  model=%s\n", p.model);
  debug_log("  FirmwareVersion=%s\n", p.firmware);
  debug_log("  SkyportVersion=%s\n", p.client);
  debug_log("  chname=%s\n", p.channel);
  debug_log("  oif=%s\n", dev.active_if.name);
  debug_log("  netmask=%s\n", dev.active_if.mask);
  debug_log("  gateway=%s\n", dev.active_if.gw);
  debug_log("  eip=%s\n", dev.e.ip);
  debug_log("  eport=%s\n", dev.e.port);
  debug_log("  ueip=%s\n", dev.ue.ip);
  debug_log("  ueport=%s\n", dev.ue.port);
  debug_log("  iip=%s\n", dev.i.ip);
  debug_log("  iport=%s\n", dev.i.port);
  for (const GatewayText& text : gateway_texts) log_if(text.update_line, gateway_text(dev.igd, text));
  debug_log("  tstamp=%s\n", dev.Timestamp);
}

void write_update(PostBody& body, const DeviceContext& dev, const Particulars& p) {
  put(body, "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n");
  put(body, "<ldev>\n");
  put(body, "<dev>\n");
  put(body, "<hid>%s</hid>\n", dev.hid);
  put(body, "<mac>%s</mac>\n", p.present.mac);
  put(body, "<ptype>%d</ptype>\n", device_type);
  put(body, "<model>%s</model>\n", p.model);
  put(body, "<ver>%s</ver>\n", p.firmware);
  put(body, "<sptver>%s</sptver>\n", p.client);
  put(body, "<oif>%s</oif>\n", dev.active_if.name);
  put(body, "<mask>%s</mask>\n", dev.active_if.mask);
  put(body, "<gw>%s</gw>\n", dev.active_if.gw);
  put(body, "<eip>%s</eip>\n", dev.e.ip);
  put(body, "<ueip>%s</ueip>\n", dev.ue.ip);
  put(body, "<iip>%s</iip>\n", dev.i.ip);
  put(body, "<tch>%d</tch>\n", channel_count);
  put(body, "<tstamp>%s</tstamp>\n", dev.Timestamp);
  put(body, "</dev>\n");
  put(body, "<ch>\n");
  put(body, "<chno>%d</chno>\n", channel_number);
  put(body, "<name>%s</name>\n", p.channel);
  put(body, "<prot>%s</prot>\n", p.protocol);
  put(body, "<stype>%s</stype>\n", service_type);
  put(body, "<eport>%s</eport>\n", dev.e.port);
  put(body, "<ueport>%s</ueport>\n", dev.ue.port);
  put(body, "<iport>%s</iport>\n", dev.i.port);
  put(body, "<st>%d</st>\n", static_cast<int>(load_word(dev.state)));
  put(body, "</ch>\n");
  put(body, "</ldev>\n");
}

}  // namespace

int srv_update(DeviceContext* dev, unsigned* /*word*/, AuthenticateInfo* info) {
  debug_log("------------------------[ %s:%d ]------------------------\n", update_request.name, __LINE__);
  const Particulars particulars = gather(*dev);
  log_values(*dev, particulars);
  char text[2048];
  PostBody body = begin_body(text);
  write_update(body, *dev, particulars);
  debug_log("----------sz_xml_data packet----------\n");
  debug_log("%s\n", text);
  debug_log("----------end sz_xml_data-------------\n");
  return post(*dev, update_request, body, *info);
}

}  // namespace kestrel
