// The service's requests: what each path wants and does, and the decision on one request from its
// Authorization header to its answer.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "digest.h"
#include "faults.h"
#include "http.h"
#include "net.h"
#include "store.h"

namespace skyport {

struct Settings {
  std::vector<Endpoint> listen, relay;
  Endpoint status{"127.0.0.1", 8089};
  std::string database = ":memory:";
  std::map<std::string, std::string> accounts;  // password by hid
  std::string data_server;                      // empty: the address that the request was sent to
  std::string realm = "skyport";
  int nonce_timeout_s = 300;
  bool nonce_per_path = false;
  double connect_timeout_s = 5;
  unsigned max_connections = 4096;  // a listener's
  std::vector<Alias> aliases_taken;
  std::vector<Fault> faults;
};

/// Everything that the listeners share.
struct Service {
  Service(Settings wanted, int stop);

  const Settings settings;
  const int64_t start;  // wall-clock milliseconds
  const int stop_fd;    // readable when the service stops
  NonceTable nonces;
  FaultList faults;
  Store store;
  ExchangeLog exchanges;
};

/// What a request itself tells of its exchange.
Exchange begin_exchange(const Request& request);

/// Decides on a request: credentials, fault, body, work. Fills `exchange`, which has begun, with all of it and `fault`
/// with the one that the caller must apply on the wire. `relay_only`: absolute URLs alone are taken.
Answer decide(Service& service, const Request& request, bool relay_only, Exchange& exchange, Fault& fault);

/// Why `name` can't be an alias, or an empty text. An alias is one label of a host name.
std::string alias_error(const std::string& name);

}  // namespace skyport
