#ifndef NIMBRA_WIN_CF_CALLBACK_RECORD_H_
#define NIMBRA_WIN_CF_CALLBACK_RECORD_H_

#include <cstddef>

#include "common/cloud-files.h"
#include "common/small-buffer.h"
#include "nimbra/nimbra.h"
#include "win-cf/callback-delegator.h"

namespace corvdrive::cloud_filter {

// The record that a client's callback receives for one event of the platform, with the texts it
// points to, which lie together in one piece of memory; they live as long as this object.
class CallbackRecord {
 public:
  // Copies everything the record holds. The parameters are looked into for the kinds that have some
  // to tell, and may be null for the others.
  CallbackRecord(CallbackKind kind, const CF_CALLBACK_INFO& info,
                 const CF_CALLBACK_PARAMETERS* parameters, void* context) noexcept;

  // Why the record could not be built, and then is not to be used: there was no memory, or the sync
  // root's identity carries no readable number. Null otherwise.
  [[nodiscard]] const char* Failure() const noexcept { return failure_; }
  [[nodiscard]] const CORVWinCFCallbackRecord* Get() const noexcept { return &record_; }

 private:
  // For the texts of most events; identities and paths may be many times longer.
  static constexpr std::size_t kUsualSize = 2048;

  CORVWinCFCallbackRecord record_{};
  const char* failure_ = nullptr;
  SmallBuffer<char, kUsualSize> memory_;
};

}  // namespace corvdrive::cloud_filter

#endif
