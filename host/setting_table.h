// Every setting of the settings file: group, key, bounds, and what holds when it is missing.
#pragma once

#include "setting_values.h"
#include "settings.h"

namespace host::setting {

inline constexpr std::nullopt_t must = std::nullopt;  // no fallback

// clang-format off
//                                          group      key                 least most  fallback     form
inline constexpr TextSetting brand            {"device",  "brand",            0,   63,   nullptr,     nullptr, ""};
inline constexpr TextSetting product          {"device",  "product",          0,   63,   nullptr,     nullptr, ""};
inline constexpr TextSetting model            {"device",  "model",            1,   46,   nullptr,     nullptr, ""};
inline constexpr TextSetting camera_name      {"device",  "camera_name",      0,   63,   nullptr,     nullptr, ""};
inline constexpr TextSetting firmware_version {"device",  "firmware_version", 0,   31,   nullptr,     nullptr, ""};
inline constexpr TextSetting oem_version      {"device",  "oem_version",      0,   31,   nullptr,     nullptr, ""};
inline constexpr TextSetting spt_version      {"device",  "spt_version",      0,   31,   nullptr,     nullptr, ""};
inline constexpr TextSetting refer_file       {"device",  "refer_file",       1,   31,   nullptr,     is_absolute_path, "an absolute path"};
inline constexpr TextSetting mac              {"device",  "mac",              17,  17,   "",          is_mac, "a MAC address like 00:11:22:aa:bb:cc"};
inline constexpr NumberSetting product_type   {"device",  "product_type",     0,   1,     must};
inline constexpr NumberSetting hw_spec        {"device",  "hw_spec",          0,   0xFFFFFFFF, must};
inline constexpr NumberSetting timezone_value {"device",  "timezone",         0,   65535, must};
inline constexpr NumberSetting dst            {"device",  "dst",              0,   1,     must};

inline constexpr NumberSetting http_port      {"network", "http_port",        1,   65535, must};
inline constexpr NumberSetting https          {"network", "https",            0,   1,     must};
inline constexpr NumberSetting dhcp           {"network", "dhcp",             0,   1,     must};
inline constexpr TextSetting proxy_host       {"network", "proxy_host",       1,   63,   "",          is_host_name, "a host name or a dotted address"};
inline constexpr NumberSetting proxy_port     {"network", "proxy_port",       0,   65535, 0};
inline constexpr TextSetting active_interface {"network", "active_interface", 1,   15,   "",          nullptr, ""};
inline constexpr TextSetting interfaces       {"network", "interfaces",       1,   255,  "",          nullptr, ""};

inline constexpr TextSetting hid              {"skyport", "hid",              8,   8,    "",          is_hid, "a host id of letters and digits"};
inline constexpr TextSetting password         {"skyport", "password",         1,   51,   nullptr,     nullptr, ""};
inline constexpr TextSetting domain           {"skyport", "domain",           1,   63,   nullptr,     is_host_name, "a domain name"};
inline constexpr TextSetting domain_ip        {"skyport", "domain_ip",        7,   15,   "",          is_address, "a dotted address"};
inline constexpr TextSetting redirect_host    {"skyport", "redirect_host",    1,   63,   "",          is_host_name, "a host name or a dotted address"};
inline constexpr TextSetting url_format       {"skyport", "url_format",       1,   127,  "http://{alias-or-hid}.{domain}/",
                                               is_http_url_format, "an HTTP URL with {alias-or-hid}, {alias}, {hid} and {domain} as its only braces"};
inline constexpr NumberSetting enabled        {"skyport", "enabled",          0,   1,     must};
inline constexpr TextSetting stored_hid       {"skyport", "stored_hid",       8,   8,    "",          is_hid, "a host id of letters and digits"};
inline constexpr TextSetting redirsrv_ip      {"skyport", "redirsrv_ip",      7,   15,   "",          is_address, "a dotted address"};
inline constexpr TextSetting alias            {"skyport", "alias",            0,   31,   "",          nullptr, ""};
inline constexpr TextSetting last_alias       {"skyport", "last_alias",       0,   31,   "",          nullptr, ""};
inline constexpr NumberSetting alias_status   {"skyport", "alias_status",     0,   255,   0};
inline constexpr TextSetting first_connection {"skyport", "first_connection", 0,   4095, "",          is_anything, ""};

inline constexpr TextSetting admin            {"users",   "admin",            1,   63,   nullptr,     nullptr, ""};
inline constexpr TextSetting admin_password   {"users",   "admin_password",   0,   63,   nullptr,     nullptr, ""};

inline constexpr NumberSetting debug_level    {"debug",   "level",            0,   255,   0};
inline constexpr TextSetting debug_token      {"debug",   "token",            0,   31,   "",          nullptr, ""};

inline constexpr TextSetting run_dir          {"host",    "run_dir",          1,   200,  "/run/kestrel", is_absolute_path, "an absolute path"};
inline constexpr TextSetting upnp_interface   {"host",    "upnp_interface",   1,   15,   "",          nullptr, ""};
inline constexpr NumberSetting upnp_lease     {"host",    "upnp_lease_s",     0,   604800, 0};
inline constexpr TextSetting ssdp_address     {"host",    "upnp_ssdp_address", 7,  15,   "239.255.255.250", is_address, "a dotted address"};
inline constexpr NumberSetting ssdp_port      {"host",    "upnp_ssdp_port",   1,   65535, 1900};
// clang-format on

/// The user table: keys user1, user2 and so on, without gaps, of the group users.
inline constexpr const char* users_group = "users";
inline constexpr unsigned max_users = 32;
inline constexpr std::size_t max_user_len = 63;

}  // namespace host::setting
