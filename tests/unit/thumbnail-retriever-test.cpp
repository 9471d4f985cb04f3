#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cwchar>
#include <set>
#include <stdexcept>

#include "tests/support/threads.h"
#include "tests/unit/thumbnail-fixture.h"

// What the provider makes of the client's answers.
namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class RetrieverTest : public ThumbnailTest {};

TEST_F(RetrieverTest, WithoutOneThereIsNoBitmapAndNoFailure) {
  const auto provider = Initialized();
  EXPECT_THAT(Ask(*provider), IsFailedThumbnail(S_OK));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RetrieverTest, WithoutOneAnUninitialisedProviderIsNoFailureEither) {
  EXPECT_THAT(Ask(*NewProvider()), IsFailedThumbnail(S_OK));
}

TEST_F(RetrieverTest, GetsTheItemsPathAndAZeroedBuffer) {
  std::array<wchar_t, MAX_PATH> buffer{};
  buffer.fill(L'x');
  const Retriever retriever([&](const wchar_t*, wchar_t* imagePath) {
    std::copy_n(imagePath, buffer.size(), buffer.data());
    return false;
  });
  const auto provider = Initialized();
  Ask(*provider);
  EXPECT_THAT(retriever.Items(), ElementsAre(kItemPath));
  EXPECT_EQ(buffer, (std::array<wchar_t, MAX_PATH>{}));
}

TEST_F(RetrieverTest, RunsOnTheThreadThatAsks) {
  DWORD thread = 0;
  const Retriever retriever([&](const wchar_t*, wchar_t*) {
    thread = GetCurrentThreadId();
    return false;
  });
  const auto provider = Initialized();
  Ask(*provider);
  EXPECT_EQ(thread, GetCurrentThreadId());
}

TEST_F(RetrieverTest, BufferIsZeroedForEveryRequest) {
  int first = 0;
  const Retriever retriever([&](const wchar_t*, wchar_t* imagePath) {
    first += imagePath[0];
    imagePath[0] = L'x';
    return false;
  });
  const auto provider = Initialized();
  Ask(*provider);
  Ask(*provider);
  EXPECT_EQ(first, 0);
}

TEST_F(RetrieverTest, FalseIsUnexpectedAndSilentEvenWithAPath) {
  const Retriever retriever([](const wchar_t*, wchar_t* imagePath) {
    std::wmemcpy(imagePath, L"C:\\x.png", 9);
    return false;
  });
  EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(E_UNEXPECTED));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RetrieverTest, EmptyPathIsUnexpectedAndSilent) {
  const Retriever retriever([](const wchar_t*, wchar_t* imagePath) {
    // What stands behind the terminator is no path.
    imagePath[1] = L'x';
    return true;
  });
  EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(E_UNEXPECTED));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RetrieverTest, NothingThatItThrowsEscapes) {
  for (const bool isStandard : {true, false}) {
    const Retriever retriever([&](const wchar_t*, wchar_t* imagePath) -> bool {
      imagePath[0] = L'x';
      if (isStandard) throw std::runtime_error("no preview");
      throw 7;
    });
    EXPECT_THAT(Ask(*Initialized()), IsFailedThumbnail(E_UNEXPECTED));
    EXPECT_THAT(log_.Lines(), IsEmpty());
  }
}

TEST_F(RetrieverTest, UninitialisedProviderDoesNotAsk) {
  const Retriever retriever([](const wchar_t*, wchar_t*) { return true; });
  EXPECT_THAT(Ask(*NewProvider()), IsFailedThumbnail(E_UNEXPECTED));
  EXPECT_THAT(retriever.Items(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(RetrieverTest, NullOutputsAreRefusedBeforeAnythingElse) {
  const Retriever retriever([](const wchar_t*, wchar_t*) { return true; });
  const auto provider = Initialized();
  HBITMAP bitmap = nullptr;
  auto alpha = WTSAT_ARGB;
  EXPECT_EQ(provider->GetThumbnail(1, nullptr, &alpha), E_POINTER);
  EXPECT_EQ(provider->GetThumbnail(1, &bitmap, nullptr), E_POINTER);
  EXPECT_EQ(provider->GetThumbnail(1, nullptr, nullptr), E_POINTER);
  EXPECT_THAT(retriever.Items(), IsEmpty());
}

TEST_F(RetrieverTest, CanBeReplacedAndClearedBetweenRequests) {
  const auto provider = Initialized();
  {
    const Retriever first([](const wchar_t*, wchar_t*) { return false; });
    Ask(*provider);
    EXPECT_EQ(first.Items().size(), 1U);
    CORVWinCFSetThumbRetrieverCb([](const wchar_t*, wchar_t*) -> bool { throw 1; });
    EXPECT_THAT(Ask(*provider), IsFailedThumbnail(E_UNEXPECTED));
    EXPECT_EQ(first.Items().size(), 1U);
    CORVWinCFSetThumbRetrieverCb(nullptr);
    EXPECT_THAT(Ask(*provider), IsFailedThumbnail(S_OK));
    EXPECT_EQ(first.Items().size(), 1U);
  }
  const Retriever second([](const wchar_t*, wchar_t*) { return false; });
  Ask(*provider);
  EXPECT_EQ(second.Items().size(), 1U);
}

TEST_F(RetrieverTest, CanBeClearedDuringItsOwnCall) {
  const Retriever retriever([](const wchar_t*, wchar_t*) {
    CORVWinCFSetThumbRetrieverCb(nullptr);
    return false;
  });
  const auto provider = Initialized();
  EXPECT_THAT(Ask(*provider), IsFailedThumbnail(E_UNEXPECTED));
  EXPECT_THAT(Ask(*provider), IsFailedThumbnail(S_OK));
}

TEST_F(RetrieverTest, CanBeReplacedAndClearedWhileOthersAsk) {
  const CORVWinCFThumbRetriever findNothing = [](const wchar_t*, wchar_t*) { return false; };
  const auto provider = Initialized();
  constexpr int kThreads = 8;
  std::atomic<int> asking = kThreads - 1;
  // Everybody asks until both answers came; what is neither counts.
  const auto unexpected = OnThreads(kThreads, [&](int thread) {
    if (thread == 0) {
      for (bool isSet = false; asking > 0; isSet = !isSet) {
        CORVWinCFSetThumbRetrieverCb(isSet ? findNothing : nullptr);
      }
      return 0;
    }
    int strange = 0;
    std::set<HRESULT> seen;
    for (const DWORD start = GetTickCount(); seen.size() < 2 && GetTickCount() - start < 30'000;) {
      const HRESULT result = Ask(*provider).result;
      seen.insert(result);
      strange += result != S_OK && result != E_UNEXPECTED ? 1 : 0;
    }
    --asking;
    return seen.size() == 2 ? strange : -1;
  });
  CORVWinCFSetThumbRetrieverCb(nullptr);
  EXPECT_THAT(unexpected, testing::Each(0));
}

}  // namespace
}  // namespace nimbra_test
