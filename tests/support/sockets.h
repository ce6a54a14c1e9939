// Sockets on loopback that behave badly.
#ifndef KESTREL_TESTS_SOCKETS_H
#define KESTREL_TESTS_SOCKETS_H

#include <netinet/in.h>
#include <sys/socket.h>

/// Has `listener` listen on loopback with a queue that is full, so that every further connection hangs. Returns its
/// port. The sockets that fill the queue stay open.
inline int listen_without_room(int listener) {
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(listener, reinterpret_cast<const sockaddr*>(&at), sizeof(at));
  socklen_t len = sizeof(at);
  getsockname(listener, reinterpret_cast<sockaddr*>(&at), &len);
  listen(listener, 0);
  for (int i = 0; i < 4; ++i) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    connect(fd, reinterpret_cast<const sockaddr*>(&at), sizeof(at));
  }
  return ntohs(at.sin_port);
}

#endif
