// e2e-id-reuser PID PROGRAM [ARGUMENT...]: runs the program as a process with the given id, which
// must be free, and gives its exit code.
//
// Wine hands the ids of ended processes and threads out again in the order in which they were
// freed. So threads are made and ended until the id comes round, and once more to the one before.

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

DWORD WINAPI DoNothing(void*) { return 0; }

// The id of a thread, which is free again when this returns.
DWORD UseUpId() {
  DWORD id = 0;
  const HANDLE thread = CreateThread(nullptr, 0, DoNothing, nullptr, 0, &id);
  if (thread == nullptr) return 0;
  WaitForSingleObject(thread, INFINITE);
  CloseHandle(thread);
  return id;
}

// The id that is handed out before the wanted one; 0 if that does not come.
DWORD FindIdBefore(DWORD wanted) {
  DWORD before = UseUpId();
  for (int left = 20'000; left > 0; --left) {
    const DWORD id = UseUpId();
    if (id == wanted) return before;
    before = id;
  }
  return 0;
}

bool Start(std::string commandLine, PROCESS_INFORMATION& process) {
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  return CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED,
                        nullptr, nullptr, &startup, &process) != FALSE;
}

// Gives false when the process is another one, which is ended then.
bool StartAs(DWORD wanted, const std::string& commandLine, PROCESS_INFORMATION& process) {
  const DWORD before = FindIdBefore(wanted);
  if (before == 0) return false;
  for (int left = 20'000; left > 0 && UseUpId() != before; --left) {
  }
  if (!Start(commandLine, process)) return false;
  if (process.dwProcessId == wanted) return true;
  TerminateProcess(process.hProcess, 1);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return false;
}

int Run(const PROCESS_INFORMATION& process) {
  DWORD code = 1;
  ResumeThread(process.hThread);
  WaitForSingleObject(process.hProcess, INFINITE);
  GetExitCodeProcess(process.hProcess, &code);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return static_cast<int>(code);
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 3) return 2;
  std::string commandLine;
  for (int at = 2; at < count; ++at) commandLine += '"' + std::string(arguments[at]) + "\" ";
  const DWORD wanted = std::strtoul(arguments[1], nullptr, 10);
  for (int left = 10; left > 0; --left) {
    PROCESS_INFORMATION process{};
    if (StartAs(wanted, commandLine, process)) return Run(process);
  }
  std::fprintf(stderr, "no process got the id %lu\n", wanted);
  return 3;
}
