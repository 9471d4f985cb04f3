#include "bench/harness/allocations.h"

#include <windows.h>

#include <atomic>
#include <cstdlib>
#include <optional>
#include <stdexcept>

#include "tests/support/import-hooks.h"

namespace nimbra_bench {
namespace {

using nimbra_test::ScopedImportHook;

std::atomic<std::size_t> allocations = 0;

// Replaces one allocating function of this program's imports by itself with a count before it. What
// the program does not import it cannot call.
template <typename Function>
class CountingHook;

template <typename Result, typename... Arguments>
class CountingHook<Result (*)(Arguments...)> {
 public:
  explicit CountingHook(const char* name) {
    try {
      hook_.emplace(name, reinterpret_cast<void*>(&Enter));
      original_ = reinterpret_cast<Result (*)(Arguments...)>(hook_->Original());
    } catch (const std::runtime_error&) {
      hook_.reset();
    }
  }

 private:
  static Result Enter(Arguments... arguments) {
    ++allocations;
    return original_.load()(arguments...);
  }

  static inline std::atomic<Result (*)(Arguments...)> original_ = nullptr;
  std::optional<ScopedImportHook> hook_;
};

}  // namespace

// All signatures differ, so each function has a type, and with it an original, of its own.
struct AllocationCount::Hooks {
  CountingHook<void* (*)(std::size_t)> memory{"malloc"};
  CountingHook<void* (*)(std::size_t, std::size_t)> cleared{"calloc"};
  CountingHook<void* (*)(void*, std::size_t)> resized{"realloc"};
  CountingHook<void* (*)(HANDLE, DWORD, SIZE_T)> heap{"HeapAlloc"};
  CountingHook<void* (*)(void*, SIZE_T, DWORD, DWORD)> pages{"VirtualAlloc"};
};

AllocationCount::AllocationCount() : hooks_(new Hooks) { allocations = 0; }

AllocationCount::~AllocationCount() { delete hooks_; }

std::size_t AllocationCount::SoFar() const { return allocations; }

}  // namespace nimbra_bench
