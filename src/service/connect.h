// Connecting with a time limit.
#pragma once

#include <sys/socket.h>

namespace kestrel {

/// Connects a TCP socket within `timeout_s` seconds (0: no limit). Returns 0 when connected, the socket
/// then blocking again; -1 otherwise (time-outs set errno to ETIMEDOUT). A descriptor that does not fit
/// into a descriptor set is refused.
int WaitConnect(int sock, const sockaddr* addr, unsigned addrlen, int timeout_s);

}  // namespace kestrel
