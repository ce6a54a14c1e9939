// The finder's receive loop and the connection report that its time-out drives.
#include <sys/select.h>

#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/finder.h"
#include "finder/record.h"
#include "service/requests.h"

namespace kestrel {

namespace {

constexpr time_t report_period_s = 15;
constexpr int report_repeats = 3;  // after challenges

/// The Digest state as it was when the thread was started.
AuthenticateInfo auth_at_start{};

/// What the connection reports keep between each other.
struct Reports {
  char last[first_connection_len];
  AuthenticateInfo auth;
};

void report_connection(Reports& reports) {
  int result = conn_report(finder.ctx, &reports.auth, reports.last);
  for (int repeat = 0; result == request_challenged && repeat < report_repeats; ++repeat) {
    // Anything that differs from the record has it sent again.
    copy_text(reports.last, "authentication needed");
    result = conn_report(finder.ctx, &reports.auth, reports.last);
  }
}

int fill_read_set(fd_set& reads) {
  int highest = 0;
  FD_ZERO(&reads);
  for (int i = 0; i < finder.iIfNum; ++i) {
    if (finder.fd[i] < 0) continue;
    FD_SET(finder.fd[i], &reads);
    if (finder.fd[i] > highest) highest = finder.fd[i];
  }
  return highest;
}

void serve(const fd_set& reads) {
  for (int i = 0; i < finder.iIfNum; ++i) {
    if (finder.fd[i] < 0 || !FD_ISSET(finder.fd[i], &reads)) continue;
    finder.iReportSocketIndex = i;
    debug_log(" broadcast detected, socket=%d, iReportSocketIndex=%d, interface=%s\n", finder.fd[i], i,
              finder.act_if[i].name);
    Finderd_handle_request();
  }
}

}  // namespace

void Finderd_take_auth(const AuthenticateInfo& auth) {
  auth_at_start = auth;
}

void Finderd_loop() {
  Reports reports{};
  copy_text(reports.last, "init");
  reports.auth = auth_at_start;
  while (load_word(finder.ctx->run) != 0) {
    fd_set reads;
    const int highest = fill_read_set(reads);
    timeval limit{report_period_s, 0};
    if (select(highest + 1, &reads, nullptr, nullptr, &limit) <= 0) {
      report_connection(reports);
    } else {
      serve(reads);
    }
  }
}

}  // namespace kestrel
