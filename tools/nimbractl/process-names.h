#ifndef NIMBRA_NIMBRACTL_PROCESS_NAMES_H_
#define NIMBRA_NIMBRACTL_PROCESS_NAMES_H_

#include <windows.h>

#include <map>
#include <optional>
#include <string>

#include "moment.h"
#include "owners.h"

namespace nimbractl {

// The programs of processes. Windows gives the id of a process that has ended to another one, but
// not while a handle to the first is open.
class ProcessNames {
 public:
  // The program that a process ran when it wrote, or why that cannot be told.
  struct Program {
    std::optional<std::string> name;
    std::string reason;
    [[nodiscard]] std::string Text() const { return name.value_or(reason); }
  };
  Program ProgramOf(DWORD processId, const Span& written);

 private:
  struct Known {
    UniqueKernelObject process;  // holds the id
    std::string name;            // empty when Windows does not tell
    Moment start = 0;
  };

  const Known* Find(DWORD processId);

  std::map<DWORD, Known> known_;
};

}  // namespace nimbractl

#endif
