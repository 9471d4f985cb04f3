#ifndef NIMBRA_NIMBRACTL_COMMANDS_H_
#define NIMBRA_NIMBRACTL_COMMANDS_H_

// The commands, as the command line gives them. Texts are UTF-8.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "basics.h"

namespace nimbractl {

struct InfoOptions {
  std::string program;  // whose manifest is to be looked at; may be empty
  bool json = false;
};
ExitCode RunInfo(const InfoOptions& options);

struct ItemOptions {
  std::vector<std::string> paths;
  bool recursive = false;
  bool json = false;
};
ExitCode RunState(const ItemOptions& options);
ExitCode RunIdentity(const ItemOptions& options);

enum class Progress { kOnTerminals, kAlways, kNever };
ExitCode RunHydrate(const ItemOptions& options, Progress progress);
ExitCode RunDehydrate(const ItemOptions& options);
ExitCode RunPin(const ItemOptions& options);
ExitCode RunUnpin(const ItemOptions& options, bool inherit);
ExitCode RunExclude(const ItemOptions& options);
ExitCode RunInSync(const ItemOptions& options, bool notInSync);

ExitCode RunRoots(bool json);

struct RegisterOptions {
  std::string path;
  std::uint64_t session = 0;
  std::string name;
  bool again = false;
};
ExitCode RunRegister(const RegisterOptions& options);

struct UnregisterOptions {
  std::string path;
  bool deleteOnlineOnly = false;
};
ExitCode RunUnregister(const UnregisterOptions& options);

// An entry in Explorer's navigation pane.
struct EntryOptions {
  std::string path;
  std::string clsid;
  std::optional<std::uint64_t> folderId;
  std::string name;
  std::string share;
  std::string remotePath;
};
ExitCode RunExplorerRegister(const EntryOptions& options);
ExitCode RunExplorerUnregister(const EntryOptions& options);
ExitCode RunExplorerList(bool json);

struct LogOptions {
  std::vector<std::uint32_t> processIds;  // none: of every process
  bool all = false;                       // lines of other origin too
  bool json = false;
  std::optional<double> seconds;  // none: until Ctrl+C
};
ExitCode RunLog(const LogOptions& options);

}  // namespace nimbractl

#endif
