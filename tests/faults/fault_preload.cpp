// Preloaded into the daemon: fails its N-th call of those below once, or for a while, or ends the process there; and
// makes its clocks run fast, and leap where the daemon only waits; the wall's is also set, which libfaketime can't do
// to one clock alone. The page that it shares with its driver says what.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

using Word = std::int64_t;  // a page's field; an argument or a result of a call, whatever its type
using Shared = std::atomic<Word>;
constexpr Word kill_here = 4;  // a mode; the others are the places in a call's row of codes, the last one for a while
constexpr Word for_a_while = 3;

/// What the driver sets, `leap_s` for what a millisecond of a wait for nothing but time brings; what it reads, `told`
/// (the failed call's number) the last. Times are the fast clock's.
struct Page {
  Shared at, mode, while_ms, speed, leap_s, step_s;
  Shared calls, fired, fired_ms, now_ms, told;
  char what[48];
};
static_assert(Shared::is_always_lock_free && sizeof(Page) == 136);

constexpr Word ns_per_ms = 1'000'000, ns_per_s = 1000 * ns_per_ms;
constexpr int shorter = -1;  // in the place of a code: half of what was asked for

Page* page;
std::atomic<bool> counting{false};
thread_local bool looking_up = false;
Shared leapt_ns{0};
Word start_ns, wall_start_ns;

Word real_ns(clockid_t id = CLOCK_MONOTONIC) {
  timespec now{};
  syscall(SYS_clock_gettime, id, &now);
  return now.tv_sec * ns_per_s + now.tv_nsec;
}

/// The fast clock, from its start.
Word fast_ns() {
  const Word ns = (real_ns() - start_ns) * page->speed + leapt_ns;
  page->now_ms = ns / ns_per_ms;
  return ns;
}

__attribute__((constructor)) void begin() {
  const int fd = open(std::getenv("KESTREL_FAULT_PAGE"), O_RDWR | O_CLOEXEC);
  void* const shared = mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (shared == MAP_FAILED) std::abort();
  close(fd);
  start_ns = real_ns();
  wall_start_ns = real_ns(CLOCK_REALTIME);
  page = static_cast<Page*>(shared);
  unsetenv("LD_PRELOAD");  // a command that the daemon runs is not the daemon
}

void strike(const char* call, const void* caller) {
  if (page->mode == kill_here) kill(getpid(), SIGKILL);
  Dl_info from{"", nullptr, "", nullptr};
  dladdr(caller, &from);
  const char* const slash = std::strrchr(from.dli_fname, '/');
  std::snprintf(page->what, sizeof(page->what), "%s %s", call, slash != nullptr ? slash + 1 : from.dli_fname);
  page->fired_ms = fast_ns() / ns_per_ms;
  page->told = page->calls.load();
}

/// Whether this call fails, and how: a code of errno, `shorter`, or 0.
int fault(const char* call, const int (&codes)[5], const void* caller) {
  const bool only_memory = codes[0] == ENOMEM && codes[1] == 0;
  if (!counting || (looking_up && only_memory)) return 0;
  const int code = codes[page->mode];
  if (++page->calls >= page->at && page->at != 0 && code != 0 && page->fired.exchange(1) == 0) {
    strike(call, caller);
    return code;
  }
  const bool again = page->mode == for_a_while && page->told != 0 && std::strstr(page->what, call) == page->what &&
                     fast_ns() / ns_per_ms < page->fired_ms + page->while_ms;
  return again ? code : 0;
}

/// Waits until the fast clock has gone on by `ns`, at most; -1 for ever. A wait for nothing but time leaps, a little
/// with each millisecond, so that the driver may look, and hold the clock, in its midst.
template <typename Wait>
Word wait_fast(Word ns, bool pure, Wait wait) {
  for (Word left = ns;;) {
    const Word slice = pure ? std::min(left, page->speed * ns_per_ms) : left;
    timespec limit{slice / page->speed / ns_per_s, slice / page->speed % ns_per_s};
    const Word result = wait(ns < 0 ? nullptr : &limit);
    left -= slice;
    const Word leap = pure && result == 0 ? std::min(left, page->leap_s * ns_per_s) : 0;
    leapt_ns += leap;
    left -= leap;
    fast_ns();
    if (result != 0 || left <= 0) return result;
  }
}

/// A time-out's length by the address of its two words; -1 for none.
Word in_ns(Word address, Word per_fraction) {
  const auto* const words = reinterpret_cast<const long*>(address);
  return words == nullptr ? -1 : words[0] * ns_per_s + words[1] * per_fraction;
}

}  // namespace

extern "C" {

// All that they take and give fits into words: one form serves them all, under names of its own here. The function
// behind is looked up once, so that a signal handler's call does not find the loader at work.
// clang-format off
#define HOOK(name, failure, inner, ...)                                                      \
  Word hook_##name(Word a, Word b, Word n, Word d, Word e, Word f) __asm__(#name);           \
  Word hook_##name([[maybe_unused]] Word a, [[maybe_unused]] Word b, Word n, [[maybe_unused]] Word d,        \
                   [[maybe_unused]] Word e, [[maybe_unused]] Word f) {                       \
    [[maybe_unused]] static const auto next = reinterpret_cast<Word (*)(Word, ...)>(dlsym(RTLD_NEXT, #name)); \
    const int code = fault(#name, {__VA_ARGS__}, __builtin_return_address(0));               \
    if (code > 0) return errno = code, failure;                                              \
    if (code == shorter) n = (n + 1) / 2;                                                    \
    return inner;                                                                            \
  }
#define CALL(name, one, two, three) HOOK(name, -1, next(a, b, n, d, e, f), one, two, three, one, 1)
#define GIVES_CODE(name, one, two) HOOK(name, code, next(a, b, n, d, e, f), one, two, 0, one, 1)
// No memory for a while: GLib's report of it wants memory, without an end.
#define GIVES_POINTER(name, one, two) HOOK(name, 0, next(a, b, n, d, e, f), one, two, 0, 0, 1)
#define WAIT(name, ns, pure, inner) HOOK(name, -1, wait_fast(ns, pure, [&](timespec* limit) { \
  return syscall inner; }), ENOMEM, EINTR, 0, ENOMEM, 1)

CALL(socket, EMFILE, ENOBUFS, 0)
CALL(bind, EADDRINUSE, EADDRNOTAVAIL, 0)
CALL(connect, ENETUNREACH, ECONNREFUSED, EINTR)
CALL(send, EPIPE, ENOBUFS, shorter)
CALL(sendto, ENETUNREACH, ENOBUFS, EINTR)
CALL(recv, ECONNRESET, EAGAIN, shorter)
CALL(recvfrom, ECONNREFUSED, EINTR, shorter)
CALL(setsockopt, ENOPROTOOPT, EPERM, 0)
CALL(fcntl, ENOMEM, EBADF, EINTR)
CALL(open, EMFILE, EACCES, EINTR)
CALL(read, EIO, EINTR, shorter)
CALL(write, ENOSPC, EINTR, shorter)
CALL(stat, EACCES, ENOENT, 0)
CALL(fstat, EIO, ENOMEM, 0)
CALL(rename, ENOSPC, EROFS, 0)
CALL(unlink, EROFS, EBUSY, 0)
CALL(fsync, EIO, ENOSPC, EINTR)
CALL(flock, ENOLCK, EWOULDBLOCK, EINTR)
CALL(sigaction, EINVAL, ENOMEM, 0)
CALL(getifaddrs, ENOBUFS, EMFILE, EINTR)  // netlink
GIVES_CODE(pthread_create, EAGAIN, EPERM)
GIVES_CODE(posix_spawn, EAGAIN, ENOENT)
GIVES_POINTER(fopen, EMFILE, EACCES)
GIVES_POINTER(malloc, ENOMEM, 0)
GIVES_POINTER(calloc, ENOMEM, 0)
GIVES_POINTER(realloc, ENOMEM, 0)
WAIT(poll, static_cast<int>(n) * ns_per_ms, b == 0, (SYS_ppoll, a, b, limit, nullptr, 8))
WAIT(ppoll, in_ns(n, 1), b == 0, (SYS_ppoll, a, b, limit, d, 8))
WAIT(select, in_ns(e, 1000), false, (SYS_pselect6, a, b, n, d, limit, nullptr))
// clang-format on

/// glibc 2.36 itself keeps a lock for ever, crashes or aborts where its resolver's set-up gets no memory.
Word hook_gethostbyname(Word name) __asm__("gethostbyname");
Word hook_gethostbyname(Word name) {
  static const auto next = reinterpret_cast<Word (*)(Word)>(dlsym(RTLD_NEXT, "gethostbyname"));
  looking_up = true;
  const Word found = next(name);
  looking_up = false;
  return found;
}

/// The daemon's own first call; whatever ran before it is the loader's.
int hook_pthread_sigmask(int how, const sigset_t* set, sigset_t* old) __asm__("pthread_sigmask");
int hook_pthread_sigmask(int how, const sigset_t* set, sigset_t* old) {
  counting = true;
  return syscall(SYS_rt_sigprocmask, how, set, old, 8) == 0 ? 0 : errno;
}

int hook_clock_gettime(clockid_t id, timespec* now) __asm__("clock_gettime");
int hook_clock_gettime(clockid_t id, timespec* now) {
  const bool wall = id == CLOCK_REALTIME;
  if (page == nullptr || (!wall && id != CLOCK_MONOTONIC)) return static_cast<int>(syscall(SYS_clock_gettime, id, now));
  const Word ns = fast_ns() + (wall ? wall_start_ns + page->step_s * ns_per_s : start_ns);
  *now = {ns / ns_per_s, ns % ns_per_s};
  return 0;
}

int hook_gettimeofday(timeval* now, void* zone) __asm__("gettimeofday");
int hook_gettimeofday(timeval* now, void* /*zone*/) {
  timespec wall{};
  hook_clock_gettime(CLOCK_REALTIME, &wall);
  *now = {wall.tv_sec, wall.tv_nsec / 1000};
  return 0;
}

time_t hook_time(time_t* now) __asm__("time");
time_t hook_time(time_t* now) {
  timespec wall{};
  hook_clock_gettime(CLOCK_REALTIME, &wall);
  return now == nullptr ? wall.tv_sec : *now = wall.tv_sec;
}

}  // extern "C"
