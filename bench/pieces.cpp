// Pieces of the daemon, run alone and often, so that instructions and system calls can be counted for one: by the
// difference between two counts. usage: pieces PIECE COUNT, which prints the seconds; each has a bare peer in this file
// or in peers.cpp.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "piece.h"
#include "service/blowfish.h"
#include "service/requests.h"

namespace {

constexpr char log_line[] = "/tmp/bench_log.txt";
constexpr std::size_t body_len = 704;

bool log_lines(int count) {
  for (int i = 0; i < count; ++i) kestrel::debug_log(" connect to %s:%d\n", "192.0.2.10", i);
  return true;
}

/// The loop around it, to be taken off.
bool nothing(int count) {
  for (int i = 0; i < count; ++i) asm volatile("" ::: "memory");
  return true;
}

bool log_off(int count) {
  kestrel::DbgLevel = 0;
  return log_lines(count);
}

bool log_on(int count) {
  kestrel::DbgLevel = kestrel::debug_file;
  return log_lines(count);
}

bool log_bare(int count) {
  for (int i = 0; i < count; ++i) {
    char line[2048];
    const int len = std::snprintf(line, sizeof(line), "KLOG connect to %s:%d\n", "192.0.2.10", i);
    const int fd = open(log_line, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, line, static_cast<std::size_t>(len)) != len) return false;
    close(fd);
  }
  return true;
}

bool cipher(int count) {
  std::array<unsigned char, body_len> body{};
  constexpr unsigned char key[] = "0123456789abcdef0123456789abcdef";
  constexpr unsigned char iv[] = "58585858";
  for (int i = 0; i < count; ++i) kestrel::bf_cfb8_encrypt(body.data(), body_len, key, 32, iv, 8);
  return true;
}

/// The pair of a challenge and the request that answers it.
bool exchanges(int count) {
  static kestrel::DeviceContext ctx{};
  ctx.run = 1;
  kestrel::copy_text(ctx.da_ip, "127.0.0.1");
  kestrel::copy_text(ctx.auth_info.user, "10203040");
  kestrel::copy_text(ctx.auth_info.pass, "lab-password");
  for (int i = 0; i < count; ++i) {
    ctx.auth_info.on = 0;
    if (kestrel::srv_get_eip(&ctx) != kestrel::request_challenged) return false;
    if (kestrel::srv_get_eip(&ctx) != kestrel::request_ok) return false;
  }
  return true;
}

/// What a client does that gives up in time: connects without blocking, sends, receives.
bool bare_exchange() {
  static constexpr char request[] = "GET /ext.html HTTP/1.1\r\nHost: 127.0.0.1:80\r\nConnection: close\r\n\r\n";
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  to.sin_port = htons(80);
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  static_cast<void>(connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof(to)));
  pollfd ready{fd, POLLOUT, 0};
  int error = 0;
  socklen_t len = sizeof(error);
  if (poll(&ready, 1, 20000) != 1 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0 || error != 0)
    return false;
  fcntl(fd, F_SETFL, 0);
  char answer[2048];
  const bool answered = send(fd, request, sizeof(request) - 1, 0) > 0 && recv(fd, answer, sizeof(answer), 0) > 0;
  close(fd);
  return answered;
}

bool bare_exchanges(int count) {
  for (int i = 0; i < 2 * count; ++i) {
    if (!bare_exchange()) return false;
  }
  return true;
}

constexpr Piece pieces[] = {
    {"nothing", nothing},
    {"log-off", log_off},
    {"log-on", log_on},
    {"log-bare", log_bare},
    {"cipher", cipher},
    {"exchange", exchanges},
    {"exchange-bare", bare_exchanges},
};

}  // namespace

int main(int argc, char** argv) {
  return run_piece("pieces", pieces, argc, argv);
}
