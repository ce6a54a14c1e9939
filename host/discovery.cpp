// The search for a usable gateway: SSDP answers come in, descriptions are loaded side by side, so that a
// device that drips or stays silent costs the others nothing. See gateway.h.
#include <arpa/inet.h>

#include <algorithm>
#include <list>
#include <set>

#include "gateway.h"
#include "setting_table.h"
#include "soap.h"
#include "ssdp.h"
#include "transfer.h"

namespace host {

namespace {

constexpr std::size_t max_locations = 256;           // that a search looks into at all
constexpr std::size_t max_candidates = 16;           // descriptions loaded at a time
constexpr std::size_t max_candidates_of_sender = 4;  // of them on one device's word
constexpr int max_datagrams_at_once = 32;
constexpr int questions_ms[] = {0, 1000, 3000};  // when to ask, from the start
constexpr int router_grace_ms = 500;             // for the default gateway's description, when another was faster
constexpr int status_timeout_ms = 2000;

struct MultiCleanup {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};

/// A description that is being loaded.
struct Candidate {
  std::string location;
  std::uint32_t sender;
  Transfer transfer;
  Candidate(const std::string& url, std::uint32_t said_by, const Interface& on, const Deadline& deadline)
      : location(url), sender(said_by), transfer(url, on, deadline) {}
};

class Discovery {
 public:
  Discovery(const Settings& settings, const Interface& on, const Deadline& deadline)
      : on_(on), deadline_(deadline), search_(on, target(settings)), multi_(curl_multi_init()) {}
  Discovery(const Discovery&) = delete;
  Discovery& operator=(const Discovery&) = delete;
  ~Discovery() {
    for (const Candidate& candidate : candidates_) curl_multi_remove_handle(multi_.get(), candidate.transfer.handle());
  }

  std::optional<Gateway> run() {
    if (search_.socket() < 0 || !multi_) return std::nullopt;
    while (!deadline_.is_over() && !is_decided()) {
      ask_when_due();
      wait();
      for (int i = 0; i < max_datagrams_at_once; ++i) {
        const auto answer = search_.take();
        if (!answer) break;
        consider(*answer);
      }
      collect();
    }
    return std::move(found_);
  }

 private:
  static sockaddr_in target(const Settings& settings) {
    sockaddr_in target{};
    target.sin_family = AF_INET;
    const auto address = text_of(settings, setting::ssdp_address);
    inet_pton(AF_INET, address.value_or(setting::ssdp_address.fallback).c_str(), &target.sin_addr);
    target.sin_port = htons(static_cast<std::uint16_t>(number_of(settings, setting::ssdp_port).value_or(1900)));
    return target;
  }

  /// Whether waiting longer cannot give a better gateway.
  [[nodiscard]] bool is_decided() const {
    if (!found_) return false;
    return found_is_router_ || !router_is_loading() || steady_ms() - found_ms_ > router_grace_ms;
  }

  [[nodiscard]] bool router_is_loading() const {
    return std::ranges::any_of(candidates_, [&](const Candidate& candidate) { return is_router(candidate.location); });
  }

  /// Whether the camera's traffic leaves through that device anyway: then nobody else need be believed.
  [[nodiscard]] bool is_router(const std::string& url) const {
    return on_.gateway != 0 && address_of(url) == on_.gateway;
  }

  void ask_when_due() {
    if (asked_ == std::size(questions_ms) || steady_ms() - start_ms_ < questions_ms[asked_]) return;
    search_.ask();
    ++asked_;
  }

  void wait() {
    curl_waitfd datagrams{search_.socket(), CURL_WAIT_POLLIN, 0};
    std::int64_t until_ms = deadline_.left_ms();
    const std::int64_t now_ms = steady_ms();
    if (asked_ < std::size(questions_ms)) until_ms = std::min(until_ms, start_ms_ + questions_ms[asked_] - now_ms);
    if (found_) until_ms = std::min(until_ms, found_ms_ + router_grace_ms + 1 - now_ms);
    curl_multi_poll(multi_.get(), &datagrams, 1, static_cast<int>(std::max<std::int64_t>(until_ms, 0)), nullptr);
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
  }

  void consider(const SsdpAnswer& answer) {
    if (answer.location.empty() || seen_.size() >= max_locations || candidates_.size() >= max_candidates) return;
    const auto url = local_url(answer.location, "", on_);
    if (!url || seen_.contains(*url)) return;
    const auto of_sender = std::ranges::count(candidates_, answer.sender, &Candidate::sender);
    if (static_cast<std::size_t>(of_sender) >= max_candidates_of_sender) return;
    seen_.insert(*url);
    candidates_.emplace_back(*url, answer.sender, on_, deadline_);
    curl_multi_add_handle(multi_.get(), candidates_.back().transfer.handle());
  }

  void collect() {
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      CURL* const handle = message->easy_handle;  // the message is gone once its handle is removed
      const bool complete = message->data.result == CURLE_OK;
      const auto candidate =
          std::ranges::find_if(candidates_, [&](const Candidate& each) { return each.transfer.handle() == handle; });
      if (complete && candidate->transfer.status() == 200) judge(*candidate);
      curl_multi_remove_handle(multi_.get(), handle);
      candidates_.erase(candidate);
    }
  }

  void judge(const Candidate& candidate) {
    const bool router = is_router(candidate.location);
    if (found_ && !router) return;
    Gateway gateway = parse_description(candidate.transfer.body(), candidate.location, on_);
    if (gateway.services.empty()) return;
    if (!found_) found_ms_ = steady_ms();
    found_ = std::move(gateway);
    found_is_router_ = router;
  }

  const Interface& on_;
  const Deadline& deadline_;
  const std::int64_t start_ms_ = steady_ms();
  SsdpSearch search_;
  std::size_t asked_ = 0;
  std::unique_ptr<CURLM, MultiCleanup> multi_;
  std::list<Candidate> candidates_;
  std::set<std::string> seen_;
  std::optional<Gateway> found_;
  bool found_is_router_ = false;
  std::int64_t found_ms_ = 0;
};

bool is_connected(const ConnectionService& service, const Interface& on, const Deadline& deadline) {
  const Deadline step(std::min(deadline.left_ms(), status_timeout_ms));
  const SoapAnswer answer = soap_call(service, "GetStatusInfo", {}, on, step);
  return answer.result == 0 && output_of(answer, "NewConnectionStatus") == "Connected";
}

/// A router with several connections says which of them is in use: that one comes first.
void put_connected_first(Gateway& gateway, const Interface& on, const Deadline& deadline) {
  if (gateway.services.size() < 2) return;
  const auto connected = std::ranges::find_if(
      gateway.services, [&](const ConnectionService& service) { return is_connected(service, on, deadline); });
  if (connected != gateway.services.end()) std::swap(*connected, gateway.services.front());
}

}  // namespace

std::optional<Gateway> find_gateway(const Settings& settings, const Interface& on, const Deadline& deadline) {
  std::optional<Gateway> gateway = Discovery(settings, on, deadline).run();
  if (gateway) put_connected_first(*gateway, on, deadline);
  return gateway;
}

}  // namespace host
