// The one transaction with the service: a short HTTP exchange on a fresh connection, with Digest once a
// challenge has been taken. What the requests differ in stands in a description for each.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "core/device_context.h"
#include "core/log_format.h"
#include "service/post_body.h"
#include "service/requests.h"

namespace kestrel {

constexpr std::uint16_t service_port = 80;
constexpr int connect_timeout_s = 20;
constexpr unsigned answer_timeout_ms = 30'000;  // from the connection to the whole answer
constexpr unsigned exit_timeout_ms = 500;       // for an exchange, once the daemon is to end

/// The texts that the log takes during an exchange, shared by a family of requests; null where it logs nothing.
struct ExchangeLog {
  LogFormat<'d'> auth_on = {};
  LogFormat<'d'> buffer_length = {};
  LogFormat<'s'> send_buffer = {};
  LogFormat<'d'> portnum = {};
  LogFormat<'d'> connected = {};
  LogFormat<'d'> sent = {};
  LogFormat<> no_answer = {};
  LogFormat<'d'> body_read = {};
  LogFormat<'s'> body = {};
  LogFormat<> challenge_taken = {};
  LogFormat<'s'> algorithm = {};
  LogFormat<'s'> nonce = {};
  LogFormat<'s'> qop = {};
  LogFormat<'s'> realm = {};
  LogFormat<'s'> uri = {};
  LogFormat<'s', 'd'> cnonce = {};
};

enum class AfterSendFailure { receive, no_answer, send_result };

/// A socket that a request left open. It is known by more than its number, which may serve somebody else by
/// the time it is closed.
struct LeftoverSocket {
  int fd = -1;
  dev_t device = 0;
  ino_t inode = 0;
};

/// Takes the plain text of a 200 answer that had a body. `sink` is the caller's own.
using AnswerReader = void (*)(DeviceContext& ctx, const char* plain, void* sink);

/// What one request is.
struct Request {
  const char* path;             // with its slash; without it behind the relay's "http://ip:80/"
  const char* challenge_uri;    // stored when a challenge is taken; the next send replaces it
  std::size_t send_len = 1024;  // bytes of the send buffer
  const ExchangeLog* log;
  // The lines of its own.
  LogFormat<'d'> body_len = {};            // of a body to be sent, padded
  LogFormat<'s', 'd'> builder_trace = {};  // before a packet with credentials
  LogFormat<'s', 'd'> connect_to = {};
  LogFormat<'d'> body_read_behind = {};  // behind the body
  LogFormat<> ok;
  LogFormat<> no_status = {};
  LogFormat<'d'> not_found = {};  // 404, when that has a line of its own
  LogFormat<'d'> other_status = {};
  const char* name;  // for builder_trace
  AfterSendFailure after_send_failure = AfterSendFailure::no_answer;
  int failure_result = request_no_answer;  // of no answer; of another status too, in the place of the send's byte count
  // Where a request stores the socket that it leaves open without an answer; its next exchange closes it. Null
  // for those that close it at once.
  LeftoverSocket* leftover = nullptr;
  AnswerReader read_answer = nullptr;  // null: the body is not decoded
};

/// Runs one exchange with `server` (dotted text), or with the relay for it when the record's
/// proxy_tested is 1, and returns the request's result. `body` is the base64 body of a POST, empty for
/// a GET. A request that does not fit into its send buffer is not sent and counts as not answered.
/// Credentials and challenges live in `auth`.
[[nodiscard]] int run_exchange(DeviceContext& ctx, const Request& request, const char (&server)[ip_len],
                               const char* body, AuthenticateInfo& auth, void* sink = nullptr);

/// Enciphers the body of a POST and runs its exchange with the redirect server. A body that did not fit is not sent
/// and counts as not answered.
[[nodiscard]] int post(DeviceContext& ctx, const Request& request, const PostBody& body, AuthenticateInfo& auth,
                       void* sink = nullptr);

/// True when the record's requests go through the relay: this cycle has fallen back to it, and its address
/// is known.
[[nodiscard]] bool through_relay(const DeviceContext& ctx);

// The log texts of the two families of requests: those whose lines begin with a blank, and the others.

inline constexpr ExchangeLog log_of_queries = {
    .auth_on = " auth_info->on=%d\n",
    .buffer_length = " BufferLength=(%d)\n",
    .portnum = " portnum=(%d)\n",
    .connected = " connect=%d\n",
    .sent = " send=%d\n",
    .no_answer = " null\n",
    .body_read = " Body_Read=%d\n",
    .body = "\n<--\n%s\n<--\n",
    .challenge_taken = " <-401 received!\n",
    .algorithm = " algorithm=%s\n",
    .nonce = " nonce=%s\n",
    .qop = " qop=%s\n",
    .realm = " realm=%s\n",
    .uri = " uri=%s\n",
    .cnonce = " cnonce=%s(%d)\n",
};

inline constexpr ExchangeLog log_of_reports = {
    .connected = "connect=%d\n",
    .no_answer = "null\n",
    .body = "<--\n%s<--\n\n",
    .challenge_taken = "<-401 received!\n",
    .algorithm = "  algorithm=%s\n",
    .nonce = "  nonce=%s\n",
    .qop = "  qop=%s\n",
    .realm = "  realm=%s\n",
    .uri = "  uri=%s\n",
    .cnonce = "  cnonce=%s (%d)\n",
};

}  // namespace kestrel
