#ifndef NIMBRA_TESTS_E2E_FILE_ACCESS_H_
#define NIMBRA_TESTS_E2E_FILE_ACCESS_H_

#include <windows.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <type_traits>

namespace e2e {

struct HandleCloser {
  using pointer = HANDLE;
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

// A file opened by its UTF-8 path. `Error()` is the Win32 code of the last failure, 0 if none.
class File {
 public:
  File(const std::string& path, DWORD access, DWORD disposition = OPEN_EXISTING);

  [[nodiscard]] DWORD Error() const { return error_; }
  [[nodiscard]] HANDLE Get() const { return handle_.get(); }
  [[nodiscard]] std::int64_t Size();
  // Whether the whole of `buffer` could be read from `offset` on.
  bool ReadAt(std::int64_t offset, std::span<std::byte> buffer);
  bool WriteAt(std::int64_t offset, std::span<const std::byte> bytes);

 private:
  bool Check(BOOL succeeded);

  Handle handle_;
  DWORD error_ = 0;
};

// The checksum of zip and PNG files; continues from `checksum`.
std::uint32_t Crc32(std::span<const std::byte> bytes, std::uint32_t checksum = 0);

}  // namespace e2e

#endif  // NIMBRA_TESTS_E2E_FILE_ACCESS_H_
