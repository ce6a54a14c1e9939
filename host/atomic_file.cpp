// Replacement of small files in one step, see atomic_file.h.
#include "atomic_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace host {

namespace {

bool write_all(int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t n = write(fd, data.data(), data.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    data.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

bool fill(int fd, std::string_view data, const struct stat* owner) {
  if (!write_all(fd, data)) return false;
  if (owner == nullptr) return fchmod(fd, 0644) == 0;
  // Only root can give a file away; for others it already belongs to the writer.
  [[maybe_unused]] const int given = fchown(fd, owner->st_uid, owner->st_gid);
  return fchmod(fd, owner->st_mode & 07777U) == 0 && fsync(fd) == 0;
}

/// A rename is on the disk only when its directory is.
void sync_directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor fd(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() >= 0) fsync(fd.get());
}

}  // namespace

Descriptor::~Descriptor() {
  if (fd_ < 0) return;
  const int kept = errno;
  close(fd_);
  errno = kept;
}

int Descriptor::release() {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

bool replace_file(const std::string& path, std::string_view data, const struct stat* owner) {
  const std::string fresh = path + ".new";
  // A fixed name, so that a writer that was killed leaves at most one behind, and the next takes it over.
  unlink(fresh.c_str());
  bool done = false;
  {
    const Descriptor fd(open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0) return false;
    done = fill(fd.get(), data, owner);
  }
  if (done && std::rename(fresh.c_str(), path.c_str()) == 0) {
    if (owner != nullptr) sync_directory_of(path);
    return true;
  }
  const int reason = errno;
  unlink(fresh.c_str());
  errno = reason;
  return false;
}

bool make_directories(const std::string& path) {
  for (std::size_t end = 1; end != std::string::npos;) {
    end = path.find('/', end);
    const std::string part = path.substr(0, end);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) return false;
    if (end != std::string::npos) ++end;
  }
  return true;
}

}  // namespace host
