// Where the service's servers are, see server_location.h.
#include "net/server_location.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <cstring>

#include "core/debug_log.h"
#include "core/device_context.h"
#include "core/text.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"

namespace kestrel {

namespace {

constexpr std::size_t name_len = 64;       // host and domain names, terminator included
constexpr std::size_t min_proxy_name = 4;  // characters; a shorter name means that none is configured

/// The first IPv4 address of a host name as dotted text; false when it does not resolve, and `ip` is then untouched.
bool resolve(const char* host, char* ip) {
  const hostent* answer = gethostbyname(host);  // NOLINT(concurrency-mt-unsafe): main thread only
  if (answer == nullptr || answer->h_addrtype != AF_INET || answer->h_addr_list[0] == nullptr) return false;
  return inet_ntop(AF_INET, answer->h_addr_list[0], ip, ip_len) != nullptr;
}

}  // namespace

int get_proxy_addr(char* ip, char* port) {
  char host[name_len] = "";
  int number = 0;
  net_get_proxy_addr_port(host, &number);
  terminate(host);
  if (std::strlen(host) < min_proxy_name || number < 1) return 0;
  if (!resolve(host, ip)) {
    debug_log("can not get proxy ip by name.\n");
    return 0;
  }
  format_text(port, port_len, "%d", number);
  debug_log("proxy addr=%s:%s\n", ip, port);
  return 1;
}

int resolve_redirect_server(char* ip) {
  char domain[name_len] = "";
  char host[name_len] = "";
  char stored[name_len] = "";  // 16 bytes are meant; libraries of the family fill up to 64
  cre_get_skyport_domain_ip(domain, stored);
  terminate(domain);
  terminate(stored);
  if (tessel_get_skyport_url(domain, host) == 0) return 0;
  terminate(host);
  debug_log("rdurl=%s\n", host);
  if (resolve(host, ip)) {
    debug_log("redirip=%s, gethostbyname_addr=%s\n", stored, ip);
    if (std::strcmp(stored, ip) != 0) set_redirsrv_ip(ip);
    return 1;
  }
  debug_log("get name failed\n");
  char remembered[name_len] = "";
  const int known = get_redirsrv_ip(remembered);
  copy_bytes(ip, ip_len, remembered, sizeof(remembered));
  if (known == 0) return 0;
  debug_log("use addr=%s\n", ip);
  return 1;
}

}  // namespace kestrel
