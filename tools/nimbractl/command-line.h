#ifndef NIMBRA_NIMBRACTL_COMMAND_LINE_H_
#define NIMBRA_NIMBRACTL_COMMAND_LINE_H_

#include <string>
#include <vector>

#include "basics.h"

namespace nimbractl {

// Does what the arguments (UTF-8, without the program's name) ask for. Throws a Failure.
ExitCode RunCommandLine(std::vector<std::string> arguments);

}  // namespace nimbractl

#endif
