// A request's acceptance, authority and handler.
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "core/debug_log.h"
#include "core/log_format.h"
#include "core/shell.h"
#include "core/text.h"
#include "finder/operations.h"
#include "finder/record.h"

namespace kestrel {

namespace {

/// Who may ask: anyone who names this camera, anyone at all, or its administrator.
enum class Access { anyone, anyone_of_all, administrator };
using enum Access;

/// What an operation's log begins with: readers of logs know each operation by its own.
constexpr LogFormat<'s'> plain = "%s() >>>\n";
constexpr LogFormat<'s'> named = "[kestreld_finder]: %s() >>>\n";
constexpr LogFormat<'s'> spaced = " %s() >>>\n";

/// An operation, who may ask for it, and what is done once the reply has gone out.
struct OpcodeRow {
  FinderOpcode opcode;
  Access access;
  LogFormat<'s'> entry;
  const char* name;
  FinderHandler handler;
  void (*after)(const char* name, bool is_changed) = nullptr;
};

void log_end(const char* name, bool /*is_changed*/) {
  debug_log("[kestreld_finder]: %s() <<<\n", name);
}

void log_change(const char* name, bool is_changed) {
  debug_log("%s(), is_changed %d\n", name, is_changed ? 1 : 0);
}

/// Ends the daemons after a change of the domain: who supervises them starts them with the new one.
void stop_daemons(const char* name, bool is_changed) {
  constexpr int payload_len = 16;
  debug_log(" %s(), is_changed: %d, SendTotalSize=%d, PayloadSize=%d\n", name, is_changed ? 1 : 0,
            static_cast<int>(finder_header_len) + payload_len, payload_len);
  if (!is_changed) return;
  debug_log(" [kestreld_finder]: go to stop relayd and kestreld!!\n");
  run_shell("killall -9 relayd");
  run_shell("killall -9 kestreld");
}

constexpr OpcodeRow opcodes[] = {
    {op_survey, anyone_of_all, plain, "Finderd_handle_survey", Finderd_handle_survey},
    {op_self_conf_result, anyone, named, "Finderd_query_self_conf_result", Finderd_query_self_conf_result},
    {op_get_enable, anyone, named, "Finderd_get_lumen_device_1_2", Finderd_get_lumen_device_1_2, log_end},
    {op_get_url, anyone, named, "Finderd_get_lumen_device_1_2_url", Finderd_get_lumen_device_1_2_url},
    {op_spt_survey, anyone_of_all, plain, "Finderd_handle_spt_survey", Finderd_handle_spt_survey},
    {op_list, administrator, plain, "Finderd_handle_op_list", Finderd_handle_op_list},
    {op_set_enable, administrator, plain, "Finderd_set_lumen_device_1_2", Finderd_set_lumen_device_1_2, log_change},
    {op_get_alias, administrator, named, "Finderd_get_lumen_device_1_2_alias", Finderd_get_lumen_device_1_2_alias},
    {op_set_alias, administrator, plain, "Finderd_set_lumen_device_1_2_alias", Finderd_set_lumen_device_1_2_alias,
     log_change},
    {op_alias_status, administrator, named, "Finderd_query_alias_status", Finderd_query_alias_status},
    {op_set_domain, administrator, spaced, "Finderd_set_spt_domain", Finderd_set_spt_domain, stop_daemons},
};

constexpr std::uint64_t check_ms = 100;   // that a check of a password is paid with: ten a second
constexpr std::uint64_t ahead_ms = 2000;  // that may be paid with ahead: twenty checks

/// Whether a password may be checked now. A guess costs nothing; so many a second are no use to who guesses.
bool may_check() {
  const std::uint64_t now = finder_now_ms();
  const std::uint64_t paid_until = std::max(finder.checks, now) + check_ms;
  if (paid_until > now + ahead_ms) return false;
  finder.checks = paid_until;
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

/// 1 when a request is addressed to this camera, else 0: to its MAC, or to every camera's where `any_mac` allows that.
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

bool acceptable(const FinderRequest& request, const OpcodeRow* row, ssize_t len) {
  const bool any_mac = row != nullptr && row->access == anyone_of_all;
  return request_u16(request, at_magic) == finder_request_magic && check_reqmode(request, any_mac) == 1 &&
         len == static_cast<ssize_t>(request_u16(request, at_length) + finder_header_len);
}

/// An ordinary user's authority reaches no handler; only the administrator's does.
bool may_dispatch(std::uint32_t authority, std::uint16_t opcode) {
  return authority == authority_administrator || (authority == authority_user && opcode == op_user_probe);
}

void send_reply(const FinderRequest& request, FinderReply& reply, bool failed) {
  Finderd_build_header(reply.bytes, request, failed ? 1 : 0, static_cast<std::uint16_t>(reply.len - finder_header_len));
  Finderd_send(reply.bytes, static_cast<std::uint32_t>(reply.len));
}

void Finderd_send_auth_fail(const FinderRequest& request) {
  FinderReply reply{};
  put_words(reply, 0);
  send_reply(request, reply, true);
}

/// True when the request may go on to its handler; who may not is answered here.
bool authorise(const FinderRequest& request, std::uint16_t opcode) {
  if (!may_check()) return false;
  if (!may_dispatch(Finderd_check_authentication(request), opcode)) {
    Finderd_send_auth_fail(request);
    return false;
  }
  print_console("opcode %d\n", opcode);
  return true;
}

}  // namespace

void Finderd_handle_request() {
  const ssize_t len = receive();
  if (len < 0) return;
  debug_log(" %s(), recv addr %s\n", "Finderd_handle_request", peer_text().text);
  const FinderRequest request{finder.request, &finder.served.ifinfo[finder.iReportSocketIndex],
                              finder.served.present_if.mac, finder.ctx, &finder.alias};
  const std::uint16_t opcode = request_u16(request, at_opcode);
  const OpcodeRow* row = find_row(opcode);
  if (!acceptable(request, row, len)) {
    debug_log("Skip invalid request\n");
    return;
  }
  debug_log(" Receive request, opcode %d\n", opcode);
  const bool open = row != nullptr && row->access != administrator;
  if (!open && !authorise(request, opcode)) return;
  if (row == nullptr) {
    debug_log("  Unknown opcode, skip this request\n");
    return;
  }
  log_if(row->entry, row->name);
  FinderReply reply{};
  const FinderResult result = row->handler(request, reply);
  send_reply(request, reply, result.failed);
  if (row->after != nullptr) row->after(row->name, result.is_changed);
}

}  // namespace kestrel
