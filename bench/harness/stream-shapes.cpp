#include "bench/harness/stream-shapes.h"

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>

#include "common/cldapi-table.h"
#include "common/owners.h"

namespace nimbra_bench {
namespace {

using corvdrive::cloud_filter::Cloud;
using corvdrive::cloud_filter::UniqueFile;

constexpr std::size_t kKiB = 1024;
constexpr std::size_t kMiB = 1024 * kKiB;
constexpr std::size_t kAlignment = 4096;

using Buffer = std::shared_ptr<std::vector<std::byte>>;

Buffer MakeBuffer(std::size_t size) { return std::make_shared<std::vector<std::byte>>(size); }

UniqueFile Open(const std::wstring& path) {
  UniqueFile file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE,
                              nullptr, OPEN_EXISTING,
                              FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file.IsValid()) {
    throw std::runtime_error("a file to stream cannot be opened");
  }
  return file;
}

// Gives the number of bytes, 0 at the end.
std::size_t Read(HANDLE file, void* buffer, std::size_t size) {
  DWORD read = 0;
  if (!ReadFile(file, buffer, static_cast<DWORD>(size), &read, nullptr) &&
      GetLastError() != ERROR_BROKEN_PIPE) {
    throw std::runtime_error("a file to stream cannot be read");
  }
  return read;
}

// Hands data over and moves the offset behind it.
void Transfer(const void* data, std::size_t size, std::int64_t& offset) {
  CF_OPERATION_INFO info{};
  info.StructSize = sizeof info;
  info.Type = CF_OPERATION_TYPE_TRANSFER_DATA;
  CF_OPERATION_PARAMETERS parameters{};
  parameters.ParamSize = 40;
  parameters.TransferData.Buffer = data;
  parameters.TransferData.Offset.QuadPart = offset;
  parameters.TransferData.Length.QuadPart = static_cast<std::int64_t>(size);
  Cloud().CfExecute(&info, &parameters);
  offset += static_cast<std::int64_t>(size);
}

StreamShape InPieces(std::string name, std::size_t size) {
  return {std::move(name), [buffer = MakeBuffer(size)](const LocalFile& source) {
            const UniqueFile file = Open(source.path);
            std::int64_t offset = 0;
            while (const std::size_t read = Read(file.Get(), buffer->data(), buffer->size())) {
              Transfer(buffer->data(), read, offset);
            }
          }};
}

StreamShape InPiecesWithCopy(std::string name, std::size_t size) {
  return {std::move(name),
          [input = MakeBuffer(size), output = MakeBuffer(size)](const LocalFile& source) {
            const UniqueFile file = Open(source.path);
            std::int64_t offset = 0;
            while (const std::size_t read = Read(file.Get(), input->data(), input->size())) {
              std::memcpy(output->data(), input->data(), read);
              Transfer(output->data(), read, offset);
            }
          },
          1};
}

// The least, but for a buffer of fresh pages each time.
void StreamWithNewBuffer(const LocalFile& source) {
  constexpr std::size_t kSize = 4 * kMiB;
  const UniqueFile file = Open(source.path);
  void* const buffer = VirtualAlloc(nullptr, kSize, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
  std::int64_t offset = 0;
  while (const std::size_t read = Read(file.Get(), buffer, kSize)) {
    Transfer(buffer, read, offset);
  }
  VirtualFree(buffer, 0, MEM_RELEASE);
}

// One thread writes the file into a pipe; the other one appends what a read of the pipe gives to
// what is left, hands over what makes whole blocks, and keeps the rest.
void StreamThroughPipe(const LocalFile& source) {
  constexpr std::size_t kPipe = 64 * kKiB;
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, nullptr, kPipe)) {
    throw std::runtime_error("no pipe");
  }
  const UniqueFile input(readEnd);
  std::jthread writer([&source, writeEnd] {
    const UniqueFile output(writeEnd);
    const UniqueFile file = Open(source.path);
    std::vector<std::byte> buffer(kPipe);
    while (const std::size_t read = Read(file.Get(), buffer.data(), buffer.size())) {
      DWORD written = 0;
      WriteFile(output.Get(), buffer.data(), static_cast<DWORD>(read), &written, nullptr);
    }
  });
  std::vector<std::byte> buffer(kPipe);
  std::vector<std::byte> pending;
  std::int64_t offset = 0;
  while (const std::size_t read = Read(input.Get(), buffer.data(), buffer.size())) {
    pending.insert(pending.end(), buffer.begin(),
                   buffer.begin() + static_cast<std::ptrdiff_t>(read));
    const std::size_t whole = pending.size() / kAlignment * kAlignment;
    if (whole > 0) {
      const std::vector<std::byte> piece(pending.begin(),
                                         pending.begin() + static_cast<std::ptrdiff_t>(whole));
      Transfer(piece.data(), piece.size(), offset);
      pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(whole));
    }
  }
  if (!pending.empty()) {
    Transfer(pending.data(), pending.size(), offset);
  }
}

// Small reads are appended to a growing block, which is copied and handed over when it is large.
void StreamAccumulated(const LocalFile& source) {
  constexpr std::size_t kPiece = 64 * kKiB;
  constexpr std::size_t kLarge = 3686 * kKiB / kAlignment * kAlignment;
  const UniqueFile file = Open(source.path);
  std::vector<std::byte> buffer(kPiece);
  std::vector<std::byte> pending;
  std::int64_t offset = 0;
  const auto send = [&pending, &offset](std::size_t size) {
    const std::vector<std::byte> block(pending.begin(),
                                       pending.begin() + static_cast<std::ptrdiff_t>(size));
    Transfer(block.data(), block.size(), offset);
    pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(size));
  };
  while (const std::size_t read = Read(file.Get(), buffer.data(), buffer.size())) {
    pending.insert(pending.end(), buffer.begin(),
                   buffer.begin() + static_cast<std::ptrdiff_t>(read));
    if (pending.size() >= kLarge) {
      send(kLarge);
    }
  }
  if (!pending.empty()) {
    send(pending.size());
  }
}

}  // namespace

StreamShape BareShape() { return InPieces("bare loop, 4 MiB", 4 * kMiB); }

std::vector<StreamShape> OtherShapes() {
  return {InPieces("pieces of 4 KiB", 4 * kKiB),
          InPieces("pieces of 16 KiB", 16 * kKiB),
          InPieces("pieces of 64 KiB", 64 * kKiB),
          InPiecesWithCopy("pieces of 512 KiB, copied", 512 * kKiB),
          {"pieces of 4 MiB, new buffer each time", StreamWithNewBuffer, 0, true},
          InPieces("pieces of 5 MiB", 5 * kMiB),
          {"through a pipe, concatenated", StreamThroughPipe, 3},
          {"accumulated, then sent", StreamAccumulated, 2}};
}

StreamShape LibraryShape(CORVWinCFSyncRootHandle root, CORVWinCFPlaceholderHandle placeholder) {
  return {"Nimbra", [root, placeholder](const LocalFile& source) {
            if (CORVWinCFSyncRootProactiveTransferToPlaceholder(root, placeholder,
                                                                source.utf8Path.c_str()) != 0) {
              throw std::runtime_error("the library could not transfer a file");
            }
          }};
}

}  // namespace nimbra_bench
