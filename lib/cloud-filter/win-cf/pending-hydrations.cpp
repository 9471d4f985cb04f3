#include "win-cf/pending-hydrations.h"

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

PendingHydrations& PendingHydrations::Instance() {
  static PendingHydrations& instance = *new PendingHydrations;
  return instance;
}

OVERLAPPED* PendingHydrations::Add() {
  const std::lock_guard lock(mutex_);
  entries_.remove_if([](Entry& entry) { return entry.pending && IsComplete(entry.record); });
  return &entries_.emplace_back().record;
}

void PendingHydrations::LeavePending(const OVERLAPPED* record) {
  const std::lock_guard lock(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(),
                                  [record](const Entry& entry) { return &entry.record == record; });
  found->pending = true;
}

void PendingHydrations::Remove(const OVERLAPPED* record) {
  const std::lock_guard lock(mutex_);
  entries_.remove_if([record](const Entry& entry) { return &entry.record == record; });
}

}  // namespace corvdrive::cloud_filter
