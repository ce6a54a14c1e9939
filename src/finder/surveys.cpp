// The two surveys: what the camera tells of itself to whoever asks. Their fields follow each other as they stand in
// the payload.
#include <endian.h>
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
  put_setting<name_len>(reply, dev_get_brand_name);
  put_setting<name_len>(reply, dev_get_product_name);
  put_setting<model_len>(reply, dev_get_model_name);
  put_setting<version_len>(reply, dev_get_oem_version);
  put(reply, htole16(product_type_code()));
  unsigned long hw_spec = 0;
  dev_get_hw_spec(&hw_spec);
  put(reply, htole32(static_cast<std::uint32_t>(hw_spec)));
  put(reply, iface.mac);
  std::uint8_t* const camera_name = reply.bytes + reply.len;
  put_setting<name_len>(reply, dev_get_camera_name);
  put(reply, iface.ip);
  put(reply, htole32(http_port()));  // a field of two bytes, and two that are 0
  put(reply, iface.mask);
  put(reply, iface.gateway);
  constexpr std::uint32_t dns_servers[2] = {};
  put(reply, dns_servers);
  Finderd_get_dns(camera_name);
  put(reply, byte_setting(net_get_dhcp_enable, 0));
  char time_text[time_len] = "";
  const int timed = Finderd_get_time(time_text);
  put_text(reply, time_len + 1, time_text);
  char timezone[getter_len] = "";
  dev_get_timezone(timezone);
  put_bytes(reply, timezone, timezone_len);
  put(reply, byte_setting(dev_get_dst, 0));
  return {.failed = timed == 0};
}

FinderResult Finderd_handle_spt_survey(const FinderRequest& request, FinderReply& reply) {
  put_setting<name_len>(reply, dev_get_brand_name);
  put_setting<model_len>(reply, dev_get_model_name);
  put_setting<version_len>(reply, dev_get_oem_version);
  put_setting<version_len>(reply, dev_get_spt_version);
  put(reply, parse_mac(request.my_mac));
  put_setting<name_len>(reply, dev_get_camera_name);
  put_url(reply);
  put(reply, request.iface->ip);
  put(reply, htole16(http_port()));
  put(reply, htole32(byte_setting(net_get_http_or_https, 0)));  // a field of one byte, and three that are 0
  return {};
}

}  // namespace kestrel
