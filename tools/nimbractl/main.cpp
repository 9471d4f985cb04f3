// nimbractl: the library's functions, and what they say, from the command line.

#include <windows.h>

#include <shellapi.h>

#include <new>
#include <string>
#include <vector>

#include "command-line.h"
#include "console.h"
#include "items.h"
#include "owners.h"

namespace {

// Not what main gets: the runtime of some compilers expands wildcards there.
std::vector<std::string> Arguments() {
  int count = 0;
  const std::unique_ptr<wchar_t*, nimbractl::Call<LocalFree>> texts(
      CommandLineToArgvW(GetCommandLineW(), &count));
  std::vector<std::string> arguments;
  for (int at = 1; at < count; ++at) arguments.push_back(nimbractl::Utf8(texts.get()[at]));
  return arguments;
}

}  // namespace

int main() {
  try {
    const auto code = nimbractl::RunCommandLine(Arguments());
    if (nimbractl::IsOutputLost()) {
      throw nimbractl::Failure("not all of the output could be written",
                               "make room where it goes to; what was to be done was done");
    }
    return static_cast<int>(code);
  } catch (const nimbractl::Failure& failure) {
    nimbractl::PrintFailure(failure);
    return static_cast<int>(failure.code);
  } catch (const std::exception& error) {
    nimbractl::PrintFailure({error.what(), "close other programs and try again"});
    return static_cast<int>(nimbractl::ExitCode::kSomeFailed);
  }
}
