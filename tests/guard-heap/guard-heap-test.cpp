#include "tests/guard-heap/guard-heap.h"

#include <gmock/gmock.h>
#include <malloc.h>
#include <windows.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/guard-heap/mistakes.h"
#include "tests/support/heap-watch.h"
#include "tests/support/threads.h"

namespace nimbra_test::guard_heap {
namespace {

using testing::HasSubstr;

template <typename T>
using Allocated = std::unique_ptr<T, decltype(&std::free)>;

Allocated<unsigned char> NewBlock(std::size_t size) {
  return {static_cast<unsigned char*>(std::malloc(size)), &std::free};
}

struct Outcome {
  DWORD code;
  std::string errors;
};

std::wstring MistakesProgram() {
  std::array<wchar_t, MAX_PATH> path{};
  GetModuleFileNameW(nullptr, path.data(), MAX_PATH);
  const std::wstring own = path.data();
  return own.substr(0, own.rfind(L'\\') + 1) + L"nimbra_mistakes.exe";
}

std::string ReadAll(HANDLE pipe) {
  std::string text;
  std::array<char, 512> part{};
  DWORD count = 0;
  while (ReadFile(pipe, part.data(), part.size(), &count, nullptr) && count > 0) {
    text.append(part.data(), count);
  }
  return text;
}

Outcome RunMistake(const std::string& name) {
  SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
  HANDLE read = nullptr;
  HANDLE write = nullptr;
  if (!CreatePipe(&read, &write, &inherited, 0)) {
    return {STILL_ACTIVE, "no pipe"};
  }
  SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdError = write;
  PROCESS_INFORMATION process{};
  std::wstring command =
      L"\"" + MistakesProgram() + L"\" " + std::wstring(name.begin(), name.end());
  const bool started = CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr,
                                      nullptr, &startup, &process) != FALSE;
  CloseHandle(write);
  Outcome outcome{STILL_ACTIVE, ReadAll(read)};
  CloseHandle(read);
  if (started) {
    WaitForSingleObject(process.hProcess, INFINITE);
    GetExitCodeProcess(process.hProcess, &outcome.code);
    CloseHandle(process.hThread);
    CloseHandle(process.hProcess);
  }
  return outcome;
}

class MistakeTest : public testing::TestWithParam<NamedMistake> {};

TEST_P(MistakeTest, EndsTheProcessAndIsTold) {
  const Outcome outcome = RunMistake(GetParam().name);
  EXPECT_EQ(outcome.code, static_cast<DWORD>(GetParam().noticedAs));
  EXPECT_THAT(outcome.errors, HasSubstr(GetParam().report));
  EXPECT_THAT(outcome.errors, HasSubstr("nimbra_mistakes.exe+0x")) << "where it was made";
}

INSTANTIATE_TEST_SUITE_P(All, MistakeTest,
                         testing::ValuesIn(AllMistakes().begin(), AllMistakes().end()),
                         testing::PrintToStringParamName());

TEST(GuardHeapTest, AProgramWithoutAMistakeIsNotEnded) { EXPECT_EQ(RunMistake("none").code, 1u); }

TEST(GuardHeapTest, BlocksOfOddSizesEndWhereTheirPageEnds) {
  for (const std::size_t size : {1u, 2u, 3u, 5u, 39u, 4095u, 4097u}) {
    const auto block = NewBlock(size);
    EXPECT_EQ((reinterpret_cast<std::uintptr_t>(block.get()) + size) % 4096, 0u) << size;
  }
}

TEST(GuardHeapTest, BlocksThatCanHoldAnythingAreAlignedForAnything) {
  for (const std::size_t size : {8u, 16u, 24u, 40u, 4096u, 4104u}) {
    const auto block = NewBlock(size);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block.get()) % 16, 0u) << size;
  }
}

TEST(GuardHeapTest, AlignedBlocksAreAligned) {
  struct alignas(256) Wide {
    char bytes[256];
  };
  const auto wide = std::make_unique<Wide>();
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(wide.get()) % 256, 0u);
}

template <typename T>
void ExpectThrown(T value) {
  try {
    throw value;
  } catch (const T& caught) {
    EXPECT_EQ(caught, value);
  }
}

// The C++ library allocates what is thrown together with a header of its own.
TEST(GuardHeapTest, ExceptionsOfAnySizeCanBeThrown) {
  ExpectThrown(char{1});
  ExpectThrown(int{2});
  ExpectThrown(std::int64_t{3});
  ExpectThrown(std::string("4"));
}

TEST(GuardHeapTest, NewMemoryIsNotZeroUnlessAskedFor) {
  const auto fresh = NewBlock(100);
  EXPECT_TRUE(std::all_of(fresh.get(), fresh.get() + 100, [](int byte) { return byte == 0xCD; }));
  const Allocated<unsigned char> cleared(static_cast<unsigned char*>(std::calloc(10, 10)),
                                         &std::free);
  EXPECT_TRUE(std::all_of(cleared.get(), cleared.get() + 100, [](int byte) { return byte == 0; }));
}

TEST(GuardHeapTest, TheSizeOfABlockIsKnown) {
  const auto block = NewBlock(39);
  EXPECT_EQ(_msize(block.get()), 39u);
}

TEST(GuardHeapTest, ReallocatingKeepsTheContents) {
  void* block = std::malloc(3);
  std::memcpy(block, "ab", 3);
  block = std::realloc(block, 9000);
  EXPECT_STREQ(static_cast<char*>(block), "ab");
  block = std::realloc(block, 2);
  EXPECT_EQ(std::memcmp(block, "ab", 2), 0);
  std::free(block);
}

TEST(GuardHeapTest, AnAddressIsNotUsedAgain) {
  const auto address = [] { return reinterpret_cast<std::uintptr_t>(NewBlock(64).get()); };
  std::vector<std::uintptr_t> seen;
  std::generate_n(std::back_inserter(seen), 1000, address);
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end()), seen.end());
}

TEST(GuardHeapTest, WhatIsTooLargeIsRefused) {
  volatile std::size_t most = SIZE_MAX;
  EXPECT_EQ(std::malloc(most), nullptr);
  EXPECT_EQ(std::malloc(most - 15), nullptr);
  EXPECT_EQ(std::calloc(most / 2, 3), nullptr);
}

TEST(GuardHeapTest, MoreBlocksThanCanHaveAGuardWorkAllTheSame) {
  std::vector<Allocated<unsigned char>> blocks;
  for (int i = 0; i < 30000; ++i) {
    blocks.push_back(NewBlock(16));
    ASSERT_NE(blocks.back(), nullptr);
    blocks.back().get()[15] = 1;
  }
}

TEST(GuardHeapTest, ThreadsUseItAtTheSameTime) {
  const auto sums = OnThreads(4, [](int thread) {
    std::size_t sum = 0;
    for (int i = 0; i < 2000; ++i) {
      std::string text(static_cast<std::size_t>(i % 300 + 20), static_cast<char>('a' + thread));
      sum += static_cast<std::size_t>(std::count(text.begin(), text.end(), 'a' + thread));
    }
    return sum;
  });
  for (const std::size_t sum : sums) {
    EXPECT_EQ(sum, sums[0]);
  }
  EXPECT_GT(sums[0], 0u);
}

TEST(GuardHeapTest, TheWatchOfTheTestsKeepsItsBlocksInIt) {
  const HeapWatch watch;
  const auto block = std::make_unique<char[]>(39);
  EXPECT_TRUE(HeapWatch::IsAllocated(block.get()));
  EXPECT_EQ((reinterpret_cast<std::uintptr_t>(block.get()) + 39) % 4096, 0u);
}

}  // namespace
}  // namespace nimbra_test::guard_heap
