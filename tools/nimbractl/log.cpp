// nimbractl log: what the library writes to the debugger output, of all processes, as it comes.

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "console.h"
#include "debug-output.h"
#include "json.h"
#include "library-log.h"
#include "owners.h"

namespace nimbractl {
namespace {

HANDLE stopEvent = nullptr;

BOOL WINAPI OnConsoleEvent(DWORD) {
  SetEvent(stopEvent);
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

// The names of processes. No other process gets the id of one for as long as its name is kept.
class ProcessNames {
 public:
  std::string NameOf(DWORD processId) {
    auto found = names_.find(processId);
    if (found == names_.end()) {
      std::erase_if(names_, [](const auto& one) { return one.second.HasEnded(); });
      UniqueKernelObject process(
          OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, processId));
      if (!process) return "?";
      auto name = ProgramOf(process.get());
      found = names_.emplace(processId, Named{std::move(process), std::move(name)}).first;
    }
    return found->second.name;
  }

 private:
  struct Named {
    UniqueKernelObject process;  // holds the id
    std::string name;
    [[nodiscard]] bool HasEnded() const {
      return WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
    }
  };

  static std::string ProgramOf(HANDLE process) {
    std::wstring path(32768, L'\0');
    auto length = static_cast<DWORD>(path.size());
    if (!QueryFullProcessImageNameW(process, 0, path.data(), &length)) return "?";
    path.resize(length);
    return Utf8(path.substr(path.rfind(L'\\') + 1));
  }

  std::map<DWORD, Named> names_;
};

// A moment as this machine's clock on the wall shows it.
struct LocalTime {
  SYSTEMTIME time{};
  int minutesEastOfUtc = 0;
};

std::int64_t Ticks(const SYSTEMTIME& time) {
  FILETIME ticks{};
  SystemTimeToFileTime(&time, &ticks);
  return static_cast<std::int64_t>(ticks.dwHighDateTime) << 32U | ticks.dwLowDateTime;
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

class Viewer {
 public:
  explicit Viewer(const LogOptions& options) : options_(options) {}

  // Gives false when nobody reads what it prints.
  bool Show(const DebugOutput::Line& line) {
    const auto& wanted = options_.processIds;
    if (!wanted.empty() &&
        std::find(wanted.begin(), wanted.end(), line.processId) == wanted.end()) {
      return true;
    }
    const auto parsed = ParseLibraryLine(line.text);
    if (!parsed && !options_.all) return true;
    const auto now = Now();
    return WriteLine(Stream::kOutput,
                     options_.json ? AsJson(now, line, parsed) : AsText(now, line, parsed));
  }

 private:
  static std::string WithoutLineBreak(std::string text) {
    text.erase(text.find_last_not_of("\r\n") + 1);
    return text;
  }

  std::string AsText(const LocalTime& now, const DebugOutput::Line& line,
                     const std::optional<LibraryLine>& parsed) {
    auto text = TimeText(now) + "  " + names_.NameOf(line.processId) + " (" +
                std::to_string(line.processId) + ")  ";
    if (!parsed) return text + WithoutLineBreak(line.text);
    return text + ReadableMessage(parsed->message) + "  [" + parsed->source + " " +
           std::to_string(parsed->number) + "]";
  }

  std::string AsJson(const LocalTime& now, const DebugOutput::Line& line,
                     const std::optional<LibraryLine>& parsed) {
    Json json{{"time", DateTimeText(now)},
              {"pid", line.processId},
              {"program", names_.NameOf(line.processId)},
              {"library", parsed.has_value()}};
    if (parsed) {
      json["source"] = parsed->source;
      json["number"] = parsed->number;
      json["message"] = parsed->message;
      json["result"] = OrNull(ResultIn(parsed->message));
    } else {
      json["message"] = WithoutLineBreak(line.text);
    }
    return JsonText(json, -1);
  }

  const LogOptions& options_;
  ProcessNames names_;
};

// Milliseconds until the end; nothing when it has come.
std::optional<DWORD> TimeLeft(std::optional<ULONGLONG> end) {
  if (!end) return INFINITE;
  const auto now = GetTickCount64();
  return now >= *end ? std::nullopt : std::optional(static_cast<DWORD>(*end - now));
}

}  // namespace

ExitCode RunLog(const LogOptions& options) {
  DebugOutput output;
  const StopOnControlC stop;
  std::optional<ULONGLONG> end;
  if (options.seconds) end = GetTickCount64() + static_cast<ULONGLONG>(*options.seconds * 1000);
  WriteLine(Stream::kError, end ? "nimbractl: listening" : "nimbractl: listening; Ctrl+C ends it");
  Viewer viewer(options);
  while (const auto left = TimeLeft(end)) {
    const auto line = output.Next(stop.Event(), *left);
    if (!line || !viewer.Show(*line)) break;
  }
  return ExitCode::kOk;
}

}  // namespace nimbractl
