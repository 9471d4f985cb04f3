#ifndef NIMBRA_SIMULATOR_FILTER_OPTIONS_H_
#define NIMBRA_SIMULATOR_FILTER_OPTIONS_H_

#include <filesystem>
#include <string>

#include "core.h"

namespace cloud_filter {

enum class Task { kServe, kStatus, kStop, kHelp };

struct Options {
  Task task = Task::kServe;
  std::filesystem::path state;
  std::filesystem::path endpoint;
  CoreOptions core;
  bool verbose = false;
};

// False when the command line is wrong; `error` says how.
bool ParseOptions(int count, char** arguments, Options& options, std::string& error);
const char* HelpText();

}  // namespace cloud_filter

#endif  // NIMBRA_SIMULATOR_FILTER_OPTIONS_H_
