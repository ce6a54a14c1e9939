// The two surveys: what the camera tells of itself to whoever asks. Their fields follow each other as they stand in
// the payload.
#include <sys/time.h>

#include <ctime>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/operations.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

constexpr int name_len = 64;
constexpr int model_len = 32;
constexpr int version_len = 32;
constexpr std::size_t timezone_len = 2;
constexpr std::size_t time_len = 15;  // 14 digits and the terminator

std::uint16_t http_port() {
  int port = 0;
  // Its result is not looked at: what it left at 0 is not known.
  net_get_http_srv_port(&port);
  return static_cast<std::uint16_t>(port);
}

std::uint16_t product_type_code() {
  constexpr std::uint8_t unknown = 0xFF;
  const std::uint8_t type = byte_setting(dev_get_product_type, unknown);
  return type <= 1 ? static_cast<std::uint16_t>(type + 1) : 0;
}

}  // namespace

int Finderd_get_time(char* out) {
  if (out == nullptr) return 0;
  timeval now{};
  if (gettimeofday(&now, nullptr) != 0) {
    print_error("gettimeofday");
    return 0;
  }
  static time_t second = -1;
  static char text[time_len];
  if (now.tv_sec != second) {
    tm local{};
    tzset();  // the zone may have changed since the last look
    if (localtime_r(&now.tv_sec, &local) == nullptr) {
      print_error("localtime");
      return 0;
    }
    format_text(text, time_len, "%04d%02d%02d%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                local.tm_hour, local.tm_min, local.tm_sec);
    second = now.tv_sec;
  }
  copy_text(out, time_len, text);
  return 1;
}

FinderResult Finderd_handle_survey(const FinderRequest& request, FinderReply& reply) {
  const IFINFO& iface = *request.iface;
  put_setting<name_len>(reply, dev_get_brand_name);      // at 0 of the payload
  put_setting<name_len>(reply, dev_get_product_name);    // 64
  put_setting<model_len>(reply, dev_get_model_name);     // 128
  put_setting<version_len>(reply, dev_get_oem_version);  // 160
  put_u16(reply, product_type_code());                   // 192
  unsigned long hw_spec = 0;
  dev_get_hw_spec(&hw_spec);
  put_u32(reply, static_cast<std::uint32_t>(hw_spec));  // 194
  put(reply, iface.mac);                                // 198
  std::uint8_t* const camera_name = reply.bytes + reply.len;
  put_setting<name_len>(reply, dev_get_camera_name);  // 204
  put(reply, iface.ip);                               // 268
  put_u32(reply, http_port());                        // 272: two bytes, and two that are 0
  put(reply, iface.mask);                             // 276
  put(reply, iface.gateway);                          // 280
  constexpr std::uint32_t dns_servers[2] = {};
  put(reply, dns_servers);  // 284, where Finderd_get_dns writes: 80 behind the camera's name
  Finderd_get_dns(camera_name);
  put(reply, byte_setting(net_get_dhcp_enable, 0));  // 292
  char time_text[time_len] = "";
  const int timed = Finderd_get_time(time_text);
  put_text(reply, time_len + 1, time_text);  // 293: the text, and a byte that is 0
  char timezone[getter_len] = "";
  dev_get_timezone(timezone);
  put_bytes(reply, timezone, timezone_len);  // 309
  put(reply, byte_setting(dev_get_dst, 0));  // 311
  return {.failed = timed == 0};
}

FinderResult Finderd_handle_spt_survey(const FinderRequest& request, FinderReply& reply) {
  put_setting<name_len>(reply, dev_get_brand_name);        // at 0 of the payload
  put_setting<model_len>(reply, dev_get_model_name);       // 64
  put_setting<version_len>(reply, dev_get_oem_version);    // 96
  put_setting<version_len>(reply, dev_get_spt_version);    // 128
  put(reply, parse_mac(request.my_mac));                   // 160
  put_setting<name_len>(reply, dev_get_camera_name);       // 166
  put_url(reply);                                          // 230
  put(reply, request.iface->ip);                           // 294
  put_u16(reply, http_port());                             // 298
  put_u32(reply, byte_setting(net_get_http_or_https, 0));  // 300: one byte, and three that are 0
  return {};
}

}  // namespace kestrel
