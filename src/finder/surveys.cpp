// The two surveys: what the camera tells of itself to whoever asks.
#include <sys/time.h>

#include <cstring>
#include <ctime>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/operations.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

/// Payload offsets of the survey reply, and sizes of its texts.
enum SurveyOffset : std::size_t {
  survey_brand = 0,
  survey_product = 64,
  survey_model = 128,
  survey_version = 160,
  survey_type = 192,
  survey_hw_spec = 194,
  survey_mac = 198,
  survey_camera_name = 204,
  survey_ip = 268,
  survey_http_port = 272,
  survey_mask = 276,
  survey_gateway = 280,
  survey_dns = 284,
  survey_dhcp = 292,
  survey_time = 293,
  survey_timezone = 309,
  survey_dst = 311,
  survey_end = 312,
};
static_assert(survey_end == finder_survey_len);

/// Payload offsets of the service survey reply.
enum SptSurveyOffset : std::size_t {
  spt_brand = 0,
  spt_model = 64,
  spt_version = 96,
  spt_client_version = 128,
  spt_mac = 160,
  spt_camera_name = 166,
  spt_url = 230,
  spt_ip = 294,
  spt_http_port = 298,
  spt_https = 300,
  spt_end = 304,
};
static_assert(spt_end == finder_spt_survey_len);

constexpr std::size_t name_len = 64;
constexpr std::size_t model_len = 32;
constexpr std::size_t version_len = 32;
constexpr std::size_t timezone_len = 2;
constexpr std::size_t time_len = 15;  // 14 digits and the terminator

static_assert(survey_dns - survey_camera_name == 80, "where Finderd_get_dns writes");

/// Puts a text that a getter fills; the two families of getters differ in the type of the size.
template <typename Size>
void put_setting(FinderReply& reply, std::size_t offset, std::size_t size, int (*get)(char*, Size)) {
  char text[getter_len] = "";
  get(text, static_cast<Size>(size));
  terminate(text);
  put_text(reply, offset, size, text);
}

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

void put_survey_platform(FinderReply& reply) {
  put_setting(reply, survey_brand, name_len, dev_get_brand_name);
  put_setting(reply, survey_product, name_len, dev_get_product_name);
  put_setting(reply, survey_model, model_len, dev_get_model_name);
  put_setting(reply, survey_version, version_len, dev_get_oem_version);
  put_u16(reply, survey_type, product_type_code());
  unsigned long hw_spec = 0;
  dev_get_hw_spec(&hw_spec);
  put_u32(reply, survey_hw_spec, static_cast<std::uint32_t>(hw_spec));
  put_setting(reply, survey_camera_name, name_len, dev_get_camera_name);
  char timezone[getter_len] = "";
  dev_get_timezone(timezone);
  put_bytes(reply, survey_timezone, timezone, timezone_len);
  put_u8(reply, survey_dst, byte_setting(dev_get_dst, 0));
}

void put_survey_network(FinderReply& reply, const IFINFO& iface) {
  put_bytes(reply, survey_mac, iface.mac, sizeof(iface.mac));
  put_bytes(reply, survey_ip, &iface.ip, sizeof(iface.ip));
  put_u16(reply, survey_http_port, http_port());
  put_bytes(reply, survey_mask, &iface.mask, sizeof(iface.mask));
  put_bytes(reply, survey_gateway, &iface.gateway, sizeof(iface.gateway));
  Finderd_get_dns(reply.bytes + finder_header_len + survey_camera_name);
  put_u8(reply, survey_dhcp, byte_setting(net_get_dhcp_enable, 0));
}

}  // namespace

int Finderd_get_time(char* out) {
  if (out == nullptr) return 0;
  timeval now{};
  if (gettimeofday(&now, nullptr) != 0) {
    print_error("gettimeofday");
    return 0;
  }
  static time_t second = 0;
  static char text[time_len] = "";
  if (now.tv_sec != second || text[0] == '\0') {
    text[0] = '\0';
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
  debug_log("%s() >>>\n", "Finderd_handle_survey");
  put_survey_platform(reply);
  put_survey_network(reply, *request.iface);
  char time_text[time_len] = "";
  const int timed = Finderd_get_time(time_text);
  put_text(reply, survey_time, time_len, time_text);
  return {static_cast<std::uint16_t>(timed != 0 ? 0 : 1)};
}

FinderResult Finderd_handle_spt_survey(const FinderRequest& request, FinderReply& reply) {
  debug_log("%s() >>>\n", "Finderd_handle_spt_survey");
  put_setting(reply, spt_brand, name_len, dev_get_brand_name);
  put_setting(reply, spt_model, model_len, dev_get_model_name);
  put_setting(reply, spt_version, version_len, dev_get_oem_version);
  put_setting(reply, spt_client_version, version_len, dev_get_spt_version);
  std::uint8_t mac[finder_mac_len];
  parse_mac(request.my_mac, mac);
  put_bytes(reply, spt_mac, mac, sizeof(mac));
  put_setting(reply, spt_camera_name, name_len, dev_get_camera_name);
  char url[getter_len] = "";
  tessel_get_skyport_http_url(url);
  terminate(url);
  put_text(reply, spt_url, finder_text_len, url);
  const IFINFO& iface = *request.iface;
  put_bytes(reply, spt_ip, &iface.ip, sizeof(iface.ip));
  put_u16(reply, spt_http_port, http_port());
  put_u8(reply, spt_https, byte_setting(net_get_http_or_https, 0));
  return {0};
}

}  // namespace kestrel
