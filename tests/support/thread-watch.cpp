#include "tests/support/thread-watch.h"

#include <tlhelp32.h>

#include <algorithm>
#include <iterator>

namespace nimbra_test {

std::set<DWORD> ThreadWatch::Threads() {
  std::set<DWORD> threads;
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof(entry);
  for (BOOL found = Thread32First(snapshot, &entry); found;
       found = Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) {
      threads.insert(entry.th32ThreadID);
    }
  }
  CloseHandle(snapshot);
  return threads;
}

std::set<DWORD> ThreadWatch::Running() const {
  const std::set<DWORD> now = Threads();
  std::set<DWORD> started;
  std::set_difference(now.begin(), now.end(), before_.begin(), before_.end(),
                      std::inserter(started, started.end()));
  return started;
}

bool ThreadWatch::WaitUntilEnded() const {
  constexpr int kTries = 500;
  for (int i = 0; i < kTries; ++i) {
    if (Running().empty()) return true;
    Sleep(10);
  }
  return false;
}

}  // namespace nimbra_test
