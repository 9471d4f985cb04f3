#include "win-cf/pending-requests.h"

#include <atomic>

namespace corvdrive::cloud_filter {
namespace {

// The status is the last thing that the platform writes into a record.
bool IsComplete(OVERLAPPED& record) {
  return std::atomic_ref(record.Internal).load(std::memory_order_acquire) !=
         static_cast<ULONG_PTR>(STATUS_PENDING);
}

// More than one, so that the completed ones become fewer, and not all, so that a request costs the
// same however many are on their way.
constexpr int kLookedThrough = 4;

}  // namespace

PendingRequests& PendingRequests::Instance() {
  static PendingRequests& instance = *new PendingRequests;
  return instance;
}

PendingRequests::Request PendingRequests::Add() {
  const std::lock_guard lock(mutex_);
  FreeSomeCompleted();
  return entries_.emplace(entries_.end());
}

void PendingRequests::FreeSomeCompleted() {
  for (int i = 0; i < kLookedThrough && !entries_.empty(); ++i) {
    const auto oldest = entries_.begin();
    if (oldest->pending && IsComplete(oldest->record)) {
      entries_.erase(oldest);
    } else {
      // Its turn comes again after the others'.
      entries_.splice(entries_.end(), entries_, oldest);
    }
  }
}

void PendingRequests::LeavePending(Request request) {
  const std::lock_guard lock(mutex_);
  request->pending = true;
}

void PendingRequests::Settle(Request request) {
  if (IsComplete(request->record)) {
    Remove(request);
  } else {
    LeavePending(request);
  }
}

void PendingRequests::Remove(Request request) {
  const std::lock_guard lock(mutex_);
  entries_.erase(request);
}

}  // namespace corvdrive::cloud_filter
