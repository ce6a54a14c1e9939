// What the service keeps: registrations, reports, aliases and connect-back results in SQLite, and the last exchanges in
// memory, of which a file has a copy for the next run. Any thread may call. A failing database throws StoreError.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "request_body.h"

struct sqlite3;

namespace skyport {

struct StoreError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Times are wall-clock milliseconds.
struct ConnectBack {
  int64_t time = 0;
  std::string address;
  uint16_t port = 0;
  bool connected = false;
  int64_t took_ms = 0;
  std::string error;
};

/// A value that a camera reported, with the time of it.
template <typename Value>
struct Reported {
  Value value;
  int64_t time;
};

struct Device {
  std::string hid;
  int64_t seen = 0;     // last request with right credentials
  int64_t since = 0;    // the first one that was followed by others without a long silence
  int64_t updates = 0;  // how many updates came
  std::optional<Reported<Fields>> update;
  std::optional<Reported<int64_t>> enabled;
  std::optional<Reported<std::string>> alias;
  std::optional<Reported<std::string>> first_connection;
  std::vector<ConnectBack> connect_backs;  // the last ones, oldest first
};

/// Who has a name; an empty hid is a name that nobody can get.
struct Alias {
  std::string name;
  std::string hid;
};

/// One request and what came of it. Texts are empty where there was none.
struct Exchange {
  int64_t id = 0;
  int64_t time = 0;     // wall-clock milliseconds
  int64_t took_ms = 0;  // until the answer was ready, the connection back included
  std::string peer, local;
  std::string method, target, path, host;
  bool relay = false;
  bool authorized = false;
  std::string user, nc, cnonce, uri;
  std::string digits, request, answer;
  unsigned status = 0;  // 0: no answer that is HTTP
  std::string fault, error;
};

inline constexpr size_t max_exchanges = 20'000;
inline constexpr size_t max_exchange_bytes = size_t{64} << 20;                  // texts of all of them
inline constexpr int64_t max_exchange_age_ms = INT64_C(30) * 24 * 3600 * 1000;  // of those of earlier runs

inline constexpr size_t connect_backs_kept = 20;     // a camera's
inline constexpr int64_t long_silence_ms = 660'000;  // more than two of a camera's longest waits
inline constexpr size_t max_aliases = 10'000;

class Store {
 public:
  /// Opens or makes the database; ":memory:" keeps nothing.
  explicit Store(const std::string& file);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  void saw(const std::string& hid);
  void update(const std::string& hid, const Fields& fields);
  void enable(const std::string& hid, int64_t value);
  void report(const std::string& hid, const std::string& xml);
  void connected_back(const std::string& hid, const ConnectBack& result);
  /// Gives `name` to `hid` in place of its old one; an empty name gives the old one up. False when
  /// another has it. Names differ in more than the case of their letters.
  bool take_alias(const std::string& hid, const std::string& name);
  /// Makes names taken, whoever had them. False, and none, when there would be more than `max_aliases`.
  [[nodiscard]] bool put_aliases(const std::vector<Alias>& aliases);

  /// All devices by hid, or the one of `hid`; each with its last `backs` connect-back results.
  std::vector<Device> devices(const std::string& hid = "", size_t backs = connect_backs_kept);
  std::vector<Alias> aliases();

  /// On a file: keeps a copy of an exchange, and none of those before `oldest`.
  void keep(const Exchange& exchange, int64_t oldest);
  /// The copies of earlier runs, oldest first.
  std::vector<Exchange> kept();

 private:
  std::mutex mutex_;
  sqlite3* db_ = nullptr;
  bool on_file_;
};

/// The last exchanges, of bounded number and size.
class ExchangeLog {
 public:
  /// Begins with those of earlier runs, oldest first; ids go on behind them.
  explicit ExchangeLog(std::vector<Exchange> earlier);
  /// Gives the exchange its id. The id of the oldest one that is left.
  int64_t add(Exchange& exchange);
  /// Those with an id above `id`, oldest first; of them the last `most` that `wanted`, when given, takes.
  std::vector<Exchange> since(int64_t id, size_t most = max_exchanges,
                              const std::function<bool(const Exchange&)>& wanted = nullptr);
  /// The first `most` with an id above `id`, oldest first.
  std::vector<Exchange> after(int64_t id, size_t most);
  /// The id of the last one, 0 before it.
  int64_t last_id();

 private:
  void shorten();
  std::mutex mutex_;
  std::deque<Exchange> last_;
  size_t bytes_ = 0;
  int64_t next_id_ = 1;
};

}  // namespace skyport
