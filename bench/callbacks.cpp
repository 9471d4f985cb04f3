// What it costs to hand an event of the platform to the client's callback, beside the least that
// the same conversions take, on one thread and on several at once.

#include <windows.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "bench/harness/allocations.h"
#include "bench/harness/families.h"
#include "bench/harness/least-translator.h"
#include "bench/harness/null-cloud.h"
#include "bench/harness/report.h"
#include "common/version-flags.h"
#include "nimbra/nimbra.h"
#include "tests/support/sync-root-handles.h"

namespace nimbra_bench {
namespace {

// Operations that are timed together: far fewer than a thread does before it is interrupted.
constexpr std::size_t kChunk = 32;

void OnEvent(const CORVWinCFCallbackRecord*) {}

// An event as the platform would tell it.
struct Event {
  std::string rootIdentity = "Corvane.Drive.FileStreaming.session.12";
  std::string identity = "3f0c5a52-7d0e-4a39-9a11-6b2f3f1d8e77";
  CF_PROCESS_INFO process{};
  CF_CALLBACK_INFO info{};
  CF_CALLBACK_PARAMETERS parameters{};
  CF_CALLBACK_TYPE type;

  explicit Event(CF_CALLBACK_TYPE eventType) : type(eventType) {
    process.StructSize = sizeof process;
    process.ProcessId = 4711;
    process.ImagePath = L"\\Device\\HarddiskVolume3\\Program Files\\Editor\\bin\\editor.exe";
    info.StructSize = sizeof info;
    info.CallbackContext = NullCloud::CallbackContext();
    info.VolumeGuidName = L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\";
    info.VolumeDosName = L"C:";
    info.SyncRootIdentity = rootIdentity.data();
    info.SyncRootIdentityLength = static_cast<DWORD>(rootIdentity.size());
    info.FileIdentity = identity.data();
    info.FileIdentityLength = static_cast<DWORD>(identity.size());
    info.NormalizedPath = L"\\Users\\someone\\Drive\\Documents\\2026\\Quarterly report.docx";
    info.TransferKey.QuadPart = 77;
    info.ProcessInfo = &process;
    SetParameters();
  }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

 private:
  void SetParameters() {
    parameters.ParamSize = sizeof parameters;
    if (type == CF_CALLBACK_TYPE_FETCH_DATA) {
      parameters.FetchData.RequiredLength.QuadPart = 4096;
    } else if (type == CF_CALLBACK_TYPE_CANCEL_FETCH_DATA) {
      parameters.Cancel.FetchData.Length.QuadPart = 4096;
    } else if (type == CF_CALLBACK_TYPE_NOTIFY_RENAME) {
      parameters.Rename.Flags =
          CF_CALLBACK_RENAME_FLAG_SOURCE_IN_SCOPE | CF_CALLBACK_RENAME_FLAG_TARGET_IN_SCOPE;
      parameters.Rename.TargetPath = L"\\Users\\someone\\Drive\\Documents\\2026\\Report 1.docx";
    }
  }
};

// The times of one thread's operations, a few at a time.
template <typename Operation>
std::vector<double> TimeInChunks(std::size_t times, const Operation& operation) {
  std::vector<double> perOperation;
  for (std::size_t done = 0; done < times; done += kChunk) {
    const auto begun = Clock::now();
    for (std::size_t i = 0; i < kChunk; ++i) {
      operation();
    }
    perOperation.push_back(NanosecondsSince(begun) / kChunk);
  }
  return perOperation;
}

// A batch of so many operations on each of several threads at once. Its time is what an operation
// takes in the middle one of all threads' chunks: so it stays the same where nothing waits for
// another thread's operation, however many threads share a processor.
template <typename Operation>
Batch RepeatOnThreads(int count, Operation operation) {
  return [count, operation](std::size_t times) {
    std::atomic<int> waiting = count;
    std::vector<std::vector<double>> parts(static_cast<std::size_t>(count));
    std::vector<std::jthread> threads;
    for (std::vector<double>& part : parts) {
      threads.emplace_back([&waiting, &part, &operation, times] {
        --waiting;
        while (waiting > 0) {
          std::this_thread::yield();
        }
        part = TimeInChunks(times, operation);
      });
    }
    threads.clear();
    std::vector<double> all;
    for (const std::vector<double>& part : parts) {
      all.insert(all.end(), part.begin(), part.end());
    }
    return Median(std::move(all)) * static_cast<double>(times);
  };
}

// Of a run with several threads.
constexpr std::size_t kTimesPerThread = 1600;
constexpr std::size_t kMostRounds = 9;

constexpr double kMostRatio = 1.25;
constexpr double kMostAllocations = 2;

void MeasureEvent(const Settings& settings, const std::string& name, CF_CALLBACK_TYPE type) {
  const Event event(type);
  const CF_CALLBACK callback = NullCloud::Callback(type);
  const auto dispatch = [&event, callback] { callback(&event.info, &event.parameters); };
  const auto least = [&event] {
    TranslateLeast(event.type, event.info, event.parameters, OnEvent);
  };
  const std::vector<int> counts = settings.isQuick ? std::vector{1, 2} : std::vector{1, 2, 4, 8};
  for (const int threads : counts) {
    Effort effort = settings.Short();
    effort.leastTimes = effort.mostTimes = settings.isQuick ? kChunk : kTimesPerThread;
    effort.rounds = std::min(effort.rounds, kMostRounds);
    Row row;
    row.family = "callbacks";
    row.group = name;
    row.name = name + ", " + std::to_string(threads) + (threads == 1 ? " thread" : " threads");
    row.times =
        Compare(effort, RepeatOnThreads(threads, least), RepeatOnThreads(threads, dispatch));
    row.limits = {{"ratio", kMostRatio}};
    if (threads == 1) {
      row.allocations = AllocationsOf(dispatch);
      row.baselineAllocations = AllocationsOf(least);
      row.limits.push_back({"allocations", kMostAllocations});
    }
    row.more = {{"threads", threads}};
    Write(row);
  }
}

}  // namespace

void MeasureCallbacks(const Settings& settings) {
  const NullCloud cloud;
  // Deletes are announced on that build only.
  corvdrive::cloud_filter::disableUIFileStreamingOption = 1;
  const nimbra_test::SyncRoot root;
  const nimbra_test::Delegator delegator;
  CORVWinCFCallbackDelegatorSetFetchCallback(delegator.Get(), OnEvent);
  CORVWinCFCallbackDelegatorSetFetchCancelCallback(delegator.Get(), OnEvent);
  CORVWinCFCallbackDelegatorSetDeleteCallback(delegator.Get(), OnEvent);
  CORVWinCFCallbackDelegatorSetRenameCallback(delegator.Get(), OnEvent);
  CORVWinCFCallbackDelegatorSetRenameCompletionCallback(delegator.Get(), OnEvent);
  CORVWinCFSyncRootConnect(root.Get(), delegator.Get());
  MeasureEvent(settings, "fetch", CF_CALLBACK_TYPE_FETCH_DATA);
  MeasureEvent(settings, "cancel", CF_CALLBACK_TYPE_CANCEL_FETCH_DATA);
  MeasureEvent(settings, "delete", CF_CALLBACK_TYPE_NOTIFY_DELETE);
  MeasureEvent(settings, "rename", CF_CALLBACK_TYPE_NOTIFY_RENAME);
  MeasureEvent(settings, "rename completion", CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION);
  CORVWinCFSyncRootDisconnect(root.Get());
}

}  // namespace nimbra_bench
