#ifndef NIMBRA_TESTS_SUPPORT_COM_DOUBLE_H_
#define NIMBRA_TESTS_SUPPORT_COM_DOUBLE_H_

#include <gtest/gtest.h>
#include <windows.h>

#include <objbase.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/test-scope.h"

namespace nimbra_test {

struct ComRelease {
  template <typename Interface>
  void operator()(Interface* object) const {
    object->Release();
  }
};
// Owns one reference.
template <typename Interface>
using ComOwner = std::unique_ptr<Interface, ComRelease>;

// What the doubles of a test were asked, in order.
class CallJournal {
 public:
  void Note(std::string entry) {
    const TestScope scope;
    const std::lock_guard lock(mutex_);
    entries_.push_back(std::move(entry));
  }
  std::vector<std::string> Entries() const {
    const std::lock_guard lock(mutex_);
    return entries_;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> entries_;
};

// The text form of a GUID, with braces.
inline std::string GuidText(const GUID& guid) {
  wchar_t text[39]{};
  StringFromGUID2(guid, text, 39);
  return {text, text + 38};
}

// An object of the test's own that counts its references and notes when the last one is gone; the
// memory stays the test's. Nobody holds a reference at first: hand one out with AddRef.
template <typename Interface>
class ComDouble : public Interface {
 public:
  ComDouble(CallJournal& journal, std::string name, std::vector<IID> interfaces)
      : journal_(journal), name_(std::move(name)), interfaces_(std::move(interfaces)) {}
  virtual ~ComDouble() = default;
  ComDouble(const ComDouble&) = delete;
  ComDouble& operator=(const ComDouble&) = delete;

  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    const TestScope scope;
    Note("QueryInterface " + GuidText(riid));
    *ppv = nullptr;
    if (FAILED(queryResult)) return queryResult;
    if (std::find(interfaces_.begin(), interfaces_.end(), riid) == interfaces_.end()) {
      return E_NOINTERFACE;
    }
    *ppv = static_cast<Interface*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const TestScope scope;
    const ULONG left = --references_;
    EXPECT_NE(left, static_cast<ULONG>(-1)) << name_ << " was released once too often";
    if (left == 0) {
      Note("gone");
      if (whenGone) whenGone();
    }
    return left;
  }

  ULONG References() const { return references_; }

  // What QueryInterface gives instead when it is a failure.
  HRESULT queryResult = S_OK;
  // Runs when the last reference is gone.
  std::function<void()> whenGone;

 protected:
  void Note(const std::string& what) {
    const TestScope scope;
    journal_.Note(name_ + ": " + what);
  }
  // An operation that the code under test has no business with.
  HRESULT Unexpected() {
    ADD_FAILURE() << name_ << " was asked for what nobody should want";
    return E_NOTIMPL;
  }

 private:
  CallJournal& journal_;
  std::string name_;
  std::vector<IID> interfaces_;
  std::atomic<ULONG> references_{0};
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_COM_DOUBLE_H_
