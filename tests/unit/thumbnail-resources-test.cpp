#include <windows.h>

#include <cstddef>
#include <cstdlib>
#include <iostream>
#include <string>

#include "nimbra-host/nimbra/class-factory.h"
#include "tests/support/handle-census.h"
#include "tests/support/heap-watch.h"
#include "tests/support/threads.h"
#include "tests/unit/thumbnail-file-fixture.h"

namespace nimbra_test {
namespace {

// What the process holds.
struct Holdings {
  std::size_t handles;
  int bitmaps;
  // Blocks of the system's heap, where COM's allocator and the imaging component have theirs.
  std::size_t systemBlocks;
  ULONG itemReferences;
};

std::size_t SystemHeapBlocks() {
  std::size_t blocks = 0;
  PROCESS_HEAP_ENTRY entry{};
  const HANDLE heap = GetProcessHeap();
  HeapLock(heap);
  while (HeapWalk(heap, &entry)) {
    blocks += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 ? 1U : 0U;
  }
  HeapUnlock(heap);
  return blocks;
}

// NIMBRA_TEST_THUMBNAILS in the environment asks for another number, such as 10000.
int ThumbnailCount() {
  constexpr int kUsual = 300;
  const char* const text = std::getenv("NIMBRA_TEST_THUMBNAILS");
  return text != nullptr ? std::atoi(text) : kUsual;
}

class ThumbnailResourcesTest : public ThumbnailFileTest {
 protected:
  Holdings Count() const {
    return {OpenHandleCount(), bitmaps_.Alive(), SystemHeapBlocks(), item_.References()};
  }
  // What the shell does for one item, from the factory to the last reference.
  void OneThumbnail(IClassFactory& factory) {
    void* out = nullptr;
    ASSERT_EQ(factory.CreateInstance(nullptr, IID_IInitializeWithItem, &out), S_OK);
    const ComOwner<IInitializeWithItem> initialize(static_cast<IInitializeWithItem*>(out));
    ASSERT_EQ(initialize->Initialize(&item_, STGM_READ), S_OK);
    ASSERT_EQ(initialize->QueryInterface(__uuidof(IThumbnailProvider), &out), S_OK);
    const ComOwner<IThumbnailProvider> provider(static_cast<IThumbnailProvider*>(out));
    const Thumbnail thumbnail = Ask(*provider);
    const BitmapOwner bitmap(thumbnail.bitmap);
    ASSERT_THAT(thumbnail, IsThumbnail());
  }
};

TEST_F(ThumbnailResourcesTest, EachProviderLeavesOneItemReferenceAndOnePathAndNothingElse) {
  const int count = ThumbnailCount();
  ASSERT_GT(count, 0);
  const std::string path = folder_.WriteFile(
      "x.png",
      PngFile(MakePicture(32, 32, [](auto x, auto y) { return 0xFF000000 | x << 8 | y; }), 8));
  const Retriever retriever(Wide(path));
  const ComOwner<IClassFactory> factory(new ClassFactory<WinCFThumbnailProvider>);
  for (int i = 0; i < 5; ++i) OneThumbnail(*factory);

  const Holdings before = Count();
  int blocks = 0;
  for (int i = 0; i < count; ++i) {
    const HeapWatch heap;
    OneThumbnail(*factory);
    blocks += heap.LiveBlocks();
  }
  const Holdings after = Count();

  std::cout << count << " thumbnails: " << after.handles - before.handles << " handles, "
            << after.bitmaps - before.bitmaps << " bitmaps, " << blocks << " C++ blocks, "
            << after.systemBlocks - before.systemBlocks << " system blocks, "
            << after.itemReferences - before.itemReferences << " item references more\n";
  const auto left = static_cast<std::size_t>(count);
  EXPECT_EQ(after.handles, before.handles);
  EXPECT_EQ(after.bitmaps, before.bitmaps);
  EXPECT_EQ(blocks, 0);
  EXPECT_EQ(after.itemReferences, before.itemReferences + left);
  EXPECT_EQ(item_.PathsAlive(), count + 5);
  EXPECT_EQ(after.systemBlocks, before.systemBlocks + left);
}

TEST_F(ThumbnailResourcesTest, SixteenThreadsGetTheirThumbnailsAtOnce) {
  const Picture picture = MakePicture(
      40, 30, [](std::uint32_t x, std::uint32_t y) { return 0xFF000000 | x << 16 | y << 8; });
  const Retriever retriever(Wide(folder_.WriteFile("x.bmp", BmpFile(picture, 24))));
  const auto shared = Initialized();
  const auto wrong = OnThreads(16, [&](int thread) {
    const ComApartment com(COINIT_MULTITHREADED);
    int count = 0;
    for (int round = 0; round < 10; ++round) {
      const auto own = thread % 2 == 0 ? Initialized() : nullptr;
      const Thumbnail thumbnail = Ask(own != nullptr ? *own : *shared);
      const BitmapOwner bitmap(thumbnail.bitmap);
      count += thumbnail.result == S_OK && PixelsOf(bitmap.Get()) == picture ? 0 : 1;
    }
    return count;
  });
  EXPECT_THAT(wrong, testing::Each(0));
  EXPECT_EQ(bitmaps_.Alive(), 0);
}

}  // namespace
}  // namespace nimbra_test
