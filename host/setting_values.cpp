// The settings file's syntax and the forms of its values, see setting_values.h.
#include "setting_values.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "atomic_file.h"

namespace host {

namespace {

bool is_letter_or_digit(char c) {
  return g_ascii_isalnum(c) != 0;
}

bool read_all(int fd, std::string& content) {
  char block[4096];
  for (;;) {
    const ssize_t n = read(fd, block, sizeof(block));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    content.append(block, static_cast<std::size_t>(n));
    if (content.size() <= max_settings_len) continue;
    errno = EFBIG;
    return false;
  }
}

std::string system_problem(const char* what) {
  return std::string(what) + ": " + std::generic_category().message(errno);
}

}  // namespace

KeyFile read_key_file(const std::string& path, struct stat& state, std::string& problem) {
  const Descriptor fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string content;
  if (fd.get() < 0 || fstat(fd.get(), &state) != 0 || !read_all(fd.get(), content)) {
    problem = system_problem("cannot read the settings");
    return nullptr;
  }
  // A part would read as settings that are missing, and a writer would keep nothing else.
  if (S_ISREG(state.st_mode) && content.size() < static_cast<std::size_t>(state.st_size)) {
    problem = "the settings were cut short while they were read";
    return nullptr;
  }
  // However the lines end: GLib takes one carriage return off each time that it reads what it wrote.
  std::erase(content, '\r');
  KeyFile file(g_key_file_new());
  GError* failure = nullptr;
  const auto flags = static_cast<GKeyFileFlags>(G_KEY_FILE_KEEP_COMMENTS | G_KEY_FILE_KEEP_TRANSLATIONS);
  if (g_key_file_load_from_data(file.get(), content.data(), content.size(), flags, &failure) != 0) return file;
  const GErrorPtr error(failure);
  problem = std::string("these are no settings: ") + error->message;
  return nullptr;
}

bool is_host_name(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return is_letter_or_digit(c) || c == '.' || c == '-'; }) &&
         is_letter_or_digit(text.front());
}

bool is_address(std::string_view text) {
  in_addr address{};
  return inet_pton(AF_INET, std::string(text).c_str(), &address) == 1;
}

bool is_mac(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool right = i % 3 == 2 ? text[i] == ':' : g_ascii_isxdigit(text[i]) != 0;
    if (!right) return false;
  }
  return true;
}

bool is_hid(std::string_view text) {
  return std::ranges::all_of(text, is_letter_or_digit);
}

bool is_absolute_path(std::string_view text) {
  return text.front() == '/' && std::ranges::none_of(text, [](char c) { return g_ascii_iscntrl(c) != 0; });
}

bool is_http_url_format(std::string_view text) {
  if (!text.starts_with("http://")) return false;
  while (!text.empty()) {
    const char c = text.front();
    if (c == '}' || g_ascii_isgraph(c) == 0) return false;
    std::size_t len = 1;
    if (c == '{') {
      const auto known = {"{alias-or-hid}", "{alias}", "{hid}", "{domain}"};
      const auto* found = std::ranges::find_if(known, [&](const char* name) { return text.starts_with(name); });
      if (found == known.end()) return false;
      len = std::strlen(*found);
    }
    text.remove_prefix(len);
  }
  return true;
}

bool is_anything(std::string_view /*text*/) {
  return true;
}

}  // namespace host
