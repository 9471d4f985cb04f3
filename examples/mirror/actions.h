#ifndef NIMBRA_EXAMPLES_MIRROR_ACTIONS_H_
#define NIMBRA_EXAMPLES_MIRROR_ACTIONS_H_

// What can be done to a sync root from outside the program that serves it.

#include <array>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "provider.h"

namespace mirror {

struct Failure : std::runtime_error {  // what happened, to what; what to do
  Failure(const std::string& what, const std::string& advice)
      : std::runtime_error(what + "\n  " + advice) {}
};
struct Usage : std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline void Require(CORVWinCFHresult result, const std::string& what) {
  static const std::map<unsigned, const char*> advice{
      {0x80040151, "registering writes to the machine's registry: run it once as administrator"},
      {0x80070005, "choose a folder that you may write to"},
      {0x8007018B, "choose a folder that you may write to"},
      {0x8007007E, "this Windows lacks the Cloud Files platform (cldapi.dll)"},
      {0x80070426, "the cloud filter is not running: start it first"},
      {0x8007017A, "another program serves this sync root: stop it first"},
      {0x80070186, "serve it once with mirror <source folder> <sync root>"},
      {0x800700B7, "it is registered for another program or number: --unregister it first"}};
  if (result >= 0) return;
  const auto known = advice.find(static_cast<unsigned>(result));
  throw Failure(what + " " + ResultText(result),
                known != advice.end() ? known->second : "the debugger output may say more");
}

constexpr auto kNotUnderSyncRoot = static_cast<CORVWinCFHresult>(0x80070186);
constexpr char kStateHeading[] =
    "placeholder  on disk      pinned       excluded     in sync      path = identity\n";
using Item = CORVWinCFPlaceholderHandle;

inline std::string RootIdentity(const fs::path& path) {
  std::vector<char> identity(65536);  // as much as the library reads, and so ends in a zero
  CORVWinCFGetSyncRootIdentityByPath(Utf8(path).c_str(), identity.data());
  return identity.data();
}

inline bool PrintState(const fs::path& path, Item item) {
  std::array<char, 4096 + 1> identity{};  // the library writes no terminator
  const bool isPlaceholder = CORVWinCFPlaceholderIsPlaceholder(item) == 0;
  if (isPlaceholder) CORVWinCFPlaceholderGetFileIdentity(item, identity.data());
  const std::array answers{isPlaceholder ? 0 : -1, CORVWinCFPlaceholderIsFullyHydrated(item),
                           CORVWinCFPlaceholderIsPinned(item), CORVWinCFPlaceholderIsExcluded(item),
                           CORVWinCFPlaceholderIsInSync(item)};
  for (const auto answer : answers) std::cout << (answer == 0 ? "yes          " : "no           ");
  std::cout << Utf8(path) << " = " << identity.data() << "\n";
  return true;
}

inline bool Hydrate(const fs::path& path, Item item) {
  return fs::is_directory(path) || CORVWinCFPlaceholderHydrateAll(item) == 0;
}

inline bool Dehydrate(const fs::path& path, Item item) {
  if (fs::is_directory(path) || fs::file_size(path) == 0) return true;
  return CORVWinCFPlaceholderDehydrateAll(item) == 0 &&
         CORVWinCFPlaceholderIsFullyHydrated(item) != 0;
}

inline int Unregister(const fs::path& root) {
  const auto identity = RootIdentity(root);
  const auto session = std::strtoull(identity.substr(identity.rfind('.') + 1).c_str(), nullptr, 10);
  Require(CORVWinCFSyncRootUnregister(NewSyncRoot(root, session).get()),
          "cannot unregister " + Utf8(root));
  std::cout << "unregistered " << Utf8(root) << "\n";
  return 0;
}

struct Action {
  bool (*run)(const fs::path& path, Item item);
  bool goesDown;  // to every item below; for the others the platform does
  const char* advice;
};

constexpr char kRefused[] = "the system refused it; the debugger output may say more";
inline const std::map<std::string, Action> kActions{
    {"--state", {PrintState, true, ""}},
    {"--hydrate-all", {Hydrate, true, "is mirror serving it, and is its source still there?"}},
    {"--dehydrate", {Dehydrate, true, "it is pinned, changed, excluded or open"}},
    {"--pin",
     {[](auto&, Item i) { return CORVWinCFPlaceholderPinToLocal(i) == 0; }, false, kRefused}},
    {"--unpin",
     {[](auto&, Item i) { return CORVWinCFPlaceholderForceUnpin(i) == 0; }, false, kRefused}},
    {"--exclude",
     {[](auto&, Item i) { return CORVWinCFPlaceholderSetExcluded(i) == 0; }, false, kRefused}}};

inline int Act(const std::string& name, const fs::path& top) {
  if (name == "--unregister") return Unregister(top);
  const auto found = kActions.find(name);
  if (found == kActions.end()) throw Usage("unknown option " + name);
  const auto& action = found->second;
  if (RootIdentity(top).empty()) Require(kNotUnderSyncRoot, Utf8(top) + " lies in no sync root");
  int done = 0, failed = 0;
  const auto visit = [&](const fs::path& path, const auto&...) {
    const auto item = NewPlaceholder(path);
    const bool isOpen = CORVWinCFPlaceholderOpen(item.get()) == 0;
    if (isOpen && action.run(path, item.get())) return void(++done);
    ++failed;
    std::cout << "failed  " << Utf8(path) << ": "
              << (isOpen ? action.advice : "it cannot be opened") << "\n";
  };
  if (name == "--state") std::cout << kStateHeading;
  const bool goesDown = action.goesDown && fs::is_directory(top);
  goesDown ? Walk(top, visit) : visit(top);
  std::cout << name.substr(2) << ": " << done << " done, " << failed << " failed\n";
  return failed == 0 ? 0 : 1;
}

}  // namespace mirror

#endif  // NIMBRA_EXAMPLES_MIRROR_ACTIONS_H_
