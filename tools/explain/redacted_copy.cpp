// Writing a redacted copy, all of it or nothing, see redact.h.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "redact.h"

namespace explain {
namespace {

struct Closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Closer>;

[[noreturn]] void fail_writing(const std::string& path) {
  throw std::runtime_error(
      fmt::format("can't write {}: {}", path == "-" ? "standard output" : path, std::strerror(errno)));
}

void put(std::FILE* file, std::string_view text, const std::string& path) {
  if (std::fwrite(text.data(), 1, text.size(), file) != text.size()) fail_writing(path);
}

File scratch() {
  File file(std::tmpfile());
  if (!file) fail_writing("a temporary file");
  return file;
}

/// Calls `use` with each line of the scratch file.
void each_line(std::FILE* file, const LineSink& use) {
  LineCutter cutter(use);
  std::rewind(file);
  std::array<char, 65536> bytes{};
  for (std::size_t n = 1; n > 0;) {
    n = std::fread(bytes.data(), 1, bytes.size(), file);
    cutter.take(bytes.data(), n);
  }
  if (std::ferror(file) != 0) throw std::runtime_error("can't read the temporary file");
  cutter.finish();
}

/// Puts a finished scratch file in the place of `output`: in one step, or not at all.
void deliver(std::FILE* from, const std::string& output) {
  struct stat status {};
  if (stat(output.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    throw std::runtime_error(output + " is no regular file; name another for the copy, or none for standard output");
  }
  std::string name = output + ".XXXXXX";
  const int fd = mkstemp(name.data());
  if (fd < 0) fail_writing(output);
  const File to(fdopen(fd, "w"));
  try {
    each_line(from, [&](const Line& line) {
      put(to.get(), line.text + "\n", output);
      return true;
    });
    if (std::fflush(to.get()) != 0 || fsync(fd) != 0 || rename(name.c_str(), output.c_str()) != 0) fail_writing(output);
  } catch (...) {
    unlink(name.c_str());
    throw;
  }
}

}  // namespace

Redacted redact_files(const std::vector<std::string>& paths, const std::string& output, Addresses addresses) {
  Redactor redactor(addresses);
  // A log that is still written to must be the same both times.
  const File log = scratch();
  read_files(paths, [&](const Line& line) {
    redactor.learn(line);
    put(log.get(), line.text + (line.cut > 0 ? fmt::format(" [{} bytes cut]", line.cut) : "") + "\n",
        "a temporary file");
    return true;
  });
  if (!redactor.is_daemons()) return Redacted::not_a_log;
  const File copy = scratch();
  each_line(log.get(), [&](const Line& line) {
    put(copy.get(), redactor.rewrite(line) + "\n", "a temporary file");
    return true;
  });
  if (std::fflush(copy.get()) != 0) fail_writing("a temporary file");
  if (output != "-") {
    deliver(copy.get(), output);
  } else {
    each_line(copy.get(), [&](const Line& line) {
      put(stdout, line.text + "\n", output);
      return true;
    });
    if (std::fflush(stdout) != 0) fail_writing(output);
  }
  return redactor.has_common_word() ? Redacted::common_word : Redacted::done;
}

}  // namespace explain
