#ifndef NIMBRA_NIMBRA_HOST_CLASS_FACTORY_H_
#define NIMBRA_NIMBRA_HOST_CLASS_FACTORY_H_

#include <windows.h>

#include <unknwn.h>

#include <atomic>
#include <new>

// Makes objects of a COM class, which must start with a reference count of 1.
template <typename Class>
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): only Release deletes COM objects.
class ClassFactory final : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    if (riid != IID_IUnknown && riid != IID_IClassFactory) {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }

  STDMETHODIMP_(ULONG) AddRef() override { return ++referenceCount; }

  STDMETHODIMP_(ULONG) Release() override {
    const ULONG count = --referenceCount;
    if (count == 0) {
      delete this;
    }
    return count;
  }

  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    if (ppv == nullptr) {
      return E_POINTER;
    }
    *ppv = nullptr;
    if (outer != nullptr) {
      return CLASS_E_NOAGGREGATION;
    }
    auto* const object = new (std::nothrow) Class;
    if (object == nullptr) {
      return E_OUTOFMEMORY;
    }
    const HRESULT result = object->QueryInterface(riid, ppv);
    object->Release();
    return result;
  }

  // The server is never unloaded.
  STDMETHODIMP LockServer(BOOL /*lock*/) override { return S_OK; }

 private:
  std::atomic<ULONG> referenceCount = 1;
};

#endif
