#include "server.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdio>

namespace skyport {
namespace {

/// A fault's hold on the connection.
struct Wire {
  int fd;
  int stop_fd;
};

std::string length_line(size_t length) {
  return "Content-Length: " + std::to_string(length) + "\r\n";
}

std::string whole_answer(const Answer& answer) {
  return raw_answer(answer, length_line(answer.body.size()), answer.body);
}

constexpr size_t filler_block_len = 65536;

/// Sends `total` bytes of a repeated text, so that a large answer costs no memory.
void send_filler(const Wire& wire, const std::string& piece, size_t total) {
  std::string block;
  while (block.size() < filler_block_len) block += piece;
  while (total > 0) {
    const size_t length = std::min(total, block.size());
    if (!send_all(wire.fd, std::string_view(block).substr(0, length), wire.stop_fd)) return;
    total -= length;
  }
}

void send_drip(const Wire& wire, const std::string& text, double gap_s) {
  for (const char& byte : text)
    if (!send_all(wire.fd, {&byte, 1}, wire.stop_fd) || !pause_for(wire.stop_fd, -1, gap_s)) return;
}

void send_chunked(const Wire& wire, const Answer& answer) {
  constexpr size_t chunk_len = 7;  // splits the base64 groups
  std::string body;
  for (size_t at = 0; at < answer.body.size(); at += chunk_len) {
    const std::string piece = answer.body.substr(at, chunk_len);
    std::array<char, 16> size{};
    std::snprintf(size.data(), size.size(), "%zx\r\n", piece.size());
    body += size.data() + piece + "\r\n";
  }
  send_all(wire.fd, raw_answer(answer, "Transfer-Encoding: chunked\r\n", body + "0\r\n\r\n"), wire.stop_fd);
}

void send_cut(const Wire& wire, const Answer& answer, size_t wanted) {
  const std::string whole = whole_answer(answer);
  send_all(wire.fd, std::string_view(whole).substr(0, wanted == 0 ? whole.size() / 2 : wanted), wire.stop_fd);
}

void send_oversize(const Wire& wire, size_t length) {
  if (send_all(wire.fd, raw_answer({}, length_line(length), ""), wire.stop_fd)) send_filler(wire, "QUJD", length);
}

void send_big_head(const Wire& wire, size_t length) {
  if (!send_all(wire.fd, "HTTP/1.1 200 OK\r\n", wire.stop_fd)) return;
  send_filler(wire, "X-Filler: " + std::string(52, 'x') + "\r\n", length);
  send_all(wire.fd, "\r\nContent-Length: 0\r\n\r\n", wire.stop_fd);
}

/// Bytes of every value, the same each time, that begin like no HTTP answer.
void send_garbage(const Wire& wire, size_t length) {
  std::string piece;
  for (unsigned i = 0; i < 256; ++i) piece += static_cast<char>((i * 167 + 255) & 255);
  send_filler(wire, piece, length);
}

/// Dissolving the association sends a reset at once; a close with linger would first send the FIN that
/// the library's shutdown makes.
void send_reset(const Wire& wire) {
  sockaddr none{};
  none.sa_family = AF_UNSPEC;
  static_cast<void>(connect(wire.fd, &none, sizeof none));
}

/// Applies a fault of the wire. False when the answer goes out the ordinary way.
bool apply(const Wire& wire, const Fault& fault, const Answer& answer) {
  const auto bytes = static_cast<size_t>(fault.number);
  switch (fault.kind) {
    case FaultKind::delay:
      return !pause_for(wire.stop_fd, -1, fault.number);
    case FaultKind::drip:
      return send_drip(wire, whole_answer(answer), fault.number), true;
    case FaultKind::refuse:
      return true;
    case FaultKind::reset:
      return send_reset(wire), true;
    case FaultKind::cut:
      return send_cut(wire, answer, bytes), true;
    case FaultKind::garbage:
      return send_garbage(wire, bytes), true;
    case FaultKind::silent:
      return static_cast<void>(pause_for(wire.stop_fd, wire.fd, fault.number)), true;
    case FaultKind::oversize:
      return send_oversize(wire, bytes), true;
    case FaultKind::bighead:
      return send_big_head(wire, bytes), true;
    case FaultKind::chunked:
      return send_chunked(wire, answer), true;
    case FaultKind::nolength:
      return send_all(wire.fd, raw_answer(answer, "", answer.body), wire.stop_fd), true;
    case FaultKind::none:
    case FaultKind::status:
    case FaultKind::stale:
    case FaultKind::badbody:
    case FaultKind::empty:
    case FaultKind::plain:
    case FaultKind::nononce:
    case FaultKind::noqop:
    case FaultKind::challenge:
      return false;
  }
  return false;
}

void record(Service& service, Exchange& exchange) {
  const int64_t oldest = service.exchanges.add(exchange);
  try {
    service.store.keep(exchange, oldest);
  } catch (const StoreError& error) {
    std::fprintf(stderr, "skyport: exchange %lld is not kept for the next run: %s\n",
                 static_cast<long long>(exchange.id), error.what());
  }
}

unsigned status_on_wire(const Fault& fault, const Answer& answer) {
  switch (fault.kind) {
    case FaultKind::refuse:
    case FaultKind::reset:
    case FaultKind::silent:
    case FaultKind::garbage:
      return 0;
    case FaultKind::oversize:
    case FaultKind::bighead:
      return 200;
    default:
      return answer.status;
  }
}

}  // namespace

Answer serve_request(Service& service, const Request& request, bool relay_only) {
  Exchange exchange = begin_exchange(request);
  Fault fault;
  const int64_t begun = steady_ms();
  Answer answer = decide(service, request, relay_only, exchange, fault);
  exchange.took_ms = steady_ms() - begun;
  exchange.status = status_on_wire(fault, answer);
  if (fault.kind != FaultKind::none) {
    fault.left = -1;
    exchange.fault = fault_text(fault);
  }
  // Before the answer leaves, so that whoever has it finds its exchange.
  record(service, exchange);
  answer.drop = apply({request.fd, service.stop_fd}, fault, answer);
  return answer;
}

void note_broken(Service& service, const Request& request, unsigned status, const std::string& error) {
  Exchange exchange = begin_exchange(request);
  exchange.status = status;
  exchange.error = error;
  record(service, exchange);
}

}  // namespace skyport
