#ifndef NIMBRA_NIMBRA_HOST_EXPORT_SUPPORT_H_
#define NIMBRA_NIMBRA_HOST_EXPORT_SUPPORT_H_

#include <windows.h>

#include <memory>
#include <new>
#include <utility>

#include "common/exception-state.h"
#include "common/version-flags.h"
#include "nimbra/nimbra.h"

namespace corvdrive::cloud_filter {

// What every export is made of: test the gate, convert the arguments, call one operation, map its
// result.

inline constexpr CORVWinCFStatus kSucceeded = 0;
inline constexpr CORVWinCFStatus kFailed = -1;

[[nodiscard]] inline bool IsGateClosed() { return supportFileStreaming == 0; }

[[nodiscard]] inline CORVWinCFStatus ToStatus(bool succeeded) {
  return succeeded ? kSucceeded : kFailed;
}

// Runs an export's body. No exception may cross the C interface: running out of memory becomes the
// export's failure.
template <typename Result, typename Body>
Result Guarded(Result onException, Body&& body) noexcept {
  PrepareExceptionState();
  try {
    return std::forward<Body>(body)();
  } catch (...) {
    return onException;
  }
}

// The heap record behind a handle: one shared reference to the object. Its memory is managed apart
// from the reference, because some families give back the one and keep the other.
template <typename Object>
using HandleCell = std::shared_ptr<Object>;

// Null when there is no memory.
template <typename Object>
[[nodiscard]] HandleCell<Object>* NewCell(HandleCell<Object> object = nullptr) {
  void* const memory = ::operator new(sizeof(HandleCell<Object>), std::nothrow);
  return memory == nullptr ? nullptr : new (memory) HandleCell<Object>(std::move(object));
}

// Frees the cell only: its reference is never dropped, so the object lives until the process ends.
template <typename Object>
void FreeCell(HandleCell<Object>* cell) {
  ::operator delete(cell);
}

// Drops the cell's reference and frees the cell.
template <typename Object>
void DropCell(HandleCell<Object>* cell) {
  std::destroy_at(cell);
  FreeCell(cell);
}

}  // namespace corvdrive::cloud_filter

#endif
