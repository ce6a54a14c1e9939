// The settings file, read at the moment of each call and re-read only when it has changed.
//
// Any thread may call. A problem with a setting is said once on standard error, in one sentence with
// file, group and key, and again only after the file has changed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>

namespace host {

/// A setting that is a text.
struct TextSetting {
  const char* group;
  const char* key;
  std::size_t min_len;              // bytes; an empty value of a setting with a fallback is the fallback
  std::size_t max_len;              // bytes, without terminator
  const char* fallback;             // null: the setting must be there
  bool (*valid)(std::string_view);  // null: any text without control characters
  const char* form;                 // what `valid` asks for, in words
};

/// A setting that is a number, decimal or with 0x in front hexadecimal.
struct NumberSetting {
  const char* group;
  const char* key;
  std::uint32_t min;
  std::uint32_t max;
  std::optional<std::uint32_t> fallback;  // none: the setting must be there
};

/// A value to store.
struct Change {
  const char* group;
  const char* key;
  std::string value;
};

struct TextHash : std::hash<std::string_view> {
  using is_transparent = void;
};

/// Texts by "[group] key", to be found by any kind of text.
using Values = std::unordered_map<std::string, std::string, TextHash, std::equal_to<>>;

/// One reading of the file. Never changes, so threads may share it.
struct Settings {
  std::string path;
  Values values;
  Values unusable;  // with the reason
};

/// The settings as they are now; one stat when the file has not changed. Null when the file cannot be
/// read, which has been said.
std::shared_ptr<const Settings> current_settings();

/// Has the next call look at the file: it was changed here.
void look_again();

/// Whether the setting is there with a value that is not empty.
bool is_set(const Settings& settings, const char* group, const char* key);

/// The setting's value, or its fallback; nothing when it is missing or wrong, which has been said.
std::optional<std::string> text_of(const Settings& settings, const TextSetting& setting);
std::optional<std::uint32_t> number_of(const Settings& settings, const NumberSetting& setting);

/// The same for the settings as they are now, or were at this thread's last look, a tick of the kernel (10 ms) ago at
/// most: one stat serves a burst of getters.
std::optional<std::string> text_now(const TextSetting& setting);
std::optional<std::uint32_t> number_now(const NumberSetting& setting);

/// Whether `value` is a right value of the setting; the reason when it is not.
bool is_right(const TextSetting& setting, std::string_view value, std::string& reason);

/// Stores all the values in one step, keeping the file's comments and order. Safe against other threads
/// and processes that do the same. A file that already holds the values is left alone. False when it
/// could not be done, which has been said.
[[nodiscard]] bool store(std::span<const Change> changes);

/// Says `sentence` about the file, unless it was said since the file last changed.
void complain(const std::string& path, const std::string& sentence);
/// Says `[group] key what` about the file, with the same restraint.
void complain(const std::string& path, const char* group, const char* key, const std::string& what);

/// The path of the settings file: the environment's KESTREL_CONF, or /etc/kestrel/camera.conf.
std::string settings_path();

}  // namespace host
