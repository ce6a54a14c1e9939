#include "visitors.h"

#include <strings.h>

#include <string_view>

namespace skyport {
namespace {

/// "host" of "host:80" and of "host"; an IPv6 address keeps its brackets.
std::string host_of(std::string_view authority) {
  const size_t colon = authority.find(':', authority.starts_with('[') ? authority.find(']') : 0);
  return std::string(authority.substr(0, colon));
}

bool is_own(const std::string& host, const Request& request) {
  // The test of the form first: "127.0.0.1.example.net" is a name as any other.
  if (is_ipv4(host)) return host.starts_with("127.") || host == request.local.address;
  return host == "[::1]" || strcasecmp(host.c_str(), "localhost") == 0;
}

}  // namespace

std::string visitor_error(const Request& request) {
  // Only a program that is no browser leaves the Host out.
  if (!request.host.empty() && !is_own(host_of(request.host), request)) {
    return "the Host is not this machine's; ask for http://" + request.local.address + ":" +
           std::to_string(request.local.port) + "/";
  }
  if (!request.origin.empty() && strcasecmp(request.origin.c_str(), ("http://" + request.host).c_str()) != 0) {
    return "the Origin is another site's; only the service's own pages may ask";
  }
  return "";
}

}  // namespace skyport
