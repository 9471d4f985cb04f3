// A program that knows nothing of cloud files: reads, maps, writes, renames and deletes files as
// any other Windows program does, at a test's word.

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

#include "command-loop.h"
#include "file-access.h"
#include "wide-text.h"

namespace e2e {
namespace {

constexpr std::size_t kBlock = 1 << 20;

Fields Outcome(DWORD error) { return Fields().Set("error", error); }
Fields Outcome(BOOL succeeded) {
  return Outcome(succeeded ? DWORD{ERROR_SUCCESS} : GetLastError());
}

Fields Read(const Fields& command) {
  File file(command.Text("path"), GENERIC_READ);
  if (file.Error() != 0) return Outcome(file.Error());
  const auto size = file.Size();
  std::uint32_t checksum = 0;
  std::vector<std::byte> block;
  for (std::int64_t offset = 0; offset < size; offset += std::ssize(block)) {
    block.resize(std::min<std::size_t>(kBlock, static_cast<std::size_t>(size - offset)));
    if (!file.ReadAt(offset, block)) return Outcome(file.Error());
    checksum = Crc32(block, checksum);
  }
  return Outcome(DWORD{0}).Set("size", size).Set("crc32", checksum);
}

class MappedView {
 public:
  explicit MappedView(HANDLE file)
      : mapping_(CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr)),
        address_(mapping_ ? MapViewOfFile(mapping_.get(), FILE_MAP_READ, 0, 0, 0) : nullptr) {}
  MappedView(const MappedView&) = delete;
  MappedView& operator=(const MappedView&) = delete;
  ~MappedView() {
    if (address_ != nullptr) UnmapViewOfFile(address_);
  }
  [[nodiscard]] const std::byte* Data() const { return static_cast<const std::byte*>(address_); }

 private:
  Handle mapping_;
  void* address_;
};

Fields Map(const Fields& command) {
  File file(command.Text("path"), GENERIC_READ);
  if (file.Error() != 0) return Outcome(file.Error());
  const auto size = file.Size();
  const MappedView view(file.Get());
  if (view.Data() == nullptr) return Outcome(GetLastError());
  const auto checksum = Crc32({view.Data(), static_cast<std::size_t>(size)});
  return Outcome(DWORD{0}).Set("size", size).Set("crc32", checksum);
}

Fields Write(const Fields& command) {
  File file(command.Text("path"), GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS);
  if (file.Error() != 0) return Outcome(file.Error());
  const auto& text = command.Text("text");
  file.WriteAt(command.Number("offset", 0), std::as_bytes(std::span(text)));
  return Outcome(file.Error());
}

Fields Rename(const Fields& command) {
  return Outcome(
      MoveFileW(ToWide(command.Text("from")).c_str(), ToWide(command.Text("to")).c_str()));
}

Fields Delete(const Fields& command) {
  return Outcome(DeleteFileW(ToWide(command.Text("path")).c_str()));
}

struct SearchCloser {
  using pointer = HANDLE;
  void operator()(HANDLE search) const { FindClose(search); }
};

Fields List(const Fields& command) {
  WIN32_FIND_DATAW entry{};
  const auto pattern = ToWide(command.Text("path") + "\\*");
  const auto first = FindFirstFileW(pattern.c_str(), &entry);
  if (first == INVALID_HANDLE_VALUE) return Outcome(GetLastError());
  const std::unique_ptr<std::remove_pointer_t<HANDLE>, SearchCloser> search(first);
  std::string names;
  do {
    names += ToNarrow(entry.cFileName) + '\n';
  } while (FindNextFileW(search.get(), &entry));
  return Outcome(DWORD{0}).Set("names", names);
}

}  // namespace
}  // namespace e2e

int main() {
  e2e::CommandLoop loop;
  loop.Add("read", e2e::Read);
  loop.Add("map", e2e::Map);
  loop.Add("write", e2e::Write);
  loop.Add("rename", e2e::Rename);
  loop.Add("delete", e2e::Delete);
  loop.Add("list", e2e::List);
  loop.Run();
}
