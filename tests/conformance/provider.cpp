#include "provider.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace conformance {
namespace {

std::string Copy(LPCVOID bytes, DWORD length) {
  return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), length);
}

std::wstring Copy(PCWSTR text) { return text == nullptr ? std::wstring() : std::wstring(text); }

Event CopyOf(CF_CALLBACK_TYPE type, const CF_CALLBACK_INFO& info,
             const CF_CALLBACK_PARAMETERS& parameters) {
  Event event;
  event.type = type;
  event.info = info;
  event.parameters = parameters;
  event.path = Copy(info.NormalizedPath);
  event.volumeDosName = Copy(info.VolumeDosName);
  event.rootIdentity = Copy(info.SyncRootIdentity, info.SyncRootIdentityLength);
  event.fileIdentity = Copy(info.FileIdentity, info.FileIdentityLength);
  if (info.ProcessInfo != nullptr) {
    event.hasProcess = true;
    event.process = *info.ProcessInfo;
    event.imagePath = Copy(info.ProcessInfo->ImagePath);
    event.commandLine = Copy(info.ProcessInfo->CommandLine);
  }
  if (type == CF_CALLBACK_TYPE_NOTIFY_RENAME) event.otherPath = Copy(parameters.Rename.TargetPath);
  if (type == CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION) {
    event.otherPath = Copy(parameters.RenameCompletion.SourcePath);
  }
  return event;
}

}  // namespace

LARGE_INTEGER Large(std::int64_t value) {
  LARGE_INTEGER large;
  large.QuadPart = value;
  return large;
}

char ServerByte(const std::string& identity, std::int64_t position) {
  const auto at = static_cast<std::uint64_t>(position);
  const auto seed = static_cast<unsigned char>(identity.empty() ? 0 : identity.back());
  return static_cast<char>((at * 31 + (at >> 8) * 17 + (at >> 16) * 7 + seed) & 0xFF);
}

std::string ServerBytes(const std::string& identity, std::int64_t offset, std::int64_t length) {
  std::string bytes(static_cast<std::size_t>(length), '\0');
  for (std::int64_t i = 0; i < length; ++i) {
    bytes[static_cast<std::size_t>(i)] = ServerByte(identity, offset + i);
  }
  return bytes;
}

CF_OPERATION_INFO AnswerTo(const Event& event, CF_OPERATION_TYPE type) {
  CF_OPERATION_INFO operation{};
  operation.StructSize = sizeof operation;
  operation.Type = type;
  operation.ConnectionKey = event.info.ConnectionKey;
  operation.TransferKey = event.info.TransferKey;
  operation.RequestKey = event.info.RequestKey;
  return operation;
}

template <CF_CALLBACK_TYPE type>
void CALLBACK Provider::Callback(const CF_CALLBACK_INFO* info,
                                 const CF_CALLBACK_PARAMETERS* parameters) {
  static_cast<Provider*>(info->CallbackContext)->Receive(CopyOf(type, *info, *parameters));
}

Provider::~Provider() { Disconnect(); }

HRESULT Provider::Connect(const std::wstring& root, CF_CONNECT_FLAGS flags) {
  static const CF_CALLBACK_REGISTRATION kTable[] = {
      {CF_CALLBACK_TYPE_FETCH_DATA, Callback<CF_CALLBACK_TYPE_FETCH_DATA>},
      {CF_CALLBACK_TYPE_CANCEL_FETCH_DATA, Callback<CF_CALLBACK_TYPE_CANCEL_FETCH_DATA>},
      {CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE, Callback<CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE>},
      {CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE_COMPLETION,
       Callback<CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE_COMPLETION>},
      {CF_CALLBACK_TYPE_NOTIFY_DELETE, Callback<CF_CALLBACK_TYPE_NOTIFY_DELETE>},
      {CF_CALLBACK_TYPE_NOTIFY_DELETE_COMPLETION,
       Callback<CF_CALLBACK_TYPE_NOTIFY_DELETE_COMPLETION>},
      {CF_CALLBACK_TYPE_NOTIFY_RENAME, Callback<CF_CALLBACK_TYPE_NOTIFY_RENAME>},
      {CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION,
       Callback<CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION>},
      {CF_CALLBACK_TYPE_NONE, nullptr},
  };
  const HRESULT result = CfConnectSyncRoot(root.c_str(), kTable, this, flags, &key_);
  connected_ = SUCCEEDED(result);
  return result;
}

HRESULT Provider::Disconnect() {
  if (!std::exchange(connected_, false)) return S_OK;
  return CfDisconnectSyncRoot(key_);
}

void Provider::OnFetch(Handler handler) {
  const std::scoped_lock lock(mutex_);
  onFetch_ = std::move(handler);
}

std::optional<Event> Provider::WaitFor(CF_CALLBACK_TYPE type, std::size_t nth,
                                       std::chrono::milliseconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  std::unique_lock lock(mutex_);
  for (;;) {
    std::size_t seen = 0;
    for (const auto& event : events_) {
      if (event.type == type && seen++ == nth) return event;
    }
    if (changed_.wait_until(lock, end) == std::cv_status::timeout) return std::nullopt;
  }
}

std::vector<Event> Provider::Events(CF_CALLBACK_TYPE type) {
  const std::scoped_lock lock(mutex_);
  std::vector<Event> found;
  std::copy_if(events_.begin(), events_.end(), std::back_inserter(found),
               [&](const Event& event) { return event.type == type; });
  return found;
}

int Provider::MostAtOnce() {
  const std::scoped_lock lock(mutex_);
  return mostAtOnce_;
}

HRESULT Provider::Transfer(const Event& event, std::int64_t offset, const std::string& data) {
  const CF_OPERATION_INFO operation = AnswerTo(event, CF_OPERATION_TYPE_TRANSFER_DATA);
  CF_OPERATION_PARAMETERS parameters = Sized(CF_OPERATION_PARAMETERS::TransferDataArm{});
  parameters.TransferData.Buffer = data.data();
  parameters.TransferData.Offset = Large(offset);
  parameters.TransferData.Length = Large(static_cast<std::int64_t>(data.size()));
  return CfExecute(&operation, &parameters);
}

HRESULT Provider::Serve(const Event& event) {
  const auto offset = event.parameters.FetchData.RequiredFileOffset.QuadPart;
  const auto length = event.parameters.FetchData.RequiredLength.QuadPart;
  return Transfer(event, offset, ServerBytes(event.fileIdentity, offset, length));
}

HRESULT Provider::Fail(const Event& event, NTSTATUS status) {
  const CF_OPERATION_INFO operation = AnswerTo(event, CF_OPERATION_TYPE_TRANSFER_DATA);
  CF_OPERATION_PARAMETERS parameters = Sized(CF_OPERATION_PARAMETERS::TransferDataArm{});
  parameters.TransferData.CompletionStatus = status;
  parameters.TransferData.Offset = event.parameters.FetchData.RequiredFileOffset;
  parameters.TransferData.Length = event.parameters.FetchData.RequiredLength;
  return CfExecute(&operation, &parameters);
}

void Provider::Receive(const Event& event) {
  Handler handler;
  {
    const std::scoped_lock lock(mutex_);
    mostAtOnce_ = std::max(mostAtOnce_, ++running_);
    events_.push_back(event);
    if (event.type == CF_CALLBACK_TYPE_FETCH_DATA) handler = onFetch_;
  }
  changed_.notify_all();
  if (handler) {
    handler(event);
  } else {
    AnswerAsUsual(event);
  }
  const std::scoped_lock lock(mutex_);
  --running_;
}

// The results do not matter here: what the answers bring about is what tests look at.
void Provider::AnswerAsUsual(const Event& event) {
  CF_OPERATION_PARAMETERS parameters{};
  CF_OPERATION_INFO operation{};
  switch (event.type) {
    case CF_CALLBACK_TYPE_FETCH_DATA:
      static_cast<void>(Serve(event));
      return;
    case CF_CALLBACK_TYPE_NOTIFY_DEHYDRATE:
      operation = AnswerTo(event, CF_OPERATION_TYPE_ACK_DEHYDRATE);
      parameters = Sized(parameters.AckDehydrate);
      break;
    case CF_CALLBACK_TYPE_NOTIFY_DELETE:
      operation = AnswerTo(event, CF_OPERATION_TYPE_ACK_DELETE);
      parameters = Sized(parameters.AckDelete);
      break;
    case CF_CALLBACK_TYPE_NOTIFY_RENAME:
      operation = AnswerTo(event, CF_OPERATION_TYPE_ACK_RENAME);
      parameters = Sized(parameters.AckRename);
      break;
    default:
      return;
  }
  static_cast<void>(CfExecute(&operation, &parameters));
}

}  // namespace conformance
