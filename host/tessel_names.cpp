// libtessel: the process lock and the service's names.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <mutex>
#include <set>
#include <system_error>

#include "abi.h"
#include "atomic_file.h"
#include "setting_table.h"
#include "settings.h"

namespace host {

namespace {

constexpr std::size_t name_size = 64;  // host names and URLs, terminator included

struct Locks {
  std::mutex mutex;
  std::set<std::string> held;
};

Locks& locks() {
  static auto* const instance = new Locks;
  return *instance;
}

/// The descriptor stays open until the process ends, and the lock with it; children do not inherit it.
bool lock_file(const std::string& path) {
  Descriptor fd(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  // A file that others may open would let any of them hold the lock.
  if (fd.get() >= 0 && fchmod(fd.get(), 0600) == 0 && flock(fd.get(), LOCK_EX | LOCK_NB) == 0) {
    fd.release();
    return true;
  }
  if (errno != EWOULDBLOCK) complain(path, "cannot be locked: " + std::generic_category().message(errno));
  return false;
}

int take_lock(const char* name) {
  const std::string_view file = name == nullptr ? "" : name;
  if (file.empty() || file.front() == '.' || file.find('/') != std::string_view::npos) return 0;
  const auto run_dir = text_now(setting::run_dir);
  if (!run_dir) {
    complain(settings_path(),
             "no process lock without settings: set KESTREL_CONF to a readable file with a right run_dir");
    return 0;
  }
  if (!make_directories(*run_dir)) {
    complain(*run_dir, "cannot be made: " + std::generic_category().message(errno));
    return 0;
  }
  const std::string path = *run_dir + "/" + std::string(file);
  Locks& state = locks();
  const std::lock_guard guard(state.mutex);
  if (state.held.contains(path)) return 1;
  if (!lock_file(path)) return 0;
  state.held.insert(path);
  return 1;
}

int redirect_host(std::string_view domain, char* host) {
  const auto configured = text_now(setting::redirect_host);
  if (!configured) return 0;
  const std::string_view name = configured->empty() ? domain : std::string_view(*configured);
  return !name.empty() && name.size() < name_size && put_text(host, name_size, name) ? 1 : 0;
}

void replace_all(std::string& text, std::string_view from, std::string_view to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
}

int service_url(char* url) {
  const auto settings = current_settings();
  if (!settings) return 0;
  const auto format = text_of(*settings, setting::url_format);
  const auto domain = text_of(*settings, setting::domain);
  const auto hid = text_of(*settings, setting::hid);
  const auto alias = text_of(*settings, setting::last_alias);
  if (!format || !domain || !hid || !alias) return 0;
  if (hid->empty() && alias->empty()) return 0;  // no account yet: the service publishes nothing
  std::string text = *format;
  const std::array<std::pair<const char*, std::string_view>, 4> words{{
      {"{alias-or-hid}", alias->empty() ? *hid : *alias},
      {"{alias}", *alias},
      {"{hid}", *hid},
      {"{domain}", *domain},
  }};
  for (const auto& [word, value] : words) replace_all(text, word, value);
  if (text.size() < name_size) return put_text(url, name_size, text) ? 1 : 0;
  complain(settings->path, setting::url_format.group, setting::url_format.key,
           "gives \"" + text + "\", which is longer than " + std::to_string(name_size - 1) + " bytes");
  return 0;
}

}  // namespace

}  // namespace host

extern "C" {

int tessel_get_lock(const char* name) {
  return host::guarded(0, [&] { return host::take_lock(name); });
}

int tessel_get_skyport_url(const char* domain, char* host) {
  return host::guarded(0, [&] {
    const std::size_t len = domain == nullptr ? 0 : strnlen(domain, host::name_size);
    return host::redirect_host({domain, len}, host);
  });
}

int tessel_get_skyport_http_url(char* url) {
  return host::guarded(0, [&] { return host::service_url(url); });
}

}  // extern "C"
