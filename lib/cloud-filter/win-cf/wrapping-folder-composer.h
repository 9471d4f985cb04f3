#ifndef NIMBRA_WIN_CF_WRAPPING_FOLDER_COMPOSER_H_
#define NIMBRA_WIN_CF_WRAPPING_FOLDER_COMPOSER_H_

#include <cstdint>
#include <string>

namespace corvdrive::cloud_filter {

// The hidden folder behind an Explorer entry, with one shortcut for each sync root. Texts are
// UTF-8. The caller has initialised COM. Failures are logged, and nothing is taken back.
class WrappingFolderComposer {
 public:
  WrappingFolderComposer(std::uint64_t folderId, std::string name, std::string share,
                         std::string path);

  // The folder's path without a trailing separator; empty when the user has no folder for local
  // application data.
  [[nodiscard]] std::string GetWrappingFolderPath() const;
  [[nodiscard]] std::string GetDisplayName() const { return displayName; }

  // Creates the folder, if it is not there, and hides it.
  [[nodiscard]] bool CreateFolder() const;
  // Creates one more shortcut to a sync root, also when there is one.
  [[nodiscard]] bool CreateShortcut(const std::string& syncRootPath) const;
  // Deletes the first shortcut found that leads to the sync root. Always true: whether the entry
  // goes too is decided by what the folder then holds.
  bool RemoveShortcut(const std::string& syncRootPath) const;

 private:
  [[nodiscard]] std::string GetShortcutBaseName() const;
  [[nodiscard]] std::wstring GetUniqueShortcutPath() const;
  [[nodiscard]] std::wstring FindShortcutForSyncRoot(const std::string& syncRootPath) const;
  [[nodiscard]] static std::wstring ResolveShortcut(const std::wstring& shortcutPath);

  std::uint64_t systemFolderId;
  std::string displayName;
  std::string shareName;
  std::string remotePath;
};

}  // namespace corvdrive::cloud_filter

#endif
