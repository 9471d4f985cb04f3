// Prints its process id and writes each of its arguments to the debugger output, in one piece. At
// the argument "-" it waits for a line on its standard input.

#include <windows.h>

#include <shellapi.h>

#include <cstdio>
#include <cwchar>

int main() {
  std::printf("%lu\n", GetCurrentProcessId());
  std::fflush(stdout);
  int count = 0;
  wchar_t** const texts = CommandLineToArgvW(GetCommandLineW(), &count);
  for (int at = 1; at < count; ++at) {
    if (std::wcscmp(texts[at], L"-") == 0) {
      std::getchar();
    } else {
      OutputDebugStringW(texts[at]);
    }
  }
  LocalFree(texts);
  return 0;
}
