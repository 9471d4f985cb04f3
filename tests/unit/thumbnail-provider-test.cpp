#include <windows.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tests/support/heap-watch.h"
#include "tests/support/threads.h"
#include "tests/unit/thumbnail-fixture.h"

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr GUID kInitializeWithItem = {
    0x7F73BE3F, 0xFB79, 0x493C, {0xA6, 0xC7, 0x7E, 0xE1, 0x4E, 0x24, 0x58, 0x41}};
constexpr GUID kThumbnailProvider = {
    0xE357FCCD, 0xA995, 0x4576, {0xB0, 0x1F, 0x23, 0x46, 0x30, 0x15, 0x4E, 0x96}};
constexpr GUID kUnknown = {0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

std::uintptr_t Address(const void* object) { return reinterpret_cast<std::uintptr_t>(object); }

// The count after taking a reference and giving it back.
ULONG ReferencesOf(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

// Gives the reference back at once: the object is alive by another one.
void* Query(IUnknown* object, const GUID& iid) {
  void* out = nullptr;
  EXPECT_EQ(object->QueryInterface(iid, &out), S_OK);
  static_cast<IUnknown*>(out)->Release();
  return out;
}

class ProviderIdentityTest : public ThumbnailTest {};

TEST_F(ProviderIdentityTest, InterfacesStandAtTheStartAndOnePointerBehind) {
  const auto provider = NewProvider();
  auto* const start = static_cast<IInitializeWithItem*>(provider.get());
  EXPECT_EQ(Query(start, kInitializeWithItem), provider.get());
  EXPECT_EQ(Address(Query(start, kThumbnailProvider)), Address(provider.get()) + 8);
  EXPECT_EQ(Query(start, kUnknown), provider.get());
}

TEST_F(ProviderIdentityTest, EveryInterfaceLeadsToEveryOtherAndToItself) {
  const auto provider = NewProvider();
  auto* const first = static_cast<IInitializeWithItem*>(provider.get());
  for (const GUID& from : {kUnknown, kInitializeWithItem, kThumbnailProvider}) {
    auto* const interfaceOfIt = static_cast<IUnknown*>(Query(first, from));
    for (const GUID& to : {kUnknown, kInitializeWithItem, kThumbnailProvider}) {
      EXPECT_EQ(Query(interfaceOfIt, to), Query(first, to)) << GuidText(from) << GuidText(to);
      EXPECT_EQ(Query(interfaceOfIt, to), Query(interfaceOfIt, to));
    }
  }
}

TEST_F(ProviderIdentityTest, QueryTakesOneReference) {
  const auto provider = NewProvider();
  auto* const first = static_cast<IInitializeWithItem*>(provider.get());
  ASSERT_EQ(ReferencesOf(first), 1U);
  void* out = nullptr;
  for (const GUID& iid : {kUnknown, kInitializeWithItem, kThumbnailProvider}) {
    ASSERT_EQ(provider->QueryInterface(iid, &out), S_OK);
    EXPECT_EQ(ReferencesOf(first), 2U);
    EXPECT_EQ(static_cast<IUnknown*>(out)->Release(), 1U);
  }
}

TEST_F(ProviderIdentityTest, UnknownInterfaceIsRefusedThroughBothTables) {
  const auto provider = NewProvider();
  auto* const second = static_cast<IThumbnailProvider*>(provider.get());
  // One byte beside a known one, and others that the shell also tries.
  GUID close = kThumbnailProvider;
  close.Data4[7] ^= 1;
  for (const GUID& iid : {close, GUID{}, IID_IClassFactory, IID_IMarshal, IID_IShellItem}) {
    void* out = &close;
    EXPECT_EQ(provider->QueryInterface(iid, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
    out = &close;
    EXPECT_EQ(second->QueryInterface(iid, &out), E_NOINTERFACE);
    EXPECT_EQ(out, nullptr);
  }
  EXPECT_EQ(ReferencesOf(second), 1U);
}

TEST_F(ProviderIdentityTest, QueryWithoutOutputIsRefused) {
  const auto provider = NewProvider();
  EXPECT_EQ(provider->QueryInterface(kUnknown, nullptr), E_POINTER);
  EXPECT_EQ(ReferencesOf(static_cast<IInitializeWithItem*>(provider.get())), 1U);
}

TEST_F(ProviderIdentityTest, BothTablesCountTheSameReferences) {
  const auto provider = NewProvider();
  auto* const first = static_cast<IInitializeWithItem*>(provider.get());
  auto* const second = static_cast<IThumbnailProvider*>(provider.get());
  EXPECT_EQ(first->AddRef(), 2U);
  EXPECT_EQ(second->AddRef(), 3U);
  EXPECT_EQ(first->AddRef(), 4U);
  EXPECT_EQ(second->Release(), 3U);
  EXPECT_EQ(first->Release(), 2U);
  EXPECT_EQ(second->Release(), 1U);
}

TEST_F(ProviderIdentityTest, ReferencesAreCountedExactlyBySixteenThreads) {
  constexpr int kThreads = 16, kRounds = 10'000;
  const auto provider = NewProvider();
  auto* const first = static_cast<IInitializeWithItem*>(provider.get());
  const auto lowest = OnThreads(kThreads, [&](int thread) {
    auto least = static_cast<ULONG>(-1);
    for (int round = 0; round < kRounds; ++round) {
      void* out = nullptr;
      provider->QueryInterface(thread % 2 == 0 ? kThumbnailProvider : kUnknown, &out);
      least = std::min(least, first->AddRef());
      least = std::min(least, static_cast<IUnknown*>(out)->Release());
      least = std::min(least, first->Release());
    }
    return least;
  });
  EXPECT_EQ(ReferencesOf(first), 1U);
  // Nobody ever saw the object without the reference that the test holds.
  EXPECT_GE(*std::min_element(lowest.begin(), lowest.end()), 1U);
}

TEST_F(ProviderIdentityTest, LastReleaseOfSixteenThreadsFreesTheObjectOnce) {
  constexpr int kThreads = 16;
  for (int round = 0; round < 40; ++round) {
    auto* const provider = new WinCFThumbnailProvider;
    for (int i = 1; i < kThreads; ++i) provider->AddRef();
    const HeapWatch heap;
    const auto counts = OnThreads(kThreads, [&](int) { return provider->Release(); });
    EXPECT_EQ(std::count(counts.begin(), counts.end(), 0U), 1);
    EXPECT_TRUE(HeapWatch::WasFreed(provider));
  }
}

TEST_F(ProviderIdentityTest, LastReleaseThroughEitherTableFreesTheMemoryAlone) {
  for (const bool throughSecond : {false, true}) {
    WinCFThumbnailProvider* const provider = Initialized().release();
    ASSERT_EQ(item_.References(), throughSecond ? 2U : 1U);
    const HeapWatch heap;
    ASSERT_TRUE(HeapWatch::IsAllocated(provider));
    const ULONG left = throughSecond ? static_cast<IThumbnailProvider*>(provider)->Release()
                                     : static_cast<IInitializeWithItem*>(provider)->Release();
    EXPECT_EQ(left, 0U);
    EXPECT_TRUE(HeapWatch::WasFreed(provider));
  }
  // Neither item nor path of either object was given back.
  EXPECT_EQ(item_.References(), 2U);
  EXPECT_EQ(item_.PathsAlive(), 2);
}

class ProviderLayoutTest : public ThumbnailTest {
 protected:
  template <typename Field>
  static Field At(const WinCFThumbnailProvider& provider, std::size_t offset) {
    Field field{};
    std::memcpy(&field, reinterpret_cast<const std::byte*>(&provider) + offset, sizeof(field));
    return field;
  }
};

TEST_F(ProviderLayoutTest, HasItsFieldsInTheirOrder) {
  const auto provider = NewProvider();
  EXPECT_EQ(sizeof(WinCFThumbnailProvider), 40U);
  EXPECT_EQ(At<std::uint32_t>(*provider, 16), 1U);
  EXPECT_EQ(At<void*>(*provider, 24), nullptr);
  EXPECT_EQ(At<void*>(*provider, 32), nullptr);

  provider->AddRef();
  EXPECT_EQ(At<std::uint32_t>(*provider, 16), 2U);
  provider->Release();
  ASSERT_EQ(provider->Initialize(&item_, 0), S_OK);
  EXPECT_EQ(At<const void*>(*provider, 24), static_cast<IShellItem2*>(&item_));
  EXPECT_EQ(At<const void*>(*provider, 32), item_.LastPath());
}

TEST_F(ProviderLayoutTest, HasItsOperationsInTheirOrder) {
  const auto provider = NewProvider();
  using Count = ULONG(STDMETHODCALLTYPE*)(void*);
  using Query = HRESULT(STDMETHODCALLTYPE*)(void*, const GUID&, void**);
  using Initialize = HRESULT(STDMETHODCALLTYPE*)(void*, IShellItem*, DWORD);
  using GetThumbnail = HRESULT(STDMETHODCALLTYPE*)(void*, UINT, HBITMAP*, WTS_ALPHATYPE*);
  for (const std::size_t table : {0U, 8U}) {
    auto* const object = reinterpret_cast<std::byte*>(provider.get()) + table;
    void** const slots = At<void**>(*provider, table);
    void* out = nullptr;
    EXPECT_EQ(reinterpret_cast<Query>(slots[0])(object, kUnknown, &out), S_OK);
    EXPECT_EQ(out, provider.get());
    EXPECT_EQ(reinterpret_cast<Count>(slots[1])(object), 3U);
    EXPECT_EQ(reinterpret_cast<Count>(slots[2])(object), 2U);
    EXPECT_EQ(reinterpret_cast<Count>(slots[2])(object), 1U);
  }
  EXPECT_EQ(reinterpret_cast<Initialize>(At<void**>(*provider, 0)[3])(provider.get(), &item_, 0),
            S_OK);
  EXPECT_EQ(item_.References(), 1U);
  HBITMAP bitmap = nullptr;
  auto alpha = WTSAT_ARGB;
  auto* const second = reinterpret_cast<std::byte*>(provider.get()) + 8;
  EXPECT_EQ(reinterpret_cast<GetThumbnail>(At<void**>(*provider, 8)[3])(second, 1, &bitmap, &alpha),
            S_OK);
  EXPECT_EQ(alpha, WTSAT_UNKNOWN);
}

class ProviderInitializeTest : public ThumbnailTest {};

TEST_F(ProviderInitializeTest, KeepsTheItemAndItsFileSystemPath) {
  const auto provider = NewProvider();
  ASSERT_EQ(provider->Initialize(&item_, 0), S_OK);
  EXPECT_THAT(journal_.Entries(),
              ElementsAre("item: QueryInterface {7E9FB0D3-919F-4307-AB2E-9B1860310C93}",
                          "item: GetDisplayName 0x80058000"));
  EXPECT_EQ(item_.References(), 1U);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLine("Thumbnail requested for " + Narrow(kItemPath))));
}

TEST_F(ProviderInitializeTest, AccessModeDoesNotMatter) {
  for (const DWORD mode : {0x00000000UL, 0x00000002UL, 0x00000010UL, 0xFFFFFFFFUL}) {
    EXPECT_EQ(NewProvider()->Initialize(&item_, mode), S_OK);
  }
  EXPECT_EQ(log_.Lines().size(), 4U);
}

TEST_F(ProviderInitializeTest, EmptyPathIsLoggedAndHandedOverAsItIs) {
  const Retriever retriever([](const wchar_t*, wchar_t*) { return false; });
  item_.BecomePath(L"");
  const auto provider = NewProvider();
  ASSERT_EQ(provider->Initialize(&item_, 0), S_OK);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLine("Thumbnail requested for ")));
  EXPECT_THAT(Ask(*provider), IsFailedThumbnail(E_UNEXPECTED));
  EXPECT_THAT(retriever.Items(), ElementsAre(L""));
}

TEST_F(ProviderInitializeTest, ItemWithoutTheSecondInterfaceIsRefusedSilently) {
  item_.queryResult = static_cast<HRESULT>(0x8001010D);
  EXPECT_EQ(NewProvider()->Initialize(&item_, 0), static_cast<HRESULT>(0x8001010D));
  EXPECT_EQ(journal_.Entries().size(), 1U);
  EXPECT_EQ(item_.References(), 0U);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ProviderInitializeTest, ItemWithoutAPathIsRefusedSilently) {
  item_.displayNameResult = static_cast<HRESULT>(0x80070490);
  EXPECT_EQ(NewProvider()->Initialize(&item_, 0), static_cast<HRESULT>(0x80070490));
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ProviderInitializeTest, NullItemIsRefusedSilently) {
  EXPECT_EQ(NewProvider()->Initialize(nullptr, 0), E_INVALIDARG);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ProviderInitializeTest, SecondTimeReplacesBothFieldsAndReleasesNothing) {
  const Retriever retriever([](const wchar_t*, wchar_t*) { return false; });
  ShellItemDouble other(journal_, L"C:\\Sync\\other.png");
  const auto provider = Initialized();
  ASSERT_EQ(provider->Initialize(&other, 0), S_OK);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLine("Thumbnail requested for C:\\Sync\\other.png")));
  Ask(*provider);
  EXPECT_THAT(retriever.Items(), ElementsAre(L"C:\\Sync\\other.png"));
  EXPECT_EQ(item_.References(), 1U);
  EXPECT_EQ(item_.PathsAlive(), 1);
  EXPECT_EQ(other.References(), 1U);
}

TEST_F(ProviderInitializeTest, FailureLeavesNoPathOfAnEarlierItem) {
  const Retriever retriever([](const wchar_t*, wchar_t*) { return true; });
  for (const bool queryFails : {true, false}) {
    ShellItemDouble other(journal_, L"C:\\Sync\\other.png");
    (queryFails ? other.queryResult : other.displayNameResult) = E_ACCESSDENIED;
    const auto provider = Initialized();
    ASSERT_EQ(provider->Initialize(&other, 0), E_ACCESSDENIED);
    EXPECT_THAT(Ask(*provider), IsFailedThumbnail(E_UNEXPECTED));
  }
  EXPECT_THAT(retriever.Items(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ProviderInitializeTest, EveryFailingAllocationIsAResult) {
  // Its line has no room on the stack.
  item_.BecomePath(LR"(C:\Sync\)" + std::wstring(600, L'i'));
  int results = 0;
  const Retriever retriever([](const wchar_t*, wchar_t*) { return false; });
  for (const bool persistent : {false, true}) {
    const int failures = ForEachFailingAllocation(
        [&](auto&& watched, const bool& failed) {
          const auto provider = NewProvider();
          HRESULT result = E_FAIL;
          watched([&] { result = provider->Initialize(&item_, 0); });
          EXPECT_TRUE(result == S_OK || (failed && result == E_OUTOFMEMORY)) << result;
          results += result == E_OUTOFMEMORY ? 1 : 0;
          const std::size_t asked = retriever.Items().size();
          EXPECT_THAT(Ask(*provider), IsFailedThumbnail(E_UNEXPECTED));
          // An object that could not be initialised knows no item.
          EXPECT_EQ(retriever.Items().size(), asked + (result == S_OK ? 1U : 0U));
        },
        persistent);
    EXPECT_GE(failures, 2);
  }
  EXPECT_GE(results, 2);
}

}  // namespace
}  // namespace nimbra_test
