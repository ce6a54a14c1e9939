// The finder's one record, and the calls between its files. Only the finder thread touches it.
#ifndef KESTREL_FINDER_RECORD_H
#define KESTREL_FINDER_RECORD_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "core/device_context.h"
#include "platform/tessel.h"

namespace kestrel {

constexpr std::uint32_t finder_port = 62977;
constexpr int finder_max_if = 4;
constexpr std::size_t finder_request_len = 1024;
constexpr std::size_t finder_alias_len = 64;

/// The finder record.
struct Finder {
  std::uint32_t port;
  std::uint32_t max_if[2];
  std::uint32_t reserved;
  std::int32_t iIfNum;                       // usable interfaces
  std::int32_t iReportSocketIndex;           // whose socket the request came by; the reply leaves by it
  std::int32_t fd[finder_max_if];            // a socket an interface; -1 when none
  std::uint32_t alias_handle;                // 1 to 1024
  std::uint8_t request[finder_request_len];  // zero behind the received datagram
  char last_alias[finder_alias_len];         // the last alias that was accepted here
  sockaddr_in peer;                          // where the last request came from
  IFINFO ifinfo[finder_max_if];
  ACT_IF_INFO present_if;  // its MAC is the camera's own, "MyMAC"
  ACT_IF_INFO active_if;
  ACT_IF_INFO act_if[finder_max_if];
  std::uint8_t* req;  // the request, as every handler reads it
  DeviceContext* ctx;
};

extern Finder finder;

/// Fills the interface tables. Returns `iIfNum`.
int get_ifinfo();

/// Receives and answers one request on the socket of `iReportSocketIndex`.
void Finderd_handle_request();

/// Sends a reply of `len` bytes to the last request's source. Returns 1 when it went out whole, else 0.
int Finderd_send(const std::uint8_t* buf, std::uint32_t len);

/// 1 when the request is addressed to this camera, else 0: to its MAC, or, for the surveys alone, to
/// every camera's.
int check_reqmode();

/// Authority of a caller.
enum : std::uint32_t {
  authority_none = 0,
  authority_administrator = 1,
  authority_user = 2,
};

/// The authority of a user name alone (base64 text). Sets `*index` to a user's place in the table,
/// counted from 1.
std::uint32_t Finderd_check_user(const char* user_b64, std::uint32_t* index);

/// The authority of the request's name and password. Every account is compared with the
/// administrator's password.
std::uint32_t Finderd_check_authentication();

/// Sends the reply to a caller without authority.
void Finderd_send_auth_fail();

// The operations. Each answers with one reply.

void Finderd_handle_survey();
void Finderd_handle_spt_survey();
void Finderd_handle_op_list();
void Finderd_get_lumen_device_1_2();
void Finderd_query_self_conf_result();
void Finderd_get_lumen_device_1_2_url();
void Finderd_get_lumen_device_1_2_alias();
void Finderd_query_alias_status();
void Finderd_set_lumen_device_1_2();
void Finderd_set_lumen_device_1_2_alias();
void Finderd_set_spt_domain();

// Helpers of the queries.

/// Writes the first DNS server and the last of the others, as in_addr words, at `base` + 80 and + 84.
void Finderd_get_dns(std::uint8_t* base);

/// Writes the local time as 14 digits and a terminator. Returns 1, or 0 when `out` is null or the time
/// cannot be read.
int Finderd_get_time(char* out);

/// The reason and the detail of the self-configuration result.
std::uint32_t Finderd_map_prefinal(RegState state);
std::uint32_t Finderd_map_update_result(std::uint32_t result);

}  // namespace kestrel

#endif
