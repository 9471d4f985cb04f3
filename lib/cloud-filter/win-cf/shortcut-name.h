#ifndef NIMBRA_WIN_CF_SHORTCUT_NAME_H_
#define NIMBRA_WIN_CF_SHORTCUT_NAME_H_

#include <string>

namespace corvdrive::cloud_filter {

// What a sync root's shortcut is called: after the remote folder, or after the share when it
// mirrors a whole one.
[[nodiscard]] std::string ShortcutBaseName(const std::string& shareName,
                                           const std::string& remotePath);

// The path of the n-th shortcut of a name in a folder; the first, 0, has no number.
[[nodiscard]] std::wstring ShortcutPath(const std::wstring& folder, const std::wstring& baseName,
                                        int n);

}  // namespace corvdrive::cloud_filter

#endif
