#include "tests/stress/memory-count.h"

#include <windows.h>

#include <array>

namespace nimbra_stress {

std::size_t BlocksInUse() {
  std::array<HANDLE, 64> heaps{};
  const DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  std::size_t blocks = 0;
  for (DWORD heap = 0; heap < count && heap < heaps.size(); ++heap) {
    PROCESS_HEAP_ENTRY entry{};
    HeapLock(heaps[heap]);
    while (HeapWalk(heaps[heap], &entry)) {
      blocks += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? 1 : 0;
    }
    HeapUnlock(heaps[heap]);
  }
  return blocks;
}

}  // namespace nimbra_stress
