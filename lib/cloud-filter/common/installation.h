#ifndef NIMBRA_COMMON_INSTALLATION_H_
#define NIMBRA_COMMON_INSTALLATION_H_

#include <string>

namespace corvdrive::cloud_filter {

// The client product's fixed names.

inline constexpr char kProviderName[] = "CorvaneDrive";
inline constexpr char kProviderVersion[] = "1.1";
inline constexpr char kProductDisplayName[] = "Corvane Drive";
inline constexpr char kAppFolderName[] = "CorvaneDrive.app";
inline constexpr char kNamespaceClsid[] = "{4A7C2E91-3B5D-4F08-9C61-7E2D0B5A93F4}";
inline constexpr char kExplorerKeyRoot[] = R"(Software\Microsoft\Windows\CurrentVersion\Explorer\)";
inline constexpr char kSyncRootManagerKey[] =
    R"(SOFTWARE\Microsoft\Windows\CurrentVersion\Explorer\SyncRootManager\)";

// Where the client lies on disk: UTF-8 without a trailing separator, empty when the folder is not
// available. Nothing is logged, and the existence of the programs is not checked.

// The client's folder in the user's local application data.
[[nodiscard]] std::string GetLocalAppDataDir();
// The 32-bit program files folder; without one the client counts as not installed.
[[nodiscard]] std::string GetProgramFilesX86Dir();
[[nodiscard]] std::string GetLauncherPath();
[[nodiscard]] std::string GetCloudDriveUiPath();

}  // namespace corvdrive::cloud_filter

#endif
