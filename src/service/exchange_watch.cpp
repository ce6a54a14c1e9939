// The watch over exchanges, see exchange_watch.h. A thread of its own sleeps until one takes too long; a signal
// instead would interrupt whatever library the main thread is in.
#include "service/exchange_watch.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "core/quotient.h"
#include "core/signals_blocked.h"
#include "service/requests.h"

namespace kestrel {

/// A slot's descriptor while it has none, and while somebody works on it.
constexpr int free_slot = -1;
constexpr int held_slot = -2;

/// An exchange under way. The descriptor is shut down only by who holds the slot, and its owner takes it back
/// before closing it; so a number that was given anew is never meant.
struct WatchSlot {
  std::atomic<int> fd{free_slot};
  std::atomic<std::uint32_t> deadline{0};  // ms of the monotonic clock, cut to 32 bits; 0 for none
};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<std::uint32_t>::is_always_lock_free);

namespace {

std::array<WatchSlot, 2> slots;      // one for each thread
std::atomic<bool> all_ended{false};  // end_exchanges was called

enum WatchState : int { no_watch, watch_starts, watch_runs };
std::atomic<int> watch_state{no_watch};
std::atomic<int> wake_fd{-1};
/// When the watch looks again by itself, as a deadline; 0 while it looks, and when nothing is due.
std::atomic<std::uint32_t> next_look{0};

constexpr std::size_t watch_stack_len = 131072;  // bytes of address space; two pages of it are touched

/// What is over is shut down again until its owner is done: a socket that is not connecting yet does not take it.
constexpr unsigned repeat_ms = 100;

std::uint32_t now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint32_t>(now.tv_sec) * 1000U + quotient<1'000'000>(static_cast<std::uint32_t>(now.tv_nsec));
}

/// Never 0, which is none; a millisecond does not matter.
std::uint32_t deadline_in(unsigned ms) {
  return (now_ms() + ms) | 1U;
}

/// Milliseconds to the deadline, which may lie in the past.
std::int32_t ms_left(std::uint32_t deadline) {
  return static_cast<std::int32_t>(deadline - now_ms());
}

bool is_over(const WatchSlot& slot) {
  const std::uint32_t deadline = slot.deadline;
  return deadline != 0 && ms_left(deadline) <= 0;
}

/// Shuts the slot's socket down. The reason is looked at again once the slot is held: it may serve another
/// exchange by then.
void end_exchange(WatchSlot& slot) {
  int fd = slot.fd;
  if (fd < 0 || !slot.fd.compare_exchange_strong(fd, held_slot)) return;
  if (all_ended || is_over(slot)) {
    shutdown(fd, SHUT_RDWR);
    slot.deadline = deadline_in(repeat_ms);
  }
  slot.fd = fd;
}

/// Ends what is over. Returns the milliseconds until there is something to do again; -1 for never.
int end_overdue() {
  int next = -1;
  for (WatchSlot& slot : slots) {
    // all_ended too: the signal handler may have found the slot held.
    if (all_ended || is_over(slot)) end_exchange(slot);
    const std::uint32_t deadline = slot.deadline;
    if (deadline == 0) continue;
    // Looked at once: below 0 it would have poll wait for ever.
    const std::int32_t left = std::max(ms_left(deadline), 1);
    if (next < 0 || left < next) next = left;
  }
  return next;
}

void* watch(void* /*unused*/) {
  for (;;) {
    pollfd woken{wake_fd, POLLIN, 0};
    // A deadline that is set from here on is either seen, or its owner finds no look announced, and wakes.
    next_look = 0;
    const int ms = end_overdue();
    if (ms > 0) next_look = deadline_in(static_cast<unsigned>(ms));
    if (poll(&woken, 1, ms) <= 0) continue;
    eventfd_t count = 0;
    static_cast<void>(eventfd_read(wake_fd, &count));
  }
  return nullptr;
}

void wake() {
  constexpr eventfd_t one = 1;
  static_cast<void>(!write(wake_fd, &one, sizeof(one)));
}

bool start_watch() {
  if (wake_fd < 0) wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (wake_fd < 0) return false;
  pthread_attr_t attributes;
  if (pthread_attr_init(&attributes) != 0) return false;
  pthread_attr_setstacksize(&attributes, watch_stack_len);
  const SignalsBlocked blocked;
  pthread_t thread{};
  const bool started = pthread_create(&thread, &attributes, watch, nullptr) == 0;
  if (started) pthread_detach(thread);
  pthread_attr_destroy(&attributes);
  return started;
}

/// Started by the first exchange, and tried again by each that finds none. While the other thread starts it, it
/// counts as there: it begins by looking at the slots.
bool have_watch() {
  int state = no_watch;
  if (watch_state.compare_exchange_strong(state, watch_starts)) {
    state = start_watch() ? watch_runs : no_watch;
    watch_state = state;
  }
  return state != no_watch;
}

WatchSlot* take_slot(int fd) {
  for (WatchSlot& slot : slots) {
    int none = free_slot;
    if (slot.fd.compare_exchange_strong(none, fd)) return &slot;
  }
  return nullptr;
}

}  // namespace

ExchangeWatch::ExchangeWatch(int sock)
    : socket(sock), own(fcntl(sock, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)), slot(own >= 0 ? take_slot(own) : nullptr) {}

ExchangeWatch::~ExchangeWatch() {
  if (slot != nullptr) {
    // Whoever holds it does so for the length of one system call.
    for (int fd = own; !slot->fd.compare_exchange_strong(fd, held_slot); fd = own) poll(nullptr, 0, 1);
    slot->deadline = 0;
    slot->fd = free_slot;
  }
  close(own);
}

void ExchangeWatch::limit(unsigned ms) const {
  if (slot != nullptr && have_watch()) {
    const std::uint32_t deadline = deadline_in(ms);
    slot->deadline = deadline;
    // The watch that looks in time anyway is left asleep: most exchanges are over long before.
    const std::uint32_t look = next_look;
    if (look == 0 || all_ended || static_cast<std::int32_t>(deadline - look) < 0) wake();
    return;
  }
  const std::uint32_t seconds = quotient<1000>(ms);
  const timeval time_out{static_cast<time_t>(seconds), static_cast<suseconds_t>((ms - 1000 * seconds) * 1000)};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &time_out, sizeof(time_out));
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time_out, sizeof(time_out));
}

void end_exchanges() {
  const int saved_errno = errno;
  all_ended = true;
  for (WatchSlot& slot : slots) end_exchange(slot);
  wake();  // for a slot that was held, and a socket that was not connecting yet
  errno = saved_errno;
}

}  // namespace kestrel
