#include "store.h"

#include <sqlite3.h>

#include <string_view>

namespace cloud_filter {
namespace {

constexpr int kSchemaVersion = 1;
constexpr int kBusyTimeoutMs = 5000;

constexpr char kSchema[] = R"(
CREATE TABLE IF NOT EXISTS roots(
  id INTEGER PRIMARY KEY AUTOINCREMENT, path TEXT NOT NULL UNIQUE, provider_name TEXT NOT NULL,
  provider_version TEXT NOT NULL, identity BLOB NOT NULL, provider_id BLOB NOT NULL,
  hydration INTEGER, hydration_modifier INTEGER, population INTEGER, population_modifier INTEGER,
  in_sync INTEGER, hard_link INTEGER, management INTEGER, flags INTEGER);
CREATE TABLE IF NOT EXISTS items(
  root INTEGER NOT NULL, inode INTEGER NOT NULL, birth INTEGER, directory INTEGER, identity BLOB,
  creation INTEGER, change INTEGER, attributes INTEGER, pin INTEGER, in_sync INTEGER,
  always_full INTEGER, populated INTEGER, full INTEGER, present BLOB, validated BLOB,
  modified BLOB, usn INTEGER, PRIMARY KEY(root, inode)) WITHOUT ROWID;
)";

constexpr char kItemColumns[] =
    "root, inode, birth, directory, identity, creation, change, attributes, pin, in_sync, "
    "always_full, populated, full, present, validated, modified, usn";

std::string Sql(const char* before, const char* columns, const char* after) {
  return std::string(before) + columns + after;
}

}  // namespace

void Store::CloseDatabase::operator()(sqlite3* database) const { sqlite3_close_v2(database); }

// A prepared statement. Values are bound and read in the order of the columns.
class Store::Statement {
 public:
  Statement(sqlite3* database, const std::string& sql) : database_(database) {
    if (sqlite3_prepare_v3(database, sql.c_str(), -1, SQLITE_PREPARE_PERSISTENT, &statement_,
                           nullptr) != SQLITE_OK) {
      Fail();
    }
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Start() {
    sqlite3_reset(statement_);
    bound_ = 0;
    return *this;
  }
  Statement& Bind(std::int64_t value) {
    Check(sqlite3_bind_int64(statement_, ++bound_, value));
    return *this;
  }
  Statement& BindText(std::string_view text) {
    Check(sqlite3_bind_text64(statement_, ++bound_, text.data(), text.size(), SQLITE_TRANSIENT,
                              SQLITE_UTF8));
    return *this;
  }
  // A null pointer would bind NULL, so an empty blob gets an address.
  Statement& BindBlob(std::string_view bytes) {
    Check(sqlite3_bind_blob64(statement_, ++bound_, bytes.empty() ? "" : bytes.data(), bytes.size(),
                              SQLITE_TRANSIENT));
    return *this;
  }
  // True while there is a row.
  bool Step() {
    const auto result = sqlite3_step(statement_);
    read_ = 0;
    if (result == SQLITE_ROW) return true;
    // A finished read would otherwise keep a snapshot of the database alive.
    sqlite3_reset(statement_);
    if (result != SQLITE_DONE) Fail();
    return false;
  }
  void Run() {
    while (Step()) {
    }
  }
  std::int64_t Next() { return sqlite3_column_int64(statement_, read_++); }
  std::string NextBytes() {
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement_, read_));
    const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_, read_++));
    return bytes == nullptr ? std::string() : std::string(bytes, size);
  }
  template <class T>
  T NextAs() {
    return static_cast<T>(Next());
  }

 private:
  [[noreturn]] void Fail() const {
    throw StoreError(std::string("the database refused: ") + sqlite3_errmsg(database_));
  }
  void Check(int result) const {
    if (result != SQLITE_OK) Fail();
  }

  sqlite3* database_;
  sqlite3_stmt* statement_ = nullptr;
  int bound_ = 0;
  int read_ = 0;
};

Store::Store(const std::filesystem::path& file) {
  sqlite3* database = nullptr;
  const auto result = sqlite3_open(file.c_str(), &database);
  database_.reset(database);
  if (result != SQLITE_OK) {
    throw StoreError("cannot open " + file.string() + ": " + sqlite3_errstr(result));
  }
  sqlite3_busy_timeout(database, kBusyTimeoutMs);
  // NORMAL in WAL mode survives the death of the process, though not of the machine: as much as the
  // data itself, which is not synced either.
  Execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;");
  Statement version(database, "PRAGMA user_version");
  const auto found = version.Step() ? version.Next() : 0;
  version.Start();
  if (found > kSchemaVersion) {
    throw StoreError(file.string() + " was written by a newer version of this program");
  }
  Execute(kSchema);
  Execute(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
  findItem_ = std::make_unique<Statement>(
      database, Sql("SELECT ", kItemColumns, " FROM items WHERE root=? AND inode=?"));
  saveItem_ =
      std::make_unique<Statement>(database, Sql("INSERT OR REPLACE INTO items(", kItemColumns,
                                                ") VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)"));
  removeItem_ = std::make_unique<Statement>(database, "DELETE FROM items WHERE root=? AND inode=?");
}

Store::~Store() = default;

void Store::Execute(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(database_.get(), sql, nullptr, nullptr, &message) == SQLITE_OK) return;
  const std::string text = message == nullptr ? "unknown" : message;
  sqlite3_free(message);
  throw StoreError("the database refused: " + text);
}

Store::Transaction::Transaction(Store& store) : store_(store) { store_.Execute("BEGIN IMMEDIATE"); }

Store::Transaction::~Transaction() {
  if (!open_) return;
  // Nothing is left to tell when even this fails: the database rolls back by itself on reopening.
  sqlite3_exec(store_.database_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void Store::Transaction::Commit() {
  store_.Execute("COMMIT");
  open_ = false;
}

std::vector<RootRecord> Store::Roots() {
  Statement select(database_.get(),
                   "SELECT id, path, provider_name, provider_version, identity, provider_id, "
                   "hydration, hydration_modifier, population, population_modifier, in_sync, "
                   "hard_link, management, flags FROM roots ORDER BY id");
  std::vector<RootRecord> roots;
  while (select.Step()) {
    RootRecord root;
    root.id = select.Next();
    root.path = select.NextBytes();
    root.providerName = select.NextBytes();
    root.providerVersion = select.NextBytes();
    root.identity = select.NextBytes();
    root.providerId = select.NextBytes();
    root.policies.hydrationPrimary = select.NextAs<std::uint16_t>();
    root.policies.hydrationModifier = select.NextAs<std::uint16_t>();
    root.policies.populationPrimary = select.NextAs<std::uint16_t>();
    root.policies.populationModifier = select.NextAs<std::uint16_t>();
    root.policies.inSync = select.NextAs<std::uint32_t>();
    root.policies.hardLink = select.NextAs<std::uint32_t>();
    root.policies.placeholderManagement = select.NextAs<std::uint32_t>();
    root.flags = select.NextAs<std::uint32_t>();
    roots.push_back(std::move(root));
  }
  return roots;
}

void Store::SaveRoot(RootRecord& root) {
  Statement save(database_.get(),
                 "INSERT INTO roots(path, provider_name, provider_version, identity, provider_id, "
                 "hydration, hydration_modifier, population, population_modifier, in_sync, "
                 "hard_link, management, flags) VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?) "
                 "ON CONFLICT(path) DO UPDATE SET provider_name=excluded.provider_name, "
                 "provider_version=excluded.provider_version, identity=excluded.identity, "
                 "provider_id=excluded.provider_id, hydration=excluded.hydration, "
                 "hydration_modifier=excluded.hydration_modifier, population=excluded.population, "
                 "population_modifier=excluded.population_modifier, in_sync=excluded.in_sync, "
                 "hard_link=excluded.hard_link, management=excluded.management, "
                 "flags=excluded.flags");
  save.BindText(root.path).BindText(root.providerName).BindText(root.providerVersion);
  save.BindBlob(root.identity).BindBlob(root.providerId);
  save.Bind(root.policies.hydrationPrimary).Bind(root.policies.hydrationModifier);
  save.Bind(root.policies.populationPrimary).Bind(root.policies.populationModifier);
  save.Bind(root.policies.inSync).Bind(root.policies.hardLink);
  save.Bind(root.policies.placeholderManagement).Bind(root.flags);
  save.Run();
  Statement id(database_.get(), "SELECT id FROM roots WHERE path=?");
  id.BindText(root.path);
  if (id.Step()) root.id = id.Next();
}

void Store::RemoveRoot(std::int64_t id) {
  Transaction transaction(*this);
  Statement(database_.get(), "DELETE FROM items WHERE root=?").Bind(id).Run();
  Statement(database_.get(), "DELETE FROM roots WHERE id=?").Bind(id).Run();
  transaction.Commit();
}

namespace {

template <class Row>
ItemRecord ReadItem(Row& row) {
  ItemRecord item;
  item.rootId = row.Next();
  item.inode = row.template NextAs<ino_t>();
  item.birthTime = row.Next();
  item.directory = row.Next() != 0;
  item.identity = row.NextBytes();
  item.creationTime = row.Next();
  item.changeTime = row.Next();
  item.attributes = row.template NextAs<std::uint32_t>();
  item.pin = row.template NextAs<PinState>();
  item.inSync = row.Next() != 0;
  item.alwaysFull = row.Next() != 0;
  item.populated = row.Next() != 0;
  item.full = row.Next() != 0;
  item.present = RangeSet::Parse(row.NextBytes());
  item.validated = RangeSet::Parse(row.NextBytes());
  item.modified = RangeSet::Parse(row.NextBytes());
  item.usn = row.Next();
  return item;
}

}  // namespace

std::optional<ItemRecord> Store::FindItem(std::int64_t rootId, ino_t inode) {
  auto& find = findItem_->Start();
  find.Bind(rootId).Bind(static_cast<std::int64_t>(inode));
  if (!find.Step()) return std::nullopt;
  auto item = ReadItem(find);
  find.Start();
  return item;
}

std::vector<ItemRecord> Store::Items(std::int64_t rootId) {
  Statement select(database_.get(), Sql("SELECT ", kItemColumns, " FROM items WHERE root=?"));
  select.Bind(rootId);
  std::vector<ItemRecord> items;
  while (select.Step()) items.push_back(ReadItem(select));
  return items;
}

std::int64_t Store::CountItems(std::int64_t rootId) {
  Statement count(database_.get(), "SELECT COUNT(*) FROM items WHERE root=?");
  count.Bind(rootId);
  return count.Step() ? count.Next() : 0;
}

void Store::SaveItem(const ItemRecord& item) {
  auto& save = saveItem_->Start();
  save.Bind(item.rootId).Bind(static_cast<std::int64_t>(item.inode)).Bind(item.birthTime);
  save.Bind(item.directory ? 1 : 0).BindBlob(item.identity);
  save.Bind(item.creationTime).Bind(item.changeTime).Bind(item.attributes);
  save.Bind(static_cast<std::int64_t>(item.pin)).Bind(item.inSync ? 1 : 0);
  save.Bind(item.alwaysFull ? 1 : 0).Bind(item.populated ? 1 : 0).Bind(item.full ? 1 : 0);
  save.BindBlob(item.present.Serialize()).BindBlob(item.validated.Serialize());
  save.BindBlob(item.modified.Serialize()).Bind(item.usn);
  save.Run();
}

void Store::RemoveItem(std::int64_t rootId, ino_t inode) {
  removeItem_->Start().Bind(rootId).Bind(static_cast<std::int64_t>(inode)).Run();
}

std::int64_t Store::HighestUsn() {
  Statement highest(database_.get(), "SELECT COALESCE(MAX(usn), 0) FROM items");
  return highest.Step() ? highest.Next() : 0;
}

}  // namespace cloud_filter
