#include "win-cf/pending-requests.h"

#include <algorithm>
#include <atomic>

namespace corvdrive::cloud_filter {
namespace {

// The status is the last thing that the platform writes into a record.
bool IsComplete(OVERLAPPED& record) {
  return std::atomic_ref(record.Internal).load(std::memory_order_acquire) !=
         static_cast<ULONG_PTR>(STATUS_PENDING);
}

}  // namespace

PendingRequests& PendingRequests::Instance() {
  static PendingRequests& instance = *new PendingRequests;
  return instance;
}

OVERLAPPED* PendingRequests::Add() {
  const std::lock_guard lock(mutex_);
  entries_.remove_if([](Entry& entry) { return entry.pending && IsComplete(entry.record); });
  return &entries_.emplace_back().record;
}

void PendingRequests::LeavePending(const OVERLAPPED* record) {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [record](const Entry& entry) { return &entry.record == record; });
  found->pending = true;
}

void PendingRequests::Settle(OVERLAPPED* record) {
  if (IsComplete(*record)) {
    Remove(record);
  } else {
    LeavePending(record);
  }
}

void PendingRequests::Remove(const OVERLAPPED* record) {
  const std::lock_guard lock(mutex_);
  entries_.remove_if([record](const Entry& entry) { return &entry.record == record; });
}

}  // namespace corvdrive::cloud_filter
