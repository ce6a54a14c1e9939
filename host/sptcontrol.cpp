// libsptcontrol: the service's state in a small file under the run directory, for people and tools:
//   online=1
//   uri=http://host.of.the.service
#include <algorithm>
#include <cerrno>
#include <ctime>
#include <mutex>
#include <string>
#include <system_error>

#include "abi.h"
#include "atomic_file.h"
#include "setting_table.h"
#include "settings.h"

namespace host {

namespace {

constexpr std::size_t max_uri_len = 127;         // characters
constexpr int write_attempts = 3;                // 20 ms in all
constexpr timespec write_pause = {0, 10000000};  // 10 ms

struct Status {
  std::mutex mutex;
  bool online = false;
  std::string uri;
};

Status& status() {
  static auto* const instance = new Status;
  return *instance;
}

/// Writes all of the state, each time: what an earlier call could not write is made good by the next.
int publish(const Status& state) {
  const auto run_dir = text_now(setting::run_dir);
  if (!run_dir) return 0;
  const std::string path = *run_dir + "/status";
  const std::string text = std::string("online=") + (state.online ? "1" : "0") + "\nuri=" + state.uri + "\n";
  for (int attempt = 1;; ++attempt) {
    if (make_directories(*run_dir) && replace_file(path, text, nullptr)) return 1;
    if (attempt == write_attempts) break;
    nanosleep(&write_pause, nullptr);  // a camera that stays registered makes no next call for days
  }
  complain(path, "cannot be written: " + std::generic_category().message(errno));
  return 0;
}

}  // namespace

}  // namespace host

extern "C" {

int SetSptOnLineStatus(int online) {
  return host::guarded(0, [&] {
    host::Status& state = host::status();
    const std::lock_guard lock(state.mutex);
    state.online = online != 0;
    return host::publish(state);
  });
}

int SetSptURI(const char* uri) {
  return host::guarded(0, [&] {
    host::Status& state = host::status();
    const std::lock_guard lock(state.mutex);
    state.uri = uri == nullptr ? "" : std::string(uri, strnlen(uri, host::max_uri_len));
    // A line break in it would read as another entry.
    std::ranges::replace_if(
        state.uri, [](char c) { return static_cast<unsigned char>(c) < 0x20; }, '?');
    return host::publish(state);
  });
}

}  // extern "C"
