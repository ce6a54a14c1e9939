// The finder's changes of settings: the service switch, the alias and its status, the service domain. Changes go to
// the platform's store and are announced to the main thread by a signal.
#include <signal.h>
#include <sys/types.h>

#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/operations.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

constexpr std::uint32_t max_alias_handle = 1024;
constexpr std::uint32_t domain_reply_word = 30000;
constexpr std::uint32_t change_pending = 2;
constexpr unsigned stored_alias_len = 32;  // of the store's alias
constexpr std::size_t domain_len = 64;

/// The alias status that stands for "the store's alias is not the one that was set here".
constexpr char alias_mismatch = 3;

void interrupt_main_thread(const DeviceContext& ctx, int signal_number) {
  debug_log("[kestreld_finder]: sending interrupt!!\n");
  kill(load_word(ctx.pid), signal_number);
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
bool request_alias(const FinderRequest& request) {
  FinderAlias& memory = *request.alias;
  char alias[finder_alias_len];
  const bool fits = request_text(request, at_arg, finder_arg_len, alias, sizeof(alias));
  if (alias[0] != '\0' && ++memory.alias_handle > max_alias_handle) memory.alias_handle = 1;
  if (!fits || srv_update_aliasname_status(alias, ALIAS_REQUESTED) == 0) return false;
  copy_text(memory.last_alias, alias);
  return true;
}

/// What a query of the alias's state answers.
struct AliasStatusRow {
  char state;
  std::uint32_t error_number;
  std::uint32_t status;
};

constexpr std::uint32_t in_progress = 2;

constexpr AliasStatusRow alias_status_rows[] = {
    {ALIAS_OK, 0, 0},
    {ALIAS_DUPLICATE, 2, 0},
    {ALIAS_FAILED, 1, 0},
    {alias_mismatch, 3, 0},
};

AliasStatusRow alias_status_of(char state) {
  for (const AliasStatusRow& row : alias_status_rows) {
    if (row.state == state) return row;
  }
  return {state, 0, in_progress};
}

struct Domain {
  char text[getter_len];
};

Domain stored_domain() {
  Domain domain{};
  char ip[getter_len] = "";
  cre_get_skyport_domain_ip(domain.text, ip);
  return domain;
}

/// Stores the domain when it differs. No platform promises what the setter's result says, so it is refused only
/// when the store gives the old one still.
FinderResult change_domain(char* domain) {
  const Domain stored = stored_domain();
  if (std::strcmp(stored.text, domain) == 0) return {};
  const bool taken = cre_set_skyport_domain(domain) != 0 || std::strcmp(stored.text, stored_domain().text) != 0;
  return {.failed = !taken, .is_changed = taken};
}

/// As change_domain, for the service's switch.
FinderResult change_switch(std::uint8_t wanted) {
  constexpr std::uint8_t unknown = 0xFF;
  const std::uint8_t stored = byte_setting(cre_get_skyport_enable_state, unknown);
  if (stored == wanted) return {};
  const bool taken = cre_set_skyport_enable_state(static_cast<char>(wanted)) != 0 ||
                     byte_setting(cre_get_skyport_enable_state, unknown) != stored;
  return {.failed = !taken, .is_changed = taken};
}

}  // namespace

FinderResult Finderd_set_lumen_device_1_2(const FinderRequest& request, FinderReply& reply) {
  const std::uint8_t wanted = request.bytes[at_arg];
  // A request that ends before its argument must not read as "off".
  const bool has_arg = request_u16(request, at_length) + finder_header_len > at_arg;
  const bool valid = has_arg && wanted <= 1;
  log_error_number(valid ? 0 : 1);
  const FinderResult result = valid ? change_switch(wanted) : FinderResult{.failed = true};
  if (valid && result.failed) log_error_number(1);
  // Never all zero on failure: that is what refused credentials look like.
  put_words(reply, result.failed ? 1 : 0);
  // Also when nothing changed: the tool's way to have the camera register anew.
  if (!result.failed) interrupt_main_thread(*request.ctx, SIGUSR1);
  return result;
}

FinderResult Finderd_set_lumen_device_1_2_alias(const FinderRequest& request, FinderReply& reply) {
  FinderResult result{.failed = true};
  std::uint32_t error_number = 0;
  if (read_alias_status() == ALIAS_REQUESTED) {
    error_number = change_pending;
  } else if (request_alias(request)) {
    result = {.is_changed = true};
    interrupt_main_thread(*request.ctx, SIGUSR2);
  }
  const std::uint32_t handle = request.alias->alias_handle;
  put_words(reply, error_number, handle);
  log_error_number(error_number);
  debug_log("  handle %lu\n", static_cast<unsigned long>(handle));
  return result;
}

FinderResult Finderd_query_alias_status(const FinderRequest& request, FinderReply& reply) {
  char state = read_alias_status();
  char name[getter_len] = "";
  if (srv_get_skyport_alias_name(name, stored_alias_len) == 0) {
    debug_log("[kestreld] *** srv_get_skyport_alias_name error\n");
  }
  if (std::strcmp(name, request.alias->last_alias) != 0) state = alias_mismatch;
  const AliasStatusRow row = alias_status_of(state);
  debug_log("  ret %d\n", row.error_number == 0 ? 0 : 1);
  log_error_number(row.error_number);
  debug_log("  status %lu\n", static_cast<unsigned long>(row.status));
  put_words(reply, row.error_number, row.status);
  return {.failed = row.error_number != 0};
}

FinderResult Finderd_set_spt_domain(const FinderRequest& request, FinderReply& reply) {
  char domain[domain_len];
  // A domain that the store cannot hold whole is refused like an empty one, never cut.
  const bool fits = request_text(request, at_arg, finder_arg_len, domain, sizeof(domain));
  const FinderResult result = fits && domain[0] != '\0' ? change_domain(domain) : FinderResult{.failed = true};
  put_words(reply, result.failed ? 1 : 0, 0, domain_reply_word);
  if (result.failed) debug_log(" error_number: %d\n", 1);
  return result;
}

}  // namespace kestrel
