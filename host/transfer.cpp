// Bounded HTTP with a router, see transfer.h.
#include "transfer.h"

#include <arpa/inet.h>

#include <new>

namespace host {

namespace {

constexpr std::size_t max_body_len = 1024UL * 1024;  // bytes; descriptions of 300 kB are met with
constexpr std::size_t max_head_len = 64UL * 1024;    // bytes
constexpr const char* user_agent = "Linux UPnP/1.1 kestrel/1.2";

struct UrlCleanup {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
  void operator()(char* text) const { curl_free(text); }
};
using Url = std::unique_ptr<CURLU, UrlCleanup>;

std::string part(const Url& url, CURLUPart what) {
  char* text = nullptr;
  if (curl_url_get(url.get(), what, &text, 0) != CURLUE_OK) return {};
  const std::unique_ptr<char, UrlCleanup> owner(text);
  return text;
}

/// Parses a URL, which may be relative to `base`; an empty pointer when it is none.
Url parse(const std::string& text, const std::string& base) {
  Url url(curl_url());
  if (!url) throw std::bad_alloc();
  if (!base.empty() && curl_url_set(url.get(), CURLUPART_URL, base.c_str(), 0) != CURLUE_OK) return nullptr;
  if (curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) return nullptr;
  return url;
}

std::uint32_t address_of(const Url& url) {
  in_addr address{};
  return inet_pton(AF_INET, part(url, CURLUPART_HOST).c_str(), &address) == 1 ? address.s_addr : 0;
}

/// The program uses HTTP only: nothing else needs to be set up, cryptography least of all.
bool start_library() {
  static const bool started = curl_global_init(CURL_GLOBAL_NOTHING) == CURLE_OK;
  return started;
}

}  // namespace

std::optional<std::string> local_url(const std::string& url, const std::string& base, const Interface& on) {
  const Url parsed = parse(url, base);
  if (!parsed || part(parsed, CURLUPART_SCHEME) != "http") return std::nullopt;
  const std::uint32_t address = address_of(parsed);
  if (address == 0 || on.mask == 0 || ((address ^ on.ip) & on.mask) != 0) return std::nullopt;
  return part(parsed, CURLUPART_URL);
}

std::uint32_t address_of(const std::string& url) {
  const Url parsed = parse(url, "");
  return parsed ? address_of(parsed) : 0;
}

Transfer::Transfer(const std::string& url, const Interface& from, const Deadline& deadline)
    : handle_(start_library() ? curl_easy_init() : nullptr) {
  if (!handle_) throw std::bad_alloc();
  CURL* easy = handle_.get();
  char address[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &from.ip, address, sizeof(address));
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_INTERFACE, (std::string("host!") + address).c_str());
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, static_cast<long>(std::max(deadline.left_ms(), 1)));
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http");
  curl_easy_setopt(easy, CURLOPT_PROXY, "");  // the environment's has no place between camera and router
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_USERAGENT, user_agent);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::take_body);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::take_head);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
}

void Transfer::post(const std::string& body, const std::vector<std::string>& fields) {
  for (const std::string& field : fields) {
    curl_slist* longer = curl_slist_append(fields_.get(), field.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    [[maybe_unused]] const auto* same = fields_.release();
    fields_.reset(longer);
  }
  curl_easy_setopt(handle(), CURLOPT_HTTPHEADER, fields_.get());
  curl_easy_setopt(handle(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(handle(), CURLOPT_COPYPOSTFIELDS, body.c_str());
}

bool Transfer::run() {
  return curl_easy_perform(handle()) == CURLE_OK;
}

long Transfer::status() const {
  long status = 0;
  curl_easy_getinfo(handle(), CURLINFO_RESPONSE_CODE, &status);
  return status;
}

std::size_t Transfer::take_body(char* data, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  const std::size_t len = size * count;
  if (transfer.body_.size() + len > max_body_len) return 0;
  try {
    transfer.body_.append(data, len);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return len;
}

std::size_t Transfer::take_head(char* /*data*/, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<Transfer*>(self);
  transfer.head_len_ += size * count;
  return transfer.head_len_ > max_head_len ? 0 : size * count;
}

}  // namespace host
