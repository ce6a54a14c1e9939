// The cache of the settings file, the checks of values, and what is said about problems, see settings.h.
#include "settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <set>

#include "setting_values.h"

namespace host {

namespace {

/// What tells one state of the file from another.
struct Stamp {
  bool readable = false;
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  std::int64_t written_ns = 0;
  std::int64_t changed_ns = 0;  // content, name or rights
  bool operator==(const Stamp&) const = default;
};

struct Cache {
  std::mutex mutex;
  bool loaded = false;
  bool settled = false;  // the file was old enough when read that a later change shows in its time
  unsigned stores = 0;   // changes made here
  std::string path;
  Stamp stamp;
  std::shared_ptr<const Settings> settings;
  std::set<std::string> said;
};

/// Never destroyed: a thread that outlives main may still ask.
Cache& cache() {
  static auto* const instance = new Cache;
  return *instance;
}

constexpr std::int64_t ns_per_s = 1000000000;
// File times advance with the kernel's tick (up to 10 ms): two changes within one can look the same.
constexpr std::int64_t settling_ns = 20000000;
// Getters are called in bursts, a dozen for one answer: a look at the file serves those of a thread in that
// time, or in the kernel's tick if that is longer.
constexpr std::int64_t look_period_ns = 1000000;

/// A thread's last look at the file.
struct Look {
  std::int64_t at_ns = 0;  // on the monotonic clock
  unsigned stores = 0;     // that had been made then
};
thread_local Look last_look;

std::int64_t in_ns(const timespec& time) {
  return static_cast<std::int64_t>(time.tv_sec) * ns_per_s + time.tv_nsec;
}

Stamp stamp_of(const struct stat& state) {
  return {true, state.st_dev, state.st_ino, state.st_size, in_ns(state.st_mtim), in_ns(state.st_ctim)};
}

bool is_settled(const Stamp& stamp) {
  if (!stamp.readable) return true;
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return std::abs(in_ns(now) - stamp.changed_ns) > settling_ns;
}

/// The kernel's tick, of up to 10 ms, costs a fraction of the exact time.
std::int64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return in_ns(now);
}

bool is_control(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

void say(const std::string& sentence) {
  std::string line = "kestrel: " + sentence;
  std::ranges::replace_if(line, is_control, '?');  // values may come from the network
  line += '\n';
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

void say_once(Cache& state, const std::string& sentence) {
  if (state.said.insert(sentence).second) say(sentence);
}

std::string name_of(const char* group, const char* key) {
  return std::string("[") + group + "] " + key;
}

using GTexts = std::unique_ptr<char*, decltype(&g_strfreev)>;

void take_group(Settings& settings, GKeyFile* file, const char* group) {
  const GTexts keys(g_key_file_get_keys(file, group, nullptr, nullptr), g_strfreev);
  for (char** key = keys.get(); key != nullptr && *key != nullptr; ++key) {
    GError* failure = nullptr;
    const GText value(g_key_file_get_string(file, group, *key, &failure));
    const GErrorPtr error(failure);
    auto& place = error ? settings.unusable : settings.values;
    place[name_of(group, *key)] = error ? error->message : value.get();
  }
}

std::shared_ptr<const Settings> parse(const std::string& path, struct stat& state, std::string& problem) {
  const KeyFile file = read_key_file(path, state, problem);
  if (!file) return nullptr;
  auto settings = std::make_shared<Settings>();
  settings->path = path;
  const GTexts groups(g_key_file_get_groups(file.get(), nullptr), g_strfreev);
  for (char** group = groups.get(); *group != nullptr; ++group) take_group(*settings, file.get(), *group);
  return settings;
}

void reload(Cache& state, const std::string& path, const Stamp& seen) {
  struct stat read_state {};
  std::string problem;
  const bool settled = is_settled(seen);
  state.settings = parse(path, read_state, problem);
  const Stamp stamp = read_state.st_ino != 0 ? stamp_of(read_state) : seen;
  if (!state.loaded || path != state.path || stamp != state.stamp) state.said.clear();
  state.path = path;
  state.stamp = stamp;
  // A failure may be the moment's (memory, descriptors, a signal): only what was read is kept.
  state.settled = state.settings != nullptr && settled && stamp == seen;
  state.loaded = true;
  if (!state.settings) say_once(state, path + ": " + problem);
}

const std::string* find(const Values& values, const char* group, const char* key) {
  if (values.empty()) return nullptr;
  char name[64];  // longer than every name of the table; this is most of what a getter does
  const std::string_view words[] = {"[", group, "] ", key};
  char* end = name;
  for (const std::string_view word : words) {
    if (word.size() > static_cast<std::size_t>(std::end(name) - end)) return nullptr;
    end = std::copy(word.begin(), word.end(), end);
  }
  const auto found = values.find(std::string_view(name, end));
  return found == values.end() ? nullptr : &found->second;
}

/// The value of a setting that is there and readable; otherwise null, and what is missing has been said
/// when the setting has no fallback.
const std::string* value_of(const Settings& settings, const char* group, const char* key, bool has_fallback,
                            bool& unreadable) {
  const std::string* reason = find(settings.unusable, group, key);
  unreadable = reason != nullptr;
  if (unreadable) {
    complain(settings.path, group, key, "cannot be read: " + *reason);
    return nullptr;
  }
  const std::string* value = find(settings.values, group, key);
  if (value == nullptr && !has_fallback) complain(settings.path, group, key, "is missing");
  return value;
}

bool parse_number(std::string_view text, std::uint32_t& number) {
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  const char* end = text.data() + text.size();
  const auto [stopped, error] = std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
  return error == std::errc{} && stopped == end;
}

}  // namespace

namespace {

const char* path_now() {
  const char* path = std::getenv("KESTREL_CONF");  // NOLINT(concurrency-mt-unsafe): nobody here changes it
  return path != nullptr && *path != '\0' ? path : "/etc/kestrel/camera.conf";
}

std::shared_ptr<const Settings> recent_settings(std::int64_t age_ns) {
  const char* path = path_now();
  Cache& state = cache();
  const std::lock_guard lock(state.mutex);
  const std::int64_t now = monotonic_ns();
  const bool fresh = now - last_look.at_ns < age_ns && last_look.stores == state.stores;
  if (fresh && state.settled && path == state.path) return state.settings;
  struct stat seen {};
  const Stamp stamp = stat(path, &seen) == 0 ? stamp_of(seen) : Stamp{};
  if (!state.loaded || !state.settled || stamp != state.stamp || path != state.path) reload(state, path, stamp);
  last_look = {now, state.stores};
  return state.settings;
}

}  // namespace

std::string settings_path() {
  return path_now();
}

std::shared_ptr<const Settings> current_settings() {
  return recent_settings(0);
}

void look_again() {
  Cache& state = cache();
  const std::lock_guard lock(state.mutex);
  ++state.stores;
}

void complain(const std::string& path, const std::string& sentence) {
  Cache& state = cache();
  const std::lock_guard lock(state.mutex);
  say_once(state, path + ": " + sentence);
}

void complain(const std::string& path, const char* group, const char* key, const std::string& what) {
  complain(path, name_of(group, key) + " " + what);
}

bool is_set(const Settings& settings, const char* group, const char* key) {
  const std::string* value = find(settings.values, group, key);
  return (value != nullptr && !value->empty()) || find(settings.unusable, group, key) != nullptr;
}

bool is_right(const TextSetting& setting, std::string_view value, std::string& reason) {
  if (value.size() < setting.min_len || value.size() > setting.max_len) {
    const std::string most = std::to_string(setting.max_len);
    reason = std::string("has ") + std::to_string(value.size()) + " bytes and must have " +
             (setting.min_len == setting.max_len ? most : std::to_string(setting.min_len) + " to " + most);
    return false;
  }
  if (setting.valid == nullptr && std::ranges::any_of(value, is_control)) {
    reason = "contains control characters";
    return false;
  }
  if (setting.valid != nullptr && !setting.valid(value)) {
    reason = std::string("\"").append(value) + "\" is not " + setting.form;
    return false;
  }
  return true;
}

std::optional<std::string> text_of(const Settings& settings, const TextSetting& setting) {
  bool unreadable = false;
  const bool has_fallback = setting.fallback != nullptr;
  const std::string* value = value_of(settings, setting.group, setting.key, has_fallback, unreadable);
  if (unreadable || (value == nullptr && !has_fallback)) return std::nullopt;
  if (has_fallback && (value == nullptr || value->empty())) return setting.fallback;
  std::string reason;
  if (is_right(setting, *value, reason)) return *value;
  complain(settings.path, setting.group, setting.key, reason);
  return std::nullopt;
}

std::optional<std::uint32_t> number_of(const Settings& settings, const NumberSetting& setting) {
  bool unreadable = false;
  const bool has_fallback = setting.fallback.has_value();
  const std::string* value = value_of(settings, setting.group, setting.key, has_fallback, unreadable);
  if (unreadable || (value == nullptr && !has_fallback)) return std::nullopt;
  if (has_fallback && (value == nullptr || value->empty())) return setting.fallback;
  std::uint32_t number = 0;
  if (parse_number(*value, number) && number >= setting.min && number <= setting.max) return number;
  complain(
      settings.path, setting.group, setting.key,
      "\"" + *value + "\" is not a number from " + std::to_string(setting.min) + " to " + std::to_string(setting.max));
  return std::nullopt;
}

std::optional<std::string> text_now(const TextSetting& setting) {
  const auto settings = recent_settings(look_period_ns);
  return settings ? text_of(*settings, setting) : std::nullopt;
}

std::optional<std::uint32_t> number_now(const NumberSetting& setting) {
  const auto settings = recent_settings(look_period_ns);
  return settings ? number_of(*settings, setting) : std::nullopt;
}

}  // namespace host
