// The finder's settings: the service switch, the alias and its status, the service domain. Changes go to
// the platform's store and are announced to the main thread by a signal.
#include <signal.h>
#include <sys/types.h>

#include <array>
#include <cstring>

#include "core/debug_log.h"
#include "core/shell.h"
#include "core/text.h"
#include "finder/packet.h"
#include "finder/record.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

constexpr std::uint32_t max_alias_handle = 1024;
constexpr std::uint32_t domain_reply_word = 30000;
constexpr std::uint32_t change_pending = 2;

/// The alias status that stands for "the store's alias is not the one that was set here".
constexpr char alias_mismatch = 3;

void interrupt_main_thread(int signal_number) {
  debug_log("[kestreld_finder]: sending interrupt!!\n");
  kill(load_word(finder.ctx->pid), signal_number);
}

FinderReply begin_words(std::uint32_t first, std::uint32_t second, std::uint32_t third) {
  FinderReply reply = begin_reply(finder_words_len);
  put_u32(reply, 0, first);
  put_u32(reply, 4, second);
  put_u32(reply, 8, third);
  return reply;
}

void log_error_number(std::uint32_t error_number) {
  debug_log("  error_number %lu\n", static_cast<unsigned long>(error_number));
}

char read_alias_status() {
  char status[8] = "";
  if (srv_get_skyport_alias_status(status) != 0) return status[0];
  debug_log("[kestreld] *** srv_get_skyport_alias_status error\n");
  return 0;
}

/// Stores a requested alias. A text that no alias field could hold is refused like any failed store.
bool request_alias() {
  char alias[finder_alias_len];
  const bool fits = request_text(at_arg, finder_arg_len, alias, sizeof(alias));
  if (alias[0] != '\0' && ++finder.alias_handle > max_alias_handle) finder.alias_handle = 1;
  if (!fits || srv_update_aliasname_status(alias, ALIAS_REQUESTED) == 0) return false;
  copy_text(finder.last_alias, alias);
  return true;
}

struct AliasStatusRow {
  char state;
  std::uint16_t result;
  std::uint32_t error_number;
  std::uint32_t status;
};

constexpr std::uint32_t in_progress = 2;

constexpr std::array<AliasStatusRow, 4> alias_status_rows = {{
    {ALIAS_OK, 0, 0, 0},
    {ALIAS_DUPLICATE, 1, 2, 0},
    {ALIAS_FAILED, 1, 1, 0},
    {alias_mismatch, 1, 3, 0},
}};

AliasStatusRow alias_status_of(char state) {
  for (const AliasStatusRow& row : alias_status_rows) {
    if (row.state == state) return row;
  }
  return {state, 0, 0, in_progress};
}

/// Stores the domain when it differs. Returns whether it was changed.
bool change_domain(char* domain) {
  char stored[64] = "";
  char ip[64] = "";
  cre_get_skyport_domain_ip(stored, ip);
  terminate(stored);
  if (std::strcmp(stored, domain) == 0) return false;
  cre_set_skyport_domain(domain);
  return true;
}

}  // namespace

void Finderd_set_lumen_device_1_2() {
  debug_log("%s() >>>\n", "Finderd_set_lumen_device_1_2");
  const std::uint8_t wanted = finder.req[at_arg];
  // A request that ends before its argument must not read as "off".
  const bool has_arg = request_u16(at_length) + finder_header_len > at_arg;
  const bool valid = has_arg && wanted <= 1;
  const std::uint32_t error_number = valid ? 0 : 1;
  log_error_number(error_number);
  int is_changed = 0;
  if (valid) {
    char stored[8] = "";
    cre_get_skyport_enable_state(stored);
    if (stored[0] != static_cast<char>(wanted)) {
      cre_set_skyport_enable_state(static_cast<char>(wanted));
      is_changed = 1;
    }
    // Also when nothing changed: the tool's way to have the camera register anew.
    interrupt_main_thread(SIGUSR1);
  }
  FinderReply reply = begin_words(error_number, 0, 0);
  send_reply(reply, valid ? 0 : 1);
  debug_log("%s(), is_changed %d\n", "Finderd_set_lumen_device_1_2", is_changed);
}

void Finderd_set_lumen_device_1_2_alias() {
  debug_log("%s() >>>\n", "Finderd_set_lumen_device_1_2_alias");
  std::uint32_t error_number = 0;
  int is_changed = 0;
  if (read_alias_status() == ALIAS_REQUESTED) {
    error_number = change_pending;
  } else if (request_alias()) {
    is_changed = 1;
    interrupt_main_thread(SIGUSR2);
  }
  FinderReply reply = begin_words(error_number, finder.alias_handle, 0);
  log_error_number(error_number);
  debug_log("  handle %lu\n", static_cast<unsigned long>(finder.alias_handle));
  send_reply(reply, is_changed != 0 ? 0 : 1);
  debug_log("%s(), is_changed %d\n", "Finderd_set_lumen_device_1_2_alias", is_changed);
}

void Finderd_query_alias_status() {
  debug_log("[kestreld_finder]: %s() >>>\n", "Finderd_query_alias_status");
  char state = read_alias_status();
  char name[64] = "";  // 32 bytes are meant
  if (srv_get_skyport_alias_name(name, 32) == 0) debug_log("[kestreld] *** srv_get_skyport_alias_name error\n");
  terminate(name);
  if (std::strcmp(name, finder.last_alias) != 0) state = alias_mismatch;
  const AliasStatusRow row = alias_status_of(state);
  debug_log("  ret %d\n", row.result);
  log_error_number(row.error_number);
  debug_log("  status %lu\n", static_cast<unsigned long>(row.status));
  FinderReply reply = begin_words(row.error_number, row.status, 0);
  send_reply(reply, row.result);
}

void Finderd_set_spt_domain() {
  debug_log(" %s() >>>\n", "Finderd_set_spt_domain");
  char domain[64];
  const bool fits = request_text(at_arg, finder_arg_len, domain, sizeof(domain));
  // A domain that the store cannot hold whole is refused like an empty one, never cut.
  const bool valid = fits && domain[0] != '\0';
  const std::uint32_t error_number = valid ? 0 : 1;
  bool is_changed = false;
  if (valid) {
    is_changed = change_domain(domain);
  } else {
    debug_log(" error_number: %d\n", static_cast<int>(error_number));
  }
  FinderReply reply = begin_words(error_number, 0, domain_reply_word);
  send_reply(reply, valid ? 0 : 1);
  debug_log(" %s(), is_changed: %d, SendTotalSize=%d, PayloadSize=%d\n", "Finderd_set_spt_domain", is_changed ? 1 : 0,
            static_cast<int>(finder_header_len + finder_words_len), static_cast<int>(finder_words_len));
  if (is_changed) {
    debug_log(" [kestreld_finder]: go to stop relayd and kestreld!!\n");
    run_shell("killall -9 relayd");
    // Ends this daemon too; who supervises it starts it with the new domain.
    run_shell("killall -9 kestreld");
  }
}

}  // namespace kestrel
