#include "tests/support/handle-census.h"

#include <windows.h>

#include <cstdint>
#include <stdexcept>
#include <vector>

namespace nimbra_test {
namespace {

constexpr ULONG kSystemExtendedHandleInformation = 64;
constexpr LONG kInfoLengthMismatch = static_cast<LONG>(0xC0000004);

struct HandleEntry {
  void* object;
  std::uintptr_t processId;
  std::uintptr_t handle;
  ULONG grantedAccess;
  USHORT backTrace;
  USHORT typeIndex;
  ULONG attributes;
  ULONG reserved;
};

struct HandleTable {
  std::uintptr_t count;
  std::uintptr_t reserved;
  HandleEntry entries[1];
};

using QuerySystemInformation = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);

QuerySystemInformation Query() {
  const FARPROC function =
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation");
  if (function == nullptr) {
    throw std::runtime_error("the system's handles cannot be listed");
  }
  return reinterpret_cast<QuerySystemInformation>(reinterpret_cast<void*>(function));
}

}  // namespace

std::size_t OpenHandleCount() {
  static const QuerySystemInformation query = Query();
  std::vector<std::uint64_t> buffer(1 << 15);
  LONG status = 0;
  while ((status = query(kSystemExtendedHandleInformation, buffer.data(),
                         static_cast<ULONG>(buffer.size() * sizeof(buffer[0])), nullptr)) ==
         kInfoLengthMismatch) {
    buffer.resize(buffer.size() * 2);
  }
  if (status < 0) {
    throw std::runtime_error("the system's handles cannot be listed");
  }
  const auto* table = reinterpret_cast<const HandleTable*>(buffer.data());
  std::size_t count = 0;
  for (std::uintptr_t i = 0; i < table->count; ++i) {
    count += table->entries[i].processId == GetCurrentProcessId() ? 1u : 0u;
  }
  return count;
}

}  // namespace nimbra_test
