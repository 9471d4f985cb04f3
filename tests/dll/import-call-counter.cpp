#include "tests/dll/import-call-counter.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

#include "tests/dll/image.h"

namespace nimbra_test {
namespace {

// Counts in the 64-bit number behind the first address and goes on to the second one with every
// register as it was:  push rax; mov rax, counter; lock inc qword [rax]; pop rax; jmp [rip+0]
constexpr std::array<std::uint8_t, 32> kThunk = {
    0x50, 0x48, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xF0, 0x48, 0xFF, 0x00, 0x58,
    0xFF, 0x25, 0,    0, 0, 0, 0, 0, 0, 0, 0, 0,    0,    0,    0xCC, 0xCC};
constexpr std::size_t kCounterAddress = 3;
constexpr std::size_t kTargetAddress = 22;
constexpr std::size_t kStride = kThunk.size() + sizeof(std::int64_t);

void WriteSlot(void** slot, void* value) {
  DWORD protection = 0;
  if (!VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &protection)) {
    throw std::runtime_error("cannot write an import slot");
  }
  *slot = value;
  VirtualProtect(slot, sizeof *slot, protection, &protection);
}

// Imported data has a slot as well; only code may be wrapped.
bool IsCode(const void* address) {
  constexpr DWORD kExecutable =
      PAGE_EXECUTE | PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
  MEMORY_BASIC_INFORMATION information{};
  return VirtualQuery(address, &information, sizeof information) != 0 &&
         (information.Protect & kExecutable) != 0;
}

}  // namespace

ImportCallCounter::ImportCallCounter(HMODULE image) {
  const std::vector<ImportSlot> slots = ImportSlots(image);
  memory_ = VirtualAlloc(nullptr, std::max<std::size_t>(slots.size(), 1) * kStride,
                         MEM_RESERVE | MEM_COMMIT, PAGE_EXECUTE_READWRITE);
  if (memory_ == nullptr) {
    throw std::runtime_error("no memory for thunks");
  }
  auto* place = static_cast<std::uint8_t*>(memory_);
  for (const ImportSlot& import : slots) {
    if (!IsCode(*import.slot)) {
      continue;
    }
    auto* const counter = reinterpret_cast<std::int64_t*>(place);
    auto* const thunk = place + sizeof *counter;
    *counter = 0;
    std::memcpy(thunk, kThunk.data(), kThunk.size());
    std::memcpy(thunk + kCounterAddress, &counter, sizeof counter);
    std::memcpy(thunk + kTargetAddress, import.slot, sizeof(void*));
    watched_.push_back(
        {import.library + "!" + import.function, import.slot, *import.slot, counter});
    WriteSlot(import.slot, thunk);
    place += kStride;
  }
}

ImportCallCounter::~ImportCallCounter() {
  for (const Function& function : watched_) {
    WriteSlot(function.slot, function.original);
  }
  VirtualFree(memory_, 0, MEM_RELEASE);
}

std::vector<std::string> ImportCallCounter::Called() const {
  std::vector<std::string> called;
  for (const Function& function : watched_) {
    if (*function.calls != 0) {
      called.push_back(function.name);
    }
  }
  return called;
}

void ImportCallCounter::Clear() {
  for (const Function& function : watched_) {
    *function.calls = 0;
  }
}

}  // namespace nimbra_test
