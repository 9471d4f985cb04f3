#ifndef NIMBRA_BENCH_HARNESS_BARE_SHELL_H_
#define NIMBRA_BENCH_HARNESS_BARE_SHELL_H_

#include <windows.h>

#include <shobjidl.h>

#include <string>

namespace nimbra_bench {

// What the library's work with the registry, the shell and the imaging component comes down to: the
// same calls of Windows in the same order, a line of debugger output wherever the library's
// contract has one, and ready-made arguments. They throw when Windows refuses.

// The description of a sync root in the registry.
class BareRootDescription {
 public:
  BareRootDescription();
  void Write() const;
  void Delete() const;

 private:
  std::wstring account_;
};

// A folder in Explorer's navigation pane, with one shortcut in it.
class BareEntry {
 public:
  BareEntry(std::wstring clsid, std::wstring folder, std::wstring target);

  void Register() const;
  void Unregister() const;
  // Without the folder and the shortcut.
  void DeleteKeys() const;
  [[nodiscard]] const std::wstring& Shortcut() const { return shortcut_; }

 private:
  void SaveShortcut() const;
  void WriteKeys() const;

  std::wstring clsid_;
  std::wstring folder_;
  std::wstring target_;
  std::wstring shortcut_;
  std::wstring description_;
  std::wstring classKey_;
};

// Resolves a folder's shortcuts in turn until one leads to the target, and gives its path.
std::wstring BareFindShortcut(const std::wstring& folder, const std::wstring& target);

// The imaging calls alone: an image file as a bitmap of 32 bits per pixel; delete it with
// DeleteObject.
HBITMAP BareDecode(const std::wstring& path);
// All of a request for a thumbnail, the question for the item's path included.
HBITMAP BareThumbnail(IShellItem* item, const std::wstring& imagePath);

// Starts a thread that registers a class object and waits for calls.
void BareStartServices();

// A new GUID and its text.
void BareGuid();

}  // namespace nimbra_bench

#endif  // NIMBRA_BENCH_HARNESS_BARE_SHELL_H_
