// The finder's operations and what they share. An operation reads its request, fills the reply's payload, and gives
// the reply's result.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/text.h"
#include "finder/packet.h"

namespace kestrel {

/// What comes of an operation: the result of the reply's header, and whether a setting was changed.
struct FinderResult {
  bool failed = false;
  bool is_changed = false;
};

using FinderHandler = FinderResult (*)(const FinderRequest& request, FinderReply& reply);

/// Authority of a caller.
enum : std::uint32_t {
  authority_none = 0,
  authority_administrator = 1,
  authority_user = 2,
};

/// The authority of a user name alone (base64 text). Sets `*index` to a user's place in the table,
/// counted from 1.
[[nodiscard]] std::uint32_t Finderd_check_user(const char* user_b64, std::uint32_t* index);

/// The authority of the request's name and password. Every account is compared with the
/// administrator's password.
[[nodiscard]] std::uint32_t Finderd_check_authentication(const FinderRequest& request);

FinderResult Finderd_handle_survey(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_handle_spt_survey(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_handle_op_list(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_get_lumen_device_1_2(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_query_self_conf_result(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_get_lumen_device_1_2_url(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_get_lumen_device_1_2_alias(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_query_alias_status(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_set_lumen_device_1_2(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_set_lumen_device_1_2_alias(const FinderRequest& request, FinderReply& reply);
FinderResult Finderd_set_spt_domain(const FinderRequest& request, FinderReply& reply);

/// Writes the first DNS server and the last of the others, as in_addr words, at `base` + 80 and + 84; leaves alone
/// what there is none for.
void Finderd_get_dns(std::uint8_t* base);

/// Writes the local time as 14 digits and a terminator. Returns 1, or 0 when `out` is null or the time
/// cannot be read.
int Finderd_get_time(char* out);

/// The reason and the detail of the self-configuration result.
std::uint32_t Finderd_map_prefinal(RegState state);
std::uint32_t Finderd_map_update_result(std::uint32_t result);

/// Getters' buffers: larger than any size that a library of the family was built for, and zero before the call, so that
/// a text has an end whatever comes.
constexpr std::size_t getter_len = 128;

/// A setting of one byte; `otherwise` when it cannot be read: a getter that returns 0 may have filled it.
inline std::uint8_t byte_setting(int (*get)(char*), std::uint8_t otherwise) {
  char value[getter_len] = {unfilled_byte};
  const bool failed = get(value) == 0 && value[0] == unfilled_byte;
  return failed ? otherwise : static_cast<std::uint8_t>(value[0]);
}

/// Puts a text that a getter fills into a field of `size` bytes, whatever the getter says. Returns what it says.
template <int size, typename Getter>
int put_setting(FinderReply& reply, Getter get) {
  char text[getter_len] = "";
  const int known = get(text, size);
  put_text(reply, size, text);
  return known;
}

/// As put_setting, the URL under which the service publishes the camera.
inline int put_url(FinderReply& reply) {
  return put_setting<finder_text_len>(reply, [](char* url, int) { return tessel_get_skyport_http_url(url); });
}

}  // namespace kestrel
