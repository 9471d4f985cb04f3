// What programs do in a schedule: read, write, shorten, rename and delete files, and give up.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "backing-file.h"
#include "schedule-world.h"

namespace cloud_filter::test {
namespace {

// A change of half a page somewhere in a file.
constexpr std::size_t kWritten = 2048;

std::string Words(const Range& range) {
  return " [" + std::to_string(range.begin) + ", " + std::to_string(range.end) + ")";
}

}  // namespace

ScheduleWorld::OperationPtr ScheduleWorld::Begin(File& file, Range range, std::string what) {
  auto operation = std::make_shared<Operation>();
  operation->file = &file;
  operation->range = range;
  operation->waiterId = files_->NextWaiterId();
  operation->what =
      std::to_string(operations_.size()) + ": " + std::move(what) + " " + file.name + Words(range);
  operations_.push_back(operation);
  file.item = ItemOf(file);
  ++file.opens;
  files_->Opened({file.reference.Get(), file.inode}, getpid());
  Note(operation->what);
  return operation;
}

void ScheduleWorld::End(const OperationPtr& operation, int error) {
  ++operation->ends;
  Note(operation->what + " ends with " + std::to_string(error));
  --operation->file->opens;
  files_->Closed({operation->file->reference.Get(), operation->file->inode}, getpid());
}

void ScheduleWorld::Read() {
  auto& file = *RandomFile();
  if (file.name.empty() || file.content.empty()) return;
  const auto size = file.content.size();
  const auto begin = static_cast<std::int64_t>(random_.Below(size));
  const auto length = static_cast<std::int64_t>(random_.Below(size)) + 1;
  ++counts.reads;
  ContinueRead(Begin(file, {begin, begin + length}, "read"));
}

void ScheduleWorld::ContinueRead(const OperationPtr& operation) {
  auto& file = *operation->file;
  const auto item = ItemOf(file);
  operation->waits = false;
  std::shared_lock<std::shared_mutex> hold;
  Expect(item != nullptr, "a file that is open is known");
  if (item == nullptr || files_->TryRead(item, operation->range, hold)) {
    CheckBytes(*operation);
    if (hold.owns_lock()) hold.unlock();
    ++counts.goodReads;
    return End(operation, 0);
  }
  operation->waits = true;
  const auto then = [this, operation](int error) {
    Expect(operation->ends == 0, operation->what + " is answered once");
    if (error != 0) return End(operation, error);
    ContinueRead(operation);
  };
  files_->WhenReadable(item, operation->range, {getpid(), operation->waiterId, {}}, then);
}

void ScheduleWorld::CheckBytes(const Operation& operation) {
  const auto& file = *operation.file;
  UniqueFd data;
  Expect(OpenData(file.reference.Get(), O_RDONLY, data) == 0, "a file can be opened");
  const auto end = std::min(operation.range.end, static_cast<std::int64_t>(file.content.size()));
  if (end <= operation.range.begin) return;
  const auto begin = static_cast<std::size_t>(operation.range.begin);
  std::string bytes(static_cast<std::size_t>(end) - begin, '\0');
  Expect(ReadAll(data.Get(), bytes, operation.range.begin) == 0, "its bytes can be read");
  Expect(bytes == file.content.substr(begin, bytes.size()),
         operation.what + " gets the right bytes");
}

void ScheduleWorld::Write() {
  auto& file = *RandomFile();
  if (file.name.empty() || file.content.empty()) return;
  const auto begin = random_.Below(file.content.size());
  const auto length = std::min(kWritten, file.content.size() - begin);
  const Range range{static_cast<std::int64_t>(begin), static_cast<std::int64_t>(begin + length)};
  ContinueWrite(Begin(file, range, "write"), nimbra_stress::RandomBytes(random_.Next(), length));
}

void ScheduleWorld::ContinueWrite(const OperationPtr& operation, const std::string& bytes) {
  auto& file = *operation->file;
  const auto item = ItemOf(file);
  operation->waits = false;
  // Somebody may have shortened the file meanwhile; a write does not make it longer again here.
  if (operation->range.end > static_cast<std::int64_t>(file.content.size())) {
    return End(operation, EFBIG);
  }
  std::unique_lock<std::shared_mutex> hold;
  if (files_->TryWrite(item, hold)) {
    Expect(files_->AboutToChange(item, operation->range, getpid()) == 0, "a change is recorded");
    UniqueFd data;
    Expect(OpenData(file.reference.Get(), O_RDWR, data) == 0, "a file can be opened");
    Expect(WriteAll(data.Get(), bytes, operation->range.begin) == 0, "it can be written");
    file.content.replace(static_cast<std::size_t>(operation->range.begin), bytes.size(), bytes);
    file.inSync = false;
    ++counts.writes;
    hold.unlock();
    return End(operation, 0);
  }
  operation->waits = true;
  files_->WhenWritable(item, {getpid(), operation->waiterId, {}},
                       [this, operation, bytes](int error) {
                         if (error != 0) return End(operation, error);
                         ContinueWrite(operation, bytes);
                       });
}

void ScheduleWorld::Shrink() {
  auto& file = *RandomFile();
  if (file.name.empty() || file.content.empty() || random_.Percent(50)) return;
  const auto size = static_cast<std::int64_t>(random_.Below(file.content.size()));
  Note("shorten " + file.name + " to " + std::to_string(size));
  const auto item = ItemOf(file);
  {
    const std::unique_lock hold(item->data);
    Expect(files_->AboutToShrink(item, size, getpid()) == 0, "a change is recorded");
    Expect(truncate(PathOf(file).c_str(), size) == 0, "a file can be shortened");
    file.content.resize(static_cast<std::size_t>(size));
    file.inSync = false;
  }
  files_->Shrunk(item);
}

void ScheduleWorld::HydrateExplicitly() {
  auto& file = *RandomFile();
  if (file.name.empty()) return;
  const Range whole{0, static_cast<std::int64_t>(file.content.size())};
  const auto operation = Begin(file, whole, "hydrate");
  operation->waits = true;
  Demand demand;
  demand.need = whole;
  demand.explicitRequest = true;
  demand.waiterId = operation->waiterId;
  demand.done = [this, operation](Hresult result) {
    if (result == hr::kOk) CheckBytes(*operation);
    End(operation, result);
  };
  const auto done = demand.done;
  const auto item = ItemOf(file);
  auto result = hr::kOk;
  {
    Guard guard(*core_);
    result = core_->hydration.Require(guard, item, std::move(demand));
  }
  if (result != hr::kPending) done(result);
}

void ScheduleWorld::Rename() {
  auto& file = *RandomFile();
  if (file.name.empty()) return;
  const auto operation = Begin(file, {}, "rename");
  operation->waits = true;
  const auto target = "renamed" + std::to_string(++renames_);
  const auto finish = [this, operation, target](int error) {
    auto& moved = *operation->file;
    // Two renames of one name can be under way, or a delete.
    if (error == 0 && moved.name.empty()) error = ENOENT;
    if (error == 0) {
      const auto source = PathOf(moved);
      Expect(rename(source.c_str(), (root_ / target).c_str()) == 0, "a file can be renamed");
      moved.name = target;
      const auto root = TheRoot();
      files_->Renamed(ItemOf(moved), source, {root->folder.Get(), root->inode}, getpid());
      ++counts.renames;
    }
    End(operation, error);
  };
  files_->AskRename({file.reference.Get(), file.inode}, root_ / target,
                    {getpid(), operation->waiterId, {}}, finish);
}

void ScheduleWorld::Delete() {
  auto& file = *RandomFile();
  if (file.name.empty() || random_.Percent(60)) return;
  const auto operation = Begin(file, {}, "delete");
  operation->waits = true;
  const auto finish = [this, operation](int error) {
    auto& victim = *operation->file;
    if (error == 0 && victim.name.empty()) error = ENOENT;
    if (error == 0) {
      const auto name = std::exchange(victim.name, {});
      const auto item = ItemOf(victim);
      Expect(unlink((root_ / name).c_str()) == 0, "a file can be deleted");
      files_->Deleted(item, victim.inode, name, getpid());
      ++counts.deletes;
    }
    End(operation, error);
  };
  files_->AskDelete({file.reference.Get(), file.inode}, {getpid(), operation->waiterId, {}},
                    finish);
}

void ScheduleWorld::Interrupt() {
  std::vector<OperationPtr> waiting;
  for (const auto& operation : operations_) {
    if (operation->waits && operation->ends == 0) waiting.push_back(operation);
  }
  if (waiting.empty()) return;
  const auto victim = random_.Pick(waiting);
  Note("interrupt " + victim->what);
  files_->Interrupt(victim->waiterId);
  Expect(victim->ends == 1, victim->what + " ends when it is interrupted");
}

}  // namespace cloud_filter::test
