#ifndef NIMBRA_WIN_CF_CALLBACK_RECORD_H_
#define NIMBRA_WIN_CF_CALLBACK_RECORD_H_

#include <cstddef>
#include <memory>
#include <string_view>

#include "common/cloud-files.h"
#include "nimbra/nimbra.h"
#include "win-cf/callback-delegator.h"

namespace corvdrive::cloud_filter {

// The record that a client's callback receives for one event of the platform, with the texts it
// points to; they live as long as this object.
class CallbackRecord {
 public:
  // Copies everything the record holds. The parameters are looked into for the kinds that have some
  // to tell, and may be null for the others. Throws std::bad_alloc, and what ParseSessionNumber
  // throws when the sync root's identity carries no readable number.
  CallbackRecord(CallbackKind kind, const CF_CALLBACK_INFO& info,
                 const CF_CALLBACK_PARAMETERS* parameters, void* context);

  [[nodiscard]] const CORVWinCFCallbackRecord* Get() const { return &record_; }

 private:
  using Text = std::unique_ptr<char[]>;

  void FillParameters(CallbackKind kind, const CF_CALLBACK_PARAMETERS* parameters,
                      std::string_view volume);
  void FillProcess(const CF_PROCESS_INFO* process);

  CORVWinCFCallbackRecord record_{};
  Text fileIdentity_;
  Text fullPath_;
  Text targetPath_;
  Text imagePath_;
};

}  // namespace corvdrive::cloud_filter

#endif
