// One exchange with the service as a camera makes it: a connection, a request with Digest credentials, an answer.
#pragma once

#include <cstdint>
#include <string>

namespace load {

struct Endpoint {
  std::string address;  // dotted
  std::uint16_t port = 0;
};

/// A camera's account, and the challenge that its next request answers.
struct Credentials {
  std::string hid, password;
  std::string realm, nonce, qop;  // empty: not challenged yet
  unsigned nc = 0;
};

/// What came of an exchange. A status of 0 is no answer, and `error` then says why.
struct Outcome {
  int status = 0;
  double took_s = 0;
  std::string error;
};

/// Asks once. `xml` empty: GET; otherwise POST of the enciphered body. A 401 leaves its challenge in `credentials`.
/// Limits as the daemon's: 20 s for the connection, 30 s for the answer.
Outcome ask(const Endpoint& service, Credentials& credentials, const std::string& path, const std::string& xml);

}  // namespace load
