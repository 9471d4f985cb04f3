#ifndef NIMBRA_WIN_CF_PLACEHOLDER_H_
#define NIMBRA_WIN_CF_PLACEHOLDER_H_

#include <windows.h>

#include <cstdint>
#include <string>
#include <string_view>

#include "common/owners.h"
#include "win-cf/placeholder-meta.h"

namespace corvdrive::cloud_filter {

// One file or directory in a sync root. Operations give true on success; a failure has been logged
// where its description says nothing else. An object is used by one thread at a time.
class PlaceholderBase {
 public:
  virtual ~PlaceholderBase() = default;

  // Opens the item, again if it is open. A missing item fails silently.
  virtual bool Open() = 0;
  // Brings a range of the data onto the disk and waits for it.
  virtual bool Hydrate(std::int64_t offset, std::int64_t length) = 0;
  // The same for the whole file.
  virtual bool HydrateAll() = 0;
  // Drops a range of the data from the disk. Gives false in every case and logs nothing: whether
  // the data went is judged by querying the item.
  virtual bool Dehydrate(std::int64_t offset, std::int64_t length) = 0;
  // Whether all data is on the disk; an item that is no placeholder counts as hydrated.
  virtual bool IsFullyHydrated() = 0;
  // Turns a normal item into a placeholder that may be dehydrated. `identity` may hold any bytes.
  virtual bool ConvertToPlaceholder(std::string_view identity) = 0;
  // Turns a placeholder into a normal item.
  virtual bool RevertToNormal() = 0;
};

// A placeholder of the Cloud Files interface. All operations but `Open` and `Create` work on the
// handle that `Open` has opened.
class PlaceholderWinCF : public PlaceholderBase {
 public:
  // `itemPath` is UTF-8, with "/" between its components.
  explicit PlaceholderWinCF(std::string itemPath);

  bool Open() override;
  bool Hydrate(std::int64_t offset, std::int64_t length) override;
  bool HydrateAll() override;
  bool Dehydrate(std::int64_t offset, std::int64_t length) override;
  bool IsFullyHydrated() override;
  bool ConvertToPlaceholder(std::string_view identity) override;
  bool RevertToNormal() override;

  // Creates the item on disk, and hydrates it when it inherits a pin. Leaves the object closed.
  [[nodiscard]] bool Create(const PlaceholderMetaWinCF& meta, std::string_view identity);
  // Replaces metadata and identity; a pinned item stays pinned.
  [[nodiscard]] bool Update(const PlaceholderMetaWinCF& meta, std::string_view identity);
  [[nodiscard]] bool IsPlaceholder() const;
  // Starts the hydration of the whole file and returns.
  [[nodiscard]] bool HydrateAllAsync();
  [[nodiscard]] bool DehydrateAll();
  // Pin states apply to a directory's whole subtree.
  [[nodiscard]] bool SetExcluded();
  bool SetPinState(bool pin, bool force);

  [[nodiscard]] const std::string& Path() const { return path; }
  [[nodiscard]] HANDLE Handle() const { return handle.Get(); }
  [[nodiscard]] bool IsOpen() const { return handle.IsValid(); }

 private:
  bool HydrateRange(std::int64_t offset, std::int64_t length, bool async);
  bool HydrateWhole(bool async, int sizeFailedLine);
  bool CreateOnDisk(const PlaceholderMetaWinCF& meta, std::string_view identity);

  std::string path;
  UniqueFile handle;
};

}  // namespace corvdrive::cloud_filter

#endif
