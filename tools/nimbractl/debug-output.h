#ifndef NIMBRA_NIMBRACTL_DEBUG_OUTPUT_H_
#define NIMBRA_NIMBRACTL_DEBUG_OUTPUT_H_

#include <windows.h>

#include <optional>
#include <string>

#include "moment.h"
#include "owners.h"

namespace nimbractl {

// The debugger output of all processes of the session, as Windows hands it to the one program that
// asks for it. Every process that writes waits for this one meanwhile, up to ten seconds a line: be
// quick.
class DebugOutput {
 public:
  // Throws a Failure if another program has it. One that has ended, or hangs, while a process waits
  // for it has it no more.
  DebugOutput();
  // Leaves no process waiting.
  ~DebugOutput();
  DebugOutput(const DebugOutput&) = delete;
  DebugOutput& operator=(const DebugOutput&) = delete;

  [[nodiscard]] bool WasLeftBehind() const { return wasLeftBehind_; }

  struct Line {
    DWORD processId = 0;
    Span written;
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

  bool Create();
  bool Open();
  void Close();
  bool IsServed();
  void TakeOver();

  UniqueKernelObject mapping_, isFree_, isFilled_;
  UniqueView view_;
  bool wasLeftBehind_ = false;
  Moment wasEmpty_ = 0;  // the last that is known of at which there was no line
};

}  // namespace nimbractl

#endif
