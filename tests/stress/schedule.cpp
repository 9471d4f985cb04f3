#include "tests/stress/schedule.h"

#include <cstdlib>
#include <utility>

#include "tests/stress/schedule-facts.h"

namespace nimbra_stress {
namespace {

using corvdrive::cloud_filter::Cloud;
using corvdrive::cloud_filter::ExchangeCldApi;

}  // namespace

Schedule* Schedule::current_ = nullptr;
Schedule::Counts Schedule::counts;
int Schedule::rootsMade = 0;

Schedule::Schedule(std::uint64_t seed, Mode mode, std::string placeholderPath)
    : random_(seed),
      placeholderPath_(std::move(placeholderPath)),
      scheduler_(mode, random_.Next()) {
  current_ = this;
  recording_ = Cloud();
  table_ = recording_;
  table_.CfExecute = Execute;
  table_.CfReportProviderProgress = Report;
  table_.CfDisconnectSyncRoot = Disconnect;
  table_.CfHydratePlaceholder = Hydrate;
  previous_ = ExchangeCldApi(&table_);
  MakeRoots();
  MakeRequests();
  MakeThreads();
}

Schedule::~Schedule() {
  for (const auto& root : roots_) {
    CORVWinCFCallbackDelegatorRelease(root->delegator);
    CORVWinCFSyncRootRelease(&root->handle);
  }
  ExchangeCldApi(previous_);
  current_ = nullptr;
}

void Schedule::Expect(bool condition, const std::string& what) {
  if (condition) {
    return;
  }
  const std::lock_guard lock(model_);
  failure_ += what + "\n";
}

void Schedule::MakeRoots() {
  const int count = random_.Between(1, 3);
  for (int number = 0; number < count; ++number) {
    auto root = std::make_unique<Root>();
    root->number = number;
    root->session = random_.Next() % 0x7FFFFFFF;
    root->key = kKeyBase + number;
    root->schedule = this;
    Expect(CORVWinCFSyncRootNew(&root->handle, R"(C:\Sync)", root->session) == 0, "a root is made");
    Expect(CORVWinCFCallbackDelegatorNew(&root->delegator, root.get()) == 0, "a delegator is made");
    SetCallbacks(root->delegator);
    cloud_.SetConnectionKey(root->key);
    Expect(CORVWinCFSyncRootConnect(root->handle, root->delegator) == S_OK, "a root is connected");
    root->context = root->delegator;
    ++rootsMade;
    roots_.push_back(std::move(root));
  }
  translators_ = cloud_.CallsOf<nimbra_test::ConnectSyncRootCall>().front().table;
}

void Schedule::MakeRequests() {
  const CF_CALLBACK_TYPE types[] = {
      CF_CALLBACK_TYPE_FETCH_DATA,    CF_CALLBACK_TYPE_FETCH_DATA,
      CF_CALLBACK_TYPE_FETCH_DATA,    CF_CALLBACK_TYPE_NOTIFY_RENAME,
      CF_CALLBACK_TYPE_NOTIFY_DELETE, CF_CALLBACK_TYPE_NOTIFY_RENAME_COMPLETION};
  const int count = random_.Between(3, 8);
  for (int number = 0; number < count; ++number) {
    auto request = std::make_unique<Request>();
    request->number = number;
    request->root = random_.Pick(roots_).get();
    request->type = types[random_.Below(std::size(types))];
    request->readable = !random_.Percent(15);
    request->answeredInside = random_.Percent(30);
    const bool fetch = request->type == CF_CALLBACK_TYPE_FETCH_DATA;
    const int pieces = fetch ? random_.Between(0, 4) : 0;
    for (int piece = 0; piece < pieces; ++piece) {
      auto sending = std::make_unique<Sending>();
      sending->number = static_cast<int>(sendings_.size()) + 1;
      sending->request = request.get();
      sending->status = random_.Percent(80) ? 0 : static_cast<std::uint32_t>(random_.Between(1, 4));
      sending->data =
          RandomBytes(random_.Next(), static_cast<std::size_t>(random_.Between(1, 9000)));
      sendings_.push_back(std::move(sending));
    }
    requests_.push_back(std::move(request));
  }
}

void Schedule::MakeThreads() {
  const int platform = random_.Between(1, 3);
  const int client = random_.Between(1, 3);
  std::vector<std::vector<Step>> threads(static_cast<std::size_t>(platform));
  for (auto& step : PlatformSteps()) {
    random_.Pick(threads).push_back(std::move(step));
  }
  for (int number = 0; number < platform; ++number) {
    AddThread("platform " + std::to_string(number), threads[static_cast<std::size_t>(number)]);
  }
  threads.assign(static_cast<std::size_t>(client), {});
  for (auto& step : ClientSteps()) {
    random_.Pick(threads).push_back(std::move(step));
  }
  for (int number = 0; number < client; ++number) {
    AddThread("client " + std::to_string(number), threads[static_cast<std::size_t>(number)]);
  }
  AddThread("end", EndSteps());
}

std::vector<Schedule::Step> Schedule::PlatformSteps() {
  std::vector<Step> steps;
  for (const auto& request : requests_) {
    Root* const needed = request->answeredInside ? request->root : nullptr;
    steps.push_back({needed, [this, &request = *request] { Deliver(request, false); }});
    if (request->type == CF_CALLBACK_TYPE_FETCH_DATA && random_.Percent(40)) {
      steps.push_back({nullptr, [this, &request = *request] { Deliver(request, true); }});
    }
  }
  return steps;
}

std::vector<Schedule::Step> Schedule::ClientSteps() {
  std::vector<Step> steps;
  for (const auto& sending : sendings_) {
    auto& request = *sending->request;
    if (request.answeredInside && request.readable) {
      continue;
    }
    steps.push_back({request.root, [this, &sending = *sending, &request] {
                       scheduler_.WaitUntil("waiting for its fetch", [&] {
                         const std::lock_guard lock(model_);
                         return request.delivered;
                       });
                       Send(sending);
                     }});
    if (random_.Percent(30)) {
      steps.push_back({request.root, [this, &request] { ReportProgress(request); }});
    }
  }
  for (const auto& request : requests_) {
    const bool question = request->type == CF_CALLBACK_TYPE_NOTIFY_RENAME ||
                          request->type == CF_CALLBACK_TYPE_NOTIFY_DELETE;
    if (question) {
      steps.push_back({request->root, [this, &request = *request] { Acknowledge(request); }});
    }
  }
  const int hydrations = random_.Between(0, 4);
  for (int number = 0; number < hydrations; ++number) {
    steps.push_back({nullptr, [this] { HydrateAndLetGo(); }});
    steps.push_back({nullptr, [this] { CompleteOne(); }});
  }
  // Any order: answers need not come in the order of the requests.
  for (std::size_t at = steps.size(); at > 1; --at) {
    std::swap(steps[at - 1], steps[random_.Below(at)]);
  }
  return steps;
}

std::vector<Schedule::Step> Schedule::EndSteps() {
  std::vector<Step> steps;
  for (const auto& root : roots_) {
    if (random_.Percent(60)) {
      steps.push_back({root.get(), [this, &root = *root] { DisconnectRoot(root); }});
    }
    if (random_.Percent(50)) {
      steps.push_back({nullptr, [this, &root = *root] { ReleaseRoot(root); }});
    }
  }
  return steps;
}

void Schedule::AddThread(const std::string& name, std::vector<Step> steps) {
  for (const auto& step : steps) {
    if (step.root != nullptr) {
      ++step.root->users;
    }
  }
  // A thread of the client may die; what it still had to do never happens.
  const bool dies = name.starts_with("client") && random_.Percent(15);
  const std::size_t count = dies ? random_.Below(steps.size() + 1) : steps.size();
  counts.deaths += count < steps.size() ? 1 : 0;
  scheduler_.Add(name, [this, steps = std::move(steps), count] { RunSteps(steps, count); });
}

void Schedule::RunSteps(const std::vector<Step>& steps, std::size_t count) {
  for (std::size_t at = 0; at < steps.size(); ++at) {
    if (at < count) {
      scheduler_.Switch("between two steps");
      {
        const std::lock_guard lock(model_);
        if (stepsToLive_ >= 0 && stepsToLive_-- == 0) {
          std::exit(kDied);
        }
      }
      steps[at].body();
    }
    Leave(steps[at]);
  }
}

void Schedule::Leave(const Step& step) {
  const std::lock_guard lock(model_);
  if (step.root != nullptr) {
    --step.root->users;
  }
}

void Schedule::Run() {
  scheduler_.Run();
  // Requests are over some time, whatever became of the placeholder.
  while (!pending_.empty()) {
    CompleteOne();
  }
  CheckSendings();
  CheckOwnAnswers();
  CheckOthers();
}

std::string Schedule::Failure() { return failure_; }

}  // namespace nimbra_stress
