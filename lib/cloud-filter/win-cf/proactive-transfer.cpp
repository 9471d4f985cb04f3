#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "common/cldapi-table.h"
#include "common/debug-log.h"
#include "common/owners.h"
#include "common/text.h"
#include "win-cf/placeholder.h"
#include "win-cf/sync-root.h"
#include "win-cf/transfer-buffer.h"

namespace corvdrive::cloud_filter {
namespace {

constexpr char kSource[] = R"(lib\cloud-filter\win-cf\sync-root)";

constexpr std::int64_t kChunkSize = TransferBuffer::kSize;

// A placeholder's transfer key, released with the object.
class TransferKey {
 public:
  explicit TransferKey(HANDLE file) : file_(file) {}
  ~TransferKey() {
    if (obtained_) {
      Cloud().CfReleaseTransferKey(file_, &key_);
    }
  }
  TransferKey(const TransferKey&) = delete;
  TransferKey& operator=(const TransferKey&) = delete;

  HRESULT Obtain() {
    const HRESULT result = Cloud().CfGetTransferKey(file_, &key_);
    obtained_ = SUCCEEDED(result);
    return result;
  }
  [[nodiscard]] std::int64_t Value() const { return key_.QuadPart; }

 private:
  HANDLE file_;
  CF_TRANSFER_KEY key_{};
  bool obtained_ = false;
};

// Reads exactly `length` bytes at `offset`.
bool ReadChunk(HANDLE file, std::string_view path, std::int64_t offset, std::int64_t length,
               void* buffer) {
  LARGE_INTEGER position{};
  position.QuadPart = offset;
  if (!SetFilePointerEx(file, position, nullptr, FILE_BEGIN)) {
    const DWORD error = GetLastError();
    Log(kSource, __LINE__, "Failed to set file pointer to ", offset, " ec = ", ErrorNumber(error));
    return false;
  }
  DWORD read = 0;
  if (!ReadFile(file, buffer, static_cast<DWORD>(length), &read, nullptr)) {
    const DWORD error = GetLastError();
    Log(kSource, __LINE__, "Read file failed: ", path, ": ec = ", ErrorNumber(error));
    return false;
  }
  if (read != length) {
    Log(kSource, __LINE__, "Read file failed: ", path, ". actually read: ", read,
        " required: ", length);
    return false;
  }
  return true;
}

}  // namespace

bool SyncRootWinCF::ProactiveTransfer(const PlaceholderWinCF& placeholder,
                                      std::string_view localPath) {
  // Declared so that on every way out the buffer goes first, then the key, then the file.
  UniqueFile file;
  TransferKey key(placeholder.Handle());
  TransferBuffer buffer;

  if (const HRESULT result = key.Obtain(); FAILED(result)) {
    Log(kSource, __LINE__, "Failed to obtain trans key", result);
    return false;
  }
  file.Reset(CreateFileW(WideText(localPath).Get(), GENERIC_READ,
                         FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                         FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_NORMAL, nullptr));
  LARGE_INTEGER size{};
  if (!GetFileSizeEx(file.Get(), &size)) {
    const DWORD error = GetLastError();
    Log(kSource, __LINE__, "Get file size failed: ", localPath, ": ec = ", ErrorNumber(error));
    return false;
  }
  if (size.QuadPart == 0) {
    return true;
  }
  if (!buffer.Obtain(static_cast<std::size_t>(std::min(kChunkSize, size.QuadPart)))) {
    const DWORD error = GetLastError();
    Log(kSource, __LINE__, "Failed to allocate the transfer buffer, ec = ", ErrorNumber(error));
    return false;
  }
  for (std::int64_t offset = 0; offset < size.QuadPart; offset += kChunkSize) {
    const std::int64_t length = std::min(kChunkSize, size.QuadPart - offset);
    void* const chunk = buffer.PrepareChunk(static_cast<std::size_t>(length));
    if (!ReadChunk(file.Get(), localPath, offset, length, chunk)) {
      return false;
    }
    if (TransferData(key.Value(), 0, chunk, offset, length, 0) != S_OK) {
      Log(kSource, __LINE__, "Failed to transfer [", offset, ", ", offset + length, "]");
      return false;
    }
  }
  return true;
}

}  // namespace corvdrive::cloud_filter
