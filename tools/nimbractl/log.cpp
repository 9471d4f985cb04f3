// nimbractl log: what the library writes to the debugger output, of all processes, as it comes.

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
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

std::string ProgramName(DWORD processId) {
  const UniqueKernelObject process(
      OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  std::wstring path(32768, L'\0');
  auto length = static_cast<DWORD>(path.size());
  if (!process || !QueryFullProcessImageNameW(process.get(), 0, path.data(), &length)) return "?";
  path.resize(length);
  return Utf8(path.substr(path.rfind(L'\\') + 1));
}

std::string TimeText(const SYSTEMTIME& time) {
  char text[16];
  std::snprintf(text, sizeof text, "%02u:%02u:%02u.%03u", static_cast<unsigned>(time.wHour % 100U),
                static_cast<unsigned>(time.wMinute % 100U),
                static_cast<unsigned>(time.wSecond % 100U),
                static_cast<unsigned>(time.wMilliseconds % 1000U));
  return text;
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
    SYSTEMTIME now{};
    GetLocalTime(&now);
    return WriteLine(Stream::kOutput,
                     options_.json ? AsJson(now, line, parsed) : AsText(now, line, parsed));
  }

 private:
  // A process has one name for as long as it writes; its id may be another's later.
  const std::string& NameOf(DWORD processId) {
    auto& name = names_[processId];
    if (name.empty() || name == "?") name = ProgramName(processId);
    return name;
  }

  static std::string WithoutLineBreak(std::string text) {
    text.erase(text.find_last_not_of("\r\n") + 1);
    return text;
  }

  std::string AsText(const SYSTEMTIME& now, const DebugOutput::Line& line,
                     const std::optional<LibraryLine>& parsed) {
    auto text = TimeText(now) + "  " + NameOf(line.processId) + " (" +
                std::to_string(line.processId) + ")  ";
    if (!parsed) return text + WithoutLineBreak(line.text);
    return text + ReadableMessage(parsed->message) + "  [" + parsed->source + " " +
           std::to_string(parsed->number) + "]";
  }

  std::string AsJson(const SYSTEMTIME& now, const DebugOutput::Line& line,
                     const std::optional<LibraryLine>& parsed) {
    Json json{{"time", TimeText(now)},
              {"pid", line.processId},
              {"program", NameOf(line.processId)},
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
  std::map<DWORD, std::string> names_;
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
