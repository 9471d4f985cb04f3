#include "process-names.h"

#include <utility>

#include "basics.h"

namespace nimbractl {
namespace {

constexpr char kHasEnded[] = "ended";
constexpr char kUnknown[] = "?";

bool HasEnded(HANDLE process) { return WaitForSingleObject(process, 0) == WAIT_OBJECT_0; }

std::string NameOf(HANDLE process) {
  std::wstring path(32768, L'\0');
  auto length = static_cast<DWORD>(path.size());
  if (!QueryFullProcessImageNameW(process, 0, path.data(), &length)) return {};
  path.resize(length);
  return Utf8(path.substr(path.rfind(L'\\') + 1));
}

Moment StartOf(HANDLE process) {
  FILETIME start{}, end{}, kernel{}, user{};
  return GetProcessTimes(process, &start, &end, &kernel, &user) ? ToMoment(start) : 0;
}

}  // namespace

ProcessNames::Program ProcessNames::ProgramOf(DWORD processId, const Span& written) {
  constexpr Moment kSecond = 10'000'000;
  const auto* found = Find(processId);
  if (found == nullptr) {
    return {{}, GetLastError() == ERROR_ACCESS_DENIED ? kUnknown : kHasEnded};
  }
  if (found->start > written.latest) return {{}, kHasEnded};  // its id is another one's now
  // When this process was held up, a new process may have the id of the one that wrote. Else it is
  // one that writes as soon as it runs.
  const bool wasHeldUp = written.latest - written.earliest > kSecond;
  if (wasHeldUp && found->start > written.earliest) return {{}, kUnknown};
  if (found->name.empty()) return {{}, HasEnded(found->process.get()) ? kHasEnded : kUnknown};
  return {found->name, {}};
}

// Null, with the last error, for one that cannot be opened.
const ProcessNames::Known* ProcessNames::Find(DWORD processId) {
  auto found = known_.find(processId);
  if (found == known_.end()) {
    std::erase_if(known_, [](const auto& one) { return HasEnded(one.second.process.get()); });
    UniqueKernelObject process(
        OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, processId));
    if (!process) return nullptr;
    auto name = NameOf(process.get());
    const auto start = StartOf(process.get());
    found = known_.emplace(processId, Known{std::move(process), std::move(name), start}).first;
  }
  return &found->second;
}

}  // namespace nimbractl
