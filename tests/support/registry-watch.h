#ifndef NIMBRA_TESTS_SUPPORT_REGISTRY_WATCH_H_
#define NIMBRA_TESTS_SUPPORT_REGISTRY_WATCH_H_

#include <windows.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/import-double.h"

namespace nimbra_test {

enum class RegistryFunction { CreateKey, SetValue, DeleteValue, DeleteTree, CloseKey };

struct RegistryCall {
  RegistryFunction function;
  // The key given to the call; for CreateKey the root.
  HKEY key;
  // The subkey or value name; nothing when null was passed.
  std::optional<std::wstring> name;
  LSTATUS result;
  // CreateKey only.
  DWORD reserved = 0;
  bool hasClass = false;
  DWORD options = 0;
  REGSAM access = 0;
  bool hasSecurity = false;
  bool asksDisposition = false;
  HKEY opened = nullptr;
  // SetValue only.
  DWORD type = 0;
  std::string data = {};
};

// Records every registry write and delete of the program and refuses chosen ones; the rest reaches
// the real registry.
class RegistryWatch {
 public:
  RegistryWatch();

  std::vector<RegistryCall> Calls() const;
  std::vector<RegistryCall> CallsOf(RegistryFunction function) const;
  // Keys opened by CreateKey here that have not been closed.
  int StillOpen() const;
  // Lets the n-th call of that function from now on (1 = the next one) fail with `error`. A refused
  // CreateKey leaves garbage in its output, as the platform may.
  void FailCall(RegistryFunction function, int n, LSTATUS error);
  void Clear();

 private:
  std::optional<LSTATUS> TakeFailure(RegistryFunction function);
  LSTATUS Record(RegistryCall call);

  mutable std::mutex mutex_;
  std::vector<RegistryCall> calls_;
  std::vector<HKEY> open_;
  std::map<RegistryFunction, int> counts_;
  std::map<std::pair<RegistryFunction, int>, LSTATUS> failures_;
  ImportDouble<"RegCreateKeyExW", decltype(&::RegCreateKeyExW)> create_;
  ImportDouble<"RegSetValueExW", decltype(&::RegSetValueExW)> set_;
  ImportDouble<"RegDeleteValueW", decltype(&::RegDeleteValueW)> deleteValue_;
  ImportDouble<"RegDeleteTreeW", decltype(&::RegDeleteTreeW)> deleteTree_;
  ImportDouble<"RegCloseKey", decltype(&::RegCloseKey)> close_;
};

}  // namespace nimbra_test

#endif  // NIMBRA_TESTS_SUPPORT_REGISTRY_WATCH_H_
