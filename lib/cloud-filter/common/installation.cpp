#include "common/installation.h"

#include <windows.h>

#include <shlobj.h>

#include "common/text.h"

namespace corvdrive::cloud_filter {
namespace {

std::string GetFolder(int csidl) {
  wchar_t path[MAX_PATH] = {};
  if (FAILED(SHGetFolderPathW(nullptr, csidl, nullptr, SHGFP_TYPE_CURRENT, path))) {
    return {};
  }
  return WideToUtf8(path);
}

std::string AppendUnlessEmpty(std::string folder, const char* rest) {
  if (!folder.empty()) {
    folder += rest;
  }
  return folder;
}

}  // namespace

std::string GetLocalAppDataDir() {
  return AppendUnlessEmpty(GetFolder(CSIDL_LOCAL_APPDATA), R"(\CorvaneDrive)");
}

std::string GetProgramFilesX86Dir() {
  std::string folder = GetFolder(CSIDL_PROGRAM_FILESX86);
  if (folder.empty()) {
    // Asked for, but not used: without the 32-bit folder the client counts as not installed.
    static_cast<void>(GetFolder(CSIDL_PROGRAM_FILES));
  }
  return folder;
}

std::string GetLauncherPath() {
  return AppendUnlessEmpty(GetProgramFilesX86Dir(), R"(\Corvane\CorvaneDrive\bin\launcher.exe)");
}

std::string GetCloudDriveUiPath() {
  return AppendUnlessEmpty(GetLocalAppDataDir(), R"(\CorvaneDrive.app\bin\cloud-drive-ui.exe)");
}

}  // namespace corvdrive::cloud_filter
