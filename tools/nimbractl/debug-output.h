#ifndef NIMBRA_NIMBRACTL_DEBUG_OUTPUT_H_
#define NIMBRA_NIMBRACTL_DEBUG_OUTPUT_H_

#include <windows.h>

#include <optional>
#include <string>

#include "owners.h"

namespace nimbractl {

// The debugger output of all processes of the session, as Windows hands it to the one program that
// asks for it. Every process that writes waits for this one meanwhile: be quick.
class DebugOutput {
 public:
  // Throws a Failure if another program has it.
  DebugOutput();

  struct Line {
    DWORD processId = 0;
    std::string text;  // UTF-8, line break included
  };
  // The next one; nothing after so many milliseconds, or when `stop` is signalled.
  std::optional<Line> Next(HANDLE stop, DWORD milliseconds);

 private:
  // What Windows has in the shared memory.
  struct Record {
    DWORD processId;
    char text[4096 - sizeof(DWORD)];
  };

  UniqueKernelObject mapping_, isFree_, isFilled_;
  UniqueView view_;
};

}  // namespace nimbractl

#endif
