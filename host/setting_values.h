// Reading and checking of the settings file's content, shared by readers and the writer.
#pragma once

#include <glib.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <string_view>

namespace host {

inline constexpr std::size_t max_settings_len = 1024UL * 1024;  // bytes; a larger file is a mistake

struct KeyFileFree {
  void operator()(GKeyFile* file) const { g_key_file_unref(file); }
};
using KeyFile = std::unique_ptr<GKeyFile, KeyFileFree>;

struct GFree {
  void operator()(void* memory) const { g_free(memory); }
};
using GText = std::unique_ptr<char, GFree>;

struct GErrorFree {
  void operator()(GError* error) const { g_error_free(error); }
};
using GErrorPtr = std::unique_ptr<GError, GErrorFree>;

/// Reads and parses the file, comments included, and notes its state. Null with a sentence in
/// `problem` when that fails.
KeyFile read_key_file(const std::string& path, struct stat& state, std::string& problem);

/// Forms of values, for the table of settings.
bool is_host_name(std::string_view text);
bool is_address(std::string_view text);
bool is_mac(std::string_view text);
bool is_hid(std::string_view text);
bool is_absolute_path(std::string_view text);
bool is_http_url_format(std::string_view text);
bool is_anything(std::string_view text);

}  // namespace host
