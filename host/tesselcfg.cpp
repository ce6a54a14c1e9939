// libtesselcfg: configuration and device information out of the settings file.
#include <algorithm>
#include <array>
#include <span>
#include <string>

#include "abi.h"
#include "setting_table.h"
#include "settings.h"

namespace host {

namespace {

constexpr std::size_t name_len = 64;  // domain, proxy host, stored address
constexpr std::size_t hid_len = 9;
constexpr std::size_t password_len = 52;
constexpr std::size_t ip_len = 16;
constexpr std::size_t token_len = 32;
constexpr std::size_t alias_len = 32;
constexpr std::size_t connection_len = 4096;

int get_text(const TextSetting& setting, char* out, std::size_t size) noexcept {
  return guarded(0, [&] {
    const auto value = text_now(setting);
    return value && put_text(out, size, *value) ? 1 : 0;
  });
}

int get_text(const TextSetting& setting, char* out, int size) noexcept {
  return size < 1 ? 0 : get_text(setting, out, static_cast<std::size_t>(size));
}

template <typename Number>
int get_number(const NumberSetting& setting, Number* out) noexcept {
  return guarded(0, [&] {
    const auto value = number_now(setting);
    if (!value || out == nullptr) return 0;
    *out = static_cast<Number>(*value);
    return 1;
  });
}

int set_text(const TextSetting& setting, const char* value) noexcept {
  return guarded(0, [&] {
    if (value == nullptr) return 0;
    std::string reason;
    if (!is_right(setting, value, reason)) {
      complain(settings_path(), setting.group, setting.key, "is not stored: " + reason);
      return 0;
    }
    const std::array changes{Change{setting.group, setting.key, value}};
    return store(changes) ? 1 : 0;
  });
}

Change number_change(const NumberSetting& setting, char value) {
  return {setting.group, setting.key, std::to_string(static_cast<unsigned char>(value))};
}

int get_account(char* hid, char* password) {
  const auto settings = current_settings();
  if (!settings || !is_set(*settings, setting::hid.group, setting::hid.key)) return 0;
  const auto id = text_of(*settings, setting::hid);
  const auto secret = text_of(*settings, setting::password);
  if (!id || !secret) return 0;
  return put_text(hid, hid_len, *id) && put_text(password, password_len, *secret) ? 1 : 0;
}

TextSetting user_setting(const char* key) {
  return {setting::users_group, key, 1, setting::max_user_len, nullptr, nullptr, ""};
}

std::string user_key(unsigned n) {
  return std::string("user").append(std::to_string(n));
}

unsigned count_users(const Settings& settings) {
  unsigned count = 0;
  while (count < setting::max_users && is_set(settings, setting::users_group, user_key(count + 1).c_str())) {
    ++count;
  }
  return count;
}

int update_alias(const char* alias, char status) {
  if (alias == nullptr) return 0;
  const std::string_view whole(alias);
  std::size_t len = std::min(whole.size(), setting::alias.max_len);
  while (len > 0 && len < whole.size() && (static_cast<unsigned char>(whole[len]) & 0xC0U) == 0x80U) --len;
  const std::string kept(whole.substr(0, len));
  std::string reason;
  if (!is_right(setting::alias, kept, reason)) {
    complain(settings_path(), setting::alias.group, setting::alias.key, "is not stored: " + reason);
    return 0;
  }
  const std::array changes{Change{setting::alias.group, setting::alias.key, kept},
                           number_change(setting::alias_status, status),
                           Change{setting::last_alias.group, setting::last_alias.key, kept}};
  // The last entry is the alias that the service accepted; a wanted one is not yet.
  return store(std::span(changes).first(status == ALIAS_OK ? 3 : 2)) ? 1 : 0;
}

}  // namespace

}  // namespace host

using namespace host;

extern "C" {

int dbg_get_level_token(int* level, char* token) {
  return get_number(setting::debug_level, level) & get_text(setting::debug_token, token, token_len);
}

int dev_get_model_name(char* name, int size) {
  return get_text(setting::model, name, size);
}
int dev_get_firmware_version(char* version, int size) {
  return get_text(setting::firmware_version, version, size);
}
int dev_get_spt_version(char* version, int size) {
  return get_text(setting::spt_version, version, size);
}
int dev_get_oem_version(char* version, int size) {
  return get_text(setting::oem_version, version, size);
}
int dev_get_brand_name(char* name, unsigned int size) {
  return get_text(setting::brand, name, std::size_t{size});
}
int dev_get_product_name(char* name, unsigned int size) {
  return get_text(setting::product, name, std::size_t{size});
}
int dev_get_camera_name(char* name, unsigned int size) {
  return get_text(setting::camera_name, name, std::size_t{size});
}
int dev_get_product_type(char* type) {
  return get_number(setting::product_type, type);
}
int dev_get_hw_spec(unsigned long* spec) {
  return get_number(setting::hw_spec, spec);
}
int dev_get_dst(char* dst) {
  return get_number(setting::dst, dst);
}
int dev_get_refer_file_path(char* path, int size) {
  return get_text(setting::refer_file, path, size);
}

int dev_get_timezone(char* value) {
  unsigned zone = 0;
  if (value == nullptr || get_number(setting::timezone_value, &zone) == 0) return 0;
  value[0] = static_cast<char>(zone & 0xFFU);  // two bytes, little-endian
  value[1] = static_cast<char>(zone >> 8U);
  return 1;
}

int net_get_http_srv_port(int* port) {
  return get_number(setting::http_port, port);
}
int net_get_http_or_https(char* flag) {
  return get_number(setting::https, flag);
}
int net_get_dhcp_enable(char* enabled) {
  return get_number(setting::dhcp, enabled);
}
int net_get_proxy_addr_port(char* host, int* port) {
  return get_text(setting::proxy_host, host, name_len) & get_number(setting::proxy_port, port);
}

int get_dev_sip_account(char* hid, char* password) {
  return guarded(0, [&] { return get_account(hid, password); });
}
int cre_set_skyport_hid(char* hid) {
  return set_text(setting::stored_hid, hid);
}
int cre_get_skyport_domain_ip(char* domain, char* ip) {
  return get_text(setting::domain, domain, name_len) & get_text(setting::domain_ip, ip, name_len);
}
int cre_set_skyport_domain(char* domain) {
  return set_text(setting::domain, domain);
}
int cre_get_skyport_enable_state(char* enabled) {
  return get_number(setting::enabled, enabled);
}
int cre_set_skyport_enable_state(char enabled) {
  return guarded(0, [&] {
    if (enabled != 0 && enabled != 1) return 0;
    const std::array changes{number_change(setting::enabled, enabled)};
    return store(changes) ? 1 : 0;
  });
}
int get_redirsrv_ip(char* ip) {
  return guarded(0, [&] {
    const auto known = text_now(setting::redirsrv_ip);
    return known && !known->empty() && put_text(ip, ip_len, *known) ? 1 : 0;
  });
}
int set_redirsrv_ip(char* ip) {
  return set_text(setting::redirsrv_ip, ip);
}

int cre_get_power_username(char* name, int size) {
  return get_text(setting::admin, name, size);
}
int cre_get_power_user_passwd(char* password, int size) {
  return get_text(setting::admin_password, password, size);
}
int cre_get_max_user_count(char* count) {
  return guarded(0, [&] {
    const auto settings = current_settings();
    if (!settings || count == nullptr) return 0;
    *count = static_cast<char>(count_users(*settings));
    return 1;
  });
}
int cre_get_user_name_by_count(unsigned int n, char* name, int size) {
  return guarded(0, [&] {
    const auto settings = current_settings();
    if (!settings || n < 1 || n > count_users(*settings)) return 0;
    const std::string key = user_key(n);
    const auto user = text_of(*settings, user_setting(key.c_str()));
    return size > 0 && user && put_text(name, static_cast<std::size_t>(size), *user) ? 1 : 0;
  });
}

int srv_get_aliasname_status(char* alias, char* status) {
  return get_text(setting::alias, alias, alias_len) & get_number(setting::alias_status, status);
}
int srv_update_aliasname_status(char* alias, char status) {
  return guarded(0, [&] { return update_alias(alias, status); });
}
int srv_get_skyport_alias_status(char* status) {
  return get_number(setting::alias_status, status);
}
int srv_set_skyport_alias_status(char status) {
  return guarded(0, [&] {
    const std::array changes{number_change(setting::alias_status, status)};
    return store(changes) ? 1 : 0;
  });
}
int srv_get_skyport_alias_name(char* name, unsigned int size) {
  return get_text(setting::alias, name, std::size_t{size});
}
int srv_get_skyport_last_alias_name(char* name, unsigned int size) {
  return get_text(setting::last_alias, name, std::size_t{size});
}
int srv_get_first_connection(char* text) {
  return get_text(setting::first_connection, text, connection_len);
}

}  // extern "C"
