// The finder's queries: the two surveys and what a tool asks of one camera.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/packet.h"
#include "finder/record.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

/// Getters' buffers: at least as large as any size that a library of the family was built for.
constexpr std::size_t getter_len = 128;

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

/// Where Finderd_get_dns writes, seen from the camera name.
constexpr std::size_t first_dns = survey_dns - survey_camera_name;
constexpr std::size_t other_dns = first_dns + 4;
static_assert(first_dns == 80 && other_dns == 84);

/// Puts a text that a getter fills; the two families of getters differ in the type of the size.
template <typename Size>
void put_setting(FinderReply& reply, std::size_t offset, std::size_t size, int (*get)(char*, Size)) {
  char text[getter_len] = "";
  get(text, static_cast<Size>(size));
  terminate(text);
  put_text(reply, offset, size, text);
}

/// A setting of one byte; `otherwise` when it cannot be read.
std::uint8_t byte_setting(int (*get)(char*), std::uint8_t otherwise) {
  char value[getter_len] = "";
  return get(value) != 0 ? static_cast<std::uint8_t>(value[0]) : otherwise;
}

std::uint16_t http_port() {
  int port = 0;
  return net_get_http_srv_port(&port) != 0 ? static_cast<std::uint16_t>(port) : 0;
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

void put_survey_network(FinderReply& reply) {
  const IFINFO& iface = finder.ifinfo[finder.iReportSocketIndex];
  put_bytes(reply, survey_mac, iface.mac, sizeof(iface.mac));
  put_bytes(reply, survey_ip, &iface.ip, sizeof(iface.ip));
  put_u16(reply, survey_http_port, http_port());
  put_bytes(reply, survey_mask, &iface.mask, sizeof(iface.mask));
  put_bytes(reply, survey_gateway, &iface.gateway, sizeof(iface.gateway));
  Finderd_get_dns(reply.bytes + finder_header_len + survey_camera_name);
  put_u8(reply, survey_dhcp, byte_setting(net_get_dhcp_enable, 0));
}

void log_entry(const char* name) {
  debug_log("[kestreld_finder]: %s() >>>\n", name);
}

/// Answers with a text of 64 bytes; `known` is the getter's result.
void send_text(int known, const char* text) {
  FinderReply reply = begin_reply(finder_text_len);
  put_text(reply, 0, finder_text_len, text);
  send_reply(reply, known != 0 ? 0 : 1);
}

constexpr char resolver_path[] = "/etc/resolv.conf";

/// The servers of the resolver's file, and which file they were read from. Surveys come in bursts, and a
/// look at the file costs a fraction of reading it.
struct DnsServers {
  dev_t device;
  ino_t inode;
  off_t size;
  timespec changed;
  bool settled;  // false: read so shortly after a change that another one might show the same time
  int count;
  in_addr first;
  in_addr last;
};

bool is_same_file(const DnsServers& servers, const struct stat& status) {
  return servers.settled && servers.device == status.st_dev && servers.inode == status.st_ino &&
         servers.size == status.st_size && servers.changed.tv_sec == status.st_ctim.tv_sec &&
         servers.changed.tv_nsec == status.st_ctim.tv_nsec;
}

void take_server(DnsServers& servers, const char* line) {
  char key[256];
  char value[256];
  if (std::sscanf(line, "%255s %255s", key, value) != 2 || std::strcmp(key, "nameserver") != 0) return;
  in_addr server{};
  if (inet_aton(value, &server) == 0) {
    print_error("Finderd_get_dns");
    return;
  }
  // Every later server takes the second place, so that it ends as the last of the file.
  (servers.count == 0 ? servers.first : servers.last) = server;
  ++servers.count;
}

/// Brings the servers up to date with the file. Returns false when there is none.
bool refresh(DnsServers& servers) {
  struct stat status {};
  if (stat(resolver_path, &status) != 0) return false;
  if (is_same_file(servers, status)) return true;
  std::FILE* file = std::fopen(resolver_path, "re");
  if (file == nullptr) return false;
  servers = {};
  char line[256];
  while (std::fgets(line, sizeof(line), file) != nullptr) take_server(servers, line);
  std::fclose(file);
  constexpr time_t settling_s = 2;
  servers.device = status.st_dev;
  servers.inode = status.st_ino;
  servers.size = status.st_size;
  servers.changed = status.st_ctim;
  servers.settled = std::time(nullptr) - status.st_ctim.tv_sec >= settling_s;
  return true;
}

struct PrefinalRow {
  RegState state;
  std::uint32_t reason;
};

constexpr std::array<PrefinalRow, 7> prefinal_reasons = {{
    {IpReady, 1},
    {PublicMode, 2},
    {NoUPnP, 3},
    {UPnP, 4},
    {NATM, 5},
    {UpnpPfFailed, 6},
    {UpnpPfReady, 7},
}};

enum : std::uint32_t { conf_running = 1, conf_done = 2, conf_not_ready = 3, conf_part_done = 4 };

std::uint32_t conf_state_of(RegState state) {
  if (state == LumenDevDone) return conf_done;
  if (state == LumenDevNotReady) return conf_not_ready;
  return state == LumenDevPartDone ? conf_part_done : conf_running;
}

}  // namespace

void Finderd_get_dns(std::uint8_t* base) {
  static DnsServers servers{};
  if (!refresh(servers)) {
    print_error("Finderd_get_dns");
    return;
  }
  if (servers.count >= 1) std::memcpy(base + first_dns, &servers.first, sizeof(servers.first));
  if (servers.count >= 2) std::memcpy(base + other_dns, &servers.last, sizeof(servers.last));
}

int Finderd_get_time(char* out) {
  if (out == nullptr) return 0;
  timeval now{};
  if (gettimeofday(&now, nullptr) != 0) {
    print_error("gettimeofday");
    return 0;
  }
  tm local{};
  if (localtime_r(&now.tv_sec, &local) == nullptr) {
    print_error("localtime");
    return 0;
  }
  format_text(out, time_len, "%04d%02d%02d%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
              local.tm_hour, local.tm_min, local.tm_sec);
  return 1;
}

void Finderd_handle_survey() {
  debug_log("%s() >>>\n", "Finderd_handle_survey");
  FinderReply reply = begin_reply(finder_survey_len);
  put_survey_platform(reply);
  put_survey_network(reply);
  char time_text[time_len] = "";
  const int timed = Finderd_get_time(time_text);
  put_text(reply, survey_time, time_len, time_text);
  send_reply(reply, timed != 0 ? 0 : 1);
}

void Finderd_handle_spt_survey() {
  debug_log("%s() >>>\n", "Finderd_handle_spt_survey");
  FinderReply reply = begin_reply(finder_spt_survey_len);
  put_setting(reply, spt_brand, name_len, dev_get_brand_name);
  put_setting(reply, spt_model, model_len, dev_get_model_name);
  put_setting(reply, spt_version, version_len, dev_get_oem_version);
  put_setting(reply, spt_client_version, version_len, dev_get_spt_version);
  std::uint8_t mac[finder_mac_len];
  own_mac(mac);
  put_bytes(reply, spt_mac, mac, sizeof(mac));
  put_setting(reply, spt_camera_name, name_len, dev_get_camera_name);
  char url[getter_len] = "";
  tessel_get_skyport_http_url(url);
  terminate(url);
  put_text(reply, spt_url, finder_text_len, url);
  const IFINFO& iface = finder.ifinfo[finder.iReportSocketIndex];
  put_bytes(reply, spt_ip, &iface.ip, sizeof(iface.ip));
  put_u16(reply, spt_http_port, http_port());
  put_u8(reply, spt_https, byte_setting(net_get_http_or_https, 0));
  send_reply(reply, 0);
}

void Finderd_handle_op_list() {
  debug_log("%s() >>>\n", "Finderd_handle_op_list");
  FinderReply reply = begin_reply(finder_op_list_len);
  // A fixed range, whatever the dispatcher serves; tools know it so.
  constexpr std::uint16_t first_listed = 0x00A1;
  for (std::size_t at = 0; at < finder_op_list_len; at += 2) {
    put_u16(reply, at, static_cast<std::uint16_t>(first_listed + at / 2));
  }
  send_reply(reply, 0);
}

void Finderd_get_lumen_device_1_2() {
  log_entry("Finderd_get_lumen_device_1_2");
  FinderReply reply = begin_reply(finder_words_len);
  put_u8(reply, 0, byte_setting(cre_get_skyport_enable_state, 0) != 0 ? 1 : 0);
  send_reply(reply, 0);
  debug_log("[kestreld_finder]: %s() <<<\n", "Finderd_get_lumen_device_1_2");
}

std::uint32_t Finderd_map_prefinal(RegState state) {
  for (const PrefinalRow& row : prefinal_reasons) {
    if (row.state == state) return row.reason;
  }
  return 0;
}

std::uint32_t Finderd_map_update_result(std::uint32_t result) {
  if (byte_setting(cre_get_skyport_enable_state, 0) == 0) return 2;
  if (result == update_auth_failed) return 3;
  return result == update_failed ? 4 : 0;
}

void Finderd_query_self_conf_result() {
  log_entry("Finderd_query_self_conf_result");
  const std::uint32_t conf_state = conf_state_of(load_word(finder.ctx->state));
  const RegState prefinal = load_word(finder.ctx->prefinal_state);
  const std::uint32_t result = load_word(finder.ctx->upd.resut);
  FinderReply reply = begin_reply(finder_words_len);
  put_u32(reply, 0, conf_state);
  put_u32(reply, 4, conf_state == conf_running ? 0 : Finderd_map_prefinal(prefinal));
  put_u32(reply, 8, conf_state == conf_not_ready ? Finderd_map_update_result(result) : 0);
  send_reply(reply, 0);
}

void Finderd_get_lumen_device_1_2_url() {
  log_entry("Finderd_get_lumen_device_1_2_url");
  char url[getter_len] = "";
  const int known = tessel_get_skyport_http_url(url);
  terminate(url);
  send_text(known, url);
}

void Finderd_get_lumen_device_1_2_alias() {
  log_entry("Finderd_get_lumen_device_1_2_alias");
  char alias[getter_len] = "";
  const int known = srv_get_skyport_last_alias_name(alias, finder_text_len);
  terminate(alias);
  send_text(known, alias);
}

}  // namespace kestrel
