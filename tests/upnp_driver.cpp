// Calls libupnpc as gateway_test.py tells it: a call a line on standard input, "NAME ARGUMENT...", and for each a
// line on standard output, the result and the outputs with tabs between them. Outputs begin as "-".
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "platform/upnpc.h"

namespace {

/// A caller's buffer of exactly the size that the contract gives.
struct Buffer {
  explicit Buffer(std::size_t size) : bytes(size, '\0') { bytes[0] = '-'; }
  char* data() { return bytes.data(); }
  std::vector<char> bytes;
};

std::ostream& operator<<(std::ostream& out, const Buffer& buffer) {
  return out << std::string(buffer.bytes.data());
}

int run(std::istream& in, const std::string& call, std::ostream& out) {
  int port = -1, other = -1, timeout_s = 0;
  if (call == "discover") {
    MupnpIgd igd{};
    in >> timeout_s;
    const int result = Mupnpcp_discover(&igd, timeout_s);
    out << '\t' << igd.friendlyName << '\t' << igd.manufacturer << '\t' << igd.modelName << '\t' << igd.modelNumber
        << '\t' << igd.presentationURL;
    return result;
  }
  if (call == "eip") {
    Buffer ip(MUPNP_IP_LEN);
    in >> timeout_s;
    const int result = Mupnpcp_get_eip(ip.data(), timeout_s);
    out << '\t' << ip;
    return result;
  }
  Buffer description(MUPNP_DESCRIPTION_LEN), client(MUPNP_CLIENT_LEN), protocol(MUPNP_SHORT_LEN);
  if (call == "entry") {
    in >> other >> timeout_s;
    const int result = Mupnpcp_query_eport_all(description.data(), other, &port, protocol.data(), timeout_s);
    out << '\t' << description << '\t' << port << '\t' << protocol;
    return result;
  }
  in >> port >> timeout_s;
  if (call == "port") {
    int lease_s = -1;
    const int result = Mupnpcp_query_eport_ex(description.data(), client.data(), &other, &lease_s, port,
                                              MUPNP_PROTOCOL_HTTP, timeout_s);
    out << '\t' << description << '\t' << client << '\t' << other << '\t' << lease_s;
    return result;
  }
  if (call == "add") return Mupnp_add_eport("cam<&>_AABBCC-1.2-80", port, 80, MUPNP_PROTOCOL_HTTP, timeout_s);
  return Mupnp_del_eport(port, MUPNP_PROTOCOL_HTTP, timeout_s);
}

}  // namespace

int main() {
  for (std::string line, call; std::getline(std::cin, line);) {
    std::istringstream in(line);
    std::ostringstream out;
    in >> call;
    const int result = run(in, call, out);
    std::cout << result << out.str() << std::endl;
  }
}
