#include "explorer.h"

#include <windows.h>

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>

namespace mirror {
namespace {

constexpr wchar_t kMemory[] = L"Software\\Nimbra mirror\\Explorer entries";

std::string RememberedClsid(const fs::path& root) {
  wchar_t clsid[64] = L"";
  DWORD size = sizeof clsid;
  RegGetValueW(HKEY_CURRENT_USER, kMemory, root.c_str(), RRF_RT_REG_SZ, nullptr, clsid, &size);
  return Utf8(clsid);
}

// Remembered before anything is made by it: an entry without its identifier could not be removed.
std::string NewClsid(const fs::path& root) {
  const auto clsid = nimbra::GenerateGuid();
  if (!clsid) throw Failure("Windows makes no new GUID", "try again");
  const auto wide = Path(*clsid).wstring();
  const auto size = static_cast<DWORD>((wide.size() + 1) * sizeof(wchar_t));
  const auto error =
      RegSetKeyValueW(HKEY_CURRENT_USER, kMemory, root.c_str(), REG_SZ, wide.c_str(), size);
  const nimbra::Result result(HRESULT_FROM_WIN32(error));
  Require(result, "cannot remember an Explorer entry for " + Utf8(root));
  return *clsid;
}

void Forget(const fs::path& root) { RegDeleteKeyValueW(HKEY_CURRENT_USER, kMemory, root.c_str()); }

// Every root has an entry, and so a folder of shortcuts, of its own. The session number would do
// for the folder's, if users did not give the same one to two roots.
std::uint64_t FolderNumber(const std::string& clsid) {
  return std::strtoull(&clsid.at(1), nullptr, 16);  // what stands before the first hyphen
}

// The shortcut to a root is found by comparing it, letter by letter, with what the system says.
fs::path AsOnDisk(const fs::path& root) {
  const HANDLE folder = CreateFileW(root.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                    OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (folder == INVALID_HANDLE_VALUE) return root;
  wchar_t found[1024] = L"";  // longer ones are of no use here
  GetFinalPathNameByHandleW(folder, found, static_cast<DWORD>(std::size(found)), VOLUME_NAME_DOS);
  CloseHandle(folder);
  const fs::path path = std::wstring(found).starts_with(LR"(\\?\)") ? found + 4 : L"";
  return path.is_absolute() ? path : root;  // what is on no drive has another form
}

// A drive's name is its letter.
std::string NameOf(const fs::path& folder) {
  return Utf8(folder.has_filename() ? folder.filename().native() : folder.native().substr(0, 1));
}

bool HasEntry(const std::string& clsid) {
  HKEY key = nullptr;
  const auto name = Path("Software/Classes/CLSID/" + clsid + "/ShellFolder").make_preferred();
  if (RegOpenKeyExW(HKEY_CURRENT_USER, name.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) {
    return false;
  }
  RegCloseKey(key);
  return true;
}

// A root's shortcut is found by where it leads. An entry whose shortcut or root is gone stays, and
// goes without it.
bool Remove(const fs::path& root, const std::string& clsid) {
  const nimbra::ExplorerEntry entry{Utf8(root), clsid, FolderNumber(clsid)};
  if (fs::exists(root) && !entry.Unregister()) return false;
  return !HasEntry(clsid) || nimbra::UnregisterSystemFolder(clsid);
}

}  // namespace

void ShowInExplorer(const fs::path& source, const fs::path& givenRoot) {
  const auto root = AsOnDisk(givenRoot);
  if (root.native().size() >= MAX_PATH) {
    throw Failure("no shortcut can hold a path as long as " + Utf8(root), "choose a shorter one");
  }
  auto clsid = RememberedClsid(root);
  if (clsid.empty()) {
    clsid = NewClsid(root);
  } else {
    Remove(root, clsid);  // as registering again would make a second shortcut
  }
  const auto name = NameOf(source);
  const nimbra::ExplorerEntry entry{Utf8(root), clsid, FolderNumber(clsid), name, name};
  if (entry.Register()) return;
  Remove(root, clsid);  // what was made nevertheless
  Forget(root);
  throw Failure(
      "cannot show " + Utf8(root) + " in Explorer",
      "it takes a writable folder for local application data and one for 32-bit programs; "
      "the debugger output may say more");
}

bool HideFromExplorer(const fs::path& givenRoot) {
  const auto root = AsOnDisk(givenRoot);
  const auto clsid = RememberedClsid(root);
  if (clsid.empty()) return false;
  if (!Remove(root, clsid)) {
    throw Failure("cannot take all of the entry of " + Utf8(root) + " out of Explorer",
                  "serve it with --explorer once more, which repairs the entry, and try again");
  }
  Forget(root);
  return true;
}

}  // namespace mirror
