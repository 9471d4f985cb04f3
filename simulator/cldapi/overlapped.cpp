#include "overlapped.h"

#include <atomic>
#include <cstdint>
#include <utility>

#include "module.h"
#include "result.h"
#include "thread-pool.h"

namespace cldapi {
namespace {

constexpr ULONG_PTR kStatusPending = 0x103;

// Every overlapped hydration waits on a thread; beyond the limit they wait for each other.
constexpr ThreadPool::Limits kLimits{0, 64};

ThreadPool& Background() {
  static auto& pool = *new ThreadPool(kLimits);  // outlives everything: see module.h
  return pool;
}

// The status that GetOverlappedResult turns back into the same error. Wine knows no cloud statuses,
// but like Windows it unwraps errors that are wrapped as statuses.
ULONG_PTR StatusOf(HRESULT result) noexcept {
  if (SUCCEEDED(result)) return 0;
  return 0xC0070000U | (static_cast<std::uint32_t>(result) & 0xFFFFU);
}

// GetOverlappedResult looks at `Internal` without a lock.
void StoreStatus(OVERLAPPED& overlapped, ULONG_PTR status) noexcept {
  std::atomic_ref<ULONG_PTR>(overlapped.Internal).store(status, std::memory_order_release);
}

// The lowest bit of the event asks that no completion packet is queued.
HANDLE EventOf(const OVERLAPPED& overlapped) noexcept {
  return reinterpret_cast<HANDLE>(reinterpret_cast<std::uintptr_t>(overlapped.hEvent) &
                                  ~std::uintptr_t{1});
}

void Begin(OVERLAPPED& overlapped) noexcept {
  overlapped.InternalHigh = 0;
  StoreStatus(overlapped, kStatusPending);
  if (const HANDLE event = EventOf(overlapped)) ResetEvent(event);
}

// The caller may free the record as soon as its status is final.
void Complete(OVERLAPPED& overlapped, HRESULT result) noexcept {
  const HANDLE event = EventOf(overlapped);
  overlapped.InternalHigh = 0;
  StoreStatus(overlapped, StatusOf(result));
  if (event != nullptr) SetEvent(event);
}

}  // namespace

HRESULT RunInBackground(OVERLAPPED* overlapped, std::function<HRESULT()> request) {
  if (overlapped == nullptr) return request();
  KeepLoaded();
  Begin(*overlapped);
  Background().Post(
      [overlapped, request = std::move(request)] { Complete(*overlapped, request()); });
  return result::kPending;
}

HRESULT RunAtOnce(OVERLAPPED* overlapped, const std::function<HRESULT()>& request) {
  if (overlapped == nullptr) return request();
  Begin(*overlapped);
  const HRESULT result = request();
  Complete(*overlapped, result);
  return result;
}

}  // namespace cldapi
