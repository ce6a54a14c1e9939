// Waiting for an answer, see answer.h. The bytes are only looked at (MSG_PEEK); SO_RCVLOWAT has poll wait
// for more than have been seen, so that a dripping peer costs one look a drop and ends at the deadline.
#include "service/answer.h"

#include <poll.h>
#include <strings.h>
#include <sys/socket.h>

#include <charconv>
#include <cstdint>
#include <ctime>
#include <string_view>

namespace kestrel {

namespace {

constexpr std::string_view end_of_line = "\r\n";
constexpr std::string_view end_of_head = "\r\n\r\n";
constexpr std::string_view end_of_chunks = "\r\n0\r\n";
constexpr std::size_t status_at = 9;  // "HTTP/1.1 200"

/// As substr, without its exception for a start behind the end, which would need the C++ runtime.
std::string_view part(std::string_view text, std::size_t from, std::size_t len = std::string_view::npos) {
  text.remove_prefix(from < text.size() ? from : text.size());
  return {text.data(), len < text.size() ? len : text.size()};
}

std::int64_t now_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

/// The value of a head's field, without blanks around it; empty when the head lacks it.
std::string_view field_value(std::string_view head, std::string_view name) {
  for (std::size_t at = head.find(end_of_line); at != std::string_view::npos; at = head.find(end_of_line, at)) {
    at += end_of_line.size();
    const std::string_view line = part(head, at, head.find(end_of_line, at) - at);
    if (line.size() <= name.size() || line[name.size()] != ':') continue;
    if (strncasecmp(line.data(), name.data(), name.size()) != 0) continue;
    std::string_view value = part(line, name.size() + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    while (!value.empty() && (value.back() == ' ' || value.back() == '\t')) value.remove_suffix(1);
    return value;
  }
  return {};
}

int status_of(std::string_view head) {
  int status = 0;
  if (head.size() > status_at + 3) std::from_chars(head.data() + status_at, head.data() + status_at + 3, status);
  return status;
}

bool has_whole_body(std::string_view head, std::string_view body) {
  const int status = status_of(head);
  if (status == 204 || status == 304) return true;
  if (!field_value(head, "Transfer-Encoding").empty()) {
    if (part(body, 0, 3) == part(end_of_chunks, 2)) return true;
    const std::size_t last = body.find(end_of_chunks);
    return last != std::string_view::npos && body.find(end_of_head, last + 2) != std::string_view::npos;
  }
  const std::string_view length = field_value(head, "Content-Length");
  std::size_t announced = 0;
  const auto parsed = std::from_chars(length.data(), length.data() + length.size(), announced);
  return !length.empty() && parsed.ec == std::errc{} && body.size() >= announced;
}

/// Has poll report the socket as readable only when it holds `bytes` bytes, or its end.
void wake_at(int sock, std::size_t bytes) {
  const int mark = static_cast<int>(bytes);
  setsockopt(sock, SOL_SOCKET, SO_RCVLOWAT, &mark, sizeof(mark));
}

}  // namespace

bool is_whole_answer(const char* text, std::size_t len) {
  std::string_view rest(text, len);
  for (;;) {
    const std::size_t end = rest.find(end_of_head);
    if (end == std::string_view::npos) return false;
    const std::string_view head = part(rest, 0, end + end_of_line.size());
    rest.remove_prefix(end + end_of_head.size());
    const int status = status_of(head);
    if (status < 100 || status > 199) return has_whole_body(head, rest);
  }
}

bool await_answer(int sock, int timeout_s) {
  const std::int64_t deadline = now_ms() + std::int64_t{timeout_s} * 1000;
  char seen[max_answer_len + 1];
  std::size_t len = 0;
  bool ready = false;
  while (!ready && len <= max_answer_len) {
    const std::int64_t left = deadline - now_ms();
    if (left <= 0) break;
    wake_at(sock, len + 1);
    pollfd look{sock, POLLIN, 0};
    if (poll(&look, 1, static_cast<int>(left)) <= 0) continue;
    const ssize_t got = recv(sock, seen, sizeof(seen), MSG_PEEK | MSG_DONTWAIT);
    // No more than before: the peer has ended the connection, in order or not.
    const bool ended = got <= 0 || static_cast<std::size_t>(got) == len;
    if (got > 0) len = static_cast<std::size_t>(got);
    ready = ended || is_whole_answer(seen, len);
  }
  wake_at(sock, 1);
  return ready && len <= max_answer_len;
}

}  // namespace kestrel
