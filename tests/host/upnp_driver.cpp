// Calls libupnpc as gateway_test.py tells it: a call a line on standard input, "NAME PORT TIMEOUT", and for each a
// line on standard output, the result and the outputs with tabs between them. Outputs begin as "-".
#include <iostream>
#include <string>
#include <vector>

#include "platform/upnpc.h"

namespace {

/// A caller's buffer of exactly the size that the contract gives.
struct Buffer : std::vector<char> {
  explicit Buffer(std::size_t size) : vector(size, '\0') { front() = '-'; }
};

std::ostream& operator<<(std::ostream& out, const Buffer& buffer) {
  return out << buffer.data();
}

void say(int result, const auto&... outputs) {
  std::cout << result;
  ((std::cout << '\t' << outputs), ...);
  std::cout << std::endl;
}

void run(const std::string& call, int port, int timeout_s) {
  MupnpIgd igd{};
  Buffer description(MUPNP_DESCRIPTION_LEN), client(MUPNP_CLIENT_LEN), protocol(MUPNP_SHORT_LEN), ip(MUPNP_IP_LEN);
  int other = -1, lease_s = -1, result = 0;
  if (call == "discover") {
    result = Mupnpcp_discover(&igd, timeout_s);
    return say(result, igd.friendlyName, igd.manufacturer, igd.manufacturerURL, igd.modelName, igd.modelNumber,
               igd.modelDescription, igd.presentationURL);
  }
  if (call == "eip") {
    result = Mupnpcp_get_eip(ip.data(), timeout_s);
    return say(result, ip);
  }
  if (call == "entry") {
    result = Mupnpcp_query_eport_all(description.data(), port, &other, protocol.data(), timeout_s);
    return say(result, description, other, protocol);
  }
  if (call == "port") {
    result = Mupnpcp_query_eport_ex(description.data(), client.data(), &other, &lease_s, port, MUPNP_PROTOCOL_HTTP,
                                    timeout_s);
    return say(result, description, client, other, lease_s);
  }
  if (call == "delete") return say(Mupnp_del_eport(port, MUPNP_PROTOCOL_HTTP, timeout_s));
  return say(Mupnp_add_eport("cam<&>_AABBCC-1.2-80", port, 80, MUPNP_PROTOCOL_HTTP, timeout_s));
}

}  // namespace

int main() {
  std::string call;
  for (int port = 0, timeout_s = 0; std::cin >> call >> port >> timeout_s;) run(call, port, timeout_s);
}
