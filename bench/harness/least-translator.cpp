#include "bench/harness/least-translator.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string_view>

namespace nimbra_bench {
namespace {

constexpr std::string_view kPrefix = "Corvane.Drive.FileStreaming.session.";
constexpr std::size_t kImageSize = 260;

// What a text of so many units takes at most.
std::size_t Room(std::size_t units) { return units * 3 + 1; }

std::int64_t SessionNumber(const CF_CALLBACK_INFO& info) {
  const std::string_view identity(static_cast<const char*>(info.SyncRootIdentity),
                                  info.SyncRootIdentityLength);
  std::int64_t number = 0;
  if (identity.starts_with(kPrefix)) {
    std::from_chars(identity.data() + kPrefix.size(), identity.data() + identity.size(), number);
  }
  return number;
}

// Appends texts to the block.
class Writer {
 public:
  explicit Writer(char* begin) : next_(begin) {}

  // Both texts as one.
  const char* Add(const wchar_t* first, std::size_t firstUnits, const wchar_t* second,
                  std::size_t secondUnits) {
    const char* const text = next_;
    Convert(first, firstUnits);
    Convert(second, secondUnits);
    *next_++ = '\0';
    return text;
  }
  const char* AddBytes(const void* bytes, std::size_t size) {
    const char* const text = next_;
    std::memcpy(next_, bytes, size);
    next_ += size;
    *next_++ = '\0';
    return text;
  }
  // The rest of at least that many bytes is zero.
  const char* AddZeroFilled(const wchar_t* text, std::size_t units, std::size_t least) {
    char* const begin = next_;
    Convert(text, units);
    const auto used = static_cast<std::size_t>(next_ - begin);
    const std::size_t size = std::max(used + 1, least);
    std::memset(next_, 0, size - used);
    next_ = begin + size;
    return begin;
  }

 private:
  void Convert(const wchar_t* text, std::size_t units) {
    next_ += WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(units), next_,
                                 static_cast<int>(units * 3), nullptr, nullptr);
  }

  char* next_;
};

void FillParameters(CF_CALLBACK_TYPE type, const CF_CALLBACK_PARAMETERS& parameters,
                    CORVWinCFCallbackRecord& record) {
  if (type == CF_CALLBACK_TYPE_FETCH_DATA) {
    record.parameters[0] = parameters.FetchData.RequiredFileOffset.QuadPart;
    record.parameters[1] = parameters.FetchData.RequiredLength.QuadPart;
    record.parameters[2] = parameters.FetchData.OptionalFileOffset.QuadPart;
    record.parameters[3] = parameters.FetchData.OptionalLength.QuadPart;
  } else if (type == CF_CALLBACK_TYPE_CANCEL_FETCH_DATA) {
    record.parameters[0] = parameters.Cancel.FetchData.FileOffset.QuadPart;
    record.parameters[1] = parameters.Cancel.FetchData.Length.QuadPart;
  }
}

}  // namespace

void TranslateLeast(CF_CALLBACK_TYPE type, const CF_CALLBACK_INFO& info,
                    const CF_CALLBACK_PARAMETERS& parameters, CORVWinCFCallback callback) {
  const bool hasProcess = type != CF_CALLBACK_TYPE_CANCEL_FETCH_DATA;
  const bool hasTarget = type == CF_CALLBACK_TYPE_NOTIFY_RENAME;
  const std::size_t volume = std::wcslen(info.VolumeDosName);
  const std::size_t path = std::wcslen(info.NormalizedPath);
  const std::size_t image = hasProcess ? std::wcslen(info.ProcessInfo->ImagePath) : 0;
  const std::size_t target = hasTarget ? std::wcslen(parameters.Rename.TargetPath) : 0;
  const std::size_t size = sizeof(CORVWinCFCallbackRecord) + info.FileIdentityLength + 1 +
                           Room(volume + path) + Room(volume + target) +
                           std::max(Room(image), kImageSize);
  void* const block = std::malloc(size);
  auto& record = *new (block) CORVWinCFCallbackRecord{};
  Writer writer(static_cast<char*>(block) + sizeof record);
  record.sessionNumber = SessionNumber(info);
  record.transferKey = info.TransferKey.QuadPart;
  record.fileId = info.FileId.QuadPart;
  record.fileIdentity = writer.AddBytes(info.FileIdentity, info.FileIdentityLength);
  record.fullPath = writer.Add(info.VolumeDosName, volume, info.NormalizedPath, path);
  FillParameters(type, parameters, record);
  if (hasTarget) {
    record.targetPath =
        writer.Add(info.VolumeDosName, volume, parameters.Rename.TargetPath, target);
  }
  if (hasProcess) {
    record.processId = info.ProcessInfo->ProcessId;
    record.imagePath = writer.AddZeroFilled(info.ProcessInfo->ImagePath, image, kImageSize);
  }
  callback(&record);
  std::free(block);
}

}  // namespace nimbra_bench
