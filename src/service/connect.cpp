// Connecting with a time limit, see connect.h.
#include "service/connect.h"

#include <fcntl.h>
#include <sys/select.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>

#include "core/debug_log.h"

namespace kestrel {

namespace {

void SetNonBlock(int fd, bool on) {
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK);
}

/// Waits for the connection under way. True when it stands.
bool await_connection(int sock, int timeout_s) {
  fd_set reads;
  FD_ZERO(&reads);
  FD_SET(sock, &reads);
  fd_set writes = reads;
  fd_set excepts = reads;
  timeval limit{timeout_s, 0};
  const int ready = select(sock + 1, &reads, &writes, &excepts, timeout_s != 0 ? &limit : nullptr);
  int pending = 0;
  socklen_t len = sizeof(pending);
  if (ready == 0) {
    errno = ETIMEDOUT;
    debug_log(" WaitConnect timeout\n");
  } else if (ready < 0) {
    debug_log(" select failed\n");
  } else if (!FD_ISSET(sock, &reads) && !FD_ISSET(sock, &writes)) {
    debug_log(" connectfaied\n");
  } else if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &pending, &len) != 0) {
    print_error(" getsockopt");
  } else if (pending != 0) {
    print_console(" Strange bug");
  } else {
    debug_log(" Connect success\n");
    return true;
  }
  return false;
}

}  // namespace

int WaitConnect(int sock, const sockaddr* addr, unsigned addrlen, int timeout_s) {
  if (sock >= FD_SETSIZE) return -1;
  SetNonBlock(sock, true);
  errno = 0;
  const int rc = connect(sock, addr, addrlen);
  if (rc != 0 && errno != EINPROGRESS) {
    debug_log("WaitConnect2 connect() errno=%d\n", errno);
    return -1;
  }
  debug_log(" rc=%d errno=%d\n", rc, errno);
  if (rc == 0) {
    debug_log(" connect ok\n");
  } else if (!await_connection(sock, timeout_s)) {
    return -1;
  }
  SetNonBlock(sock, false);
  return 0;
}

}  // namespace kestrel
