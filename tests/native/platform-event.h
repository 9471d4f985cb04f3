#ifndef NIMBRA_TESTS_NATIVE_PLATFORM_EVENT_H_
#define NIMBRA_TESTS_NATIVE_PLATFORM_EVENT_H_

#include <memory>
#include <optional>
#include <string>

#include "common/cloud-files.h"
#include "win-cf/callback-delegator.h"

namespace nimbra_native {

// A callback of the platform, with everything it points to in buffers that end where it ends.
// Texts that are not there are null pointers.
struct PlatformEvent {
  CF_CALLBACK_TYPE type = CF_CALLBACK_TYPE_FETCH_DATA;
  std::string rootIdentity;
  std::optional<std::string> fileIdentity;
  std::optional<std::u16string> volume;
  std::optional<std::u16string> path;
  std::optional<std::u16string> otherPath;
  std::optional<std::u16string> image;
  bool hasProcess = true;
  std::int64_t transferKey = 0;
  std::int64_t fileId = 0;
  std::int64_t connectionKey = 0;
  std::uint32_t processId = 0;
  std::uint32_t flags = 0;
  std::int64_t range[4] = {};

  // Calls the library as the platform would: `delegator` is the callback context, or null.
  void Send(
      const std::shared_ptr<corvdrive::cloud_filter::CallbackDelegatorWinCF>* delegator) const;
};

}  // namespace nimbra_native

#endif
