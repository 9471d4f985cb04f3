#include <stdexcept>

#include "tests/faults/scenario.h"

namespace nimbra_test {
namespace {

void Require(bool held, const char* what) {
  if (!held) {
    throw std::runtime_error(std::string("cannot set the stage: ") + what);
  }
}

}  // namespace

// One shared object, its counts and its fields; and the root's identity, which is longer than a
// string holds by itself. The bytes are those of this project's compiler.
const Holdings kKeptRoot = {{"memory block", 2}, {"memory byte", 201}};
const Holdings kKeptDelegator = {{"memory block", 1}, {"memory byte", 80}};

Stage::Stage() {
  folder.WriteFile("file", "content");
  file = folder.ItemWithSlashes("file");
  names["file"] = file;
  folder.WriteFile("empty", "");
  names["empty"] = folder.ItemWithSlashes("empty");
}

void NewRoot(Stage& stage) {
  Require(CALL(CORVWinCFSyncRootNew, &stage.root, "C:\\Sync", 12) == 0, "a root");
}

void NewDelegator(Stage& stage) {
  Require(CALL(CORVWinCFCallbackDelegatorNew, &stage.delegator, &stage) == 0, "a delegator");
}

void NewPlaceholder(Stage& stage) {
  Require(CALL(CORVWinCFPlaceholderNew, &stage.placeholder, stage.file.c_str()) == 0,
          "a placeholder");
  stage.meta = CALL(CORVWinCFPlaceholderMetaNew, 1, 2, 3, 4, 4096, 0);
  Require(stage.meta != nullptr, "metadata");
}

void OpenPlaceholder(Stage& stage) {
  NewPlaceholder(stage);
  Require(CALL(CORVWinCFPlaceholderOpen, stage.placeholder) == 0, "an open placeholder");
}

std::size_t CountValues(HKEY root, const std::wstring& path) {
  HKEY key = nullptr;
  if (RegOpenKeyExW(root, path.c_str(), 0, KEY_READ | KEY_WOW64_64KEY, &key) != ERROR_SUCCESS) {
    return 0;
  }
  DWORD values = 0;
  RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr,
                   nullptr, nullptr, nullptr);
  std::size_t count = values;
  wchar_t name[256] = {};
  DWORD size = 256;
  for (DWORD i = 0;
       RegEnumKeyExW(key, i, name, &size, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
       ++i, size = 256) {
    count += CountValues(root, path + L"\\" + name);
  }
  RegCloseKey(key);
  return count;
}

void ReleaseAll(Stage& stage) {
  CALL(CORVWinCFSyncRootRelease, &stage.root);
  CALL(CORVWinCFCallbackDelegatorRelease, stage.delegator);
  CALL(CORVWinCFPlaceholderRelease, stage.placeholder);
  CALL(CORVWinCFPlaceholderMetaRelease, stage.meta);
  stage.root = nullptr;
  stage.delegator = nullptr;
  stage.placeholder = nullptr;
  stage.meta = nullptr;
}

const std::vector<Scenario>& Scenarios() {
  static const auto& scenarios = *[] {
    auto* const all = new std::vector<Scenario>;
    for (auto& part : {QueryScenarios(), RootScenarios(), TransferScenarios(), DelegatorScenarios(),
                       PlaceholderScenarios(), EntryScenarios(), ThumbnailScenarios()}) {
      all->insert(all->end(), part.begin(), part.end());
    }
    return all;
  }();
  return scenarios;
}

}  // namespace nimbra_test
