// Connecting to nobody, and watched by nobody: in the place of service/connect.cpp and service/exchange_watch.cpp,
// for the sockets of fake_http.
#include "service/connect.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "fake_platform/fake_platform.h"
#include "service/exchange_watch.h"
#include "service/requests.h"

namespace kestrel {

int WaitConnect(int /*sock*/, const sockaddr* addr, unsigned addrlen, int timeout_s) {
  sockaddr_in peer{};
  std::memcpy(&peer, addr, addrlen);
  char ip[INET_ADDRSTRLEN] = "";
  inet_ntop(peer.sin_family, &peer.sin_addr, ip, sizeof(ip));
  fake_record(std::string("connect ") + ip + ":" + std::to_string(ntohs(peer.sin_port)) + " " +
              std::to_string(timeout_s));
  return fake_result("connect", 0);
}

ExchangeWatch::ExchangeWatch(int sock) : socket(sock), own(-1) {
  fake_record(sock >= 0 ? "watch" : "watch nothing");
}

ExchangeWatch::~ExchangeWatch() {
  fake_record("watch ends");
}

void ExchangeWatch::limit(unsigned ms) const {
  fake_record("limit " + std::to_string(ms));
}

void end_exchanges() {
  fake_record("end_exchanges");
}

}  // namespace kestrel
