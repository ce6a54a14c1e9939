// Connecting to nobody: in the place of service/connect.cpp and service/answer.cpp, for the sockets of fake_http.
#include "service/connect.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "fake_platform/fake_platform.h"
#include "service/answer.h"

namespace kestrel {

int WaitConnect(int /*sock*/, const sockaddr* addr, unsigned addrlen, int timeout_s) {
  sockaddr_in peer{};
  std::memcpy(&peer, addr, addrlen);
  char ip[INET_ADDRSTRLEN];
  inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
  fake_record(std::string("connect ") + ip + ":" + std::to_string(ntohs(peer.sin_port)) + " " +
              std::to_string(timeout_s));
  return fake_result("connect", 0);
}

void bound_exchange(int /*sock*/, int timeout_s) {
  fake_record("bound " + std::to_string(timeout_s));
}

bool await_answer(int /*sock*/, int timeout_s) {
  fake_record("await " + std::to_string(timeout_s));
  return fake_result("await", 1) != 0;
}

}  // namespace kestrel
