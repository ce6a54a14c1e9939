// HTTP listeners on libmicrohttpd: a thread a connection, bounded in number, size and idle time. What ends without a
// request that HTTP allows is told, too.
#pragma once

#include <functional>
#include <string>

#include "net.h"

struct MHD_Daemon;

namespace skyport {

/// One request as it came off the wire; absent headers are empty.
struct Request {
  Endpoint peer, local;
  std::string method;
  std::string target;  // of the request line, as it stood there
  std::string host, origin, accept, authorization;
  std::string body;
  int fd = -1;  // the connection's socket, for answers that are not HTTP
};

/// A body that never ends by itself: waits until there is more, and appends it. False ends it.
using Stream = std::function<bool(std::string& more)>;

/// What goes back.
struct Answer {
  unsigned status = 200;
  std::string challenge;  // of WWW-Authenticate; empty: none
  std::string body;
  const char* type = "text/html";
  bool drop = false;             // the server wrote on the socket by itself, or nothing: close it
  const char* policy = nullptr;  // of Content-Security-Policy; null: none
  bool own_pages_only = false;   // a page of another site must not even embed it
  Stream stream = nullptr;       // in place of `body`
};

/// Called on the connection's thread, by many at once. An exception becomes status 500.
using Serve = std::function<Answer(const Request&)>;
/// Told of a connection that ended without a whole request, with what is known of it, the status that it was answered
/// with (0: none), and why.
using Broken = std::function<void(const Request&, unsigned status, const std::string& error)>;

/// A running listener; its destructor closes every connection and waits for their threads, so what
/// blocks in `serve` must end first.
class Listener {
 public:
  /// Takes over the listening socket `fd`; `broken` may be empty. At most `max_connections` are served at a time.
  /// Throws std::runtime_error when the library refuses.
  Listener(int fd, unsigned max_connections, Serve serve, Broken broken);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  Answer serve(const Request& request) const;
  void broke(const Request& request, unsigned status, const std::string& error) const;

 private:
  Serve serve_;
  Broken broken_;
  MHD_Daemon* daemon_;
};

/// The answer as bytes: a head with `length_header` ("" or a whole line) and `body`.
std::string raw_answer(const Answer& answer, const std::string& length_header, const std::string& body);

}  // namespace skyport
