#include "tests/support/callback-event.h"

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>

#include "tests/support/test-scope.h"

namespace nimbra_test {
namespace {

constexpr std::size_t kPage = 4096;

// The memory of one callback. A blob placed last ends at an inaccessible page; after the callback
// the whole is inaccessible, and its addresses stay unused for a while so that late accesses fault.
class Arena {
 public:
  explicit Arena(std::size_t size) : pages_((size + kPage - 1) / kPage * kPage) {
    base_ =
        static_cast<std::byte*>(VirtualAlloc(nullptr, pages_ + kPage, MEM_RESERVE, PAGE_NOACCESS));
    if (base_ == nullptr || VirtualAlloc(base_, pages_, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
      throw std::runtime_error("no memory for a callback");
    }
    std::memset(base_, 0x39, pages_);
  }

  ~Arena() {
    VirtualFree(base_, pages_, MEM_DECOMMIT);
    static std::mutex mutex;
    auto& retired = Retired();
    std::lock_guard lock(mutex);
    retired.push_back(base_);
    if (retired.size() > 64) {
      VirtualFree(retired.front(), 0, MEM_RELEASE);
      retired.pop_front();
    }
  }

  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  // Never destroyed: threads that deliver callbacks may still run when the program ends.
  static std::deque<void*>& Retired() {
    static auto& retired = *new std::deque<void*>;
    return retired;
  }

  void* Place(const void* data, std::size_t size) {
    constexpr std::size_t kAlignment = 16;
    void* place = base_ + used_;
    std::memcpy(place, data, size);
    // A byte of the fill follows every blob: the digit 9, which an identity read too far takes in.
    used_ += (size + 1 + kAlignment - 1) / kAlignment * kAlignment;
    return place;
  }

  void* PlaceAtEnd(const void* data, std::size_t size) {
    return std::memcpy(base_ + pages_ - size, data, size);
  }

  PCWSTR Text(const std::optional<std::wstring>& text) {
    if (!text) {
      return nullptr;
    }
    return static_cast<PCWSTR>(Place(text->c_str(), (text->size() + 1) * sizeof(wchar_t)));
  }

 private:
  std::size_t pages_;
  std::byte* base_ = nullptr;
  std::size_t used_ = 0;
};

std::size_t SizeOf(const std::optional<std::wstring>& text) {
  return text ? (text->size() + 1) * sizeof(wchar_t) + 32 : 0;
}

std::size_t SizeOf(const std::optional<std::string>& blob) { return blob ? blob->size() + 32 : 0; }

std::size_t SizeOf(const CallbackEvent& event) {
  return sizeof(CF_CALLBACK_INFO) + sizeof(CF_CALLBACK_PARAMETERS) + sizeof(CF_PROCESS_INFO) + 128 +
         SizeOf(event.syncRootIdentity) + SizeOf(event.fileIdentity) +
         SizeOf(event.volumeGuidName) + SizeOf(event.volumeDosName) + SizeOf(event.normalizedPath) +
         SizeOf(event.imagePath) + SizeOf(event.otherPath);
}

LARGE_INTEGER Large(std::int64_t value) {
  LARGE_INTEGER large;
  large.QuadPart = value;
  return large;
}

CF_PROCESS_INFO* PlaceProcess(Arena& arena, const CallbackEvent& event) {
  if (!event.hasProcessInfo) {
    return nullptr;
  }
  CF_PROCESS_INFO process{};
  process.StructSize = sizeof(process);
  process.ProcessId = event.processId;
  process.ImagePath = arena.Text(event.imagePath);
  process.SessionId = 1;
  return static_cast<CF_PROCESS_INFO*>(arena.Place(&process, sizeof(process)));
}

CF_CALLBACK_INFO MakeInfo(Arena& arena, void* context, const CallbackEvent& event) {
  CF_CALLBACK_INFO info{};
  info.StructSize = sizeof(info);
  info.ConnectionKey.Internal = event.connectionKey;
  info.CallbackContext = context;
  info.VolumeGuidName = arena.Text(event.volumeGuidName);
  info.VolumeDosName = arena.Text(event.volumeDosName);
  info.VolumeSerialNumber = 0x41424344;
  info.SyncRootFileId = Large(event.syncRootFileId);
  if (event.syncRootIdentity) {
    info.SyncRootIdentity =
        arena.Place(event.syncRootIdentity->data(), event.syncRootIdentity->size());
    info.SyncRootIdentityLength = static_cast<DWORD>(event.syncRootIdentity->size());
  }
  info.FileId = Large(event.fileId);
  info.FileSize = Large(event.fileSize);
  if (event.fileIdentity) {
    info.FileIdentity = arena.PlaceAtEnd(event.fileIdentity->data(), event.fileIdentity->size());
    info.FileIdentityLength = static_cast<DWORD>(event.fileIdentity->size());
  }
  info.FileIdentityLength = event.forcedFileIdentityLength.value_or(info.FileIdentityLength);
  info.NormalizedPath = arena.Text(event.normalizedPath);
  info.TransferKey = Large(event.transferKey);
  info.ProcessInfo = PlaceProcess(arena, event);
  info.RequestKey = Large(event.requestKey);
  return info;
}

CF_CALLBACK_PARAMETERS MakeParameters(Arena& arena, const CallbackEvent& event) {
  CF_CALLBACK_PARAMETERS parameters;
  // What no arm of this event covers is garbage.
  std::memset(&parameters, 0xA5, sizeof(parameters));
  // Every arm begins with its flags.
  parameters.ParamSize = 8 + sizeof(CF_CALLBACK_PARAMETERS::FetchDataArm);
  std::memcpy(&parameters.FetchData.Flags, &event.flags, sizeof(event.flags));
  switch (event.type) {
    case CF_CALLBACK_TYPE_FETCH_DATA:
      parameters.FetchData.RequiredFileOffset = Large(event.requiredOffset);
      parameters.FetchData.RequiredLength = Large(event.requiredLength);
      parameters.FetchData.OptionalFileOffset = Large(event.optionalOffset);
      parameters.FetchData.OptionalLength = Large(event.optionalLength);
      break;
    case CF_CALLBACK_TYPE_CANCEL_FETCH_DATA:
      parameters.ParamSize = 8 + sizeof(CF_CALLBACK_PARAMETERS::CancelArm);
      parameters.Cancel.FetchData.FileOffset = Large(event.requiredOffset);
      parameters.Cancel.FetchData.Length = Large(event.requiredLength);
      break;
    case CF_CALLBACK_TYPE_NOTIFY_RENAME:
      parameters.ParamSize = 8 + sizeof(CF_CALLBACK_PARAMETERS::RenameArm);
      parameters.Rename.TargetPath = arena.Text(event.otherPath);
      break;
    case CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION:
      parameters.ParamSize = 8 + sizeof(CF_CALLBACK_PARAMETERS::RenameCompletionArm);
      parameters.RenameCompletion.SourcePath = arena.Text(event.otherPath);
      break;
    default:
      parameters.ParamSize = 8 + sizeof(CF_CALLBACK_PARAMETERS::DeleteArm);
      break;
  }
  return parameters;
}

}  // namespace

void Deliver(CF_CALLBACK callback, void* context, const CallbackEvent& event) {
  // Built as test code, run as library code.
  struct Prepared {
    Arena arena;
    CF_CALLBACK_INFO* info;
    CF_CALLBACK_PARAMETERS* parameters;
    Prepared(void* callbackContext, const CallbackEvent& source) : arena(SizeOf(source)) {
      const CF_CALLBACK_INFO madeInfo = MakeInfo(arena, callbackContext, source);
      info = static_cast<CF_CALLBACK_INFO*>(arena.Place(&madeInfo, sizeof(madeInfo)));
      const CF_CALLBACK_PARAMETERS madeParameters = MakeParameters(arena, source);
      parameters = static_cast<CF_CALLBACK_PARAMETERS*>(
          arena.Place(&madeParameters, sizeof(madeParameters)));
    }
  };
  std::optional<Prepared> prepared;
  {
    TestScope scope;
    prepared.emplace(context, event);
  }
  struct Finish {
    std::optional<Prepared>& prepared;
    ~Finish() {
      TestScope scope;
      prepared.reset();
    }
  } finish{prepared};
  callback(prepared->info, prepared->parameters);
}

}  // namespace nimbra_test
