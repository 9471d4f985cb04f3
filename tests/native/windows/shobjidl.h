#ifndef NIMBRA_TESTS_NATIVE_WINDOWS_SHOBJIDL_H_
#define NIMBRA_TESTS_NATIVE_WINDOWS_SHOBJIDL_H_

// Enough of COM for the library's headers; no object is made of it.

#include <windows.h>

#define STDMETHODIMP HRESULT
#define STDMETHODIMP_(Type) Type
#define REFIID const GUID&
#define REFCLSID const GUID&
using PWSTR = wchar_t*;
using CLSID = GUID;
using IID = GUID;

class IUnknown {
 public:
  virtual HRESULT QueryInterface(REFIID iid, void** object) = 0;
  virtual ULONG AddRef() = 0;
  virtual ULONG Release() = 0;

 protected:
  ~IUnknown() = default;
};

class IShellItem;
class IShellItem2;

class IInitializeWithItem : public IUnknown {
 public:
  virtual HRESULT Initialize(IShellItem* item, DWORD mode) = 0;
};

#endif
