// The getters of libtesselcfg, and the names that libtessel gives.
#include <cstring>

#include "check.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"

namespace platform_check {

namespace {

/// Passes outputs on as the types of a function; the last argument of some is the first one's size.
template <auto F, typename One>
int call(void* const out[], std::size_t /*size*/) {
  return F(static_cast<One*>(out[0]));
}
template <auto F, typename One, typename Two>
int call(void* const out[], std::size_t /*size*/) {
  return F(static_cast<One*>(out[0]), static_cast<Two*>(out[1]));
}
template <auto F, typename Size>
int call_sized(void* const out[], std::size_t size) {
  return F(static_cast<char*>(out[0]), static_cast<Size>(size));
}

constexpr Out text(std::size_t stated, std::size_t room) {
  return {Kind::text, stated, room};
}
constexpr Out secret(std::size_t stated, std::size_t room) {
  return {Kind::secret, stated, room};
}
constexpr Out one_byte(std::size_t room = 128) {
  return {Kind::bytes, 1, room};
}
constexpr Out integer = {Kind::number, sizeof(int), sizeof(int)};

template <auto F, typename Size = unsigned>
constexpr Row sized(const char* name, std::size_t stated, std::size_t room, Result result, const char* without) {
  return {name,
          stated == 64 ? "at most 64 bytes" : "a bounded text",
          call_sized<F, Size>,
          {text(stated, room)},
          result,
          without,
          true};
}
template <auto F>
constexpr Row byte(const char* name, Result result, const char* without, std::size_t room = 128) {
  return {name, "one byte", call<F, char>, {one_byte(room)}, result, without};
}

int first_user(void* const out[], std::size_t size) {
  return cre_get_user_name_by_count(1, static_cast<char*>(out[0]), static_cast<int>(size));
}

int host_of_domain(void* const out[], std::size_t /*size*/) {
  char domain[128] = "";
  char ip[128] = "";
  cre_get_skyport_domain_ip(domain, ip);
  return tessel_get_skyport_url(domain, static_cast<char*>(out[0]));
}

constexpr char shows_nothing[] = "shows an empty text";
constexpr char shows_zero[] = "shows 0";

constexpr Row rows[] = {
    {"dbg_get_level_token",
     "a level, 32 bytes",
     call<dbg_get_level_token, int, char>,
     {integer, text(32, 64)},
     Result::unread,
     "logs nothing"},
    sized<dev_get_model_name, int>("dev_get_model_name", 64, 64, Result::zero_fails, "has no name of its own"),
    sized<dev_get_firmware_version, int>("dev_get_firmware_version", 32, 32, Result::unread, shows_nothing),
    sized<dev_get_spt_version, int>("dev_get_spt_version", 32, 32, Result::unread, shows_nothing),
    sized<dev_get_oem_version, int>("dev_get_oem_version", 32, 128, Result::unread, shows_nothing),
    sized<dev_get_brand_name>("dev_get_brand_name", 64, 128, Result::unread, shows_nothing),
    sized<dev_get_product_name>("dev_get_product_name", 64, 128, Result::unread, shows_nothing),
    sized<dev_get_camera_name>("dev_get_camera_name", 64, 128, Result::unread, shows_nothing),
    byte<dev_get_product_type>("dev_get_product_type", Result::zero_fails, "shows an unknown type"),
    {"dev_get_hw_spec",
     "a word",
     call<dev_get_hw_spec, unsigned long>,
     {Out{Kind::number, sizeof(unsigned long), sizeof(unsigned long)}},
     Result::unread,
     shows_zero},
    {"dev_get_timezone",
     "one or two bytes",
     call<dev_get_timezone, char>,
     {Out{Kind::bytes, 2, 128}},
     Result::unread,
     shows_zero},
    byte<dev_get_dst>("dev_get_dst", Result::zero_fails, shows_zero),
    sized<dev_get_refer_file_path, int>("dev_get_refer_file_path", 32, 32, Result::zero_fails, "writes no refer file"),
    {"net_get_http_srv_port",
     "a port",
     call<net_get_http_srv_port, int>,
     {integer},
     Result::zero_fails,
     "does not register, and tries again after 10 s"},
    byte<net_get_http_or_https>("net_get_http_or_https", Result::zero_fails, shows_zero),
    byte<net_get_dhcp_enable>("net_get_dhcp_enable", Result::zero_fails, shows_zero),
    {"net_get_proxy_addr_port",
     "64 bytes, a port",
     call<net_get_proxy_addr_port, char, int>,
     {text(64, 64), integer},
     Result::unread,
     "uses no relay"},
    {"get_dev_sip_account",
     "9 and 52 bytes",
     call<get_dev_sip_account, char, char>,
     {text(9, 64), secret(52, 64)},
     Result::zero_fails,
     "asks again every 3 s, for ever"},
    {"cre_get_skyport_domain_ip",
     "64 bytes each",
     call<cre_get_skyport_domain_ip, char, char>,
     {text(64, 64), text(64, 64)},
     Result::unread,
     "does not find the service"},
    byte<cre_get_skyport_enable_state>("cre_get_skyport_enable_state", Result::zero_fails,
                                       "keeps the switch that it knows, or waits 10 s", 1),
    {"get_redirsrv_ip",
     "16 bytes",
     call<get_redirsrv_ip, char>,
     {text(16, 64)},
     Result::zero_fails,
     "does not find the service while its name cannot be resolved"},
    sized<cre_get_power_username, int>("cre_get_power_username", 256, 256, Result::zero_fails, "lets nobody in by it"),
    {"cre_get_power_user_passwd",
     "at most 64 bytes",
     call_sized<cre_get_power_user_passwd, int>,
     {secret(64, 256)},
     Result::zero_fails,
     "lets nobody in",
     true},
    byte<cre_get_max_user_count>("cre_get_max_user_count", Result::unread, "knows no users", 1),
    {"cre_get_user_name_by_count",
     "a bounded text",
     first_user,
     {text(16, 256)},
     Result::zero_fails,
     "passes the entry over",
     true},
    {"srv_get_aliasname_status",
     "32 bytes, one byte",
     call<srv_get_aliasname_status, char, char>,
     {text(32, 64), one_byte(1)},
     Result::unread,
     "keeps the alias"},
    byte<srv_get_skyport_alias_status>("srv_get_skyport_alias_status", Result::zero_fails, "takes it as none", 8),
    sized<srv_get_skyport_alias_name>("srv_get_skyport_alias_name", 32, 128, Result::unread, shows_nothing),
    sized<srv_get_skyport_last_alias_name>("srv_get_skyport_last_alias_name", 64, 128, Result::zero_fails,
                                           shows_nothing),
    {"srv_get_first_connection",
     "4096 bytes",
     call<srv_get_first_connection, char>,
     {text(4096, 4096)},
     Result::unread,
     "reports an empty record"},
    {"tessel_get_skyport_url",
     "64 bytes",
     host_of_domain,
     {text(64, 64)},
     Result::zero_fails,
     "does not find the service"},
    {"tessel_get_skyport_http_url",
     "64 bytes",
     call<tessel_get_skyport_http_url, char>,
     {text(64, 128)},
     Result::zero_fails,
     shows_nothing},
    {"tessel_get_mac3",
     "7 bytes",
     call_sized<tessel_get_mac3, unsigned>,
     {text(7, 7)},
     Result::zero_fails,
     "has no name of its own"},
};

}  // namespace

Rows setting_rows() {
  return {rows, sizeof(rows) / sizeof(rows[0])};
}

}  // namespace platform_check
