// A request's acceptance, authority and handler.
#include <arpa/inet.h>
#include <strings.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/packet.h"
#include "finder/record.h"

namespace kestrel {

namespace {

enum class Needs { nothing, administrator };
enum class Target { own_mac, any_mac };

struct OpcodeRow {
  FinderOpcode opcode;
  void (*handler)();
  Needs needs;
  Target target;
};

constexpr std::array<OpcodeRow, 11> opcodes = {{
    {op_survey, Finderd_handle_survey, Needs::nothing, Target::any_mac},
    {op_self_conf_result, Finderd_query_self_conf_result, Needs::nothing, Target::own_mac},
    {op_get_enable, Finderd_get_lumen_device_1_2, Needs::nothing, Target::own_mac},
    {op_get_url, Finderd_get_lumen_device_1_2_url, Needs::nothing, Target::own_mac},
    {op_spt_survey, Finderd_handle_spt_survey, Needs::nothing, Target::any_mac},
    {op_list, Finderd_handle_op_list, Needs::administrator, Target::own_mac},
    {op_set_enable, Finderd_set_lumen_device_1_2, Needs::administrator, Target::own_mac},
    {op_get_alias, Finderd_get_lumen_device_1_2_alias, Needs::administrator, Target::own_mac},
    {op_set_alias, Finderd_set_lumen_device_1_2_alias, Needs::administrator, Target::own_mac},
    {op_alias_status, Finderd_query_alias_status, Needs::administrator, Target::own_mac},
    {op_set_domain, Finderd_set_spt_domain, Needs::administrator, Target::own_mac},
}};

const OpcodeRow* find_row(std::uint16_t opcode) {
  for (const OpcodeRow& row : opcodes) {
    if (row.opcode == opcode) return &row;
  }
  return nullptr;
}

/// Receives a datagram; what it does not fill reads as zero, so that an earlier request's bytes, its
/// credentials among them, can never serve a shorter one. Returns its length, or -1.
ssize_t receive() {
  const int fd = finder.fd[finder.iReportSocketIndex];
  socklen_t peer_len = sizeof(finder.peer);
  zero(finder.request);
  const ssize_t len =
      recvfrom(fd, finder.request, sizeof(finder.request), 0, reinterpret_cast<sockaddr*>(&finder.peer), &peer_len);
  if (len < 0) print_error("recvfrom");
  return len;
}

bool acceptable(ssize_t len) {
  return request_u16(at_magic) == finder_request_magic && check_reqmode() == 1 &&
         len == static_cast<ssize_t>(request_u16(at_length) + finder_header_len);
}

/// An ordinary user's authority reaches no handler; only the administrator's does.
bool may_dispatch(std::uint32_t authority, std::uint16_t opcode) {
  return authority == authority_administrator || (authority == authority_user && opcode == op_user_probe);
}

}  // namespace

int check_reqmode() {
  const std::uint8_t* mac = finder.req + at_mac;
  char text[18];
  format_text(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  debug_log(" check_reqmode:\nMyMAC=%s\nReqMAC=%s\n", finder.present_if.mac, text);
  constexpr std::uint8_t any[finder_mac_len] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  const OpcodeRow* row = find_row(request_u16(at_opcode));
  if (std::memcmp(mac, any, sizeof(any)) == 0 && row != nullptr && row->target == Target::any_mac) return 1;
  return strcasecmp(finder.present_if.mac, text) == 0 ? 1 : 0;
}

void Finderd_send_auth_fail() {
  FinderReply reply = begin_reply(finder_words_len);
  send_reply(reply, 1);
}

void Finderd_handle_request() {
  const ssize_t len = receive();
  if (len < 0) return;
  char from[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &finder.peer.sin_addr, from, sizeof(from));
  debug_log(" %s(), recv addr %s\n", "Finderd_handle_request", from);
  if (!acceptable(len)) {
    debug_log("Skip invalid request\n");
    return;
  }
  const std::uint16_t opcode = request_u16(at_opcode);
  debug_log(" Receive request, opcode %d\n", opcode);
  const OpcodeRow* row = find_row(opcode);
  if (row == nullptr || row->needs == Needs::administrator) {
    if (!may_dispatch(Finderd_check_authentication(), opcode)) {
      Finderd_send_auth_fail();
      return;
    }
    print_console("opcode %d\n", opcode);
  }
  if (row == nullptr) {
    debug_log("  Unknown opcode, skip this request\n");
    return;
  }
  row->handler();
}

}  // namespace kestrel
