// System calls and allocations that fail when a test says so. Definitions in the program stand before the
// C library's for the libraries under test too; to be included once.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <new>
#include <string_view>

struct Fault {
  std::string_view call = "";
  int turn = 0;   // the first one to fail, counted from 1; not above 0 when it has come
  int error = 0;  // 0: nothing is done, as at the end of a file
  int times = 1;
};
inline Fault fault;

inline bool strikes(std::string_view call) {
  return fault.call == call && --fault.turn <= 0 && fault.turn > -fault.times;
}

inline long failing(std::string_view call, long number, auto... arguments) {
  if (!strikes(call)) return syscall(number, arguments...);
  errno = fault.error;
  return fault.error == 0 ? 0 : -1;
}

// clang-format off
extern "C" {
int open(const char* path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(rest, unsigned) : 0;
  va_end(rest);
  return static_cast<int>(failing("open", SYS_openat, AT_FDCWD, path, flags, mode));
}
int stat(const char* path, struct stat* state) noexcept { return strikes("stat") ? -1 : fstatat(AT_FDCWD, path, state, 0); }
int fstat(int fd, struct stat* state) noexcept { return strikes("fstat") ? -1 : fstatat(fd, "", state, AT_EMPTY_PATH); }
ssize_t read(int fd, void* data, size_t size) { return failing("read", SYS_read, fd, data, size); }
ssize_t write(int fd, const void* data, size_t size) { return failing("write", SYS_write, fd, data, size); }
int fchmod(int fd, mode_t mode) noexcept { return static_cast<int>(failing("fchmod", SYS_fchmod, fd, mode)); }
int rename(const char* from, const char* to) noexcept { return static_cast<int>(failing("rename", SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, 0)); }
}
// Not inlined: the compiler would take the pair of one operator and the C library's other for a mistake.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* memory = strikes("new") ? nullptr : std::malloc(size);
  return memory == nullptr ? throw std::bad_alloc() : memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
// clang-format on
