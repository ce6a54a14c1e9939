// The finder's queries: what a tool asks of one camera.
#include <endian.h>

#include "finder/operations.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

/// The states with a reason of their own, which are 1 to 7 in this order.
constexpr RegState prefinal_reasons[] = {IpReady, PublicMode, NoUPnP, UPnP, NATM, UpnpPfFailed, UpnpPfReady};

enum : std::uint32_t { conf_running = 1, conf_done = 2, conf_not_ready = 3, conf_part_done = 4 };

std::uint32_t conf_state_of(RegState state) {
  if (state == LumenDevDone) return conf_done;
  if (state == LumenDevNotReady) return conf_not_ready;
  return state == LumenDevPartDone ? conf_part_done : conf_running;
}

}  // namespace

FinderResult Finderd_handle_op_list(const FinderRequest& /*request*/, FinderReply& reply) {
  // A fixed range, whatever the dispatcher serves; tools know it so.
  constexpr std::uint16_t last_listed = 0x00B1;
  for (std::uint16_t opcode = op_survey; opcode <= last_listed; ++opcode) put_u16(reply, opcode);
  return {};
}

FinderResult Finderd_get_lumen_device_1_2(const FinderRequest& /*request*/, FinderReply& reply) {
  put_words(reply, byte_setting(cre_get_skyport_enable_state, 0) != 0 ? 1 : 0);
  return {};
}

std::uint32_t Finderd_map_prefinal(RegState state) {
  std::uint32_t reason = 0;
  for (const RegState prefinal : prefinal_reasons) {
    ++reason;
    if (prefinal == state) return reason;
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
  const std::uint32_t conf_state = conf_state_of(load_word(ctx.state));
  const RegState prefinal = load_word(ctx.prefinal_state);
  const std::uint32_t result = load_word(ctx.upd.resut);
  put_words(reply, conf_state, conf_state == conf_running ? 0 : Finderd_map_prefinal(prefinal),
            conf_state == conf_not_ready ? Finderd_map_update_result(result) : 0);
  return {};
}

FinderResult Finderd_get_lumen_device_1_2_url(const FinderRequest& /*request*/, FinderReply& reply) {
  return {.failed = put_url(reply) == 0};
}

FinderResult Finderd_get_lumen_device_1_2_alias(const FinderRequest& /*request*/, FinderReply& reply) {
  return {.failed = put_setting<finder_text_len>(reply, srv_get_skyport_last_alias_name) == 0};
}

}  // namespace kestrel
