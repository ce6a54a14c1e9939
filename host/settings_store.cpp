// The writing of settings: re-read under a lock, changed, and put in place in one step, see settings.h.
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <system_error>

#include "atomic_file.h"
#include "setting_values.h"
#include "settings.h"

namespace host {

namespace {

constexpr int lock_attempts = 500;              // 5 s in all: another writer needs milliseconds
constexpr timespec lock_pause = {0, 10000000};  // 10 ms

std::mutex& writer_mutex() {
  static auto* const instance = new std::mutex;  // never destroyed: a thread that outlives main may still store
  return *instance;
}

bool take_lock(int fd) {
  for (int i = 0; i < lock_attempts; ++i) {
    if (flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    nanosleep(&lock_pause, nullptr);
  }
  errno = EWOULDBLOCK;
  return false;
}

/// The file itself where the path is a link, so that the link survives the replacement.
std::string real_path(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), std::free);
  return real ? real.get() : path;
}

bool holds(GKeyFile* file, const Change& change) {
  const GText value(g_key_file_get_string(file, change.group, change.key, nullptr));
  return value && change.value == value.get();
}

/// Puts the changes into the parsed file. Gives whether there was anything to change.
bool apply(GKeyFile* file, std::span<const Change> changes) {
  bool changed = false;
  for (const Change& change : changes) {
    if (holds(file, change)) continue;
    g_key_file_set_string(file, change.group, change.key, change.value.c_str());
    changed = true;
  }
  return changed;
}

/// Gives the reason on failure, an empty text on success.
std::string store_locked(const std::string& path, std::span<const Change> changes) {
  struct stat state {};
  std::string problem;
  const KeyFile file = read_key_file(path, state, problem);
  if (!file) return problem;
  if (!apply(file.get(), changes)) return "";
  gsize len = 0;
  const GText data(g_key_file_to_data(file.get(), &len, nullptr));
  if (replace_file(path, {data.get(), len}, &state)) return "";
  return "cannot be replaced: " + std::generic_category().message(errno);
}

}  // namespace

bool store(std::span<const Change> changes) {
  const std::string path = real_path(settings_path());
  for (const Change& change : changes) {
    if (g_utf8_validate(change.value.data(), static_cast<gssize>(change.value.size()), nullptr) != 0) continue;
    complain(path, change.group, change.key, "is not stored: its text is not UTF-8");
    return false;
  }
  const std::lock_guard guard(writer_mutex());
  const std::string lock_path = path + ".lock";
  const Descriptor lock(open(lock_path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (lock.get() < 0 || !take_lock(lock.get())) {
    complain(lock_path, "cannot be locked: " + std::generic_category().message(errno));
    return false;
  }
  const std::string problem = store_locked(path, changes);
  look_again();
  if (!problem.empty()) complain(path, "settings are not stored: " + problem);
  return problem.empty();
}

}  // namespace host
