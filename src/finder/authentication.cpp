// Who may change settings: the administrator, by name and password.
#include <cstring>

#include "core/debug_log.h"
#include "core/log_format.h"
#include "core/text.h"
#include "finder/operations.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

constexpr std::size_t decoded_len = 256;
constexpr int table_name_len = 16;
constexpr int password_len = 64;

/// `out` is zero and larger than what a field's text can decode to, so that it has an end whatever comes.
void decode(const char* b64, char (&out)[decoded_len]) {
  b64_decode(b64, static_cast<unsigned>(std::strlen(b64)), out);
}

/// Logs a text that came with a datagram: with '?' for what would begin a line of its own or move a terminal.
void log_foreign(LogFormat<'s'> format, const char* text) {
  char shown[decoded_len];
  copy_text(shown, text);
  for (char* c = shown; *c != '\0'; ++c) {
    const auto byte = static_cast<unsigned char>(*c);
    const bool control = byte < 0x20 || (byte >= 0x7F && byte < 0xA0);
    if (control) *c = '?';
  }
  log_if(format, shown);
}

/// Every account is compared with the administrator's password. That is meant: it keeps the protected
/// operations to the administrator.
bool password_matches(const char* pass_b64) {
  char given[decoded_len] = "";
  decode(pass_b64, given);
  log_foreign("password '%s'\n", given);
  char wanted[decoded_len] = "";
  // No getter promises that its result alone says that it failed: one that did has left the text alone as well.
  if (cre_get_power_user_passwd(wanted, password_len) == 0 && wanted[0] == '\0') return false;
  return std::strcmp(given, wanted) == 0;
}

}  // namespace

std::uint32_t Finderd_check_user(const char* user_b64, std::uint32_t* index) {
  debug_log("%s() >>>\n", "Finderd_check_user");
  log_foreign("  b64_username %s\n", user_b64 != nullptr ? user_b64 : "");
  if (user_b64 == nullptr) return authority_none;
  const std::size_t len = std::strlen(user_b64);
  char name[decoded_len] = "";
  decode(user_b64, name);
  log_foreign("  username %s\n", name);
  // A text that decodes to nothing is an empty name, and must not match an account without one, nor one that a getter
  // could not tell.
  if (name[0] == '\0') return authority_none;
  char administrator[decoded_len] = "";
  cre_get_power_username(administrator, sizeof(administrator));
  if (std::strncmp(administrator, name, len) == 0) return authority_administrator;
  char count = 0;
  cre_get_max_user_count(&count);
  for (std::uint32_t n = 1; n <= static_cast<unsigned char>(count); ++n) {
    char entry[decoded_len] = "";
    cre_get_user_name_by_count(n, entry, table_name_len);
    if (std::strncmp(entry, name, len) != 0) continue;
    *index = n;
    return authority_user;
  }
  return authority_none;
}

std::uint32_t Finderd_check_authentication(const FinderRequest& request) {
  char user_b64[finder_credential_text_len];
  char pass_b64[finder_credential_text_len];
  request_text(request, at_user, finder_credential_len, user_b64, sizeof(user_b64));
  request_text(request, at_password, finder_credential_len, pass_b64, sizeof(pass_b64));
  debug_log("%s() >>>\n", "Finderd_check_authentication");
  log_foreign("username %s\n", user_b64);
  if (user_b64[0] == '\0') return authority_none;
  std::uint32_t index = 0;
  // Twice on purpose; only the second result counts.
  static_cast<void>(Finderd_check_user(user_b64, &index));
  debug_log("  user index %u\n", index);
  std::uint32_t authority = Finderd_check_user(user_b64, &index);
  debug_log("  user index %u\n", index);
  if (authority != authority_none && !password_matches(pass_b64)) authority = authority_none;
  debug_log("  authority %d\n", static_cast<int>(authority));
  return authority;
}

}  // namespace kestrel
