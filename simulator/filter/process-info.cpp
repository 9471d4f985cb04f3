#include "process-info.h"

#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace cloud_filter {
namespace {

std::filesystem::path Proc(pid_t process, const char* entry) {
  return std::filesystem::path("/proc") / std::to_string(process) / entry;
}

std::string ReadAll(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::string LinkTarget(const std::filesystem::path& link) {
  std::error_code ignored;
  return std::filesystem::read_symlink(link, ignored).string();
}

// "<prefix>/dosdevices/c:" and "<prefix>/drive_c" both lie one or two levels below the prefix.
std::filesystem::path PrefixOf(const std::string& systemDrive) {
  std::filesystem::path drive(systemDrive);
  if (!drive.has_filename()) drive = drive.parent_path();
  if (drive.parent_path().filename() == "dosdevices") return drive.parent_path().parent_path();
  return drive.parent_path();
}

}  // namespace

pid_t ProcessOfThread(pid_t thread) {
  std::ifstream status(Proc(thread, "status"));
  for (std::string line; std::getline(status, line);) {
    int process = 0;
    if (std::sscanf(line.c_str(), "Tgid: %d", &process) == 1) return process;
  }
  return 0;
}

Cause DescribeProcess(pid_t process) {
  Cause cause{process, {}, {}};
  if (process <= 0) return cause;
  cause.image = LinkTarget(Proc(process, "exe"));
  cause.commandLine = ReadAll(Proc(process, "cmdline"));
  while (!cause.commandLine.empty() && cause.commandLine.back() == '\0') {
    cause.commandLine.pop_back();
  }
  std::replace(cause.commandLine.begin(), cause.commandLine.end(), '\0', ' ');
  return cause;
}

bool IsWineServer(pid_t process) {
  if (process <= 0) return false;
  return ReadAll(Proc(process, "comm")).starts_with("wineserver");
}

std::optional<bool> ServesPrefixOf(pid_t wineServer, const std::string& systemDrive) {
  struct stat prefix {};
  const auto folder = std::filesystem::path(LinkTarget(Proc(wineServer, "cwd"))).filename();
  if (!folder.string().starts_with("server-")) return std::nullopt;
  if (systemDrive.empty() || stat(PrefixOf(systemDrive).c_str(), &prefix) != 0) {
    return std::nullopt;
  }
  char name[64];
  std::snprintf(name, sizeof name, "server-%" PRIx64 "-%" PRIx64,
                static_cast<std::uint64_t>(prefix.st_dev),
                static_cast<std::uint64_t>(prefix.st_ino));
  return folder == name;
}

}  // namespace cloud_filter
