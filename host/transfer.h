// HTTP with a router: one request a connection, bounded in time and size, never off the camera's network.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "deadline.h"
#include "interfaces.h"

namespace host {

/// The URL with its host as a dotted address, when it is plain HTTP to an address on the interface's
/// network; otherwise nothing. A relative one is taken from `base` (empty for none).
std::optional<std::string> local_url(const std::string& url, const std::string& base, const Interface& on);

/// The address of a URL's host, in network byte order; 0 when it has none.
std::uint32_t address_of(const std::string& url);

/// One request and what came of it. Stays where it is: libcurl holds its address.
class Transfer {
 public:
  /// A GET of a URL that local_url gave, from the interface's address.
  Transfer(const std::string& url, const Interface& from, const Deadline& deadline);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  /// Makes it a POST with these header fields.
  void post(const std::string& body, const std::vector<std::string>& fields);

  /// Runs it to its end. True when a whole answer came.
  [[nodiscard]] bool run();

  [[nodiscard]] CURL* handle() const { return handle_.get(); }
  [[nodiscard]] long status() const;
  [[nodiscard]] const std::string& body() const { return body_; }

 private:
  static std::size_t take_body(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t take_head(char* data, std::size_t size, std::size_t count, void* self);

  struct Cleanup {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
  };
  std::unique_ptr<CURL, Cleanup> handle_;
  std::unique_ptr<curl_slist, Cleanup> fields_;
  std::string body_;
  std::size_t head_len_ = 0;
};

}  // namespace host
