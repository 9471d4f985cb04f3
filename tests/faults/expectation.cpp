#include "tests/faults/expectation.h"

#include <winerror.h>

namespace nimbra_test {
namespace {

constexpr std::string_view kPlatform = "cldapi.dll";

// How well a row fits a fault; -1 for not at all.
int Fit(const Row& row, const Fault& fault) {
  if (row.function != fault.function || (row.n != kAnyCall && row.n != fault.n) ||
      (row.code && *row.code != fault.code.number) ||
      (row.persistent && *row.persistent != fault.persistent)) {
    return -1;
  }
  return (row.n != kAnyCall ? 1 : 0) + (row.code ? 2 : 0) + (row.persistent ? 1 : 0);
}

const Row* BestRow(const Scenario& scenario, const Fault& fault) {
  const Row* best = nullptr;
  int bestFit = -1;
  for (const Row& row : scenario.rows) {
    if (const int fit = Fit(row, fault); fit > bestFit) {
      best = &row;
      bestFit = fit;
    }
  }
  return best;
}

// What a function gives when it cannot be called.
Fault Uncallable(const std::string& name, DWORD error, bool persistent) {
  Fault fault{name, 1, persistent, {}};
  const FunctionRow* const row = FindFunction(name);
  if (row != nullptr && !row->failures.empty()) {
    fault.code = row->failures.front();
    fault.code.number =
        fault.code.number < 0 ? std::int64_t{HRESULT_FROM_WIN32(error)} : std::int64_t{error};
  }
  return fault;
}

// The DLL that a function was looked up in; empty for an import.
std::string LibraryOf(const std::string& function, const Observation& usual) {
  const auto found = usual.libraries.find(function);
  return found == usual.libraries.end() ? std::string() : found->second;
}

// What comes of it that a function cannot be called. What cannot be given back was never had.
std::optional<Outcome> WithoutFunction(const Scenario& scenario, const Fault& fault) {
  const FunctionRow* const row = FindFunction(fault.function);
  if (row == nullptr || row->treatment != Treatment::kFails) {
    return scenario.success;
  }
  const Row* const found = BestRow(scenario, fault);
  return found == nullptr ? std::nullopt : std::optional(found->outcome);
}

bool IsHarmless(const Outcome& outcome, const Outcome& success) {
  return outcome.result == success.result && outcome.log == success.log &&
         (outcome.state.empty() || outcome.state == success.state);
}

// What comes of it that a DLL cannot be loaded, for good or when it is tried first: that decides
// the first of its functions whose failure is not without consequence.
Expectation WithoutLibrary(const Scenario& scenario, const std::string& library, DWORD error,
                           bool persistent, const Observation& usual) {
  Expectation expected{scenario.success, {}};
  for (const std::string& function : usual.order) {
    if (LibraryOf(function, usual) == library) {
      expected.shown = Uncallable(function, error, persistent);
      expected.outcome = WithoutFunction(scenario, expected.shown);
      if (!persistent || !expected.outcome || !IsHarmless(*expected.outcome, scenario.success)) {
        break;
      }
    }
  }
  return expected;
}

}  // namespace

bool IsLookUpOfPlatform(const Fault& fault, const Observation& usual) {
  return fault.function.starts_with(kLookUp) &&
         LibraryOf(fault.function.substr(kLookUp.size()), usual) == kPlatform;
}

bool IsMissed(const std::string& lookUp, const Observation& usual) {
  const std::string function = lookUp.substr(kLookUp.size());
  const std::string library = LibraryOf(function, usual);
  return library == kPlatform ? usual.calls.contains(function) : !library.empty();
}

Expectation Expected(const Scenario& scenario, const Fault& fault, const Observation& usual) {
  const bool isLoad = fault.function.starts_with(kLoad);
  if (!isLoad && !fault.function.starts_with(kLookUp)) {
    const Row* const row = BestRow(scenario, fault);
    return {row == nullptr ? std::nullopt : std::optional(row->outcome), fault};
  }
  const std::string name = fault.function.substr((isLoad ? kLoad : kLookUp).size());
  Expectation expected;
  if (IsLookUpOfPlatform(fault, usual)) {
    expected.shown = Uncallable(name, fault.code.lastError, true);
    expected.outcome = WithoutFunction(scenario, expected.shown);
  } else {
    expected = WithoutLibrary(scenario, isLoad ? name : LibraryOf(name, usual),
                              fault.code.lastError, fault.persistent, usual);
  }
  if (const Row* const row = BestRow(scenario, fault)) {
    expected.outcome = row->outcome;
  }
  return expected;
}

}  // namespace nimbra_test
