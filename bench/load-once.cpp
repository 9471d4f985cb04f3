// Loads a DLL in a process that has not seen it, and says how long that took and what it holds:
//   load-once DLL [SYSTEM DLL]...
// What else is named is loaded before.

#include <windows.h>

#include <chrono>
#include <cstdio>

namespace {

// The pages of this process that no other one shares: private ones, and an image's that can be
// written.
double PrivateBytes() {
  double bytes = 0;
  MEMORY_BASIC_INFORMATION region{};
  const char* at = nullptr;
  while (VirtualQuery(at, &region, sizeof region) != 0) {
    constexpr DWORD kWritable = PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE;
    if (region.State == MEM_COMMIT &&
        (region.Type == MEM_PRIVATE ||
         (region.Type == MEM_IMAGE && (region.Protect & kWritable) != 0))) {
      bytes += static_cast<double>(region.RegionSize);
    }
    at = static_cast<const char*>(region.BaseAddress) + region.RegionSize;
  }
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    return 2;
  }
  for (int i = 2; i < argc; ++i) {
    LoadLibraryA(argv[i]);
  }
  const double before = PrivateBytes();
  const auto begun = std::chrono::steady_clock::now();
  const HMODULE module = LoadLibraryA(argv[1]);
  const std::chrono::duration<double, std::nano> took = std::chrono::steady_clock::now() - begun;
  if (module == nullptr) {
    std::fprintf(stderr, "the DLL cannot be loaded: error %lu\n", GetLastError());
    return 1;
  }
  std::printf("{\"nanoseconds\": %.0f, \"privateBytes\": %.0f}\n", took.count(),
              PrivateBytes() - before);
  return 0;
}
