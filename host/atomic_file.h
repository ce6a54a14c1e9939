// Small files that readers see either as they were or as they are to be.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

namespace host {

/// A file descriptor that closes itself.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();
  [[nodiscard]] int get() const { return fd_; }
  /// Gives the descriptor away: the caller closes it.
  int release();

 private:
  int fd_;
};

/// Replaces the file by `data` in one step: a file beside it (".new") is written and renamed. With
/// `owner`, mode and, where permitted, owner are taken from it and the data is on the disk when the
/// call returns; without, the mode is 0644. One writer at a time. False with errno set on failure,
/// the old file untouched and nothing left behind.
[[nodiscard]] bool replace_file(const std::string& path, std::string_view data, const struct stat* owner);

/// Makes the directory and its parents where they are missing. False with errno set on failure.
[[nodiscard]] bool make_directories(const std::string& path);

}  // namespace host
