#ifndef NIMBRA_TESTS_SUPPORT_FAKE_SHELL_LINK_H_
#define NIMBRA_TESTS_SUPPORT_FAKE_SHELL_LINK_H_

#include <windows.h>
// windows.h first.
#include <shlobj.h>

#include <map>
#include <string>

#include "tests/support/event-sequence.h"
#include "tests/support/import-double.h"

namespace nimbra_test {

// Stands in for the shell's link objects while it lives: CoCreateInstance gives one object, which
// does nothing but note its calls and give the results set here.
class FakeShellLink {
 public:
  struct Results {
    HRESULT create = S_OK;
    HRESULT query = S_OK;
    HRESULT setPath = S_OK;
    HRESULT setDescription = S_OK;
    HRESULT setIconLocation = S_OK;
    HRESULT save = S_OK;
    HRESULT load = S_OK;
    HRESULT resolve = S_OK;
    HRESULT getPath = S_OK;
  };

  explicit FakeShellLink(EventSequence& events);

  Results results;
  // Where shortcuts lead, by their path: others cannot be loaded.
  std::map<std::wstring, std::wstring> targets;
  // Where targets went to: resolving finds them there.
  std::map<std::wstring, std::wstring> moved;

  // References that were handed out and not released, to either interface.
  int References() const { return link_.references + file_.references; }

 private:
  class Link final : public IShellLinkW {
   public:
    explicit Link(FakeShellLink& owner) : owner_(owner) {}
    virtual ~Link() = default;

    HRESULT WINAPI QueryInterface(REFIID id, void** object) override;
    ULONG WINAPI AddRef() override;
    ULONG WINAPI Release() override;
    HRESULT WINAPI GetPath(LPWSTR path, int size, WIN32_FIND_DATAW* data, DWORD flags) override;
    HRESULT WINAPI GetIDList(PIDLIST_ABSOLUTE*) override { return Unexpected("GetIDList"); }
    HRESULT WINAPI SetIDList(PCIDLIST_ABSOLUTE) override { return Unexpected("SetIDList"); }
    HRESULT WINAPI GetDescription(LPWSTR, int) override { return Unexpected("GetDescription"); }
    HRESULT WINAPI SetDescription(LPCWSTR text) override;
    HRESULT WINAPI GetWorkingDirectory(LPWSTR, int) override {
      return Unexpected("GetWorkingDirectory");
    }
    HRESULT WINAPI SetWorkingDirectory(LPCWSTR) override {
      return Unexpected("SetWorkingDirectory");
    }
    HRESULT WINAPI GetArguments(LPWSTR, int) override { return Unexpected("GetArguments"); }
    HRESULT WINAPI SetArguments(LPCWSTR) override { return Unexpected("SetArguments"); }
    HRESULT WINAPI GetHotkey(WORD*) override { return Unexpected("GetHotkey"); }
    HRESULT WINAPI SetHotkey(WORD) override { return Unexpected("SetHotkey"); }
    HRESULT WINAPI GetShowCmd(int*) override { return Unexpected("GetShowCmd"); }
    HRESULT WINAPI SetShowCmd(int) override { return Unexpected("SetShowCmd"); }
    HRESULT WINAPI GetIconLocation(LPWSTR, int, int*) override {
      return Unexpected("GetIconLocation");
    }
    HRESULT WINAPI SetIconLocation(LPCWSTR path, int index) override;
    HRESULT WINAPI SetRelativePath(LPCWSTR, DWORD) override {
      return Unexpected("SetRelativePath");
    }
    HRESULT WINAPI Resolve(HWND window, DWORD flags) override;
    HRESULT WINAPI SetPath(LPCWSTR path) override;

    int references = 0;

   private:
    HRESULT Unexpected(const char* name);

    FakeShellLink& owner_;
  };

  class File final : public IPersistFile {
   public:
    explicit File(FakeShellLink& owner) : owner_(owner) {}
    virtual ~File() = default;

    HRESULT WINAPI QueryInterface(REFIID id, void** object) override;
    ULONG WINAPI AddRef() override;
    ULONG WINAPI Release() override;
    HRESULT WINAPI GetClassID(CLSID*) override { return Unexpected("GetClassID"); }
    HRESULT WINAPI IsDirty() override { return Unexpected("IsDirty"); }
    HRESULT WINAPI Load(LPCOLESTR path, DWORD mode) override;
    HRESULT WINAPI Save(LPCOLESTR path, BOOL remember) override;
    HRESULT WINAPI SaveCompleted(LPCOLESTR) override { return Unexpected("SaveCompleted"); }
    HRESULT WINAPI GetCurFile(LPOLESTR*) override { return Unexpected("GetCurFile"); }

    int references = 0;

   private:
    HRESULT Unexpected(const char* name);

    FakeShellLink& owner_;
  };

  HRESULT Create(REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID id, void** object);
  HRESULT Query(REFIID id, void** object);

  EventSequence& events_;
  // What the shortcut loaded last leads to.
  std::wstring target_;
  Link link_{*this};
  File file_{*this};
  ImportDouble<"CoCreateInstance", decltype(&::CoCreateInstance)> create_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_FAKE_SHELL_LINK_H_
