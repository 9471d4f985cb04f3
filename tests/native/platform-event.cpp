#include "platform-event.h"

#include <algorithm>

#include "win-cf/callback-dispatch.h"

namespace nimbra_native {
namespace {

class Text {
 public:
  explicit Text(const std::optional<std::u16string>& text) {
    if (!text) return;
    units_ = std::make_unique<wchar_t[]>(text->size() + 1);
    std::copy(text->begin(), text->end(), units_.get());
  }
  [[nodiscard]] const wchar_t* Get() const { return units_.get(); }

 private:
  std::unique_ptr<wchar_t[]> units_;
};

std::unique_ptr<char[]> Copy(const std::string& bytes) {
  auto copy = std::make_unique<char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  return copy;
}

LARGE_INTEGER Large(std::int64_t value) {
  LARGE_INTEGER large;
  large.QuadPart = value;
  return large;
}

CF_CALLBACK FindCallback(CF_CALLBACK_TYPE type) {
  const auto* entry = corvdrive::cloud_filter::CallbackTable(true);
  while (entry->Type != type) ++entry;
  return entry->Callback;
}

CF_CALLBACK_PARAMETERS MakeParameters(const PlatformEvent& event, const wchar_t* otherPath) {
  CF_CALLBACK_PARAMETERS parameters{};
  parameters.ParamSize = sizeof parameters;
  switch (event.type) {
    case CF_CALLBACK_TYPE_FETCH_DATA:
      parameters.FetchData.RequiredFileOffset = Large(event.range[0]);
      parameters.FetchData.RequiredLength = Large(event.range[1]);
      parameters.FetchData.OptionalFileOffset = Large(event.range[2]);
      parameters.FetchData.OptionalLength = Large(event.range[3]);
      break;
    case CF_CALLBACK_TYPE_CANCEL_FETCH_DATA:
      parameters.Cancel.FetchData.FileOffset = Large(event.range[0]);
      parameters.Cancel.FetchData.Length = Large(event.range[1]);
      break;
    case CF_CALLBACK_TYPE_NOTIFY_RENAME:
      parameters.Rename.Flags = static_cast<CF_CALLBACK_RENAME_FLAGS>(event.flags);
      parameters.Rename.TargetPath = otherPath;
      break;
    case CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION:
      parameters.RenameCompletion.SourcePath = otherPath;
      break;
    default:
      break;
  }
  return parameters;
}

}  // namespace

void PlatformEvent::Send(
    const std::shared_ptr<corvdrive::cloud_filter::CallbackDelegatorWinCF>* delegator) const {
  const Text volumeText(volume), pathText(path), otherText(otherPath), imageText(image);
  const auto rootBytes = Copy(rootIdentity);
  const auto fileBytes = Copy(fileIdentity.value_or(""));
  CF_PROCESS_INFO process{};
  process.StructSize = sizeof process;
  process.ProcessId = processId;
  process.ImagePath = imageText.Get();
  CF_CALLBACK_INFO info{};
  info.StructSize = sizeof info;
  info.ConnectionKey.Internal = connectionKey;
  info.CallbackContext = const_cast<void*>(static_cast<const void*>(delegator));
  info.VolumeDosName = volumeText.Get();
  info.SyncRootIdentity = rootBytes.get();
  info.SyncRootIdentityLength = static_cast<DWORD>(rootIdentity.size());
  info.FileId = Large(fileId);
  info.FileIdentity = fileIdentity ? fileBytes.get() : nullptr;
  info.FileIdentityLength = static_cast<DWORD>(fileIdentity.value_or("").size());
  info.NormalizedPath = pathText.Get();
  info.TransferKey = Large(transferKey);
  info.ProcessInfo = hasProcess ? &process : nullptr;
  const CF_CALLBACK_PARAMETERS parameters = MakeParameters(*this, otherText.Get());
  FindCallback(type)(&info, &parameters);
}

}  // namespace nimbra_native
