// A request's acceptance, authority and handler.
#include <arpa/inet.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/operations.h"
#include "finder/record.h"

namespace kestrel {

namespace {

enum class Needs { nothing, administrator };
enum class Target { own_mac, any_mac };

/// An operation: who may ask for it, how long its reply's payload is, and what is done once the reply has gone out.
struct OpcodeRow {
  FinderOpcode opcode;
  FinderHandler handler;
  std::size_t payload_len;
  Needs needs;
  Target target;
  void (*after)(FinderResult result);
};

void after_get_enable(FinderResult /*result*/) {
  debug_log("[kestreld_finder]: %s() <<<\n", "Finderd_get_lumen_device_1_2");
}

void after_set_enable(FinderResult result) {
  debug_log("%s(), is_changed %d\n", "Finderd_set_lumen_device_1_2", result.is_changed ? 1 : 0);
}

void after_set_alias(FinderResult result) {
  debug_log("%s(), is_changed %d\n", "Finderd_set_lumen_device_1_2_alias", result.is_changed ? 1 : 0);
}

void after_set_domain(FinderResult result) {
  debug_log(" %s(), is_changed: %d, SendTotalSize=%d, PayloadSize=%d\n", "Finderd_set_spt_domain",
            result.is_changed ? 1 : 0, static_cast<int>(finder_header_len + finder_words_len),
            static_cast<int>(finder_words_len));
  if (result.is_changed) stop_daemons();
}

// clang-format off
constexpr std::array<OpcodeRow, 11> opcodes = {{
    {op_survey, Finderd_handle_survey, finder_survey_len, Needs::nothing, Target::any_mac, nullptr},
    {op_self_conf_result, Finderd_query_self_conf_result, finder_words_len, Needs::nothing, Target::own_mac, nullptr},
    {op_get_enable, Finderd_get_lumen_device_1_2, finder_words_len, Needs::nothing, Target::own_mac, after_get_enable},
    {op_get_url, Finderd_get_lumen_device_1_2_url, finder_text_len, Needs::nothing, Target::own_mac, nullptr},
    {op_spt_survey, Finderd_handle_spt_survey, finder_spt_survey_len, Needs::nothing, Target::any_mac, nullptr},
    {op_list, Finderd_handle_op_list, finder_op_list_len, Needs::administrator, Target::own_mac, nullptr},
    {op_set_enable, Finderd_set_lumen_device_1_2, finder_words_len, Needs::administrator, Target::own_mac, after_set_enable},
    {op_get_alias, Finderd_get_lumen_device_1_2_alias, finder_text_len, Needs::administrator, Target::own_mac, nullptr},
    {op_set_alias, Finderd_set_lumen_device_1_2_alias, finder_words_len, Needs::administrator, Target::own_mac, after_set_alias},
    {op_alias_status, Finderd_query_alias_status, finder_words_len, Needs::administrator, Target::own_mac, nullptr},
    {op_set_domain, Finderd_set_spt_domain, finder_words_len, Needs::administrator, Target::own_mac, after_set_domain},
}};
// clang-format on

static_assert(std::ranges::all_of(opcodes, [](const OpcodeRow& row) { return row.payload_len <= finder_survey_len; }),
              "a reply has room for them");

constexpr std::uint64_t check_cost = 1000;  // thousandths of a password check
constexpr std::uint64_t checks_burst = 20;
constexpr std::uint64_t checks_per_s = 10;  // so many thousandths a millisecond, too

/// Whether a password may be checked now. A guess costs nothing; so many a second are no use to who guesses.
bool may_check(CheckBudget& budget) {
  const std::uint64_t now = finder_now_ms();
  budget.left = std::min(budget.left + (now - budget.at_ms) * checks_per_s, checks_burst * check_cost);
  budget.at_ms = now;
  if (budget.left < check_cost) return false;
  budget.left -= check_cost;
  return true;
}

const OpcodeRow* find_row(std::uint16_t opcode) {
  for (const OpcodeRow& row : opcodes) {
    if (row.opcode == opcode) return &row;
  }
  return nullptr;
}

/// Receives a datagram; what it does not fill reads as zero, so that an earlier request's bytes, its
/// credentials among them, can never serve a shorter one. A datagram that select saw and that the kernel then
/// dropped is not waited for. Returns its length, or -1.
ssize_t receive() {
  const int fd = finder.fd[finder.iReportSocketIndex];
  socklen_t peer_len = sizeof(finder.peer);
  zero(finder.request);
  const ssize_t len = recvfrom(fd, finder.request, sizeof(finder.request), MSG_DONTWAIT,
                               reinterpret_cast<sockaddr*>(&finder.peer), &peer_len);
  if (len < 0) print_error("recvfrom");
  return len;
}

bool acceptable(const FinderRequest& request, const OpcodeRow* row, ssize_t len) {
  const bool any_mac = row != nullptr && row->target == Target::any_mac;
  return request_u16(request, at_magic) == finder_request_magic && check_reqmode(request, any_mac) == 1 &&
         len == static_cast<ssize_t>(request_u16(request, at_length) + finder_header_len);
}

/// An ordinary user's authority reaches no handler; only the administrator's does.
bool may_dispatch(std::uint32_t authority, std::uint16_t opcode) {
  return authority == authority_administrator || (authority == authority_user && opcode == op_user_probe);
}

void send_reply(const FinderRequest& request, FinderReply& reply, std::uint16_t result) {
  Finderd_build_header(reply.bytes, request, result, static_cast<std::uint16_t>(reply.payload_len));
  Finderd_send(reply.bytes, static_cast<std::uint32_t>(finder_header_len + reply.payload_len));
}

void Finderd_send_auth_fail(const FinderRequest& request) {
  FinderReply reply{{}, finder_words_len};
  send_reply(request, reply, 1);
}

/// True when the request may go on to its handler; who may not is answered here.
bool authorise(const FinderRequest& request, std::uint16_t opcode) {
  if (!may_check(finder.checks)) return false;
  if (!may_dispatch(Finderd_check_authentication(request), opcode)) {
    Finderd_send_auth_fail(request);
    return false;
  }
  print_console("opcode %d\n", opcode);
  return true;
}

}  // namespace

int check_reqmode(const FinderRequest& request, bool any_mac) {
  const std::uint8_t* mac = request.bytes + at_mac;
  constexpr std::uint8_t everybody[finder_mac_len] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  const bool is_for_all = any_mac && std::memcmp(mac, everybody, sizeof(everybody)) == 0;
  if (is_for_all && DbgLevel == 0) return 1;
  char text[18];
  format_text(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
  debug_log(" check_reqmode:\nMyMAC=%s\nReqMAC=%s\n", request.my_mac, text);
  return is_for_all || strncasecmp(request.my_mac, text, sizeof(text)) == 0 ? 1 : 0;
}

void Finderd_handle_request() {
  const ssize_t len = receive();
  if (len < 0) return;
  char from[INET_ADDRSTRLEN] = "";
  if (DbgLevel != 0) inet_ntop(AF_INET, &finder.peer.sin_addr, from, sizeof(from));
  debug_log(" %s(), recv addr %s\n", "Finderd_handle_request", from);
  const FinderRequest request{finder.request, &finder.served.ifinfo[finder.iReportSocketIndex],
                              finder.served.present_if.mac, finder.ctx, &finder.alias};
  const std::uint16_t opcode = request_u16(request, at_opcode);
  const OpcodeRow* row = find_row(opcode);
  if (!acceptable(request, row, len)) {
    debug_log("Skip invalid request\n");
    return;
  }
  debug_log(" Receive request, opcode %d\n", opcode);
  const bool open = row != nullptr && row->needs == Needs::nothing;
  if (!open && !authorise(request, opcode)) return;
  if (row == nullptr) {
    debug_log("  Unknown opcode, skip this request\n");
    return;
  }
  FinderReply reply{{}, row->payload_len};
  const FinderResult result = row->handler(request, reply);
  send_reply(request, reply, result.result);
  if (row->after != nullptr) row->after(result);
}

}  // namespace kestrel
