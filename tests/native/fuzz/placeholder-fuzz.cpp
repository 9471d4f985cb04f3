// Placeholders: how a path is divided, what is handed to the platform, and what is taken from its
// answer, whatever length that claims.

#include "fake-cloud.h"
#include "feed.h"
#include "reference-text.h"
#include "win-cf/placeholder-info.h"
#include "win-cf/placeholder.h"
#include "windows-stand-in.h"

namespace {

using corvdrive::cloud_filter::PlaceholderInfoWinCF;
using corvdrive::cloud_filter::PlaceholderMetaWinCF;
using corvdrive::cloud_filter::PlaceholderWinCF;
using nimbra_native::FakeCloud;
using nimbra_native::ReferenceToUtf16;
using nimbra_native::Require;

// Windows counts 100 ns from 1601; of the seconds the low 32 bits count.
std::int64_t ModelOfTime(std::int64_t seconds) {
  if (seconds == 0) return 0;
  std::int64_t low = seconds & 0xFFFFFFFF;
  if (low >= 0x80000000) low -= 0x100000000;
  return low * 10'000'000 + 116'444'736'000'000'000;
}

void CheckMetadata(const PlaceholderMetaWinCF& meta, const CF_FS_METADATA& metadata) {
  const auto& basic = metadata.BasicInfo;
  Require(basic.CreationTime.QuadPart == ModelOfTime(meta.creationTime) &&
              basic.LastAccessTime.QuadPart == ModelOfTime(meta.lastAccessTime) &&
              basic.LastWriteTime.QuadPart == ModelOfTime(meta.lastWriteTime) &&
              basic.ChangeTime.QuadPart == ModelOfTime(meta.changeTime),
          "the times are the model's");
  Require(metadata.FileSize.QuadPart == meta.fileSize, "the size is handed on");
  Require(basic.FileAttributes == (meta.isDirectory ? 0x10U : 0U), "the type is handed on");
}

void CheckDivision(const std::string& path, const nimbra_native::CreateCall& call) {
  std::size_t nameStart = path.size();
  while (nameStart > 0 && path[nameStart - 1] != '/') --nameStart;
  const std::string directory = nameStart < 2 ? "/" : path.substr(0, nameStart - 1);
  Require(call.directory == ReferenceToUtf16(directory), "the directory ends before the last /");
  Require(call.name == ReferenceToUtf16(path.substr(nameStart)), "the name follows the last /");
}

void CheckHydration(const FakeCloud& cloud, std::int64_t fileSize) {
  CF_PLACEHOLDER_STANDARD_INFO told{};
  std::memcpy(&told, cloud.placeholderInfo.data(),
              std::min(sizeof told, cloud.placeholderInfo.size()));
  const bool isPinned = told.PinState == CF_PIN_STATE_PINNED;
  Require(cloud.hydrated.size() == (isPinned ? 1U : 0U), "what is pinned is hydrated");
  Require(!isPinned || cloud.hydrated.front() == std::pair<std::int64_t, std::int64_t>(0, fileSize),
          "from start to end");
}

void CheckInfo(const PlaceholderWinCF& placeholder, const std::string& answer) {
  constexpr std::size_t kIdentityAt = offsetof(CF_PLACEHOLDER_STANDARD_INFO, FileIdentity);
  const PlaceholderInfoWinCF info(&placeholder);
  Require(info.IsValid() == !answer.empty(), "an answer is valid");
  if (answer.empty()) {
    Require(info.FileIdentity().empty() && info.OnDiskDataSize() == 0, "no answer is nothing");
    return;
  }
  std::string padded = answer;
  padded.resize(kIdentityAt + std::size_t{CF_PLACEHOLDER_MAX_FILE_IDENTITY_LENGTH} + 256);
  CF_PLACEHOLDER_STANDARD_INFO told;
  std::memcpy(&told, padded.data(), sizeof told);
  Require(info.OnDiskDataSize() == told.OnDiskDataSize.QuadPart, "the size is the answer's");
  Require(info.PinState() == told.PinState && info.InSyncState() == told.InSyncState,
          "the states are the answer's");
  const std::string_view identity = info.FileIdentity();
  if (told.FileIdentityLength <= CF_PLACEHOLDER_MAX_FILE_IDENTITY_LENGTH) {
    Require(identity.size() == told.FileIdentityLength, "a possible length is believed");
  } else {
    Require(identity.size() >= CF_PLACEHOLDER_MAX_FILE_IDENTITY_LENGTH, "the rest is not lost");
  }
  Require(padded.compare(kIdentityAt, identity.size(), identity) == 0, "the identity's bytes");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  nimbra_native::Feed feed(data, size);
  nimbra_native::Windows() = {};
  FakeCloud cloud;
  PlaceholderMetaWinCF meta;
  meta.isEmpty = false;
  meta.isDirectory = feed.TakeBool();
  for (auto* number : {&meta.creationTime, &meta.lastAccessTime, &meta.lastWriteTime,
                       &meta.changeTime, &meta.fileSize}) {
    *number = feed.Take<std::int64_t>();
  }
  const std::string identity = feed.TakeStretched(4096);
  const std::string path = feed.TakeText(32767);
  cloud.placeholderInfo = feed.TakeStretched(5000) + feed.TakeRest();

  PlaceholderWinCF placeholder(path);
  Require(placeholder.Create(meta, identity) && !placeholder.IsOpen(), "creating succeeds");
  Require(cloud.created.size() == 1, "one placeholder is created");
  const auto& call = cloud.created.front();
  Require(call.identity == identity, "the identity is handed over whole");
  CheckMetadata(meta, call.metadata);
  CheckDivision(path, call);
  CheckHydration(cloud, meta.fileSize);

  Require(placeholder.Open(), "it opens");
  Require(nimbra_native::Windows().fileOpened == ReferenceToUtf16(path), "the path is opened");
  CheckInfo(placeholder, cloud.placeholderInfo);
  return 0;
}
