#include "schedule-world.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "backing-file.h"

namespace cloud_filter::test {
namespace {

constexpr std::chrono::seconds kTimeout{60};
constexpr std::chrono::hours kNeverSilent{24};
constexpr int kMostPages = 24;
constexpr int kMostRounds = 200;

std::int64_t RandomSize(nimbra_stress::Random& random) {
  const auto edge = random.Between(-1, 1);
  return std::max<std::int64_t>(0, random.Between(0, kMostPages) * kPage + edge);
}

}  // namespace

ScheduleWorld::Counts ScheduleWorld::counts;

void RecordingSink::Send(const wire::CallbackEvent& event) {
  const std::lock_guard lock(mutex_);
  late_ = late_ || closed_;
  events_.push_back(event);
}

void RecordingSink::Close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
}

std::vector<wire::CallbackEvent> RecordingSink::Take() {
  const std::lock_guard lock(mutex_);
  return std::exchange(events_, {});
}

ScheduleWorld::ScheduleWorld(std::uint64_t seed) : random_(seed), seed_(seed) {
  const std::uint16_t policies[] = {policy::kHydrationFull, policy::kHydrationFull,
                                    policy::kHydrationProgressive, policy::kHydrationPartial};
  policy_ = policies[random_.Below(std::size(policies))];
  validates_ = random_.Percent(20);
  options_.requestTimeout = kTimeout;
  options_.silenceLimit = kNeverSilent;
  options_.fetchCap = random_.Percent(50) ? 4 * kPage : std::int64_t{1} << 30;
  options_.mount = false;
  options_.idleFiles = random_.Percent(50) ? 1 : 1024;
  // Memory is quicker than a disk, and no schedule takes the power away.
  std::string name = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
  name += "/cloud-filter-schedule-XXXXXX";
  folder_ = mkdtemp(name.data());
  root_ = folder_ / "root";
  std::filesystem::create_directory(root_);
  StartFilter();
  Registration registration;
  registration.path = root_;
  registration.providerName = "Provider";
  registration.providerVersion = "1";
  registration.identity = "root";
  registration.policies = {policy_,
                           validates_ ? policy::kValidationRequired : std::uint16_t{0},
                           policy::kPopulationAlwaysFull,
                           0,
                           0,
                           0,
                           0};
  Expect(roots_->Register(registration) == hr::kOk, "the root can be registered");
  files_ = std::make_unique<FileService>(*core_, TheRoot());
  MakeFiles();
  Connect();
}

ScheduleWorld::~ScheduleWorld() {
  core_->Stop();
  for (auto& file : model_) file->item.reset();
  std::filesystem::remove_all(folder_);
}

void ScheduleWorld::Expect(bool condition, const std::string& what) {
  if (!condition && failure_.empty()) failure_ = what + "\nafter\n" + trace_;
}

std::string ScheduleWorld::Failure() const { return failure_; }

void ScheduleWorld::StartFilter() {
  core_ = std::make_unique<Core>(options_, folder_ / "filter.db", nullptr);
  // As Core::Start, but for the clock.
  for (auto& record : core_->store.Roots()) {
    auto root = std::make_shared<Root>();
    root->record = std::move(record);
    Expect(core_->OpenRoot(root) == hr::kOk, "the root is opened again");
    core_->roots[root->record.id] = root;
    files_ = std::make_unique<FileService>(*core_, root);
  }
  roots_ = std::make_unique<RootService>(*core_);
  placeholders_ = std::make_unique<PlaceholderService>(*core_);
  execute_ = std::make_unique<ExecuteService>(*core_);
}

void ScheduleWorld::RestartFilter() {
  Note("the filter starts anew");
  ++counts.restarts;
  core_->Stop();
  Expect(Waiting() == 0, "a filter that stops lets everyone go");
  for (auto& file : model_) {
    file->item.reset();
    file->opens = 0;
  }
  connection_ = 0;
  files_.reset();
  core_.reset();
  StartFilter();
}

void ScheduleWorld::MakeFiles() {
  std::vector<wire::CreateEntry> entries;
  const auto count = random_.Between(1, 4);
  for (auto number = 0; number < count; ++number) {
    auto file = std::make_unique<File>();
    file->name = "file" + std::to_string(number);
    file->identity = "identity of " + file->name;
    file->source = nimbra_stress::RandomBytes(seed_ * 16 + static_cast<std::uint64_t>(number),
                                              static_cast<std::size_t>(RandomSize(random_)));
    file->content = file->source;
    wire::CreateEntry entry;
    entry.relativeName = file->name;
    entry.metadata.attributes = 0x80;
    entry.metadata.fileSize = static_cast<std::int64_t>(file->source.size());
    entry.identity = file->identity;
    entry.flags = flag::kCreateInSync;
    entries.push_back(entry);
    Note(file->name + " has " + std::to_string(file->source.size()) + " bytes");
    model_.push_back(std::move(file));
  }
  std::uint32_t processed = 0;
  std::vector<CreateResult> results(entries.size());
  Expect(placeholders_->Create(root_, 0, entries, processed, results) == hr::kOk, "files are made");
  for (auto& file : model_) {
    file->reference.Reset(open(PathOf(*file).c_str(), O_PATH | O_CLOEXEC));
    FileFacts facts;
    Expect(GetFacts(file->reference.Get(), facts) == 0, "a file that was made is there");
    file->inode = facts.inode;
  }
}

void ScheduleWorld::Connect() {
  if (connection_ != 0) return;
  sink_ = std::make_shared<RecordingSink>();
  received_.clear();
  Connected connected;
  std::uint32_t mask = 0;
  for (const auto type : {callback::kFetchData, callback::kCancelFetchData, callback::kValidateData,
                          callback::kRename, callback::kRenameCompletion, callback::kDelete}) {
    mask |= 1U << type;
  }
  const auto result = roots_->Connect(root_, mask, 0, {}, sink_, connected);
  Expect(result == hr::kOk, "the provider can connect");
  connection_ = connected.key;
  Note("connected");
}

void ScheduleWorld::Disconnect() {
  if (connection_ == 0) return;
  Listen();
  if (random_.Percent(50)) {
    Note("disconnects");
    Expect(roots_->Disconnect(connection_) == hr::kOk, "the provider can disconnect");
  } else {
    Note("the provider dies");
    roots_->ProviderDied(connection_);
  }
  Listen();
  connection_ = 0;
  Expect(Waiting() == 0, "without a provider nobody waits");
  Expect(core_->hydration.PendingFetches(*TheRoot()) == 0, "without a provider nothing is fetched");
  Expect(core_->notifications.Pending(*TheRoot()) == 0, "without a provider nothing is asked");
}

void ScheduleWorld::Listen() {
  if (connection_ == 0) return;
  Expect(!sink_->SentAfterClose(), "nothing is sent once a connection is closed");
  for (const auto& event : sink_->Take()) {
    const Range range{event.range[0], event.range[0] + event.range[1]};
    if (event.type == callback::kFetchData) {
      Expect(fetched_.insert(event.requestKey).second, "a request key names one request");
      Expect(!range.Empty() && range.begin % kPage == 0 && range.end <= event.fileSize &&
                 (range.end % kPage == 0 || range.end == event.fileSize) &&
                 range.Length() <= options_.fetchCap,
             "a fetch asks for whole pages of the file, as many as one may ask for");
    } else if (event.type == callback::kCancelFetchData) {
      ++counts.cancels;
      Expect(cancelled_.insert(event.requestKey).second, "a fetch is cancelled once");
      Expect(validates_ || fetched_.contains(event.requestKey), "a cancel names a fetch");
      Expect(!range.Empty(), "a cancel names bytes");
      std::erase_if(pending_, [&](const Pending& known) {
        return known.event.requestKey == event.requestKey && random_.Percent(70);
      });
      continue;
    } else if (event.type == callback::kRenameCompletion) {
      continue;
    }
    pending_.push_back({event, connection_});
    received_.push_back(pending_.back());
  }
}

ScheduleWorld::File* ScheduleWorld::RandomFile() { return random_.Pick(model_).get(); }

ScheduleWorld::File* ScheduleWorld::FileOf(const wire::CallbackEvent& event) {
  for (auto& file : model_) {
    if (file->identity == event.fileIdentity) return file.get();
  }
  Expect(false, "a callback names a file: " + event.fileIdentity);
  return model_.front().get();
}

// As the mount does: who has a deleted file open still has its item.
ItemPtr ScheduleWorld::ItemOf(File& file) {
  auto item = files_->ItemOf({file.reference.Get(), file.inode});
  return item != nullptr ? item : file.item;
}

std::size_t ScheduleWorld::Waiting() const {
  return static_cast<std::size_t>(std::count_if(
      operations_.begin(), operations_.end(),
      [](const OperationPtr& operation) { return operation->waits && operation->ends == 0; }));
}

void ScheduleWorld::Step() {
  using Action = void (ScheduleWorld::*)();
  // The more often a thing stands here, the more often it happens.
  static constexpr Action kActions[] = {&ScheduleWorld::Read,
                                        &ScheduleWorld::Read,
                                        &ScheduleWorld::Read,
                                        &ScheduleWorld::Read,
                                        &ScheduleWorld::Answer,
                                        &ScheduleWorld::Answer,
                                        &ScheduleWorld::Answer,
                                        &ScheduleWorld::Answer,
                                        &ScheduleWorld::Answer,
                                        &ScheduleWorld::Answer,
                                        &ScheduleWorld::Interrupt,
                                        &ScheduleWorld::Interrupt,
                                        &ScheduleWorld::HydrateExplicitly,
                                        &ScheduleWorld::PushUnasked,
                                        &ScheduleWorld::RestartHydration,
                                        &ScheduleWorld::Write,
                                        &ScheduleWorld::Shrink,
                                        &ScheduleWorld::Rename,
                                        &ScheduleWorld::Delete,
                                        &ScheduleWorld::Dehydrate,
                                        &ScheduleWorld::Dehydrate,
                                        &ScheduleWorld::SetPin,
                                        &ScheduleWorld::SetInSync,
                                        &ScheduleWorld::LetTimePass,
                                        &ScheduleWorld::Disconnect,
                                        &ScheduleWorld::Connect,
                                        &ScheduleWorld::Connect};
  if (random_.Percent(2)) {
    RestartFilter();
  } else {
    (this->*kActions[random_.Below(std::size(kActions))])();
  }
  Listen();
}

// Those whose time is over have been let go when this returns.
void ScheduleWorld::Expire(std::chrono::seconds elapsed) {
  Guard guard(*core_);
  core_->hydration.Expire(guard, Clock::now() + elapsed);
  core_->notifications.Expire(guard, Clock::now() + elapsed);
}

void ScheduleWorld::LetTimePass() {
  if (random_.Percent(30)) return ExpireEverything();
  const auto before = Waiting();
  Note("half of the time passes");
  Expire(kTimeout / 2);
  Expect(Waiting() == before, "nobody is let go before the time is over");
}

// When a piece of a capped fetch has run out of time, the next piece has its own.
void ScheduleWorld::ExpireEverything() {
  Note("all time passes");
  if (Waiting() > 0) ++counts.timeouts;
  for (auto round = 0; round < kMostRounds && Waiting() > 0; ++round) {
    Expire(2 * kTimeout);
    const auto single = policy_ == policy::kHydrationFull;
    Expect(!single || Waiting() == 0, "who waits for a whole file fails with its first piece");
  }
  Expect(Waiting() == 0, "nobody waits longer than the time that the provider has");
}

void ScheduleWorld::Finish() {
  Connect();
  Listen();
  // What the provider has forgotten to answer it answers now.
  pending_ = received_;
  ServeEverything();
  Expect(Waiting() == 0, "a provider that answers everything lets everyone go");
  if (random_.Percent(50)) RestartFilter();
  for (auto& file : model_) CheckFile(*file);
  Connect();
  for (auto& file : model_) {
    if (!file->name.empty()) ReadWhole(*file);
  }
  Disconnect();
  for (auto& file : model_) CheckFile(*file);
  CheckNames();
  for (const auto& operation : operations_) {
    Expect(operation->ends == 1, operation->what + " ends exactly once, not " +
                                     std::to_string(operation->ends) + " times");
  }
}

// Data that does not stand its check fails the read that brought it up; the next one gets other.
void ScheduleWorld::ReadWhole(File& file) {
  const auto good = counts.goodReads;
  const auto tries = validates_ ? kMostPages : 1;
  for (auto number = 0; number < tries && counts.goodReads == good; ++number) {
    ContinueRead(Begin(file, {0, static_cast<std::int64_t>(file.content.size())}, "read all"));
    Listen();
    ServeEverything();
  }
  Expect(counts.goodReads == good + 1, "in the end " + file.name + " can be read");
}

// What the filter takes for present is right, on the disk; and it remembers the rest.
void ScheduleWorld::CheckFile(File& file) {
  if (file.name.empty()) return;
  wire::PlaceholderInfo info;
  Expect(placeholders_->GetInfo({PathOf(file), 0}, info) == hr::kOk, file.name + " is known");
  Expect(info.identity == file.identity, file.name + " keeps its identity");
  Expect(info.pinState == static_cast<std::uint32_t>(file.pin), file.name + " keeps its pin state");
  Expect((info.inSyncState != 0) == file.inSync, file.name + " keeps its in-sync state");
  const auto item = ItemOf(file);
  UniqueFd data;
  Expect(item != nullptr && OpenData(file.reference.Get(), O_RDONLY, data) == 0,
         "it can be opened");
  std::string bytes(file.content.size(), '\0');
  Expect(ReadAll(data.Get(), bytes, 0) == 0, "it can be read");
  Guard guard(*core_);
  Expect(item->Size() == static_cast<std::int64_t>(file.content.size()), "it has its size");
  const auto usable = item->UsableRanges();
  for (const auto& run : usable.Runs()) {
    const auto at = static_cast<std::size_t>(run.begin);
    const auto length = static_cast<std::size_t>(run.Length());
    if (at >= bytes.size()) continue;
    Expect(bytes.compare(at, length, file.content, at, length) == 0,
           "the bytes of " + file.name + " from " + std::to_string(at) + " on are right");
  }
}

void ScheduleWorld::CheckNames() {
  std::set<std::string> expected;
  std::set<std::string> found;
  for (const auto& file : model_) {
    if (!file->name.empty()) expected.insert(file->name);
  }
  for (const auto& entry : std::filesystem::directory_iterator(root_)) {
    found.insert(entry.path().filename());
  }
  Expect(found == expected, "the folder holds these files and no other");
}

}  // namespace cloud_filter::test
