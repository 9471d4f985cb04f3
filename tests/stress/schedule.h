#ifndef NIMBRA_TESTS_STRESS_SCHEDULE_H_
#define NIMBRA_TESTS_STRESS_SCHEDULE_H_

#include <windows.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "common/cldapi-table.h"
#include "nimbra/nimbra.h"
#include "tests/stress/random.h"
#include "tests/stress/scheduler.h"
#include "tests/support/callback-event.h"
#include "tests/support/recording-cloud.h"

namespace nimbra_stress {

// The client's callbacks, for a delegator whose context is a schedule's root.
void SetCallbacks(CORVWinCFCallbackDelegatorHandle delegator);

// One random schedule: the platform's threads deliver callbacks, the client's threads answer them,
// report, hydrate and die, and somebody disconnects and releases, all at once. Every answer has an
// offset of its own, so that it is known by what the platform got.
class Schedule {
 public:
  // `placeholderPath` names a file that exists.
  Schedule(std::uint64_t seed, Mode mode, std::string placeholderPath);
  ~Schedule();
  Schedule(const Schedule&) = delete;
  Schedule& operator=(const Schedule&) = delete;

  // Ends the process in the middle with the code below, as a client that returns from its main
  // function does.
  static constexpr int kDied = 7;
  void DieAfter(int steps) { stepsToLive_ = steps; }
  void Run();
  // What was wrong; empty when nothing was.
  [[nodiscard]] std::string Failure();

  // How often things happened, over all schedules.
  struct Counts {
    int callbacks = 0;
    int transfers = 0;
    int failedTransfers = 0;
    int ownAnswers = 0;
    int acknowledgements = 0;
    int reports = 0;
    int hydrations = 0;
    int disconnects = 0;
    int deaths = 0;
    int dropped = 0;
  };
  static Counts counts;
  // Sync roots made by all schedules; the library keeps their objects for good.
  static int rootsMade;

 private:
  friend void SetCallbacks(CORVWinCFCallbackDelegatorHandle delegator);

  struct Root {
    int number = 0;
    std::uint64_t session = 0;
    CORVWinCFSyncRootHandle handle = nullptr;
    CORVWinCFCallbackDelegatorHandle delegator = nullptr;
    void* context = nullptr;  // that the connection was given
    std::int64_t key = 0;
    // As the platform sees it.
    bool open = true;
    int inFlight = 0;
    // As the client sees it.
    bool disconnected = false;
    int users = 0;  // steps to come that need the handle
    Schedule* schedule = nullptr;
  };
  struct Request {
    int number = 0;
    Root* root = nullptr;
    CF_CALLBACK_TYPE type = CF_CALLBACK_TYPE_FETCH_DATA;
    bool readable = true;
    bool answeredInside = false;
    bool cancelled = false;
    bool delivered = false;  // or never will be
    int callbacks = 0;
    int fetches = 0;  // delivered
    int events = 0;   // delivered, all kinds
  };
  // One call that hands something to the platform.
  struct Sending {
    int number = 0;
    Request* request = nullptr;
    std::string data;
    std::uint32_t status = 0;
    bool called = false;
    HRESULT result = 0;
  };
  struct Step {
    Root* root = nullptr;  // whose handle it needs; null: none
    std::function<void()> body;
  };

  static Schedule& Of(const CORVWinCFCallbackRecord& record);
  static HRESULT WINAPI Execute(const CF_OPERATION_INFO* info, CF_OPERATION_PARAMETERS* parameters);
  static HRESULT WINAPI Report(CF_CONNECTION_KEY connection, CF_TRANSFER_KEY transfer,
                               LARGE_INTEGER total, LARGE_INTEGER completed);
  static HRESULT WINAPI Disconnect(CF_CONNECTION_KEY connection);
  static HRESULT WINAPI Hydrate(HANDLE file, LARGE_INTEGER offset, LARGE_INTEGER length,
                                CF_HYDRATE_FLAGS flags, LPOVERLAPPED overlapped);
  template <int Kind>
  static void Receive(const CORVWinCFCallbackRecord* record);

  void MakeRoots();
  void MakeRequests();
  void MakeThreads();
  std::vector<Step> PlatformSteps();
  std::vector<Step> ClientSteps();
  std::vector<Step> EndSteps();
  void AddThread(const std::string& name, std::vector<Step> steps);
  void RunSteps(const std::vector<Step>& steps, std::size_t count);
  void Leave(const Step& step);

  void Deliver(Request& request, bool cancel);
  void TakeCallback(const CORVWinCFCallbackRecord& record, int kind);
  void Send(Sending& sending);
  void ReportProgress(Request& request);
  void Acknowledge(Request& request);
  void HydrateAndLetGo();
  void CompleteOne();
  void DisconnectRoot(Root& root);
  void ReleaseRoot(Root& root);

  [[nodiscard]] HRESULT Decide(const Root* root, const Request* request) const;
  Root* RootWithKey(std::int64_t key);
  Request* RequestWithKey(std::int64_t transferKey);
  void CheckSendings();
  void CheckOwnAnswers();
  void CheckOthers();
  void Expect(bool condition, const std::string& what);

  static Schedule* current_;

  Random random_;
  const std::string placeholderPath_;
  Scheduler scheduler_;
  nimbra_test::RecordingCloud cloud_;
  corvdrive::cloud_filter::CldApi recording_{};
  corvdrive::cloud_filter::CldApi table_{};
  const corvdrive::cloud_filter::CldApi* previous_ = nullptr;
  std::vector<CF_CALLBACK_REGISTRATION> translators_;

  RecursiveLock model_;  // never held across a switch
  std::vector<std::unique_ptr<Root>> roots_;
  std::vector<std::unique_ptr<Request>> requests_;
  std::vector<std::unique_ptr<Sending>> sendings_;
  std::map<std::int64_t, HRESULT> decided_;  // by offset
  std::vector<OVERLAPPED*> pending_;
  std::map<int, int> acknowledged_;  // calls by request
  int reports_ = 0;
  int stepsToLive_ = -1;
  std::string failure_;
};

}  // namespace nimbra_stress

#endif  // NIMBRA_TESTS_STRESS_SCHEDULE_H_
