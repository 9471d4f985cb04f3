#include "win-cf/callback-record.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <string_view>

#include "common/session-number.h"

namespace corvdrive::cloud_filter {
namespace {

// Clients may rely on this much room behind the image path.
constexpr std::size_t kMinImagePathSize = 260;

// What one UTF-16 unit becomes at most; a pair of surrogates is four bytes.
constexpr std::size_t kBytesPerUnit = 3;
constexpr std::size_t kMaxUnits = std::numeric_limits<int>::max() / kBytesPerUnit;

std::size_t LargestSize(std::wstring_view text) noexcept { return text.size() * kBytesPerUnit; }

std::string_view Blob(const void* bytes, DWORD length) noexcept {
  return bytes == nullptr ? std::string_view()
                          : std::string_view(static_cast<const char*>(bytes), length);
}

// What is too long to be converted counts as empty.
std::wstring_view TextOrEmpty(const wchar_t* text) noexcept {
  const std::wstring_view view = text == nullptr ? std::wstring_view() : std::wstring_view(text);
  return view.size() <= kMaxUnits ? view : std::wstring_view();
}

// The texts of an event that become texts of its record.
struct Texts {
  Texts(CallbackKind kind, const CF_CALLBACK_INFO& info,
        const CF_CALLBACK_PARAMETERS* parameters) noexcept
      : fileIdentity(Blob(info.FileIdentity, info.FileIdentityLength)),
        volume(TextOrEmpty(info.VolumeDosName)),
        path(TextOrEmpty(info.NormalizedPath)) {
    if (kind == kRename) {
      const auto bothInScope =
          CF_CALLBACK_RENAME_FLAG_SOURCE_IN_SCOPE | CF_CALLBACK_RENAME_FLAG_TARGET_IN_SCOPE;
      hasTarget = (parameters->Rename.Flags & bothInScope) == bothInScope;
      target = TextOrEmpty(hasTarget ? parameters->Rename.TargetPath : nullptr);
    }
    hasImage = kind != kFetchCancel;
    image = TextOrEmpty(hasImage && info.ProcessInfo != nullptr ? info.ProcessInfo->ImagePath
                                                                : nullptr);
  }

  // Enough for all of them with their terminators.
  [[nodiscard]] std::size_t LargestRecordSize() const noexcept {
    return fileIdentity.size() + 1 + LargestSize(volume) + LargestSize(path) + 1 +
           (hasTarget ? LargestSize(volume) + LargestSize(target) + 1 : 0) +
           (hasImage ? std::max(LargestSize(image) + 1, kMinImagePathSize) : 0);
  }

  std::string_view fileIdentity;
  std::wstring_view volume;
  std::wstring_view path;
  bool hasTarget = false;
  std::wstring_view target;
  bool hasImage = false;
  std::wstring_view image;
};

// Writes texts one behind the other into memory that has room for them.
class TextWriter {
 public:
  explicit TextWriter(char* memory) noexcept : next_(memory) {}

  // Where the next text begins.
  [[nodiscard]] char* Position() const noexcept { return next_; }
  void Append(std::string_view bytes) noexcept { next_ += bytes.copy(next_, bytes.size()); }
  // As WideToUtf8 converts. The room is known to do, so there is no need to ask for the length.
  void Append(std::wstring_view text) noexcept {
    if (!text.empty()) {
      const int written =
          WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), next_,
                              static_cast<int>(LargestSize(text)), nullptr, nullptr);
      next_ += std::max(written, 0);
    }
  }
  void AppendZeros(std::size_t count) noexcept {
    std::memset(next_, 0, count);
    next_ += count;
  }

 private:
  char* next_;
};

void FillTexts(CORVWinCFCallbackRecord& record, const Texts& texts, char* memory) noexcept {
  TextWriter writer(memory);
  record.fullPath = writer.Position();
  writer.Append(texts.volume);
  const std::string_view volume(record.fullPath,
                                static_cast<std::size_t>(writer.Position() - record.fullPath));
  writer.Append(texts.path);
  writer.AppendZeros(1);
  if (texts.hasTarget) {
    record.targetPath = writer.Position();
    writer.Append(volume);
    writer.Append(texts.target);
    writer.AppendZeros(1);
  }
  record.fileIdentity = writer.Position();
  writer.Append(texts.fileIdentity);
  writer.AppendZeros(1);
  if (texts.hasImage) {
    record.imagePath = writer.Position();
    writer.Append(texts.image);
    const auto length = static_cast<std::size_t>(writer.Position() - record.imagePath);
    writer.AppendZeros(std::max(length + 1, kMinImagePathSize) - length);
  }
}

void FillParameters(CORVWinCFCallbackRecord& record, CallbackKind kind,
                    const CF_CALLBACK_PARAMETERS* parameters) noexcept {
  if (kind == kFetchData) {
    record.parameters[0] = parameters->FetchData.RequiredFileOffset.QuadPart;
    record.parameters[1] = parameters->FetchData.RequiredLength.QuadPart;
    record.parameters[2] = parameters->FetchData.OptionalFileOffset.QuadPart;
    record.parameters[3] = parameters->FetchData.OptionalLength.QuadPart;
  } else if (kind == kFetchCancel) {
    record.parameters[0] = parameters->Cancel.FetchData.FileOffset.QuadPart;
    record.parameters[1] = parameters->Cancel.FetchData.Length.QuadPart;
  }
}

}  // namespace

CallbackRecord::CallbackRecord(CallbackKind kind, const CF_CALLBACK_INFO& info,
                               const CF_CALLBACK_PARAMETERS* parameters, void* context) noexcept {
  const SessionNumber session =
      ReadSessionNumber(Blob(info.SyncRootIdentity, info.SyncRootIdentityLength));
  if (session.failure != nullptr) {
    failure_ = session.failure;
    return;
  }
  const Texts texts(kind, info, parameters);
  char* const memory = memory_.Reserve(texts.LargestRecordSize());
  if (memory == nullptr) {
    failure_ = "std::bad_alloc";
    return;
  }
  record_.sessionNumber = session.value;
  record_.transferKey = info.TransferKey.QuadPart;
  record_.fileId = info.FileId.QuadPart;
  record_.context = context;
  FillTexts(record_, texts, memory);
  FillParameters(record_, kind, parameters);
  if (texts.hasImage && info.ProcessInfo != nullptr) {
    record_.processId = info.ProcessInfo->ProcessId;
  }
}

}  // namespace corvdrive::cloud_filter
