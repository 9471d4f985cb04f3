#include "common/small-buffer.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "common/debug-log.h"
#include "common/text.h"
#include "tests/support/heap-watch.h"
#include "tests/support/log-capture.h"
#include "tests/support/test-scope.h"

// Where the stack ends and the heap begins.

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::Log;
using corvdrive::cloud_filter::SmallBuffer;
using corvdrive::cloud_filter::WideText;
using testing::ElementsAre;

using Buffer = SmallBuffer<char, 16>;

bool IsInside(const Buffer& buffer, const char* begin, std::size_t size) {
  const auto first = reinterpret_cast<std::uintptr_t>(&buffer);
  const auto memory = reinterpret_cast<std::uintptr_t>(begin);
  return first <= memory && memory + size <= first + sizeof(buffer);
}

TEST(SmallBufferTest, UsualSizesLieWithinTheObject) {
  for (const std::size_t size : {0u, 1u, 15u, 16u}) {
    Buffer buffer;
    int allocations = -1;
    const char* memory = nullptr;
    {
      const HeapWatch heap;
      memory = buffer.Reserve(size);
      allocations = heap.Allocations();
    }
    EXPECT_TRUE(IsInside(buffer, memory, size)) << size;
    EXPECT_EQ(allocations, 0) << size;
  }
}

TEST(SmallBufferTest, OneMoreLiesOnTheHeapAndGoesWithTheObject) {
  for (const std::size_t size : {17u, 100'000u}) {
    int allocations = -1;
    int left = -1;
    bool isInside = true;
    {
      const HeapWatch heap;
      {
        Buffer buffer;
        char* const memory = buffer.Reserve(size);
        isInside = IsInside(buffer, memory, size);
        memory[size - 1] = 'x';
        allocations = heap.Allocations();
      }
      left = heap.LiveBlocks();
    }
    EXPECT_FALSE(isInside) << size;
    EXPECT_EQ(allocations, 1) << size;
    EXPECT_EQ(left, 0) << size;
  }
}

TEST(SmallBufferTest, TextsOfAnyLengthAroundTheUsualStayWhole) {
  for (std::size_t size = 505; size <= 520; ++size) {
    const std::string text = std::string(size - 1, 'a') + 'z';
    int allocations = -1;
    std::wstring wide;
    {
      const HeapWatch heap;
      const WideText converted(text);
      allocations = heap.Allocations();
      const TestScope scope;
      wide = converted.Get();
    }
    EXPECT_EQ(wide, std::wstring(size - 1, L'a') + L'z') << size;
    EXPECT_EQ(allocations, size < 512 ? 0 : 1) << size;
  }
}

TEST(SmallBufferTest, LinesOfAnyLengthAroundTheUsualStayWhole) {
  for (std::size_t size = 470; size <= 520; ++size) {
    const LogCapture log;
    const std::string text(size, 'a');
    Log("lib\\source", 7, text, "z");
    EXPECT_THAT(log.Lines(), ElementsAre(ExpectedLine("lib\\source", 7, text + "z"))) << size;
  }
}

}  // namespace
}  // namespace nimbra_test
