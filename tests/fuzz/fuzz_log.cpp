// The log's formatter: the first byte chooses a text of the daemon's own sources, the rest are its arguments, with a
// byte FF between them.
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "core/debug_log.h"
#include "fuzz.h"

namespace {

std::string console;
bool captured = false;

/// Every literal of the sources that has a conversion, and some that ask for more than the formatter has.
Texts formats() {
  std::set<std::string> found{"%%d|%", "%8.8d%c%-s%n", "%s%s%s%s%s", "100%", "%%%s%%%c"};
  for (const auto& entry : std::filesystem::recursive_directory_iterator(KESTREL_SOURCES)) {
    if (entry.path().extension() != ".cpp") continue;
    std::ostringstream text;
    text << std::ifstream(entry.path()).rdbuf();
    const std::string source = text.str();
    const std::regex literal("\"([^\"\\n]*%[^\"\\n]*)\"");
    for (std::sregex_iterator at(source.begin(), source.end(), literal); at != std::sregex_iterator(); ++at) {
      found.insert(std::regex_replace((*at)[1].str(), std::regex(R"(\\n)"), "\n"));
    }
  }
  return {found.begin(), found.end()};
}

/// The text as the C library would have to be given it: a '%' that begins none of the three conversions is not there.
std::string plain(const std::string& format, std::string& kinds) {
  std::string text;
  for (std::size_t i = 0; i < format.size(); ++i) {
    const char next = i + 1 < format.size() ? format[i + 1] : '\0';
    if (format[i] != '%') text += format[i];
    if (format[i] != '%' || (next != 'd' && next != 's' && next != 'c')) continue;
    text += next == 's' ? "%.1535s" : std::string("%") + next;
    kinds += next;
    ++i;
  }
  return text;
}

struct Line {
  const char* format;
  std::string expected_format, kinds;
  Texts texts;
};

template <typename... Args>
void check(const Line& line, Args... args) {
  if constexpr (sizeof...(args) < 7) {
    if (sizeof...(args) < line.kinds.size()) {
      const std::string& text = line.texts[sizeof...(args) % line.texts.size()];
      int number = 0;
      std::memcpy(&number, text.data(), std::min(sizeof(number), text.size()));
      return line.kinds[sizeof...(args)] == 's' ? check(line, args..., text.c_str()) : check(line, args..., number);
    }
  }
  console.clear();
  captured = true;
  kestrel::debug_log(line.format, args...);
  captured = false;
  std::vector<char> wanted(20000);
  std::snprintf(wanted.data(), wanted.size(), line.expected_format.c_str(), args...);
  const std::string whole = std::string("KLOG") + wanted.data();
  const bool has_zero = line.kinds.find('c') != line.kinds.npos && console.find('\0') != console.npos;
  require(console.size() <= 2047, "a line is bounded");
  require(has_zero || console == whole.substr(0, 2047), "a line is what the C library makes of it");
}

}  // namespace

extern "C" {

int poll(pollfd* /*set*/, nfds_t /*count*/, int /*timeout*/) {
  return 1;
}

ssize_t write(int fd, const void* data, std::size_t size) {
  if (!captured) return syscall(SYS_write, fd, data, size);
  console.append(static_cast<const char*>(data), size);
  return static_cast<ssize_t>(size);
}

}  // extern "C"

Texts fuzz_seeds() {
  const std::string minimum("\x00\x00\x00\x80", 4), endless(2100, 'x');
  Texts seeds;
  for (int i = 0; i < 60; ++i) {
    seeds.push_back(static_cast<char>(i * 4) + ("porch\xff" + minimum + "\xff" + (i % 9 == 0 ? endless : "a%s%n\xff")));
  }
  return seeds;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Texts all = formats();
  if (size < 2) return 0;
  kestrel::DbgLevel = kestrel::debug_console;
  const std::string& format = all[data[0] % all.size()];
  Line line{format.c_str(), "", "", split(text_of(data + 1, size - 1), "\xff")};
  line.expected_format = plain(format, line.kinds);
  check(line);
  return 0;
}
