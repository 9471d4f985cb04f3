// The two sides of a schedule: the platform that calls back, and the client that answers.

#include <algorithm>
#include <utility>

#include "tests/stress/schedule-facts.h"
#include "tests/stress/schedule.h"
#include "tests/support/heap-watch.h"

namespace nimbra_stress {
namespace {

constexpr HRESULT kCancelled = static_cast<HRESULT>(0x8007018E);
constexpr HRESULT kDiskFull = static_cast<HRESULT>(0x80070070);

enum Kind { kFetch = 1, kCancel = 2, kDelete = 3, kRename = 4, kRenameCompletion = 5 };

int KindOf(CF_CALLBACK_TYPE type) {
  switch (type) {
    case CF_CALLBACK_TYPE_FETCH_DATA:
      return kFetch;
    case CF_CALLBACK_TYPE_NOTIFY_DELETE:
      return kDelete;
    case CF_CALLBACK_TYPE_NOTIFY_RENAME:
      return kRename;
    default:
      return kRenameCompletion;
  }
}

std::string IdentityOf(int request) { return "identity of request " + std::to_string(request); }

}  // namespace

// What the platform does

Schedule::Root* Schedule::RootWithKey(std::int64_t key) {
  const auto number = static_cast<std::size_t>(key - kKeyBase);
  return number < roots_.size() ? roots_[number].get() : nullptr;
}

Schedule::Request* Schedule::RequestWithKey(std::int64_t transferKey) {
  const auto number = static_cast<std::size_t>(transferKey - 1);
  return number < requests_.size() ? requests_[number].get() : nullptr;
}

void Schedule::Deliver(Request& request, bool cancel) {
  auto& root = *request.root;
  nimbra_test::CallbackEvent event;
  event.type = cancel ? CF_CALLBACK_TYPE_CANCEL_FETCH_DATA : request.type;
  event.syncRootIdentity = "Corvane.Drive.FileStreaming.session." +
                           (request.readable ? std::to_string(root.session) : "none");
  event.fileIdentity = IdentityOf(request.number);
  event.connectionKey = root.key;
  event.transferKey = request.number + 1;
  event.fileId = request.number + 1000;
  event.requiredOffset = kOwnOffset + request.number * kPage;
  event.requiredLength = kPage;
  CF_CALLBACK callback = nullptr;
  {
    const std::lock_guard lock(model_);
    request.delivered = request.delivered || (!cancel && !root.open);
    if (!root.open) {
      ++counts.dropped;
      return;
    }
    for (const auto& entry : translators_) {
      callback = entry.Type == event.type ? entry.Callback : callback;
    }
    request.cancelled = request.cancelled || cancel;
    ++request.events;
    request.fetches += !cancel && request.type == CF_CALLBACK_TYPE_FETCH_DATA ? 1 : 0;
    ++root.inFlight;
  }
  if (callback != nullptr) {
    nimbra_test::Deliver(callback, root.context, event);
  }
  const std::lock_guard lock(model_);
  request.delivered = request.delivered || !cancel;
  --root.inFlight;
}

HRESULT Schedule::Decide(const Root* root, const Request* request) const {
  if (root == nullptr || request == nullptr || !root->open) {
    return E_INVALIDARG;
  }
  return request->cancelled ? kCancelled : S_OK;
}

HRESULT WINAPI Schedule::Execute(const CF_OPERATION_INFO* info,
                                 CF_OPERATION_PARAMETERS* parameters) {
  auto& self = *current_;
  self.scheduler_.Switch("entering CfExecute");
  HRESULT result = S_OK;
  {
    const std::lock_guard lock(self.model_);
    auto* const request = self.RequestWithKey(info->TransferKey.QuadPart);
    result = self.Decide(self.RootWithKey(info->ConnectionKey.Internal), request);
    if (info->Type == CF_OPERATION_TYPE_TRANSFER_DATA) {
      self.decided_[parameters->TransferData.Offset.QuadPart] = result;
    }
    self.recording_.CfExecute(info, parameters);
  }
  self.scheduler_.Switch("leaving CfExecute");
  return result;
}

HRESULT WINAPI Schedule::Report(CF_CONNECTION_KEY connection, CF_TRANSFER_KEY transfer,
                                LARGE_INTEGER total, LARGE_INTEGER completed) {
  auto& self = *current_;
  self.scheduler_.Switch("in CfReportProviderProgress");
  return self.recording_.CfReportProviderProgress(connection, transfer, total, completed);
}

// Waits, as the platform does, for the callbacks that are under way.
HRESULT WINAPI Schedule::Disconnect(CF_CONNECTION_KEY connection) {
  auto& self = *current_;
  self.scheduler_.Switch("entering CfDisconnectSyncRoot");
  auto* const root = self.RootWithKey(connection.Internal);
  {
    const std::lock_guard lock(self.model_);
    if (root == nullptr || !root->open) {
      return E_INVALIDARG;
    }
    root->open = false;
  }
  self.scheduler_.WaitUntil("in CfDisconnectSyncRoot", [&] {
    const std::lock_guard lock(self.model_);
    return root->inFlight == 0;
  });
  return self.recording_.CfDisconnectSyncRoot(connection);
}

HRESULT WINAPI Schedule::Hydrate(HANDLE file, LARGE_INTEGER offset, LARGE_INTEGER length,
                                 CF_HYDRATE_FLAGS flags, LPOVERLAPPED overlapped) {
  auto& self = *current_;
  self.scheduler_.Switch("entering CfHydratePlaceholder");
  int choice = 0;
  {
    const std::lock_guard lock(self.model_);
    choice = self.random_.Between(0, 2);
    self.recording_.CfHydratePlaceholder(file, offset, length, flags, overlapped);
    if (choice == 0) {
      overlapped->Internal = static_cast<ULONG_PTR>(STATUS_PENDING);
      self.pending_.push_back(overlapped);
    }
  }
  self.scheduler_.Switch("leaving CfHydratePlaceholder");
  const HRESULT results[] = {HRESULT_FROM_WIN32(ERROR_IO_PENDING), S_OK, kDiskFull};
  return results[choice];
}

void Schedule::CompleteOne() {
  OVERLAPPED* record = nullptr;
  {
    const std::lock_guard lock(model_);
    if (pending_.empty()) {
      return;
    }
    std::swap(random_.Pick(pending_), pending_.back());
    record = pending_.back();
    pending_.pop_back();
    Expect(nimbra_test::HeapWatch::IsAllocated(record), "a pending request keeps its record");
  }
  scheduler_.Switch("completing a request");
  nimbra_test::RecordingCloud::Complete(record);
}

// What the client does

Schedule& Schedule::Of(const CORVWinCFCallbackRecord& record) {
  return *static_cast<Root*>(record.context)->schedule;
}

template <int Kind>
void Schedule::Receive(const CORVWinCFCallbackRecord* record) {
  Of(*record).TakeCallback(*record, Kind);
}

void SetCallbacks(CORVWinCFCallbackDelegatorHandle delegator) {
  using S = Schedule;
  CORVWinCFCallbackDelegatorSetFetchCallback(delegator, S::Receive<kFetch>);
  CORVWinCFCallbackDelegatorSetFetchCancelCallback(delegator, S::Receive<kCancel>);
  CORVWinCFCallbackDelegatorSetDeleteCallback(delegator, S::Receive<kDelete>);
  CORVWinCFCallbackDelegatorSetRenameCallback(delegator, S::Receive<kRename>);
  CORVWinCFCallbackDelegatorSetRenameCompletionCallback(delegator, S::Receive<kRenameCompletion>);
}

void Schedule::TakeCallback(const CORVWinCFCallbackRecord& record, int kind) {
  const auto& root = *static_cast<const Root*>(record.context);
  const auto key = record.transferKey;
  auto* const request = RequestWithKey(key);
  if (request == nullptr || request->root != &root) {
    return Expect(false, "a callback names a request of its root");
  }
  {
    const std::lock_guard lock(model_);
    ++counts.callbacks;
    ++request->callbacks;
    request->delivered = request->delivered || kind == kFetch;
    Expect(!root.disconnected, "nothing calls the client once disconnecting has returned");
    Expect(request->readable, "an event that cannot be read does not reach the client");
    Expect(kind == kCancel || kind == KindOf(request->type), "an event reaches its own callback");
    Expect(record.sessionNumber == static_cast<std::int64_t>(root.session), "the session is right");
  }
  if (kind == kFetch && request->answeredInside) {
    for (const auto& sending : sendings_) {
      if (sending->request == request) {
        Send(*sending);
      }
    }
  }
  scheduler_.Switch("in the client's callback");
  // The record is the callback's own, whatever else happened meanwhile.
  Expect(record.transferKey == key && record.fileId == request->number + 1000 &&
             IdentityOf(request->number) == record.fileIdentity &&
             std::string(record.fullPath) == R"(C:\Sync\file.txt)",
         "a record stays as it is during its callback");
}

void Schedule::Send(Sending& sending) {
  auto& root = *sending.request->root;
  const std::string before = sending.data;
  const std::int64_t offset = sending.number * kPage;
  const bool good = sending.status == 0;
  sending.result = CORVWinCFSyncRootTransferData(
      root.handle, sending.request->number + 1, 0, good ? sending.data.data() : nullptr, offset,
      static_cast<std::int64_t>(sending.data.size()), sending.status);
  Expect(sending.data == before, "the client's data is only read");
  const std::lock_guard lock(model_);
  sending.called = true;
}

void Schedule::ReportProgress(Request& request) {
  int number = 0;
  {
    const std::lock_guard lock(model_);
    number = ++reports_;
  }
  const auto result = CORVWinCFSyncRootReportTransferProgress(
      request.root->handle, request.number + 1, 1'000'000, number);
  Expect(result == S_OK, "the platform's result of a report comes back");
}

void Schedule::Acknowledge(Request& request) {
  {
    const std::lock_guard lock(model_);
    ++acknowledged_[request.number];
  }
  if (request.type == CF_CALLBACK_TYPE_NOTIFY_RENAME) {
    CORVWinCFSyncRootAckRename(request.root->handle, request.number + 1);
  } else {
    CORVWinCFSyncRootAckDelete(request.root->handle, request.number + 1, 0, 1);
  }
}

// The placeholder object goes while its request is pending.
void Schedule::HydrateAndLetGo() {
  CORVWinCFPlaceholderHandle placeholder = nullptr;
  Expect(CORVWinCFPlaceholderNew(&placeholder, placeholderPath_.c_str()) == 0, "one is made");
  Expect(CORVWinCFPlaceholderOpen(placeholder) == 0, "a placeholder can be opened");
  CORVWinCFPlaceholderHydrateAllAsync(placeholder);
  scheduler_.Switch("after a hydration began");
  CORVWinCFPlaceholderRelease(placeholder);
  const std::lock_guard lock(model_);
  ++counts.hydrations;
}

void Schedule::DisconnectRoot(Root& root) {
  const auto result = CORVWinCFSyncRootDisconnect(root.handle);
  Expect(result == S_OK, "the platform's result of a disconnect comes back");
  CORVWinCFCallbackDelegatorHandle delegator = nullptr;
  {
    const std::lock_guard lock(model_);
    root.disconnected = true;
    ++counts.disconnects;
    delegator = std::exchange(root.delegator, nullptr);
  }
  CORVWinCFCallbackDelegatorRelease(delegator);
}

// The handle goes when no call to come needs it. Callbacks may still be under way: they do not.
void Schedule::ReleaseRoot(Root& root) {
  scheduler_.WaitUntil("waiting for the users of a root", [&] {
    const std::lock_guard lock(model_);
    return root.users == 0;
  });
  CORVWinCFSyncRootRelease(&root.handle);
  root.handle = nullptr;
}

}  // namespace nimbra_stress
