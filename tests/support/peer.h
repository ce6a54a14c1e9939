// A peer on loopback that treats a client's connection as it is told.
#ifndef KESTREL_TESTS_PEER_H
#define KESTREL_TESTS_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include "core/device_context.h"
#include "core/text.h"
#include "support/child.h"

/// A listener on loopback that takes one connection and treats it as told.
class Peer {
 public:
  using Script = std::function<void(int fd)>;

  Peer() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(address_);
    bind(fd_, reinterpret_cast<const sockaddr*>(&address_), len);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address_), &len);
  }
  ~Peer() { close(fd_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  int port() const { return ntohs(address_.sin_port); }

  /// Runs `work` while a thread serves one connection; nobody listens without a script. The request, as received.
  std::string serve(const Script& script, const std::function<void()>& work) {
    std::string request;
    if (!script) work();
    if (!script) return request;
    listen(fd_, 1);
    std::thread server([&] {
      const timeval limit{10, 0};
      setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
      const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      request = read_request(fd);
      script(fd);
      close(fd);
    });
    work();
    server.join();
    return request;
  }

 private:
  static std::string read_request(int fd) {
    std::string text;
    char block[4096];
    for (std::size_t end = std::string::npos; text.size() < end;) {
      const ssize_t n = recv(fd, block, sizeof(block), 0);
      if (n <= 0) break;
      text.append(block, static_cast<std::size_t>(n));
      const std::size_t head = text.find("\r\n\r\n"), length = text.find("Content-Length: ");
      if (head == text.npos) continue;
      end = head + 4 + (length != text.npos ? std::strtoul(text.c_str() + length + 16, nullptr, 10) : 0);
    }
    return text;
  }

  int fd_ = -1;
  sockaddr_in address_{};
};

/// Says it and closes.
inline Peer::Script say(const std::string& text) {
  return [text](int fd) { send(fd, text.data(), text.size(), MSG_NOSIGNAL); };
}

/// Says it a byte at a time.
inline Peer::Script drip(const std::string& text, int us) {
  return [text, us](int fd) {
    for (const char c : text) {
      if (send(fd, &c, 1, MSG_NOSIGNAL) != 1) return;
      std::this_thread::sleep_for(std::chrono::microseconds(us));
    }
  };
}

/// Ends the connection with a reset.
inline Peer::Script reset_after(const std::string& text) {
  return [text](int fd) {
    send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    const linger at_once{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  };
}

/// Stays until the daemon has closed.
inline Peer::Script hold(const Peer::Script& first) {
  return [first](int fd) {
    char byte = 0;
    first(fd);
    while (recv(fd, &byte, 1, 0) > 0) continue;
  };
}

/// A record whose requests go through the relay, whose port is free to choose.
inline void begin_record(kestrel::DeviceContext& ctx, const Peer& relay) {
  kestrel::zero(ctx);
  ctx.run = ctx.proxy_tested = 1;
  kestrel::copy_text(ctx.proxy.ip, "127.0.0.1");
  kestrel::copy_text(ctx.proxy.port, std::to_string(relay.port()).c_str());
  kestrel::copy_text(ctx.da_ip, "192.0.2.20");
  kestrel::copy_text(ctx.redir_ip, "192.0.2.10");
  kestrel::copy_text(ctx.auth_info.user, "HID00001");
  kestrel::copy_text(ctx.auth_info.pass, "secret");
}

#endif
