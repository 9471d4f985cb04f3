#include "win-cf/callback-record.h"

#include <algorithm>
#include <string>

#include "common/session-number.h"
#include "common/text.h"

namespace corvdrive::cloud_filter {
namespace {

// Clients may rely on this much room behind the image path.
constexpr std::size_t kMinImagePathSize = 260;

// A zero-filled buffer of at least `minSize` bytes that holds the two pieces and a zero byte.
std::unique_ptr<char[]> Join(std::string_view first, std::string_view second,
                             std::size_t minSize = 0) {
  const std::size_t size = std::max(first.size() + second.size() + 1, minSize);
  auto buffer = std::make_unique<char[]>(size);
  std::copy(first.begin(), first.end(), buffer.get());
  std::copy(second.begin(), second.end(), buffer.get() + first.size());
  return buffer;
}

std::string_view Blob(const void* bytes, DWORD length) {
  return bytes == nullptr ? std::string_view()
                          : std::string_view(static_cast<const char*>(bytes), length);
}

std::string TextOrEmpty(const wchar_t* text) {
  return text == nullptr ? std::string() : WideToUtf8(text);
}

}  // namespace

CallbackRecord::CallbackRecord(CallbackKind kind, const CF_CALLBACK_INFO& info,
                               const CF_CALLBACK_PARAMETERS* parameters, void* context) {
  record_.sessionNumber =
      ParseSessionNumber(std::string(Blob(info.SyncRootIdentity, info.SyncRootIdentityLength)));
  const std::string volume = TextOrEmpty(info.VolumeDosName);
  fileIdentity_ = Join(Blob(info.FileIdentity, info.FileIdentityLength), {});
  fullPath_ = Join(volume, TextOrEmpty(info.NormalizedPath));
  record_.transferKey = info.TransferKey.QuadPart;
  record_.fileId = info.FileId.QuadPart;
  record_.fileIdentity = fileIdentity_.get();
  record_.fullPath = fullPath_.get();
  record_.context = context;
  FillParameters(kind, parameters, volume);
  if (kind != kFetchCancel) {
    FillProcess(info.ProcessInfo);
  }
}

void CallbackRecord::FillParameters(CallbackKind kind, const CF_CALLBACK_PARAMETERS* parameters,
                                    std::string_view volume) {
  if (kind == kFetchData) {
    record_.parameters[0] = parameters->FetchData.RequiredFileOffset.QuadPart;
    record_.parameters[1] = parameters->FetchData.RequiredLength.QuadPart;
    record_.parameters[2] = parameters->FetchData.OptionalFileOffset.QuadPart;
    record_.parameters[3] = parameters->FetchData.OptionalLength.QuadPart;
  } else if (kind == kFetchCancel) {
    record_.parameters[0] = parameters->Cancel.FetchData.FileOffset.QuadPart;
    record_.parameters[1] = parameters->Cancel.FetchData.Length.QuadPart;
  } else if (kind == kRename) {
    const auto bothInScope =
        CF_CALLBACK_RENAME_FLAG_SOURCE_IN_SCOPE | CF_CALLBACK_RENAME_FLAG_TARGET_IN_SCOPE;
    if ((parameters->Rename.Flags & bothInScope) == bothInScope) {
      targetPath_ = Join(volume, TextOrEmpty(parameters->Rename.TargetPath));
      record_.targetPath = targetPath_.get();
    }
  }
}

void CallbackRecord::FillProcess(const CF_PROCESS_INFO* process) {
  imagePath_ = Join(process == nullptr ? std::string() : TextOrEmpty(process->ImagePath), {},
                    kMinImagePathSize);
  record_.imagePath = imagePath_.get();
  record_.processId = process == nullptr ? 0 : process->ProcessId;
}

}  // namespace corvdrive::cloud_filter
