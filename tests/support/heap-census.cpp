#include "tests/support/heap-census.h"

#include <windows.h>

#include <array>
#include <stdexcept>

namespace nimbra_test {
namespace {

std::size_t BusyBlocks(HANDLE heap) {
  if (!HeapLock(heap)) {
    throw std::runtime_error("a heap cannot be counted");
  }
  std::size_t count = 0;
  PROCESS_HEAP_ENTRY entry{};
  while (HeapWalk(heap, &entry)) {
    count += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? 1u : 0u;
  }
  HeapUnlock(heap);
  return count;
}

}  // namespace

std::size_t BusyHeapBlocks() {
  std::array<HANDLE, 64> heaps{};
  const DWORD number = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  if (number == 0 || number > heaps.size()) {
    throw std::runtime_error("the heaps cannot be listed");
  }
  std::size_t count = 0;
  for (DWORD i = 0; i < number; ++i) {
    count += BusyBlocks(heaps[i]);
  }
  return count;
}

}  // namespace nimbra_test
