#include "tests/support/shell-item-double.h"

#include <objbase.h>

#include <algorithm>
#include <utility>

namespace nimbra_test {
namespace {

// Whether the COM allocator knows the block; it leaves its contents alone.
bool IsAlive(const wchar_t* text) {
  IMalloc* allocator = nullptr;
  if (FAILED(CoGetMalloc(1, &allocator))) return false;
  const ComOwner<IMalloc> owner(allocator);
  return allocator->DidAlloc(const_cast<wchar_t*>(text)) == 1;
}

}  // namespace

ShellItemDouble::ShellItemDouble(CallJournal& journal, std::wstring path)
    : ComDouble(journal, "item", {IID_IUnknown, IID_IShellItem, IID_IShellItem2}),
      path_(std::move(path)) {}

ShellItemDouble::~ShellItemDouble() { FreePaths(); }

int ShellItemDouble::PathsAlive() const {
  const std::lock_guard lock(mutex_);
  return static_cast<int>(std::count_if(handedOut_.begin(), handedOut_.end(), IsAlive));
}

void ShellItemDouble::FreePaths() {
  const std::lock_guard lock(mutex_);
  for (wchar_t* path : handedOut_) {
    CoTaskMemFree(path);
  }
  handedOut_.clear();
}

HRESULT ShellItemDouble::GetDisplayName(SIGDN form, LPWSTR* name) {
  const TestScope scope;
  char number[16]{};
  wsprintfA(number, "0x%08x", static_cast<unsigned>(form));
  Note(std::string("GetDisplayName ") + number);
  *name = nullptr;
  if (FAILED(displayNameResult)) return displayNameResult;
  auto* const copy = static_cast<wchar_t*>(CoTaskMemAlloc((path_.size() + 1) * sizeof(wchar_t)));
  std::copy_n(path_.c_str(), path_.size() + 1, copy);
  const std::lock_guard lock(mutex_);
  handedOut_.push_back(copy);
  *name = copy;
  return S_OK;
}

}  // namespace nimbra_test
