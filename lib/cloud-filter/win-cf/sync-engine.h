#ifndef NIMBRA_WIN_CF_SYNC_ENGINE_H_
#define NIMBRA_WIN_CF_SYNC_ENGINE_H_

#include <string>

#include "win-cf/wrapping-folder-composer.h"

namespace corvdrive::cloud_filter {

// A sync root's place in Explorer's navigation pane.
class SyncEngineBase {
 public:
  virtual ~SyncEngineBase() = default;
  [[nodiscard]] virtual bool Register() = 0;
  [[nodiscard]] virtual bool Unregister() = 0;
};

// The entry is a shell folder of the current user that shows the wrapping folder; several sync
// roots can share it. The caller has initialised COM.
class SyncEngineWinCF final : public SyncEngineBase {
 public:
  SyncEngineWinCF(std::string rootPath, std::string entryClsid, WrappingFolderComposer folder);

  [[nodiscard]] bool Register() override;
  [[nodiscard]] bool Unregister() override;

 private:
  [[nodiscard]] bool RegisterNamespace() const;

  std::string syncRootPath;
  std::string clsid;
  WrappingFolderComposer composer;
};

// Whether a class identifier can name an entry's keys. One that is empty or holds a separator would
// lead to keys of other programs; the functions here must not be given one.
[[nodiscard]] bool NamesAnEntry(const std::string& clsid);

// Removes an entry's registry keys; false at the first that cannot be removed or is not there.
[[nodiscard]] bool UnregisterNamespace(const std::string& clsid);

// A new class identifier in registry form, or empty.
[[nodiscard]] std::string GenerateClsid();

}  // namespace corvdrive::cloud_filter

#endif
