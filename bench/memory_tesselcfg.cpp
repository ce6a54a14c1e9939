// libtesselcfg answering from memory, for a camera on the loopback interface: what the daemon itself costs, without the
// settings file of the host platform. Setters say that they have stored.
#include <algorithm>
#include <cstring>

#pragma GCC visibility push(default)
#include "platform/tesselcfg.h"
#pragma GCC visibility pop

namespace {

int answer(const char* text, char* out, std::size_t size) {
  const std::size_t len = std::min(std::strlen(text), size - 1);
  std::memcpy(out, text, len);
  out[len] = '\0';
  return 1;
}

int answer_byte(char* out) {
  *out = 1;
  return 1;
}

}  // namespace

int dev_get_brand_name(char* name, unsigned size) {
  return answer("Lumen", name, size);
}
int dev_get_product_name(char* name, unsigned size) {
  return answer("Network Camera", name, size);
}
int dev_get_camera_name(char* name, unsigned size) {
  return answer("Bench", name, size);
}
int dev_get_model_name(char* name, int size) {
  return answer("LC-1200", name, static_cast<std::size_t>(size));
}
int dev_get_oem_version(char* version, int size) {
  return answer("1.2.0", version, static_cast<std::size_t>(size));
}
int dev_get_product_type(char* type) {
  return answer_byte(type);
}
int dev_get_timezone(char* timezone) {
  return answer_byte(timezone);
}
int dev_get_dst(char* dst) {
  return answer_byte(dst);
}
int net_get_dhcp_enable(char* enabled) {
  return answer_byte(enabled);
}

int dev_get_hw_spec(unsigned long* spec) {
  *spec = 1;
  return 1;
}

int net_get_http_srv_port(int* port) {
  *port = 80;
  return 1;
}

int dev_get_firmware_version(char* version, int size) {
  return answer("1.2.0", version, static_cast<std::size_t>(size));
}
int dev_get_spt_version(char* version, int size) {
  return answer("1.2", version, static_cast<std::size_t>(size));
}
int dev_get_refer_file_path(char* path, int size) {
  return answer("/tmp/kestrel_refer.js", path, static_cast<std::size_t>(size));
}
int net_get_http_or_https(char* flag) {
  *flag = 0;
  return 1;
}
int get_dev_sip_account(char* hid, char* password) {
  return answer("10203040", hid, 9) & answer("lab-password", password, 52);
}
int cre_get_skyport_domain_ip(char* domain, char* ip) {
  return answer("skyport.test", domain, 64) & answer("127.0.0.1", ip, 64);
}
int cre_get_skyport_enable_state(char* enabled) {
  return answer_byte(enabled);
}
int cre_get_power_username(char* name, int size) {
  return answer("admin", name, static_cast<std::size_t>(size));
}
int cre_get_power_user_passwd(char* password, int size) {
  return answer("admin", password, static_cast<std::size_t>(size));
}

// What there is none of: a relay, other users, an alias, a stored address, a first-connection record, a debug level.
int net_get_proxy_addr_port(char*, int*) {
  return 0;
}
int cre_get_max_user_count(char*) {
  return 0;
}
int cre_get_user_name_by_count(unsigned int, char*, int) {
  return 0;
}
int srv_get_skyport_alias_status(char*) {
  return 0;
}
int srv_get_skyport_alias_name(char*, unsigned int) {
  return 0;
}
int srv_get_skyport_last_alias_name(char*, unsigned int) {
  return 0;
}
int get_redirsrv_ip(char*) {
  return 0;
}
int srv_get_first_connection(char*) {
  return 0;
}
int dbg_get_level_token(int*, char*) {
  return 0;
}

int cre_set_skyport_hid(char*) {
  return 1;
}
int cre_set_skyport_domain(char*) {
  return 1;
}
int cre_set_skyport_enable_state(char) {
  return 1;
}
int set_redirsrv_ip(char*) {
  return 1;
}
int srv_update_aliasname_status(char*, char) {
  return 1;
}
