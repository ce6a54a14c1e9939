// The finder's queries: what a tool asks of one camera.
#include <array>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/operations.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

void log_entry(const char* name) {
  debug_log("[kestreld_finder]: %s() >>>\n", name);
}

/// Answers with a text of 64 bytes; `known` is the getter's result.
FinderResult put_answer(FinderReply& reply, int known, const char* text) {
  put_text(reply, 0, finder_text_len, text);
  return {static_cast<std::uint16_t>(known != 0 ? 0 : 1)};
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

FinderResult Finderd_handle_op_list(const FinderRequest& /*request*/, FinderReply& reply) {
  debug_log("%s() >>>\n", "Finderd_handle_op_list");
  // A fixed range, whatever the dispatcher serves; tools know it so.
  constexpr std::uint16_t last_listed = 0x00B1;
  std::size_t at = 0;
  for (std::uint16_t opcode = op_survey; opcode <= last_listed; ++opcode, at += 2) put_u16(reply, at, opcode);
  return {0};
}

FinderResult Finderd_get_lumen_device_1_2(const FinderRequest& /*request*/, FinderReply& reply) {
  log_entry("Finderd_get_lumen_device_1_2");
  put_u8(reply, 0, byte_setting(cre_get_skyport_enable_state, 0) != 0 ? 1 : 0);
  return {0};
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

FinderResult Finderd_query_self_conf_result(const FinderRequest& request, FinderReply& reply) {
  const DeviceContext& ctx = *request.ctx;
  log_entry("Finderd_query_self_conf_result");
  const std::uint32_t conf_state = conf_state_of(load_word(ctx.state));
  const RegState prefinal = load_word(ctx.prefinal_state);
  const std::uint32_t result = load_word(ctx.upd.resut);
  put_u32(reply, 0, conf_state);
  put_u32(reply, 4, conf_state == conf_running ? 0 : Finderd_map_prefinal(prefinal));
  put_u32(reply, 8, conf_state == conf_not_ready ? Finderd_map_update_result(result) : 0);
  return {0};
}

FinderResult Finderd_get_lumen_device_1_2_url(const FinderRequest& /*request*/, FinderReply& reply) {
  log_entry("Finderd_get_lumen_device_1_2_url");
  char url[getter_len] = "";
  const int known = tessel_get_skyport_http_url(url);
  terminate(url);
  return put_answer(reply, known, url);
}

FinderResult Finderd_get_lumen_device_1_2_alias(const FinderRequest& /*request*/, FinderReply& reply) {
  log_entry("Finderd_get_lumen_device_1_2_alias");
  char alias[getter_len] = "";
  const int known = srv_get_skyport_last_alias_name(alias, finder_text_len);
  terminate(alias);
  return put_answer(reply, known, alias);
}

}  // namespace kestrel
