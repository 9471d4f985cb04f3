#ifndef NIMBRA_WIN_CF_SYNC_ROOT_H_
#define NIMBRA_WIN_CF_SYNC_ROOT_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "common/cloud-files.h"

namespace corvdrive::cloud_filter {

class PlaceholderWinCF;

// A folder that the client serves on demand. Results are the platform's own, and failures have been
// logged. An object records neither registration nor connection: the platform decides.
class SyncRootBase {
 public:
  virtual ~SyncRootBase() = default;

  virtual HRESULT Disconnect() = 0;
  // Makes the root known to the shell and the platform. `text` is shown in its display name.
  virtual HRESULT Register(const std::string& text) = 0;
  // The same for a root that is registered.
  virtual HRESULT Reregister(const std::string& text) = 0;
  virtual HRESULT Unregister() = 0;
  // Hands `length` bytes at `offset` of a file to the platform, or tells it with a `status` other
  // than 0 why they do not come.
  virtual HRESULT TransferData(std::int64_t transferKey, std::int64_t unused, const void* buffer,
                               std::int64_t offset, std::int64_t length, std::uint32_t status) = 0;
};

class SyncRootWinCF : public SyncRootBase {
 public:
  // All UTF-8; `rootUserName` may be empty.
  SyncRootWinCF(std::string rootPath, std::string rootUserName, std::string rootIdentity);

  HRESULT Disconnect() override;
  HRESULT Register(const std::string& text) override;
  HRESULT Reregister(const std::string& text) override;
  HRESULT Unregister() override;
  HRESULT TransferData(std::int64_t transferKey, std::int64_t unused, const void* buffer,
                       std::int64_t offset, std::int64_t length, std::uint32_t status) override;

  // `delegatorHandle` becomes the callback context as it is (see CallbackTable).
  [[nodiscard]] HRESULT Connect(const void* delegatorHandle, bool notifyDelete);
  [[nodiscard]] HRESULT ReportTransferProgress(std::int64_t transferKey, std::int64_t total,
                                               std::int64_t completed);
  [[nodiscard]] bool AckRename(std::int64_t transferKey);
  [[nodiscard]] bool AckDelete(std::int64_t transferKey, std::uint32_t status);
  // Fills an open placeholder from a local file (a UTF-8 path).
  [[nodiscard]] bool ProactiveTransfer(const PlaceholderWinCF& placeholder,
                                       std::string_view localPath);

  [[nodiscard]] const std::string& Path() const { return path; }
  [[nodiscard]] const std::string& Identity() const { return identity; }

 private:
  HRESULT RegisterWithFlags(const std::string& text, CF_REGISTER_FLAGS flags);

  std::string path;
  std::string userName;
  std::string identity;
  CF_CONNECTION_KEY connectionKey{};
};

// The identity of the root that a client serves in this session.
[[nodiscard]] std::string MakeSyncRootIdentity(std::uint64_t sessionId);

// The user under whom the process runs; empty when Windows does not tell.
[[nodiscard]] std::string CurrentUserName();

}  // namespace corvdrive::cloud_filter

#endif
