// HTTP Digest (RFC 2617, MD5, qop "auth" or none), the server's side. A nonce serves every path,
// method and listener of the service, unless the scope is "path".
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <string_view>

namespace skyport {

/// The fields of an Authorization header; a field that was not sent is empty.
using Credentials = std::map<std::string, std::string, std::less<>>;

/// Reads `Digest name="value" , name=value...`: blanks around commas are allowed, names are taken in
/// lower case. False when it is another scheme, is malformed, or names a field twice.
bool parse_authorization(std::string_view header, Credentials& out);

enum class AuthVerdict { missing, wrong, stale, right };

/// What a check found. `error` is a few words unless the verdict is `right` or `missing`.
struct AuthResult {
  AuthVerdict verdict = AuthVerdict::missing;
  std::string error;
};

/// The nonces that were given out and the count that each has reached. Any thread may call.
class NonceTable {
 public:
  /// `timeout_s`: life of a nonce. `per_path`: a nonce serves only the method and path that it was
  /// given out for.
  NonceTable(int timeout_s, bool per_path) : timeout_ms_(timeout_s * INT64_C(1000)), per_path_(per_path) {}

  /// A new nonce, 32 hexadecimal digits. `with_qop` is false for a challenge without qop.
  std::string give(const std::string& method, const std::string& path, bool with_qop);

  /// Checks credentials for a request. `target` is the request line's, and the header's uri must name
  /// the same path (a relay may have turned an absolute URL into a path). A right answer uses up its nc.
  AuthResult check(const Credentials& credentials, const std::string& method, const std::string& target,
                   const std::string& realm, const std::string& password);

 private:
  struct Entry {
    int64_t expires_ms;
    uint64_t count;  // highest nc seen
    bool with_qop;
    std::string scope;
  };
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;
  std::deque<std::string> order_;  // oldest first; bounds the table
  int64_t timeout_ms_;
  bool per_path_;
};

/// The path of a request target: "/ext.html" of "/ext.html?x" and of "http://host:80/ext.html".
std::string target_path(std::string_view target);

}  // namespace skyport
