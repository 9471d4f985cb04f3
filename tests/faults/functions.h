#ifndef NIMBRA_TESTS_FAULTS_FUNCTIONS_H_
#define NIMBRA_TESTS_FAULTS_FUNCTIONS_H_

#include <windows.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace nimbra_test {

// How the matrix treats a function that the library calls.
enum class Treatment {
  // Its calls are failed in turn.
  kFails,
  // The same for all such functions together: they allocate.
  kAllocates,
  // The same, under weaker expectations: without it texts are empty, which every operation survives
  // in its own way.
  kConverts,
  // Gives something back. Its calls are counted and never failed: what cannot be closed is not
  // open,
  // and no result of it is looked at.
  kCloses,
  // Its calls are seen and never failed.
  kWatched,
  // Not touched at all.
  kUntouched,
};

// What a failing call gives.
struct FailureCode {
  std::uintptr_t result = 0;
  DWORD lastError = 0;
  // The number that stands for the failure: what a log line would show.
  std::int64_t number = 0;
};

struct FunctionRow {
  const char* name;
  Treatment treatment;
  std::vector<FailureCode> failures;
  // The kind of resource that a successful call opens or closes.
  const char* opens = nullptr;
  const char* closes = nullptr;
  // Why it is not failed.
  const char* reason = nullptr;
};

// The row of a function, or null. Methods are written Interface::Method.
const FunctionRow* FindFunction(std::string_view name);

// Whether the library may load a DLL by this name, and look for it in these folders.
bool MayBeLoaded(std::string_view library, DWORD folders);

// Whether a call's result means success, by the functions' own conventions.
bool Succeeded(const FunctionRow& row, std::uintptr_t result);

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_FAULTS_FUNCTIONS_H_
