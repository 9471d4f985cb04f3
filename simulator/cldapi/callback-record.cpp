#include "callback-record.h"

#include <cstring>

#include "paths.h"
#include "text.h"
#include "wine-host.h"

namespace cldapi {
namespace {

namespace wire = cloud_filter::wire;

constexpr unsigned char kPoison = 0xDD;
constexpr wchar_t kUnknown[] = L"UNKNOWN";

LARGE_INTEGER Large(std::int64_t value) noexcept {
  LARGE_INTEGER large;
  large.QuadPart = value;
  return large;
}

// `relative` is '/'-separated and lies below the root; empty for the root itself.
std::wstring OnVolume(const ConnectedRoot& root, std::string_view relative) {
  std::wstring path = root.pathOnVolume;
  if (!relative.empty()) path += L'\\' + WithBackslashes(ToWide(relative));
  return path.empty() ? L"\\" : path;
}

std::wstring OnVolumeFromUnix(const ConnectedRoot& root, const std::string& unixPath) {
  if (unixPath == root.unixPath) return OnVolume(root, {});
  if (unixPath.starts_with(root.unixPath + '/')) {
    return OnVolume(root, std::string_view(unixPath).substr(root.unixPath.size() + 1));
  }
  // A rename out of the root or into it, perhaps on another drive.
  const auto dosPath = DosFromUnix(unixPath);
  return dosPath ? std::wstring(WithoutDrive(*dosPath)) : WithBackslashes(ToWide(unixPath));
}

std::wstring ImagePathOf(const std::string& unixPath) {
  if (unixPath.empty()) return kUnknown;
  const auto dosPath = DosFromUnix(unixPath);
  return dosPath ? DevicePathOf(*dosPath) : kUnknown;
}

DWORD ThisSession() noexcept {
  DWORD session = 0;
  ProcessIdToSessionId(GetCurrentProcessId(), &session);
  return session;
}

// Fills the arm of the parameters that belongs to a type of callback.
class ArmFiller {
 public:
  ArmFiller(CF_CALLBACK_PARAMETERS& parameters, const wire::CallbackEvent& event)
      : parameters_(parameters), event_(event) {}

  void FetchData() const {
    auto& arm = Begin(parameters_.FetchData);
    arm.RequiredFileOffset = Large(event_.range[0]);
    arm.RequiredLength = Large(event_.range[1]);
    arm.OptionalFileOffset = Large(event_.range[2]);
    arm.OptionalLength = Large(event_.range[3]);
  }
  void ValidateData() const {
    auto& arm = Begin(parameters_.ValidateData);
    arm.RequiredFileOffset = Large(event_.range[0]);
    arm.RequiredLength = Large(event_.range[1]);
  }
  void Cancel() const {
    auto& arm = Begin(parameters_.Cancel);
    arm.FetchData.FileOffset = Large(event_.range[0]);
    arm.FetchData.Length = Large(event_.range[1]);
  }
  void FetchPlaceholders(PCWSTR pattern) const {
    Begin(parameters_.FetchPlaceholders).Pattern = pattern;
  }
  template <class Arm>
  void Dehydration(Arm& arm) const {
    Begin(arm).Reason = static_cast<CF_CALLBACK_DEHYDRATION_REASON>(event_.range[0]);
  }
  void Rename(PCWSTR target) const { Begin(parameters_.Rename).TargetPath = target; }
  void RenameCompletion(PCWSTR source) const {
    Begin(parameters_.RenameCompletion).SourcePath = source;
  }
  // All arms begin with their flags.
  template <class Arm>
  Arm& Begin(Arm& arm) const {
    parameters_.ParamSize =
        static_cast<ULONG>(offsetof(CF_CALLBACK_PARAMETERS, Cancel) + sizeof(Arm));
    arm.Flags = static_cast<decltype(arm.Flags)>(event_.flags);
    return arm;
  }

 private:
  CF_CALLBACK_PARAMETERS& parameters_;
  const wire::CallbackEvent& event_;
};

}  // namespace

PoisonedMemory::~PoisonedMemory() {
  for (auto& block : blocks_) {
    // Volatile, because nobody in sight reads it again.
    volatile std::byte* at = block.memory.get();
    for (std::size_t i = 0; i < block.size; ++i) at[i] = std::byte{kPoison};
  }
}

PCWSTR PoisonedMemory::Text(std::wstring_view text) {
  auto* copy = static_cast<wchar_t*>(Allocate((text.size() + 1) * sizeof(wchar_t)));
  text.copy(copy, text.size());
  return copy;
}

LPCVOID PoisonedMemory::Bytes(std::string_view bytes) {
  if (bytes.empty()) return nullptr;
  void* copy = Allocate(bytes.size());
  std::memcpy(copy, bytes.data(), bytes.size());
  return copy;
}

void* PoisonedMemory::Allocate(std::size_t size) {
  blocks_.push_back({std::make_unique<std::byte[]>(size), size});
  return blocks_.back().memory.get();
}

CallbackRecord::CallbackRecord(const ConnectedRoot& root, const wire::CallbackEvent& event)
    : info_(memory_.Make<CF_CALLBACK_INFO>()), parameters_(memory_.Make<CF_CALLBACK_PARAMETERS>()) {
  FillInfo(root, event);
  FillParameters(root, event);
}

void CallbackRecord::FillInfo(const ConnectedRoot& root, const wire::CallbackEvent& event) {
  info_->StructSize = sizeof *info_;
  info_->ConnectionKey = root.key;
  info_->CallbackContext = root.context;
  info_->VolumeGuidName = memory_.Text(root.volumeGuidName);
  info_->VolumeDosName = memory_.Text(root.volumeDosName);
  info_->VolumeSerialNumber = root.volumeSerialNumber;
  info_->SyncRootFileId = Large(root.fileId);
  info_->SyncRootIdentity = memory_.Bytes(root.identity);
  info_->SyncRootIdentityLength = static_cast<DWORD>(root.identity.size());
  info_->FileId = Large(event.fileId);
  info_->FileSize = Large(event.fileSize);
  info_->FileIdentity = memory_.Bytes(event.fileIdentity);
  info_->FileIdentityLength = static_cast<DWORD>(event.fileIdentity.size());
  info_->NormalizedPath = memory_.Text(OnVolume(root, event.relativePath));
  info_->TransferKey = Large(event.transferKey);
  info_->RequestKey = Large(event.requestKey);
  if (root.flags & CF_CONNECT_FLAG_REQUIRE_PROCESS_INFO)
    info_->ProcessInfo = MakeProcessInfo(event);
}

CF_PROCESS_INFO* CallbackRecord::MakeProcessInfo(const wire::CallbackEvent& event) {
  auto* process = memory_.Make<CF_PROCESS_INFO>();
  process->StructSize = sizeof *process;
  process->ProcessId = event.processId;
  process->ImagePath = memory_.Text(ImagePathOf(event.processImage));
  process->PackageName = memory_.Text({});
  process->ApplicationId = memory_.Text({});
  process->CommandLine =
      memory_.Text(event.commandLine.empty() ? kUnknown : ToWide(event.commandLine));
  process->SessionId = ThisSession();
  return process;
}

void CallbackRecord::FillParameters(const ConnectedRoot& root, const wire::CallbackEvent& event) {
  const ArmFiller fill(*parameters_, event);
  switch (static_cast<CF_CALLBACK_TYPE>(event.type)) {
    case CF_CALLBACK_TYPE_FETCH_DATA:
      return fill.FetchData();
    case CF_CALLBACK_TYPE_VALIDATE_DATA:
      return fill.ValidateData();
    case CF_CALLBACK_TYPE_CANCEL_FETCH_DATA:
    case CF_CALLBACK_TYPE_CANCEL_FETCH_PLACEHOLDERS:
      return fill.Cancel();
    case CF_CALLBACK_TYPE_FETCH_PLACEHOLDERS:
      return fill.FetchPlaceholders(memory_.Text(L"*"));
    case CF_CALLBACK_TYPE_NOTIFY_FILE_OPEN_COMPLETION:
      fill.Begin(parameters_->OpenCompletion);
      return;
    case CF_CALLBACK_TYPE_NOTIFY_FILE_CLOSE_COMPLETION:
      fill.Begin(parameters_->CloseCompletion);
      return;
    case CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE:
      return fill.Dehydration(parameters_->Dehydrate);
    case CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE_COMPLETION:
      return fill.Dehydration(parameters_->DehydrateCompletion);
    case CF_CALLBACK_TYPE_NOTIFY_DELETE:
      fill.Begin(parameters_->Delete);
      return;
    case CF_CALLBACK_TYPE_NOTIFY_DELETE_COMPLETION:
      fill.Begin(parameters_->DeleteCompletion);
      return;
    case CF_CALLBACK_TYPE_NOTIFY_RENAME:
      return fill.Rename(memory_.Text(OnVolumeFromUnix(root, event.otherPath)));
    case CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION:
      return fill.RenameCompletion(memory_.Text(OnVolumeFromUnix(root, event.otherPath)));
    case CF_CALLBACK_TYPE_NONE:
      break;
  }
}

}  // namespace cldapi
