#ifndef NIMBRA_TESTS_SUPPORT_SHELL_ITEM_DOUBLE_H_
#define NIMBRA_TESTS_SUPPORT_SHELL_ITEM_DOUBLE_H_

#include <windows.h>

#include <shobjidl.h>

#include <mutex>
#include <string>
#include <vector>

#include "tests/support/com-double.h"

namespace nimbra_test {

// A shell item of the test's own. It keeps account of the paths that it handed out, which the
// caller of GetDisplayName has to free.
class ShellItemDouble final : public ComDouble<IShellItem2> {
 public:
  ShellItemDouble(CallJournal& journal, std::wstring path);
  ~ShellItemDouble() override;

  // What the operation gives instead of a path when it is a failure.
  HRESULT displayNameResult = S_OK;

  void BecomePath(std::wstring path) { path_ = std::move(path); }
  // Paths handed out that the system's allocator still knows.
  int PathsAlive() const;
  // Frees the paths that were handed out: for callers that never do.
  void FreePaths();
  // The last path handed out.
  const wchar_t* LastPath() const { return handedOut_.back(); }

  STDMETHODIMP GetDisplayName(SIGDN form, LPWSTR* name) override;

  STDMETHODIMP BindToHandler(IBindCtx*, REFGUID, REFIID, void**) override { return Unexpected(); }
  STDMETHODIMP GetParent(IShellItem**) override { return Unexpected(); }
  STDMETHODIMP GetAttributes(SFGAOF, SFGAOF*) override { return Unexpected(); }
  STDMETHODIMP Compare(IShellItem*, SICHINTF, int*) override { return Unexpected(); }
  STDMETHODIMP GetPropertyStore(GETPROPERTYSTOREFLAGS, REFIID, void**) override {
    return Unexpected();
  }
  STDMETHODIMP GetPropertyStoreWithCreateObject(GETPROPERTYSTOREFLAGS, IUnknown*, REFIID,
                                                void**) override {
    return Unexpected();
  }
  STDMETHODIMP GetPropertyStoreForKeys(const PROPERTYKEY*, UINT, GETPROPERTYSTOREFLAGS, REFIID,
                                       void**) override {
    return Unexpected();
  }
  STDMETHODIMP GetPropertyDescriptionList(REFPROPERTYKEY, REFIID, void**) override {
    return Unexpected();
  }
  STDMETHODIMP Update(IBindCtx*) override { return Unexpected(); }
  STDMETHODIMP GetProperty(REFPROPERTYKEY, PROPVARIANT*) override { return Unexpected(); }
  STDMETHODIMP GetCLSID(REFPROPERTYKEY, CLSID*) override { return Unexpected(); }
  STDMETHODIMP GetFileTime(REFPROPERTYKEY, FILETIME*) override { return Unexpected(); }
  STDMETHODIMP GetInt32(REFPROPERTYKEY, int*) override { return Unexpected(); }
  STDMETHODIMP GetString(REFPROPERTYKEY, LPWSTR*) override { return Unexpected(); }
  STDMETHODIMP GetUInt32(REFPROPERTYKEY, ULONG*) override { return Unexpected(); }
  STDMETHODIMP GetUInt64(REFPROPERTYKEY, ULONGLONG*) override { return Unexpected(); }
  STDMETHODIMP GetBool(REFPROPERTYKEY, WINBOOL*) override { return Unexpected(); }

 private:
  std::wstring path_;
  mutable std::mutex mutex_;
  std::vector<wchar_t*> handedOut_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_SHELL_ITEM_DOUBLE_H_
