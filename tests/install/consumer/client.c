/* A client of the installed package: links with what lib/ has for its linker and prints what some
   functions answer. Compiled without a C runtime too, where nothing but the header and kernel32 is
   at hand. */
#include <nimbra/nimbra.h>

#ifdef NIMBRA_WITHOUT_C_RUNTIME

__declspec(dllimport) void* GetStdHandle(unsigned long which);
__declspec(dllimport) int WriteFile(void* file, const void* data, unsigned long size,
                                    unsigned long* written, void* overlapped);
__declspec(dllimport) void ExitProcess(unsigned int code);

static void Print(const char* text) {
  unsigned long size = 0;
  unsigned long written;
  while (text[size] != 0) ++size;
  WriteFile(GetStdHandle((unsigned long)-11), text, size, &written, 0);
}

#else

#include <stdio.h>

static void Print(const char* text) { fputs(text, stdout); }

#endif

static int PrintAnswers(void) {
  CORVWinCFPlatformInfo info;
  char* guid = 0;
  Print(CORVWinCFIsWinVersionSupportFileStreaming() ? "gate open\n" : "gate closed\n");
  Print(CORVWinCFGetPlatformInfo(&info) == 0 ? "platform info\n" : "no platform info\n");
  if (CORVWinCFGenerateGuid(&guid) != 0) return 1;
  Print(guid);
  Print("\n");
  CORVWinCFReleaseGuid(guid);
  return 0;
}

#ifdef NIMBRA_WITHOUT_C_RUNTIME
void mainCRTStartup(void) { ExitProcess((unsigned int)PrintAnswers()); }
#else
int main(void) { return PrintAnswers(); }
#endif
