#ifndef NIMBRA_TESTS_SUPPORT_RECORDING_CLOUD_H_
#define NIMBRA_TESTS_SUPPORT_RECORDING_CLOUD_H_

#include <windows.h>

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "common/cldapi-table.h"
#include "common/cloud-files.h"
#include "tests/support/callback-event.h"
#include "tests/support/cloud-calls.h"
#include "tests/support/cloud-facts.h"

namespace nimbra_test {

inline constexpr HRESULT kAccessDenied = static_cast<HRESULT>(0x80070005);
inline constexpr HRESULT kIoPending = static_cast<HRESULT>(0x800703E5);
inline constexpr HRESULT kNotACloudFile = static_cast<HRESULT>(0x80070178);
inline constexpr HRESULT kNotUnderSyncRoot = static_cast<HRESULT>(0x80070186);

// Stands in for the whole platform for the object's lifetime: records every call and answers as the
// test said. Every function succeeds unless told otherwise; where a successful call needs outputs,
// the facts below are given. Any thread may call. One object at a time.
class RecordingCloud {
 public:
  RecordingCloud();
  ~RecordingCloud();
  RecordingCloud(const RecordingCloud&) = delete;
  RecordingCloud& operator=(const RecordingCloud&) = delete;

  // The calls so far, in order.
  std::vector<CloudCall> Calls() const;
  // Their names, for the order of a whole operation.
  std::vector<std::string> CallNames() const;
  template <typename Call>
  std::vector<Call> CallsOf() const {
    std::vector<Call> found;
    for (const CloudCall& call : Calls()) {
      if (const Call* match = std::get_if<Call>(&call)) {
        found.push_back(*match);
      }
    }
    return found;
  }
  // The only call of that function; throws std::logic_error when there were none or several.
  template <typename Call>
  Call Only() const {
    auto calls = CallsOf<Call>();
    RequireOne(calls.size());
    return calls.front();
  }
  void Clear();

  // Results of the functions that have an HRESULT. The n-th call from now on (1 = the next one)
  // gives `result`; Always sets what every other call gives.
  void FailNext(CloudFunction function, HRESULT result) { ResultOnCall(function, 1, result); }
  void ResultOnCall(CloudFunction function, int n, HRESULT result);
  void Always(CloudFunction function, HRESULT result);

  // Runs at the start of every call of that function, after it was recorded, on its thread.
  void OnCall(CloudFunction function, std::function<void()> action);

  // Outputs.
  void SetPlaceholder(const PlaceholderFacts& facts);
  void SetSyncRoot(const SyncRootFacts& facts);
  void SetPlatform(const CF_PLATFORM_INFO& info);
  void SetConnectionKey(std::int64_t key);
  void SetTransferKey(std::int64_t key);
  // The Result that CfCreatePlaceholders writes into each entry.
  void SetEntryResult(HRESULT result);
  void SetFindDataState(CF_PLACEHOLDER_STATE state);
  // What CfReferenceProtectedHandle gives, and the handle behind a protected one (by default the
  // same handle).
  void SetReferenceResult(BOOLEAN result);
  void SetWin32Handle(std::optional<HANDLE> handle);
  // The size of the buffers that transfers use, for ExecuteCall::zeroBytesAfter.
  void SetTransferBufferSize(std::int64_t size);
  // Requests with an OVERLAPPED answer kIoPending and stay pending (Internal = STATUS_PENDING)
  // until Complete.
  void LeaveOverlappedPending(bool pending);
  static void Complete(OVERLAPPED* overlapped, std::int32_t status = 0);

  // Plays a callback through the table and context of the last successful connection, on the
  // calling thread. False when the table has no entry of the event's type.
  bool Play(const CallbackEvent& event);
  // The same with another context.
  bool Play(const CallbackEvent& event, void* context);

 private:
  static void RequireOne(std::size_t count);

  // Recording functions of the table; see the source file.
  struct Table;

  // Records the call, runs its action and gives its result.
  HRESULT Enter(CloudCall call);
  HRESULT EnterOverlapped(CloudCall call, OVERLAPPED* overlapped);
  HRESULT TakeResult(CloudFunction function);

  static RecordingCloud* current_;

  mutable std::mutex mutex_;
  std::vector<CloudCall> calls_;
  std::map<CloudFunction, int> counts_;
  std::map<std::pair<CloudFunction, int>, HRESULT> results_;
  std::map<CloudFunction, HRESULT> defaults_;
  std::map<CloudFunction, std::function<void()>> actions_;

  PlaceholderFacts placeholder_;
  SyncRootFacts syncRoot_;
  CF_PLATFORM_INFO platform_{};
  std::int64_t connectionKey_ = 0x1122334455667788;
  std::int64_t transferKey_ = 0x5152535455565758;
  HRESULT entryResult_ = S_OK;
  CF_PLACEHOLDER_STATE findDataState_ = CF_PLACEHOLDER_STATE_NO_STATES;
  BOOLEAN referenceResult_ = TRUE;
  std::optional<HANDLE> win32Handle_;
  std::int64_t transferBufferSize_ = 0;
  bool overlappedPending_ = false;

  std::vector<CF_CALLBACK_REGISTRATION> connectedTable_;
  void* connectedContext_ = nullptr;

  corvdrive::cloud_filter::CldApi table_{};
  const corvdrive::cloud_filter::CldApi* previous_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_RECORDING_CLOUD_H_
