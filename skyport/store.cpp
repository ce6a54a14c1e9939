#include "store.h"

#include <sqlite3.h>

#include <algorithm>
#include <string_view>

#include "net.h"

namespace skyport {
namespace {

constexpr int busy_ms = 2000;

constexpr const char* schema = R"(
  PRAGMA journal_mode = WAL;
  PRAGMA synchronous = NORMAL;
  CREATE TABLE IF NOT EXISTS device(
    hid TEXT PRIMARY KEY, seen INTEGER NOT NULL, updates INTEGER NOT NULL DEFAULT 0, updated INTEGER,
    enabled INTEGER, enabled_at INTEGER, report TEXT, reported INTEGER, since INTEGER NOT NULL DEFAULT 0);
  CREATE TABLE IF NOT EXISTS field(
    hid TEXT NOT NULL, position INTEGER NOT NULL, name TEXT NOT NULL, value TEXT NOT NULL,
    PRIMARY KEY(hid, position));
  CREATE TABLE IF NOT EXISTS alias(
    name TEXT PRIMARY KEY COLLATE NOCASE, hid TEXT NOT NULL, given INTEGER NOT NULL);
  CREATE TABLE IF NOT EXISTS connect_back(
    id INTEGER PRIMARY KEY, hid TEXT NOT NULL, time INTEGER NOT NULL, address TEXT NOT NULL,
    port INTEGER NOT NULL, connected INTEGER NOT NULL, took_ms INTEGER NOT NULL, error TEXT NOT NULL);
  CREATE INDEX IF NOT EXISTS connect_back_of ON connect_back(hid, id);
  CREATE INDEX IF NOT EXISTS alias_of ON alias(hid);
)";

/// One statement: bind in order with <<, step, read columns.
class Query {
 public:
  Query(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) throw StoreError(sqlite3_errmsg(db));
  }
  ~Query() { sqlite3_finalize(statement_); }
  Query(const Query&) = delete;
  Query& operator=(const Query&) = delete;

  Query& operator<<(const std::string& text) {
    sqlite3_bind_text64(statement_, ++bound_, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    return *this;
  }
  Query& operator<<(int64_t number) {
    sqlite3_bind_int64(statement_, ++bound_, number);
    return *this;
  }
  /// The ends of BETWEEN: `hid` alone, or every one when it is empty, since a blob comes after all texts.
  Query& hids(const std::string& hid) {
    *this << hid;
    if (!hid.empty()) return *this << hid;
    sqlite3_bind_zeroblob(statement_, ++bound_, 0);
    return *this;
  }

  /// True when there is a row.
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result != SQLITE_ROW && result != SQLITE_DONE) throw StoreError(sqlite3_errmsg(db_));
    return result == SQLITE_ROW;
  }
  bool has(int column) { return sqlite3_column_type(statement_, column) != SQLITE_NULL; }
  int64_t number(int column) { return sqlite3_column_int64(statement_, column); }
  std::string text(int column) {
    const auto* const bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return bytes == nullptr ? "" : std::string(bytes, static_cast<size_t>(sqlite3_column_bytes(statement_, column)));
  }

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
  int bound_ = 0;
};

void run(sqlite3* db, const char* sql) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) throw StoreError(sqlite3_errmsg(db));
}

/// Undone unless it is committed.
class Transaction {
 public:
  explicit Transaction(sqlite3* db) : db_(db) { run(db, "BEGIN IMMEDIATE"); }
  ~Transaction() {
    if (!done_) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit() {
    run(db_, "COMMIT");
    done_ = true;
  }

 private:
  sqlite3* db_;
  bool done_ = false;
};

void mark_seen(sqlite3* db, const std::string& hid) {
  (Query(db,
         "INSERT INTO device(hid, seen, since) VALUES(?1, ?2, ?2) ON CONFLICT(hid) DO UPDATE SET "
         "since = iif(?2 - seen > ?3 OR since > ?2, ?2, since), seen = ?2")
   << hid << wall_ms() << long_silence_ms)
      .step();
}

/// Calls `take` with the device of each row's first column; both are in the order of hids.
template <typename Take>
void for_each_row(Query& query, std::vector<Device>& devices, const Take& take) {
  auto device = devices.begin();
  while (query.step()) {
    const std::string hid = query.text(0);
    while (device != devices.end() && device->hid < hid) ++device;
    if (device != devices.end() && device->hid == hid) take(*device);
  }
}

void read_fields(sqlite3* db, const std::string& hid, std::vector<Device>& devices) {
  Query query(db, "SELECT hid, name, value FROM field WHERE hid BETWEEN ? AND ? ORDER BY hid, position");
  query.hids(hid);
  for_each_row(query, devices, [&](Device& device) {
    if (device.update) device.update->value.emplace_back(query.text(1), query.text(2));
  });
}

void read_connect_backs(sqlite3* db, const std::string& hid, size_t most, std::vector<Device>& devices) {
  Query query(db,
              "SELECT hid, time, address, port, connected, took_ms, error FROM connect_back c "
              "WHERE hid BETWEEN ? AND ? AND id >= (SELECT min(id) FROM (SELECT id FROM connect_back "
              "WHERE hid = c.hid ORDER BY id DESC LIMIT ?)) ORDER BY hid, id");
  query.hids(hid) << static_cast<int64_t>(most);
  for_each_row(query, devices, [&](Device& device) {
    device.connect_backs.push_back({query.number(1), query.text(2), static_cast<uint16_t>(query.number(3)),
                                    query.number(4) != 0, query.number(5), query.text(6)});
  });
}

/// A database of before this column has its devices begin with the service.
void add_since(sqlite3* db) {
  Query columns(db, "SELECT 1 FROM pragma_table_info('device') WHERE name = 'since'");
  if (!columns.step()) run(db, "ALTER TABLE device ADD COLUMN since INTEGER NOT NULL DEFAULT 0");
}

}  // namespace

Store::Store(const std::string& file) {
  try {
    if (sqlite3_open(file.c_str(), &db_) != SQLITE_OK) throw StoreError(sqlite3_errmsg(db_));
    sqlite3_busy_timeout(db_, busy_ms);
    run(db_, schema);
    add_since(db_);
  } catch (const StoreError& error) {
    sqlite3_close(db_);
    throw StoreError("database '" + file + "': " + error.what());
  }
}

Store::~Store() {
  sqlite3_close(db_);
}

void Store::saw(const std::string& hid) {
  const std::lock_guard lock(mutex_);
  mark_seen(db_, hid);
}

void Store::update(const std::string& hid, const Fields& fields) {
  const std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  mark_seen(db_, hid);
  (Query(db_, "UPDATE device SET updates = updates + 1, updated = ? WHERE hid = ?") << wall_ms() << hid).step();
  (Query(db_, "DELETE FROM field WHERE hid = ?") << hid).step();
  int64_t position = 0;
  for (const auto& [name, value] : fields)
    (Query(db_, "INSERT INTO field VALUES(?, ?, ?, ?)") << hid << position++ << name << value).step();
  transaction.commit();
}

void Store::enable(const std::string& hid, int64_t value) {
  const std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  mark_seen(db_, hid);
  (Query(db_, "UPDATE device SET enabled = ?, enabled_at = ? WHERE hid = ?") << value << wall_ms() << hid).step();
  transaction.commit();
}

void Store::report(const std::string& hid, const std::string& xml) {
  const std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  mark_seen(db_, hid);
  (Query(db_, "UPDATE device SET report = ?, reported = ? WHERE hid = ?") << xml << wall_ms() << hid).step();
  transaction.commit();
}

void Store::connected_back(const std::string& hid, const ConnectBack& result) {
  const std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  mark_seen(db_, hid);
  (Query(db_,
         "INSERT INTO connect_back(hid, time, address, port, connected, took_ms, error) VALUES(?, ?, ?, ?, ?, ?, ?)")
   << hid << result.time << result.address << int64_t{result.port} << int64_t{result.connected} << result.took_ms
   << result.error)
      .step();
  (Query(db_,
         "DELETE FROM connect_back WHERE hid = ?1 AND id NOT IN "
         "(SELECT id FROM connect_back WHERE hid = ?1 ORDER BY id DESC LIMIT ?2)")
   << hid << static_cast<int64_t>(connect_backs_kept))
      .step();
  transaction.commit();
}

bool Store::take_alias(const std::string& hid, const std::string& name) {
  const std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  mark_seen(db_, hid);
  Query holder(db_, "SELECT 1 FROM alias WHERE name = ? AND hid <> ?");
  holder << name << hid;
  if (holder.step()) return false;
  (Query(db_, "DELETE FROM alias WHERE hid = ?") << hid).step();
  if (!name.empty()) (Query(db_, "INSERT INTO alias VALUES(?, ?, ?)") << name << hid << wall_ms()).step();
  transaction.commit();
  return true;
}

bool Store::put_aliases(const std::vector<Alias>& aliases) {
  const std::lock_guard lock(mutex_);
  Transaction transaction(db_);
  for (const Alias& alias : aliases)
    (Query(db_, "INSERT OR REPLACE INTO alias VALUES(?, ?, ?)") << alias.name << alias.hid << wall_ms()).step();
  Query count(db_, "SELECT count(*) FROM alias");
  if (!count.step() || count.number(0) > static_cast<int64_t>(max_aliases)) return false;
  transaction.commit();
  return true;
}

std::vector<Device> Store::devices(const std::string& hid, size_t backs) {
  const std::lock_guard lock(mutex_);
  std::vector<Device> all;
  Query query(db_,
              "SELECT d.hid, seen, updates, updated, enabled, enabled_at, report, reported, a.name, a.given, since "
              "FROM device d LEFT JOIN alias a ON a.hid = d.hid WHERE d.hid BETWEEN ? AND ? "
              "GROUP BY d.hid ORDER BY d.hid");
  query.hids(hid);
  while (query.step()) {
    Device device;
    device.hid = query.text(0);
    device.seen = query.number(1);
    device.updates = query.number(2);
    if (query.has(3)) device.update = {{}, query.number(3)};
    if (query.has(4)) device.enabled = {query.number(4), query.number(5)};
    if (query.has(6)) device.first_connection = {query.text(6), query.number(7)};
    if (query.has(8)) device.alias = {query.text(8), query.number(9)};
    device.since = query.number(10);
    all.push_back(std::move(device));
  }
  read_fields(db_, hid, all);
  if (backs > 0) read_connect_backs(db_, hid, backs, all);
  return all;
}

std::vector<Alias> Store::aliases() {
  const std::lock_guard lock(mutex_);
  std::vector<Alias> all;
  Query query(db_, "SELECT name, hid FROM alias ORDER BY name");
  while (query.step()) all.push_back({query.text(0), query.text(1)});
  return all;
}

namespace {

size_t bytes_of(const Exchange& e) {
  size_t bytes = sizeof(e);
  for (const std::string* text : {&e.peer, &e.local, &e.method, &e.target, &e.path, &e.host, &e.user, &e.nc, &e.cnonce,
                                  &e.uri, &e.digits, &e.request, &e.answer, &e.fault, &e.error})
    bytes += text->size();
  return bytes;
}

}  // namespace

void ExchangeLog::add(Exchange exchange) {
  const std::lock_guard lock(mutex_);
  exchange.id = next_id_++;
  bytes_ += bytes_of(exchange);
  last_.push_back(std::move(exchange));
  while (last_.size() > max_exchanges || bytes_ > max_exchange_bytes) {
    bytes_ -= bytes_of(last_.front());
    last_.pop_front();
  }
}

std::vector<Exchange> ExchangeLog::since(int64_t id, size_t most, const std::function<bool(const Exchange&)>& wanted) {
  const std::lock_guard lock(mutex_);
  std::vector<Exchange> found;
  for (auto e = last_.rbegin(); e != last_.rend() && e->id > id && found.size() < most; ++e)
    if (!wanted || wanted(*e)) found.push_back(*e);
  std::reverse(found.begin(), found.end());
  return found;
}

std::vector<Exchange> ExchangeLog::after(int64_t id, size_t most) {
  const std::lock_guard lock(mutex_);
  // Ids have no gaps, so that the place follows from them.
  const int64_t first = next_id_ - static_cast<int64_t>(last_.size());
  const auto begin = static_cast<size_t>(std::clamp(id, first - 1, next_id_ - 1) + 1 - first);
  const size_t end = std::min(last_.size(), begin + most);
  return {last_.begin() + static_cast<std::ptrdiff_t>(begin), last_.begin() + static_cast<std::ptrdiff_t>(end)};
}

int64_t ExchangeLog::last_id() {
  const std::lock_guard lock(mutex_);
  return next_id_ - 1;
}

}  // namespace skyport
