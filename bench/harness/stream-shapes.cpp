#include "bench/harness/stream-shapes.h"

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

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

// Data that waits to be handed over: copied behind what is left, out of there again, and the rest
// moved to the front. Its memory is kept.
class Pending {
 public:
  void Append(const std::vector<std::byte>& buffer, std::size_t size) {
    data_.insert(data_.end(), buffer.begin(), At(buffer, size));
  }
  [[nodiscard]] std::size_t Size() const { return data_.size(); }
  void Send(std::size_t size, std::int64_t& offset) {
    block_.assign(data_.cbegin(), At(data_, size));
    Transfer(block_.data(), block_.size(), offset);
    data_.erase(data_.begin(), At(data_, size));
  }
  void SendAll(std::int64_t& offset) {
    if (!data_.empty()) {
      Transfer(data_.data(), data_.size(), offset);
      data_.clear();
    }
  }

 private:
  static std::vector<std::byte>::const_iterator At(const std::vector<std::byte>& data,
                                                   std::size_t size) {
    return data.begin() + static_cast<std::ptrdiff_t>(size);
  }

  std::vector<std::byte> data_;
  std::vector<std::byte> block_;
};

// What the shapes with copies keep from file to file.
struct CopyBuffers {
  explicit CopyBuffers(std::size_t size) : input(size), output(size) {}

  std::vector<std::byte> input;
  std::vector<std::byte> output;
  Pending pending;
};

// One thread writes the file into a pipe; the other one appends what a read of the pipe gives to
// what is left, hands over what makes whole blocks, and keeps the rest.
void StreamThroughPipe(const LocalFile& source, CopyBuffers& buffers) {
  HANDLE readEnd = nullptr;
  HANDLE writeEnd = nullptr;
  if (!CreatePipe(&readEnd, &writeEnd, nullptr, static_cast<DWORD>(buffers.input.size()))) {
    throw std::runtime_error("no pipe");
  }
  const UniqueFile input(readEnd);
  std::jthread writer([&source, &buffers, writeEnd] {
    const UniqueFile output(writeEnd);
    const UniqueFile file = Open(source.path);
    std::vector<std::byte>& buffer = buffers.output;
    while (const std::size_t read = Read(file.Get(), buffer.data(), buffer.size())) {
      DWORD written = 0;
      WriteFile(output.Get(), buffer.data(), static_cast<DWORD>(read), &written, nullptr);
    }
  });
  std::int64_t offset = 0;
  while (const std::size_t read = Read(input.Get(), buffers.input.data(), buffers.input.size())) {
    buffers.pending.Append(buffers.input, read);
    if (const std::size_t whole = buffers.pending.Size() / kAlignment * kAlignment; whole > 0) {
      buffers.pending.Send(whole, offset);
    }
  }
  buffers.pending.SendAll(offset);
}

// Small reads are appended to a growing block, which is copied and handed over when it is large.
void StreamAccumulated(const LocalFile& source, CopyBuffers& buffers) {
  constexpr std::size_t kLarge = 3686 * kKiB / kAlignment * kAlignment;
  const UniqueFile file = Open(source.path);
  std::int64_t offset = 0;
  while (const std::size_t read = Read(file.Get(), buffers.input.data(), buffers.input.size())) {
    buffers.pending.Append(buffers.input, read);
    if (buffers.pending.Size() >= kLarge) {
      buffers.pending.Send(kLarge, offset);
    }
  }
  buffers.pending.SendAll(offset);
}

StreamShape WithCopies(std::string name, void (*stream)(const LocalFile&, CopyBuffers&),
                       int copies) {
  return {std::move(name),
          [stream, buffers = std::make_shared<CopyBuffers>(64 * kKiB)](const LocalFile& source) {
            stream(source, *buffers);
          },
          copies};
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
          WithCopies("through a pipe, concatenated", StreamThroughPipe, 3),
          WithCopies("accumulated, then sent", StreamAccumulated, 2)};
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
