// The finder's receive loop and the connection report that its time-out drives.
#include <poll.h>
#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "core/debug_log.h"
#include "core/quotient.h"
#include "core/text.h"
#include "finder/finder.h"
#include "finder/record.h"
#include "service/requests.h"

namespace kestrel {

namespace {

constexpr std::uint64_t report_period_ms = 15'000;  // without a datagram
constexpr std::uint64_t report_limit_ms = 60'000;   // with datagrams
constexpr int error_pause_ms = 1000;                // for a select that fails at once, and would again
constexpr int report_repeats = 3;                   // after challenges

/// What the connection reports keep between each other.
struct Reports {
  AuthenticateInfo auth;            // at first as it was when the thread was started
  char last[first_connection_len];  // behind what is always used: what a record leaves of it costs no memory
};
Reports reports{};

void report_connection() {
  int result = conn_report(finder.ctx, &reports.auth, reports.last);
  for (int repeat = 0; result == request_challenged && repeat < report_repeats; ++repeat) {
    // Anything that differs from the record has it sent again.
    copy_text(reports.last, "authentication needed");
    result = conn_report(finder.ctx, &reports.auth, reports.last);
  }
}

int fill_read_set(fd_set& reads) {
  int highest = 0;
  for (const int fd : finder.fd) {
    if (fd == no_socket) continue;
    FD_SET(fd, &reads);
    highest = std::max(highest, fd);
  }
  return highest;
}

void serve(const fd_set& reads) {
  for (int i = 0; i < finder_max_if; ++i) {
    if (finder.fd[i] == no_socket || !FD_ISSET(finder.fd[i], &reads)) continue;
    finder.iReportSocketIndex = i;
    debug_log(" broadcast detected, socket=%d, iReportSocketIndex=%d, interface=%s\n", finder.fd[i], i,
              finder.served.act_if[i].name);
    Finderd_handle_request();
  }
}

}  // namespace

void Finderd_take_auth(const AuthenticateInfo& auth) {
  reports.auth = auth;
}

std::uint64_t finder_now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec / 1'000'000);
}

void Finderd_loop() {
  copy_text(reports.last, "init");
  std::uint64_t reported_ms = finder_now_ms();
  while (!exit_requested(*finder.ctx)) {
    fd_set reads{};
    const int highest = fill_read_set(reads);
    const std::uint64_t passed_ms = std::min(finder_now_ms() - reported_ms, report_limit_ms);
    const auto wait_ms = static_cast<std::uint32_t>(std::min(report_period_ms, report_limit_ms - passed_ms));
    const std::uint32_t wait_s = quotient<1000>(wait_ms);
    timeval limit{static_cast<time_t>(wait_s), static_cast<suseconds_t>((wait_ms - wait_s * 1000) * 1000)};
    const int ready = select(highest + 1, &reads, nullptr, nullptr, &limit);
    if (ready > 0) {
      serve(reads);
      // Whoever keeps datagrams coming must not keep the reports back.
      if (finder_now_ms() - reported_ms < report_limit_ms) continue;
    }
    if (ready < 0 && errno != EINTR) poll(nullptr, 0, error_pause_ms);
    // The look comes first: a report may wait long for the service.
    refresh_sockets();
    report_connection();
    reported_ms = finder_now_ms();
  }
}

}  // namespace kestrel
