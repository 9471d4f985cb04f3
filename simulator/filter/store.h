#ifndef NIMBRA_SIMULATOR_FILTER_STORE_H_
#define NIMBRA_SIMULATOR_FILTER_STORE_H_

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "codes.h"
#include "protocol/wire.h"
#include "range-set.h"

struct sqlite3;
struct sqlite3_stmt;

namespace cloud_filter {

class StoreError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A registered sync root.
struct RootRecord {
  std::int64_t id = 0;
  std::string path;
  std::string providerName;
  std::string providerVersion;
  std::string identity;
  std::string providerId;
  wire::Policies policies;
  std::uint32_t flags = 0;
};

// What the filter remembers of a placeholder. The inode number alone could come to mean another
// file, so the file's birth time goes with it.
struct ItemRecord {
  std::int64_t rootId = 0;
  ino_t inode = 0;
  std::int64_t birthTime = 0;  // nanoseconds
  bool directory = false;
  std::string identity;
  std::int64_t creationTime = 0;  // FILETIME counts, like the next one
  std::int64_t changeTime = 0;
  std::uint32_t attributes = 0;
  PinState pin = PinState::kUnspecified;
  bool inSync = false;
  bool alwaysFull = false;
  bool populated = true;  // of a directory
  bool full = false;      // all data is local; `present` is then unused
  RangeSet present;
  RangeSet validated;
  RangeSet modified;
  std::int64_t usn = 0;
};

// The durable memory of the filter: a SQLite database. What was committed survives the death of the
// process at any point. Not safe for use by several threads at once.
class Store {
 public:
  explicit Store(const std::filesystem::path& file);
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // Groups saves; without Commit the destructor takes them back.
  class Transaction {
   public:
    explicit Transaction(Store& store);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit();

   private:
    Store& store_;
    bool open_ = true;
  };

  [[nodiscard]] std::vector<RootRecord> Roots();
  // Gives the record an id when it has none.
  void SaveRoot(RootRecord& root);
  // Removes the root's items as well.
  void RemoveRoot(std::int64_t id);

  [[nodiscard]] std::optional<ItemRecord> FindItem(std::int64_t rootId, ino_t inode);
  [[nodiscard]] std::vector<ItemRecord> Items(std::int64_t rootId);
  [[nodiscard]] std::int64_t CountItems(std::int64_t rootId);
  void SaveItem(const ItemRecord& item);
  void RemoveItem(std::int64_t rootId, ino_t inode);
  [[nodiscard]] std::int64_t HighestUsn();

 private:
  class Statement;
  struct CloseDatabase {
    void operator()(sqlite3* database) const;
  };
  void Execute(const char* sql);

  std::unique_ptr<sqlite3, CloseDatabase> database_;
  std::unique_ptr<Statement> findItem_;
  std::unique_ptr<Statement> saveItem_;
  std::unique_ptr<Statement> removeItem_;
};

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_STORE_H_
