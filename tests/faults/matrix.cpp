#include "tests/faults/matrix.h"

#include <windows.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string_view>

#include "tests/faults/expectation.h"
#include "tests/support/handle-census.h"

namespace nimbra_test {
namespace {

// A piece of an expected message that may be anything without blanks.
constexpr char kAnything = '\x01';
constexpr std::string_view kFallbackLine =
    "lib\\cloud-filter\\win-cf\\sync-root (0) | Failed to build the callback record\r\n";

std::string running;

LONG CALLBACK NameCrash(EXCEPTION_POINTERS* exception) {
  if (exception->ExceptionRecord->ExceptionCode == EXCEPTION_ACCESS_VIOLATION) {
    std::fprintf(stderr, "crashed: %s\n", running.c_str());
    std::fflush(stderr);
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

void NameAbort(int) {
  std::fprintf(stderr, "aborted: %s\n", running.c_str());
  std::fflush(stderr);
}

std::string Replace(std::string text, const std::string& what, const std::string& with) {
  for (std::size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
  return text;
}

std::string Expand(const Stage& stage, std::string text, const Fault& fault) {
  const auto number = fault.code.number;
  text = Replace(std::move(text), "{code}", std::to_string(number));
  text = Replace(std::move(text), "{hr}",
                 std::to_string(HRESULT_FROM_WIN32(static_cast<DWORD>(number))));
  text = Replace(std::move(text), "{handle}", std::string(1, kAnything));
  for (const auto& [name, value] : stage.names) {
    text = Replace(std::move(text), "{" + name + "}", value);
  }
  return text;
}

bool Matches(std::string_view expected, std::string_view actual) {
  const std::size_t gap = expected.find(kAnything);
  if (gap == std::string_view::npos) {
    return expected == actual;
  }
  const std::string_view head = expected.substr(0, gap);
  const std::string_view tail = expected.substr(gap + 1);
  return actual.size() > head.size() + tail.size() && actual.starts_with(head) &&
         actual.ends_with(tail) &&
         actual.substr(head.size(), actual.size() - head.size() - tail.size()).find(' ') ==
             std::string_view::npos;
}

// A line in the form of the table; a line in another form as it is, so that it matches nothing.
struct LogLine {
  bool isFramed = false;
  std::string source;
  std::string number;
  std::string message;
};

LogLine ParseLine(const std::string& line) {
  LogLine parsed;
  const std::size_t open = line.find(" (");
  const std::size_t close = line.find(") | ");
  if (open == std::string::npos || close == std::string::npos || close < open ||
      !line.ends_with("\r\n")) {
    return parsed;
  }
  const std::string path = line.substr(0, open);
  parsed.source = path.substr(path.rfind('\\') + 1);
  parsed.number = line.substr(open + 2, close - open - 2);
  parsed.message = line.substr(close + 4, line.size() - close - 6);
  const std::string folder = parsed.source == "nimbra" ? R"(lib\cloud-filter\nimbra-host\nimbra\)"
                                                       : R"(lib\cloud-filter\win-cf\)";
  parsed.isFramed = path == folder + parsed.source && !parsed.number.empty() &&
                    parsed.number.front() != '0' &&
                    std::all_of(parsed.number.begin(), parsed.number.end(),
                                [](unsigned char c) { return std::isdigit(c) != 0; });
  return parsed;
}

bool MatchesLine(const std::string& expected, const std::string& actual) {
  const LogLine line = ParseLine(actual);
  const std::size_t first = expected.find('|');
  const std::size_t second = expected.find('|', first + 1);
  const std::string number = expected.substr(first + 1, second - first - 1);
  return line.isFramed && expected.substr(0, first) == line.source &&
         (number == "#" || number == line.number) &&
         Matches(std::string_view(expected).substr(second + 1), line.message);
}

// Whether a line is one of the scenario's, with whatever in the places of the {names}.
bool IsKnownLine(const Scenario& scenario, const std::string& actual) {
  if (actual.empty() || actual == kFallbackLine) {
    return true;
  }
  const LogLine line = ParseLine(actual);
  const auto begins = [&](const std::string& expected) {
    const std::size_t message = expected.find('|', expected.find('|') + 1) + 1;
    const std::string head = expected.substr(message, expected.find('{') - message);
    return expected.starts_with(line.source + "|") && line.message.starts_with(head);
  };
  const auto any = [&](const std::vector<std::string>& lines) {
    return std::any_of(lines.begin(), lines.end(), begins);
  };
  return line.isFramed &&
         (any(scenario.success.log) ||
          begins("sync-root|#|Failed to build the callback record: std::bad_alloc") ||
          std::any_of(scenario.rows.begin(), scenario.rows.end(),
                      [&](const Row& row) { return any(row.outcome.log); }));
}

std::string Quote(const std::vector<std::string>& lines) {
  std::string text;
  for (const std::string& line : lines) {
    text += "\n      " + Replace(line, "\r\n", "");
  }
  return text.empty() ? " none" : text;
}

std::int64_t CallAndCatch(Stage& stage, const Scenario& scenario) {
  try {
    return scenario.call(stage);
  } catch (...) {
    // Made by the library's copy of the runtime, so not to be freed by this program's.
    static auto& kept = *new std::vector<std::exception_ptr>;
    kept.push_back(std::current_exception());
    return kThrown;
  }
}

}  // namespace

Holdings HeldNow(const Stage& stage) {
  Holdings held = stage.gates.Held();
  held["kernel handle"] = static_cast<std::int64_t>(OpenHandleCount());
  return held;
}

Holdings Growth(const Holdings& before, const Holdings& after) {
  Holdings growth;
  for (const auto& [name, count] : after) {
    const auto found = before.find(name);
    const std::int64_t change = count - (found == before.end() ? 0 : found->second);
    if (change != 0) {
      growth[name] = change;
    }
  }
  return growth;
}

void MeetException(Stage& stage) {
  // The object's memory and the exception's: the runtime then turns to its reserve, whose lock is
  // made on first use.
  stage.gates.Begin({"allocation", 1, true, {0, ERROR_NOT_ENOUGH_MEMORY, 0}, 2});
  CORVWinCFCallbackDelegatorHandle handle = nullptr;
  CALL(CORVWinCFCallbackDelegatorNew, &handle, nullptr);
  stage.gates.End();
}

void NameCrashes() {
  AddVectoredExceptionHandler(1, &NameCrash);
  std::signal(SIGABRT, &NameAbort);
}

std::string Describe(const Fault& fault) {
  if (fault.function.empty()) {
    return "no fault";
  }
  return fault.function + " call " + std::to_string(fault.n) +
         (fault.persistent ? " and all later ones" : "") + " failing with " +
         std::to_string(fault.code.number);
}

Played PlayOnly(Stage& stage, const Scenario& scenario, const Fault& fault) {
  running = scenario.exportName + " " + scenario.variant + ", " + Describe(fault);
  Played run;
  stage.state.clear();
  stage.cloud.Clear();
  if (scenario.setUp) {
    scenario.setUp(stage);
  }
  stage.gates.Begin(fault);
  run.result = CallAndCatch(stage, scenario);
  run.observation = stage.gates.End();
  run.state = stage.state;
  if (scenario.check) {
    run.complaint = scenario.check(stage, run.result);
  }
  if (scenario.tearDown) {
    scenario.tearDown(stage);
  }
  stage.cloud.Clear();
  return run;
}

Played Play(Stage& stage, const Scenario& scenario, const Fault& fault) {
  const Holdings before = HeldNow(stage);
  Played run = PlayOnly(stage, scenario, fault);
  run.growth = Growth(before, HeldNow(stage));
  if (scenario.startsThread) {
    // The system takes a moment to close what a thread that has ended had.
    const auto kept = scenario.kept.find("kernel handle");
    const std::int64_t most = kept == scenario.kept.end() ? 0 : kept->second;
    for (int i = 0; i < 100 && run.growth["kernel handle"] > most; ++i) {
      Sleep(10);
      run.growth = Growth(before, HeldNow(stage));
    }
    std::erase_if(run.growth, [](const auto& entry) { return entry.second == 0; });
  }
  return run;
}

std::vector<std::string> Compare(const Stage& stage, const Played& run, const Outcome& expected,
                                 const Fault& fault) {
  std::vector<std::string> complaints;
  const std::int64_t result = expected.result == kItsCode ? fault.code.number : expected.result;
  if (run.result != result) {
    complaints.push_back("result " + std::to_string(run.result) + ", not " +
                         std::to_string(result));
  }
  std::vector<std::string> lines;
  for (const std::string& line : expected.log) {
    lines.push_back(Expand(stage, line, fault));
  }
  const auto& actual = run.observation.lines;
  if (!std::equal(lines.begin(), lines.end(), actual.begin(), actual.end(), MatchesLine)) {
    complaints.push_back("log" + Quote(actual) + "\n    not" + Quote(lines));
  }
  if (!expected.state.empty() && run.state != expected.state) {
    complaints.push_back("state '" + run.state + "', not '" + expected.state + "'");
  }
  if (!run.complaint.empty()) {
    complaints.push_back(run.complaint);
  }
  return complaints;
}

std::vector<std::string> CompareWeakly(const Played& run, const Scenario& scenario) {
  std::vector<std::string> complaints;
  const auto& others = scenario.otherResults;
  if (run.result != scenario.success.result && run.result != scenario.withoutMemory &&
      !(run.result == kThrown && scenario.mayThrow) &&
      std::find(others.begin(), others.end(), run.result) == others.end()) {
    complaints.push_back("result " + std::to_string(run.result));
  }
  for (const std::string& line : run.observation.lines) {
    if (!IsKnownLine(scenario, line)) {
      complaints.push_back("strange line: " + line);
    }
  }
  if (!run.complaint.empty()) {
    complaints.push_back(run.complaint);
  }
  return complaints;
}

std::vector<std::string> CompareGrowth(const Played& run, const Scenario& scenario) {
  const bool failed = run.result != scenario.success.result && run.result == scenario.withoutMemory;
  const Holdings& kept = failed && scenario.keptOnFailure ? *scenario.keptOnFailure : scenario.kept;
  Holdings all = kept;
  all.insert(run.growth.begin(), run.growth.end());
  std::vector<std::string> complaints;
  for (const auto& [name, ignored] : all) {
    const auto held = run.growth.find(name);
    const auto usual = kept.find(name);
    const std::int64_t grown = held == run.growth.end() ? 0 : held->second;
    const std::int64_t most = usual == kept.end() ? 0 : usual->second;
    // An exception that left the library was made by it and is held here.
    const bool isException = run.result == kThrown && name.starts_with("memory");
    const bool isPart = scenario.keepsParts && grown >= 0 && grown <= most;
    if (grown != most && !isPart && !isException) {
      complaints.push_back(name + " " + std::to_string(grown) + " more, not " +
                           std::to_string(most));
    }
  }
  return complaints;
}

void FaultMatrix::Report(const Fault& fault, const std::vector<std::string>& complaints) {
  ++result_.faults;
  if (complaints.empty()) {
    ++result_.passed;
    return;
  }
  std::string text = scenario_.exportName +
                     (scenario_.variant.empty() ? "" : " (" + scenario_.variant + ")") + ", " +
                     Describe(fault);
  for (const std::string& complaint : complaints) {
    text += "\n    " + complaint;
  }
  result_.failures.push_back(text);
}

std::vector<std::string> FaultMatrix::Judge(const Stage& stage, const Played& run,
                                            const Fault& fault, bool weak,
                                            const Observation& usual) const {
  if (weak) {
    return CompareWeakly(run, scenario_);
  }
  const auto [outcome, shown] = Expected(scenario_, fault, usual);
  return outcome ? Compare(stage, run, *outcome, shown)
                 : std::vector<std::string>{
                       "the table does not say what comes of it. Add a row to the scenario"};
}

void FaultMatrix::Inject(const Fault& fault, bool weak) {
  std::vector<std::string> complaints;
  // What is made on first use and kept grows once; what leaks grows again.
  constexpr int kTries = 3;
  for (int i = 0; i < kTries; ++i) {
    const Played run = Play(*stage_, scenario_, fault);
    complaints = run.observation.hasFailed ? Judge(*stage_, run, fault, weak, usual_)
                                           : std::vector<std::string>{"the call was not made"};
    if (!complaints.empty() || (complaints = CompareGrowth(run, scenario_)).empty()) {
      break;
    }
  }
  const Played after = Play(*stage_, scenario_);
  for (const std::string& complaint : Compare(*stage_, after, scenario_.success, {})) {
    complaints.push_back("afterwards: " + complaint);
  }
  Report(fault, complaints);
}

void FaultMatrix::InjectFirst(const Fault& fault, bool weak, const Played& first) {
  Stage stage;
  Played run = Play(stage, scenario_, fault);
  std::vector<std::string> complaints = Judge(stage, run, fault, weak, first.observation);
  if (fault.function.starts_with(kLookUp) && !IsLookUpOfPlatform(fault, first.observation) &&
      run.growth["library"] >= first.growth.at("library")) {
    complaints.emplace_back("the DLL without the function was kept");
  }
  const Played after = Play(stage, scenario_);
  // A function that the platform does not have stays missing; all else is tried again.
  const auto later = IsLookUpOfPlatform(fault, first.observation)
                         ? Judge(stage, after, fault, weak, first.observation)
                         : Compare(stage, after, scenario_.success, {});
  for (const std::string& complaint : later) {
    complaints.push_back("afterwards: " + complaint);
  }
  Report(fault, complaints);
}

void FaultMatrix::RunFunction(const FunctionRow& row, const std::string& function, int calls) {
  const bool weak = row.treatment != Treatment::kFails;
  for (int n = 1; n <= calls; ++n) {
    ++result_.callSites;
    for (const FailureCode& code : row.failures) {
      for (const bool persistent : {false, true}) {
        if (persistent && scenario_.startsThread && row.treatment == Treatment::kAllocates) {
          continue;
        }
        Inject({function, n, persistent, code}, weak);
      }
    }
  }
}

void FaultMatrix::RunWarm() {
  stage_ = std::make_unique<Stage>();
  MeetException(*stage_);
  Play(*stage_, scenario_);
  Play(*stage_, scenario_);
  const Played usual = Play(*stage_, scenario_);
  usual_ = usual.observation;
  std::vector<std::string> complaints = Compare(*stage_, usual, scenario_.success, {});
  const auto growth = CompareGrowth(usual, scenario_);
  complaints.insert(complaints.end(), growth.begin(), growth.end());
  Report({}, complaints);
  for (const auto& [function, calls] : usual_.calls) {
    // Contains those of operator new.
    const FunctionRow* const row =
        FindFunction(function == "allocation" ? std::string("malloc") : function);
    if (row != nullptr && !row->failures.empty()) {
      RunFunction(*row, function, calls);
    }
  }
  result_.unknown = stage_->gates.Unknown();
}

// What happens on first use only: loading the platform, looking up its functions, and what is
// allocated once.
void FaultMatrix::RunFresh() {
  Played first;
  {
    Stage stage;
    first = Play(stage, scenario_);
  }
  const auto inject = [&](const std::string& function, int n, DWORD error, bool weak) {
    // Without any memory a thread's first exception ends the process: the runtime makes room for it
    // then and gives up where there is none.
    InjectFirst({function, n, !weak, {0, error, error}}, weak, first);
  };
  for (const auto& [function, calls] : first.observation.calls) {
    if (function.starts_with(kLoad)) {
      ++result_.callSites;
      inject(function, 1, ERROR_MOD_NOT_FOUND, false);
      inject(function, 1, ERROR_ACCESS_DENIED, false);
      // What comes after the first function of the DLL works again.
      constexpr DWORD kNoMemory = ERROR_NOT_ENOUGH_MEMORY;
      InjectFirst({function, 1, false, {0, kNoMemory, kNoMemory}}, false, first);
    } else if (function.starts_with(kLookUp)) {
      ++result_.callSites;
      if (IsMissed(function, first.observation)) {
        inject(function, 1, ERROR_PROC_NOT_FOUND, false);
      }
    } else if (function == "operator new") {
      for (int n = usual_.calls[function] + 1; n <= calls; ++n) {
        ++result_.callSites;
        inject(function, n, ERROR_NOT_ENOUGH_MEMORY, true);
      }
    }
  }
}

FaultMatrix::Result FaultMatrix::RunAll() {
  RunWarm();
  stage_.reset();
  RunFresh();
  return result_;
}

}  // namespace nimbra_test
