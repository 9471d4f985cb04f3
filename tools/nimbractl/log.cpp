// nimbractl log: what the library writes to the debugger output, of all processes, as it comes.

#include <windows.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "commands.h"
#include "console.h"
#include "debug-output.h"
#include "json.h"
#include "library-log.h"
#include "moment.h"
#include "owners.h"
#include "process-names.h"

namespace nimbractl {
namespace {

HANDLE stopEvent = nullptr;

BOOL WINAPI OnConsoleEvent(DWORD event) {
  constexpr DWORD kLessThanWindowsGrants = 4000;
  // A second Ctrl+C ends what the first cannot: waiting for output to be taken.
  if (WaitForSingleObject(stopEvent, 0) == WAIT_OBJECT_0) {
    TerminateProcess(GetCurrentProcess(), static_cast<UINT>(ExitCode::kSomeFailed));
  }
  SetEvent(stopEvent);
  // Windows ends the process when this returns, unless it was a key; the other threads must come
  // to their end before.
  if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT) Sleep(kLessThanWindowsGrants);
  return TRUE;
}

// Ctrl+C sets the event while this exists.
class StopOnControlC {
 public:
  StopOnControlC() : event_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    stopEvent = event_.get();
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  }
  ~StopOnControlC() { SetConsoleCtrlHandler(OnConsoleEvent, FALSE); }
  StopOnControlC(const StopOnControlC&) = delete;
  StopOnControlC& operator=(const StopOnControlC&) = delete;

  [[nodiscard]] HANDLE Event() const { return event_.get(); }

 private:
  UniqueKernelObject event_;
};

// A moment as this machine's clock on the wall shows it.
struct LocalTime {
  SYSTEMTIME time{};
  int minutesEastOfUtc = 0;
};

Moment Ticks(const SYSTEMTIME& time) {
  FILETIME ticks{};
  SystemTimeToFileTime(&time, &ticks);
  return ToMoment(ticks);
}

LocalTime Now() {
  constexpr std::int64_t kTicksPerMinute = 600'000'000;
  SYSTEMTIME utc{};
  GetSystemTime(&utc);
  LocalTime now;
  if (!SystemTimeToTzSpecificLocalTime(nullptr, &utc, &now.time)) return {utc, 0};
  now.minutesEastOfUtc = static_cast<int>((Ticks(now.time) - Ticks(utc)) / kTicksPerMinute);
  return now;
}

// "13:05:59.123"
std::string TimeText(const LocalTime& now) {
  const auto& time = now.time;
  char text[16];
  std::snprintf(text, sizeof text, "%02u:%02u:%02u.%03u", static_cast<unsigned>(time.wHour % 100U),
                static_cast<unsigned>(time.wMinute % 100U),
                static_cast<unsigned>(time.wSecond % 100U),
                static_cast<unsigned>(time.wMilliseconds % 1000U));
  return text;
}

// "2026-02-28T13:05:59.123+01:00", of ISO 8601
std::string DateTimeText(const LocalTime& now) {
  const auto& time = now.time;
  const auto offset = static_cast<unsigned>(std::abs(now.minutesEastOfUtc));
  char date[16], zone[16];
  std::snprintf(date, sizeof date, "%04u-%02u-%02uT", static_cast<unsigned>(time.wYear % 10000U),
                static_cast<unsigned>(time.wMonth % 100U), static_cast<unsigned>(time.wDay % 100U));
  std::snprintf(zone, sizeof zone, "%c%02u:%02u", now.minutesEastOfUtc < 0 ? '-' : '+',
                offset / 60U % 100U, offset % 60U);
  return date + TimeText(now) + zone;
}

// A line that is to be shown, with what is known only while it is fresh.
struct Entry {
  LocalTime time;
  DWORD processId = 0;
  ProcessNames::Program program;
  std::string text;
  std::optional<LibraryLine> parsed;
};

// Takes the lines as they come, on a thread of its own: however slow the output is, no process that
// writes waits for it.
class Intake {
 public:
  // `stop` is set by others, and by this when it is destroyed.
  Intake(const LogOptions& options, HANDLE stop) : options_(options), stop_(stop) {
    if (options.seconds) {
      end_ = GetTickCount64() + static_cast<ULONGLONG>(*options.seconds * 1000);
    }
    auto output = std::make_unique<DebugOutput>();
    wasLeftBehind_ = output->WasLeftBehind();
    thread_ =
        std::jthread([this, output = std::move(output)]() mutable { Run(std::move(output)); });
  }
  ~Intake() { SetEvent(stop_); }
  Intake(const Intake&) = delete;
  Intake& operator=(const Intake&) = delete;

  [[nodiscard]] bool WasLeftBehind() const { return wasLeftBehind_; }

  // The next one, waited for; nothing when there are no more.
  std::optional<Entry> Next() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return hasEnded_ || !entries_.empty(); });
    if (entries_.empty()) return std::nullopt;
    auto entry = std::move(entries_.front());
    entries_.pop_front();
    return entry;
  }

  // How many were not kept, since this was last asked.
  std::int64_t TakeLost() {
    const std::lock_guard lock(mutex_);
    return std::exchange(lost_, 0);
  }

 private:
  // Milliseconds to wait; nothing when the end has come. The pauses tell how old a line may be.
  [[nodiscard]] std::optional<DWORD> TimeLeft() const {
    constexpr ULONGLONG kPause = 250;
    if (!end_) return static_cast<DWORD>(kPause);
    const auto now = GetTickCount64();
    return now >= *end_ ? std::nullopt
                        : std::optional(static_cast<DWORD>(std::min(*end_ - now, kPause)));
  }

  void Run(std::unique_ptr<DebugOutput> output) {
    while (const auto left = TimeLeft()) {
      if (const auto line = output->Next(stop_, *left)) {
        Keep(*line);
      } else if (WaitForSingleObject(stop_, 0) == WAIT_OBJECT_0) {
        break;
      }
    }
    output.reset();
    const std::lock_guard lock(mutex_);
    hasEnded_ = true;
    changed_.notify_all();
  }

  void Keep(const DebugOutput::Line& line) {
    constexpr std::size_t kMost = 100'000;
    const auto& wanted = options_.processIds;
    if (!wanted.empty() &&
        std::find(wanted.begin(), wanted.end(), line.processId) == wanted.end()) {
      return;
    }
    auto parsed = ParseLibraryLine(line.text);
    if (!parsed && !options_.all) return;
    Entry entry{Now(), line.processId, names_.ProgramOf(line.processId, line.written), line.text,
                std::move(parsed)};
    const std::lock_guard lock(mutex_);
    if (entries_.size() < kMost) {
      entries_.push_back(std::move(entry));
    } else {
      ++lost_;
    }
    changed_.notify_all();
  }

  const LogOptions& options_;
  HANDLE stop_;
  std::optional<ULONGLONG> end_;
  bool wasLeftBehind_ = false;
  ProcessNames names_;  // the thread's
  std::mutex mutex_;    // guards what follows
  std::condition_variable changed_;
  std::deque<Entry> entries_;
  std::int64_t lost_ = 0;
  bool hasEnded_ = false;
  std::jthread thread_;  // the last member: uses the others
};

std::string WithoutLineBreak(std::string text) {
  text.erase(text.find_last_not_of("\r\n") + 1);
  return text;
}

std::string AsText(const Entry& entry) {
  auto text = TimeText(entry.time) + "  " + entry.program.Text() + " (" +
              std::to_string(entry.processId) + ")  ";
  if (!entry.parsed) return text + WithoutLineBreak(entry.text);
  return text + ReadableMessage(entry.parsed->message) + "  [" + entry.parsed->source + " " +
         std::to_string(entry.parsed->number) + "]";
}

std::string AsJson(const Entry& entry) {
  Json json{{"time", DateTimeText(entry.time)},
            {"pid", entry.processId},
            {"program", OrNull(entry.program.name)},
            {"library", entry.parsed.has_value()}};
  if (entry.parsed) {
    json["source"] = entry.parsed->source;
    json["number"] = entry.parsed->number;
    json["message"] = entry.parsed->message;
    json["result"] = OrNull(ResultIn(entry.parsed->message));
  } else {
    json["message"] = WithoutLineBreak(entry.text);
  }
  return JsonText(json, -1);
}

void TellWhatIsLost(Intake& intake) {
  const auto lost = intake.TakeLost();
  if (lost == 0) return;
  WriteLine(Stream::kError, "nimbractl: " + Count(lost, "line") +
                                " not shown: they came faster than the output takes them");
}

}  // namespace

ExitCode RunLog(const LogOptions& options) {
  const StopOnControlC stop;
  Intake intake(options, stop.Event());
  if (intake.WasLeftBehind()) {
    WriteLine(Stream::kError,
              "nimbractl: the last listener has ended, or hangs, with a process waiting for it; "
              "this one takes its place");
  }
  WriteLine(Stream::kError,
            options.seconds ? "nimbractl: listening" : "nimbractl: listening; Ctrl+C ends it");
  while (const auto entry = intake.Next()) {
    if (!WriteLine(Stream::kOutput, options.json ? AsJson(*entry) : AsText(*entry))) break;
    TellWhatIsLost(intake);
  }
  return ExitCode::kOk;
}

}  // namespace nimbractl
