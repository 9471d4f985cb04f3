#ifndef NIMBRA_BENCH_HARNESS_BARE_SHELL_H_
#define NIMBRA_BENCH_HARNESS_BARE_SHELL_H_

#include <windows.h>

#include <string>

namespace nimbra_bench {

// What the library's work with the registry, the shell's links and the imaging component comes down
// to: the same calls of Windows, with ready-made arguments. They throw when Windows refuses.

// The description of a sync root in the registry.
class BareRootDescription {
 public:
  BareRootDescription();
  void Write() const;
  void Delete() const;

 private:
  std::wstring account_;
};

// A shortcut, written and looked at.
void BareSaveShortcut(const std::wstring& path, const std::wstring& target);
// Gives the target's long path.
std::wstring BareResolveShortcut(const std::wstring& path);
// Resolves every shortcut of a folder, and gives their number.
int BareSearchFolder(const std::wstring& folder);

// The registry entry that shows a folder in Explorer.
void BareWriteEntry(const std::wstring& clsid, const std::wstring& folder);
void BareDeleteEntry(const std::wstring& clsid);

// An image file as a bitmap of 32 bits per pixel; delete it with DeleteObject.
HBITMAP BareDecode(const std::wstring& path);

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_BARE_SHELL_H_
