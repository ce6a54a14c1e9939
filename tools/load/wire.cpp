#include "wire.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>

#include "service_cipher.h"

namespace load {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int connect_ms = 20'000;
constexpr int answer_ms = 30'000;
constexpr std::size_t max_answer_len = 65536;

class Socket {
 public:
  Socket() : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
  ~Socket() {
    if (fd >= 0) close(fd);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  const int fd;
};

bool is_ready(int fd, short what, Clock::time_point until) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
  pollfd ready{fd, what, 0};
  return left > 0 && poll(&ready, 1, static_cast<int>(left)) == 1;
}

std::string connect_to(int fd, const Endpoint& service) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(service.port);
  inet_pton(AF_INET, service.address.c_str(), &to.sin_addr);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to)) == 0) return "";
  if (errno != EINPROGRESS) return std::strerror(errno);
  if (!is_ready(fd, POLLOUT, Clock::now() + std::chrono::milliseconds(connect_ms))) return "no connection in time";
  int error = 0;
  socklen_t len = sizeof(error);
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len);
  return error == 0 ? "" : std::strerror(error);
}

std::string six_digits() {
  thread_local std::minstd_rand random{std::random_device{}()};
  return fmt::format("{:06}", random() % 1'000'000);
}

/// Six digits, the XML, and zeros up to a whole block.
std::string sealed(const std::string& xml) {
  std::string plain = six_digits() + "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<ldev>\n" + xml + "</ldev>\n";
  plain.resize((plain.size() + service_cipher::block_len - 1) / service_cipher::block_len * service_cipher::block_len);
  return service_cipher::seal(plain);
}

std::string authorization(Credentials& c, const std::string& method, const std::string& path) {
  if (c.nonce.empty()) return "";
  const std::string nc = fmt::format("{:08}", ++c.nc);
  const std::string cnonce = service_cipher::seal(six_digits() + six_digits() + six_digits() + six_digits());
  using service_cipher::md5_hex;
  const std::string ha1 = md5_hex({c.hid, c.realm, c.password}), ha2 = md5_hex({method, path});
  const std::string response =
      c.qop.empty() ? md5_hex({ha1, c.nonce, ha2}) : md5_hex({ha1, c.nonce, nc, cnonce, c.qop, ha2});
  return fmt::format(
      "Authorization: Digest username=\"{}\", realm=\"{}\", qop=\"{}\", algorithm=\"MD5\", uri=\"{}\" , nonce=\"{}\", "
      "nc={}, cnonce=\"{}\", response=\"{}\"\r\n",
      c.hid, c.realm, c.qop, path, c.nonce, nc, cnonce, response);
}

std::string request_text(const Endpoint& service, Credentials& credentials, const std::string& path,
                         const std::string& xml) {
  const std::string method = xml.empty() ? "GET" : "POST", body = xml.empty() ? "" : sealed(xml);
  std::string text = fmt::format("{} {} HTTP/1.1\r\nHost: {}:{}\r\nConnection: close\r\n{}", method, path,
                                 service.address, service.port, authorization(credentials, method, path));
  if (!xml.empty()) text += fmt::format("Content-Length: {}\r\n", body.size());
  return text + "\r\n" + body;
}

/// What stands between two texts, the first without regard to case; an empty text when they are not there.
std::string between(const std::string& text, std::string_view open, char close) {
  const auto same = [](unsigned char a, unsigned char b) { return std::tolower(a) == std::tolower(b); };
  const auto found = std::search(text.begin(), text.end(), open.begin(), open.end(), same);
  if (found == text.end()) return "";
  const std::string rest(found + static_cast<std::ptrdiff_t>(open.size()), text.end());
  return rest.substr(0, rest.find(close));
}

std::string parameter(const std::string& challenge, const std::string& name) {
  return between(" " + challenge, " " + name + "=\"", '"');
}

void take_challenge(const std::string& answer, Credentials& credentials) {
  const std::string challenge = between(answer, "\r\nWWW-Authenticate: Digest ", '\r');
  if (challenge.empty()) return;
  credentials.realm = parameter(challenge, "realm");
  credentials.nonce = parameter(challenge, "nonce");
  credentials.qop = parameter(challenge, "qop");
  credentials.nc = 1;
}

void send_all(int fd, const std::string& text, Clock::time_point until) {
  for (std::size_t at = 0; at < text.size();) {
    const ssize_t sent = send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
    if (sent > 0) at += static_cast<std::size_t>(sent);
    if (sent < 0 && (errno != EAGAIN || !is_ready(fd, POLLOUT, until))) return;
  }
}

/// Until the service closes, as it does after each answer. Nothing, with the reason in `error`, when it does not.
std::optional<std::string> read_all(int fd, Clock::time_point until, std::string& error) {
  std::string text;
  char block[4096];
  for (;;) {
    const ssize_t n = recv(fd, block, sizeof(block), 0);
    if (n == 0 || text.size() > max_answer_len) return text;
    if (n > 0) text.append(block, static_cast<std::size_t>(n));
    if (n < 0 && errno != EAGAIN) error = std::strerror(errno);
    if (n < 0 && errno == EAGAIN && !is_ready(fd, POLLIN, until)) error = "no whole answer in time";
    if (!error.empty()) return {};
  }
}

}  // namespace

Outcome ask(const Endpoint& service, Credentials& credentials, const std::string& path, const std::string& xml) {
  Outcome outcome;
  const auto start = Clock::now();
  const Socket sock;
  outcome.error = sock.fd < 0 ? std::strerror(errno) : connect_to(sock.fd, service);
  if (outcome.error.empty()) {
    const auto until = Clock::now() + std::chrono::milliseconds(answer_ms);
    // What cannot be sent may have been answered already; the answer, or its lack, tells why.
    send_all(sock.fd, request_text(service, credentials, path, xml), until);
    const std::string answer = read_all(sock.fd, until, outcome.error).value_or("");
    if (answer.starts_with("HTTP/1.1 ") && answer.size() > 12) outcome.status = std::atoi(answer.c_str() + 9);
    if (outcome.status == 401) take_challenge(answer, credentials);
    if (outcome.status == 0 && outcome.error.empty())
      outcome.error = answer.empty() ? "closed without an answer" : "an answer that is not HTTP";
  }
  outcome.took_s = std::chrono::duration<double>(Clock::now() - start).count();
  return outcome;
}

}  // namespace load
