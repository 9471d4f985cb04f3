// Callbacks of the platform with anything in them: the client sees all of it, nothing is cut or
// overrun, and what cannot be told to the client is answered.

#include <stdexcept>

#include "common/session-number.h"
#include "fake-cloud.h"
#include "feed.h"
#include "platform-event.h"
#include "reference-text.h"
#include "windows-stand-in.h"

namespace {

using corvdrive::cloud_filter::CallbackDelegatorWinCF;
using corvdrive::cloud_filter::kSessionPrefix;
using corvdrive::cloud_filter::ParseSessionNumber;
using nimbra_native::Feed;
using nimbra_native::PlatformEvent;
using nimbra_native::ReferenceToUtf8;
using nimbra_native::Require;

struct Kind {
  CF_CALLBACK_TYPE type;
  corvdrive::cloud_filter::CallbackKind kind;
};
constexpr Kind kKinds[] = {
    {CF_CALLBACK_TYPE_FETCH_DATA, corvdrive::cloud_filter::kFetchData},
    {CF_CALLBACK_TYPE_CANCEL_FETCH_DATA, corvdrive::cloud_filter::kFetchCancel},
    {CF_CALLBACK_TYPE_NOTIFY_RENAME, corvdrive::cloud_filter::kRename},
    {CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION, corvdrive::cloud_filter::kRenameCompletion},
    {CF_CALLBACK_TYPE_NOTIFY_DELETE, corvdrive::cloud_filter::kDelete},
};

// The callback has no other way to know what it should get.
const PlatformEvent* sent = nullptr;
int callbackCount = 0;

std::optional<std::u16string> TakeText(Feed& feed) {
  if (feed.Take<std::uint8_t>() % 8 == 7) return std::nullopt;
  const std::string bytes = feed.TakeStretched(std::size_t{32767} * 2);
  std::u16string units(bytes.size() / 2, u'\0');
  if (!units.empty()) std::memcpy(units.data(), bytes.data(), units.size() * 2);
  return units;
}

std::string TakeRootIdentity(Feed& feed) {
  const auto choice = feed.Take<std::uint8_t>();
  if (choice % 4 == 0) return feed.TakeStretched(64480);
  return std::string(kSessionPrefix) + feed.TakeBytes(choice % 16U);
}

PlatformEvent TakeEvent(Feed& feed) {
  PlatformEvent event;
  event.flags = feed.Take<std::uint8_t>();
  event.hasProcess = feed.Take<std::uint8_t>() % 8 != 7;
  event.processId = feed.Take<std::uint32_t>();
  event.transferKey = feed.Take<std::int64_t>();
  event.fileId = feed.Take<std::int64_t>();
  event.connectionKey = feed.Take<std::int64_t>();
  for (auto& number : event.range) number = feed.Take<std::int64_t>();
  event.rootIdentity = TakeRootIdentity(feed);
  if (feed.Take<std::uint8_t>() % 8 != 7) event.fileIdentity = feed.TakeStretched(4096);
  event.volume = TakeText(feed);
  event.path = TakeText(feed);
  event.otherPath = TakeText(feed);
  event.image = TakeText(feed);
  return event;
}

std::string Utf8(const std::optional<std::u16string>& text) {
  return text ? ReferenceToUtf8(*text) : std::string();
}

void CheckImagePath(const CORVWinCFCallbackRecord& record) {
  const std::string expected = sent->hasProcess ? Utf8(sent->image) : std::string();
  const std::size_t size = std::max<std::size_t>(expected.size() + 1, 260);
  const std::string whole(record.imagePath, size);
  Require(whole.substr(0, expected.size()) == expected, "the image path is complete");
  Require(whole.find_first_not_of('\0', expected.size()) == std::string::npos,
          "the rest of at least 260 bytes is zero");
}

void CheckParameters(const CORVWinCFCallbackRecord& record) {
  const int count = sent->type == CF_CALLBACK_TYPE_FETCH_DATA          ? 4
                    : sent->type == CF_CALLBACK_TYPE_CANCEL_FETCH_DATA ? 2
                                                                       : 0;
  for (int i = 0; i < 4; ++i) {
    Require(record.parameters[i] == (i < count ? sent->range[i] : 0), "the ranges are the event's");
  }
}

void CheckPaths(const CORVWinCFCallbackRecord& record) {
  const std::string volume = Utf8(sent->volume);
  Require(record.fullPath == volume + Utf8(sent->path), "the full path is complete");
  if (sent->type == CF_CALLBACK_TYPE_NOTIFY_RENAME && (sent->flags & 6U) == 6U) {
    Require(record.targetPath == volume + Utf8(sent->otherPath), "the target path is complete");
  } else {
    Require(record.targetPath == nullptr, "only a rename inside the root has a target");
  }
}

void Callback(const CORVWinCFCallbackRecord* record) {
  ++callbackCount;
  const std::string identity = sent->fileIdentity.value_or("");
  Require(std::string(record->fileIdentity, identity.size() + 1) == identity + '\0',
          "the identity is complete, with a zero byte");
  Require(record->sessionNumber == ParseSessionNumber(sent->rootIdentity), "the session's number");
  Require(record->transferKey == sent->transferKey && record->fileId == sent->fileId,
          "the keys are the event's");
  Require(record->context == &callbackCount && record->reserved == 0, "the client's context");
  CheckPaths(*record);
  CheckParameters(*record);
  if (sent->type == CF_CALLBACK_TYPE_CANCEL_FETCH_DATA) {
    Require(record->imagePath == nullptr && record->processId == 0, "a cancel has no process");
  } else {
    CheckImagePath(*record);
    Require(record->processId == (sent->hasProcess ? sent->processId : 0), "the process");
  }
}

bool IsReadable(const std::string& identity) try {
  static_cast<void>(ParseSessionNumber(identity));
  return true;
} catch (const std::exception&) {
  return false;
}

void CheckRefusal(const PlatformEvent& event, const nimbra_native::FakeCloud& cloud) {
  Require(nimbra_native::Windows().debugLines.size() == 1, "a record not built is one line");
  if (event.type != CF_CALLBACK_TYPE_FETCH_DATA) {
    Require(cloud.executed.empty(), "only a fetch is answered");
    return;
  }
  Require(cloud.executed.size() == 1, "a fetch is answered once");
  const auto& [info, parameters, dirtyTail] = cloud.executed.front();
  const auto& transfer = parameters.TransferData;
  Require(info.Type == CF_OPERATION_TYPE_TRANSFER_DATA && info.StructSize == sizeof info &&
              info.ConnectionKey.Internal == event.connectionKey &&
              info.TransferKey.QuadPart == event.transferKey,
          "the answer goes where the fetch came from");
  Require(parameters.ParamSize == 40 && transfer.CompletionStatus < 0 &&
              transfer.Buffer == nullptr && transfer.Offset.QuadPart == event.range[0] &&
              transfer.Length.QuadPart == event.range[1],
          "the required range fails");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Feed feed(data, size);
  nimbra_native::Windows() = {};
  const nimbra_native::FakeCloud cloud;
  const Kind& kind = kKinds[feed.Take<std::uint8_t>() % std::size(kKinds)];
  const auto choice = feed.Take<std::uint8_t>();
  const bool isListening = choice % 8 != 7;
  const bool hasContext = choice % 32 != 31;
  PlatformEvent event = TakeEvent(feed);
  event.type = kind.type;

  const auto delegator = std::make_shared<CallbackDelegatorWinCF>(&callbackCount);
  if (isListening) Require(delegator->SetCallback(kind.kind, Callback), "a callback is taken");
  sent = &event;
  callbackCount = 0;
  event.Send(hasContext ? &delegator : nullptr);

  const bool isReadable = IsReadable(event.rootIdentity);
  Require(callbackCount == (hasContext && isListening && isReadable ? 1 : 0),
          "the client is called once, if it can be");
  if (hasContext && !isReadable) {
    CheckRefusal(event, cloud);
  } else {
    Require(cloud.executed.empty() && nimbra_native::Windows().debugLines.empty(),
            "nothing else happens");
  }
  return 0;
}
