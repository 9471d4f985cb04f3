#ifndef NIMBRA_TESTS_FILTER_SCHEDULE_WORLD_H_
#define NIMBRA_TESTS_FILTER_SCHEDULE_WORLD_H_

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core.h"
#include "execute-service.h"
#include "file-service.h"
#include "placeholder-service.h"
#include "root-service.h"
#include "tests/stress/random.h"

namespace cloud_filter::test {

// Collects a connection's callbacks; notes when one comes too late.
class RecordingSink : public CallbackSink {
 public:
  void Send(const wire::CallbackEvent& event) override;
  void Close() override;

  std::vector<wire::CallbackEvent> Take();
  [[nodiscard]] bool SentAfterClose() const { return late_; }

 private:
  mutable std::mutex mutex_;
  std::vector<wire::CallbackEvent> events_;
  bool closed_ = false;
  bool late_ = false;
};

// The filter's state machine without mounts, processes or a clock of its own: the test is all its
// programs and providers, and time passes when the test says so. One seed decides everything.
class ScheduleWorld {
 public:
  explicit ScheduleWorld(std::uint64_t seed);
  ~ScheduleWorld();
  ScheduleWorld(const ScheduleWorld&) = delete;
  ScheduleWorld& operator=(const ScheduleWorld&) = delete;

  // One random thing happens.
  void Step();
  // Brings everything to its end and checks the outcome.
  void Finish();

  // What went wrong, and all that had happened until then; empty when nothing did.
  [[nodiscard]] std::string Failure() const;

  // How often each kind of thing happened, over all worlds: to know that schedules do anything.
  struct Counts {
    int reads = 0;
    int goodReads = 0;
    int transfers = 0;
    int cancels = 0;
    int timeouts = 0;
    int renames = 0;
    int deletes = 0;
    int writes = 0;
    int dehydrations = 0;
    int restarts = 0;
    int refusals = 0;
  };
  static Counts counts;

 private:
  // A file as it should be.
  struct File {
    std::string name;  // empty once deleted
    std::string identity;
    std::string source;   // what the provider has
    std::string content;  // what programs should see
    PinState pin = PinState::kUnspecified;
    bool inSync = true;
    int opens = 0;
    UniqueFd reference;
    ino_t inode = 0;
    ItemPtr item;
  };
  // Something that a program waits for.
  struct Operation {
    File* file = nullptr;
    Range range;
    std::uint64_t waiterId = 0;
    bool waits = false;
    int ends = 0;
    std::string what;
  };
  using OperationPtr = std::shared_ptr<Operation>;
  // A callback that the provider got, with the connection that it came by.
  struct Pending {
    wire::CallbackEvent event;
    std::int64_t connection = 0;
  };

  void StartFilter();
  void RestartFilter();
  void MakeFiles();
  void Connect();
  void Disconnect();
  void Listen();

  OperationPtr Begin(File& file, Range range, std::string what);
  void End(const OperationPtr& operation, int error);
  void Read();
  void ContinueRead(const OperationPtr& operation);
  void CheckBytes(const Operation& operation);
  void Write();
  void ContinueWrite(const OperationPtr& operation, const std::string& bytes);
  void Shrink();
  void HydrateExplicitly();
  void Rename();
  void Delete();
  void Interrupt();

  void Answer();
  void AnswerFetch(const Pending& pending);
  void AnswerValidation(const Pending& pending, bool honest);
  void AnswerQuestion(const Pending& pending, std::uint32_t status);
  void Transfer(File& file, const wire::Target& target, Range range);
  void PushUnasked();
  void RestartHydration();
  void ServeEverything();

  void Dehydrate();
  void SetPin();
  void SetInSync();
  void LetTimePass();
  void Expire(std::chrono::seconds elapsed);
  void ExpireEverything();

  void ReadWhole(File& file);
  void CheckFile(File& file);
  void CheckNames();
  File* RandomFile();
  File* FileOf(const wire::CallbackEvent& event);
  [[nodiscard]] ItemPtr ItemOf(File& file);
  [[nodiscard]] std::string PathOf(const File& file) const { return root_ / file.name; }
  [[nodiscard]] std::size_t Waiting() const;
  [[nodiscard]] RootPtr TheRoot() const { return core_->roots.begin()->second; }
  void Note(const std::string& text) { trace_ += "  " + text + "\n"; }
  void Expect(bool condition, const std::string& what);

  nimbra_stress::Random random_;
  std::uint64_t seed_;
  std::uint16_t policy_;
  bool validates_;
  std::filesystem::path folder_;
  std::filesystem::path root_;
  CoreOptions options_;
  std::unique_ptr<Core> core_;
  std::unique_ptr<RootService> roots_;
  std::unique_ptr<PlaceholderService> placeholders_;
  std::unique_ptr<ExecuteService> execute_;
  std::unique_ptr<FileService> files_;
  std::vector<std::unique_ptr<File>> model_;
  std::vector<OperationPtr> operations_;
  std::shared_ptr<RecordingSink> sink_;
  std::int64_t connection_ = 0;
  std::vector<Pending> pending_;
  std::vector<Pending> received_;  // on this connection
  std::set<std::int64_t> fetched_;
  std::set<std::int64_t> cancelled_;
  int renames_ = 0;
  std::string trace_;
  std::string failure_;
};

}  // namespace cloud_filter::test

#endif  // NIMBRA_TESTS_FILTER_SCHEDULE_WORLD_H_
