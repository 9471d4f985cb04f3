#include "file-access.h"

#include <algorithm>
#include <array>
#include <cstddef>

#include "wide-text.h"

namespace e2e {
namespace {

constexpr std::int64_t kLargestTransfer = std::int64_t{1} << 30;

OVERLAPPED At(std::int64_t offset) {
  OVERLAPPED position{};
  position.Offset = static_cast<DWORD>(offset & 0xFFFFFFFF);
  position.OffsetHigh = static_cast<DWORD>(offset >> 32);
  return position;
}

constexpr std::array<std::uint32_t, 256> MakeCrcTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t index = 0; index < table.size(); ++index) {
    auto value = index;
    for (int bit = 0; bit < 8; ++bit) value = (value & 1) ? (value >> 1) ^ 0xEDB88320U : value >> 1;
    table[index] = value;
  }
  return table;
}

}  // namespace

File::File(const std::string& path, DWORD access, DWORD disposition) {
  const auto handle = CreateFileW(ToWide(path).c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                  nullptr, disposition, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (Check(handle != INVALID_HANDLE_VALUE)) handle_.reset(handle);
}

bool File::Check(BOOL succeeded) {
  error_ = succeeded ? 0 : GetLastError();
  return succeeded != FALSE;
}

std::int64_t File::Size() {
  LARGE_INTEGER size{};
  return Check(GetFileSizeEx(Get(), &size)) ? size.QuadPart : 0;
}

bool File::ReadAt(std::int64_t offset, std::span<std::byte> buffer) {
  while (!buffer.empty()) {
    const auto part = std::min<std::int64_t>(std::ssize(buffer), kLargestTransfer);
    auto position = At(offset);
    DWORD done = 0;
    if (!Check(ReadFile(Get(), buffer.data(), static_cast<DWORD>(part), &done, &position))) {
      return false;
    }
    if (done == 0) return false;
    offset += done;
    buffer = buffer.subspan(done);
  }
  return true;
}

bool File::WriteAt(std::int64_t offset, std::span<const std::byte> bytes) {
  auto position = At(offset);
  DWORD done = 0;
  return Check(
             WriteFile(Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &done, &position)) &&
         done == bytes.size();
}

std::uint32_t Crc32(std::span<const std::byte> bytes, std::uint32_t checksum) {
  static constexpr auto kTable = MakeCrcTable();
  checksum = ~checksum;
  for (const auto byte : bytes) {
    checksum = (checksum >> 8) ^ kTable[(checksum ^ static_cast<std::uint32_t>(byte)) & 0xFF];
  }
  return ~checksum;
}

}  // namespace e2e
