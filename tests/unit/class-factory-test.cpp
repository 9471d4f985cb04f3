#include "nimbra-host/nimbra/class-factory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <thumbcache.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "tests/support/com-double.h"
#include "tests/support/heap-watch.h"
#include "tests/support/threads.h"
#include "win-cf/thumbnail-provider.h"

namespace nimbra_test {
namespace {

constexpr GUID kUnknown = {0, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr GUID kClassFactory = {1, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

// What factories of the tests make: counts its objects and the questions that they get.
class Product final : public IUnknown {
 public:
  Product() { ++alive; }
  virtual ~Product() { --alive; }

  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    ++queries;
    *ppv = nullptr;
    if (riid != kUnknown) return refusal;
    *ppv = this;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++references_; }
  STDMETHODIMP_(ULONG) Release() override {
    const ULONG left = --references_;
    if (left == 0) delete this;
    return left;
  }

  static inline std::atomic<int> alive = 0;
  static inline std::atomic<int> queries = 0;
  static constexpr auto refusal = static_cast<HRESULT>(0x80041234);

 private:
  std::atomic<ULONG> references_ = 1;
};

template <typename Class>
ComOwner<ClassFactory<Class>> NewFactory() {
  return ComOwner<ClassFactory<Class>>(new ClassFactory<Class>);
}

ULONG ReferencesOf(IUnknown& object) {
  object.AddRef();
  return object.Release();
}

class ClassFactoryTest : public testing::Test {
 protected:
  ClassFactoryTest() { Product::alive = Product::queries = 0; }
};

TEST_F(ClassFactoryTest, ItIsItsOwnUnknownAndClassFactory) {
  const auto factory = NewFactory<Product>();
  ASSERT_EQ(ReferencesOf(*factory), 1U);
  for (const GUID& iid : {kUnknown, kClassFactory}) {
    void* out = nullptr;
    EXPECT_EQ(factory->QueryInterface(iid, &out), S_OK);
    EXPECT_EQ(out, static_cast<IClassFactory*>(factory.get()));
    EXPECT_EQ(factory->Release(), 1U);
  }
}

TEST_F(ClassFactoryTest, OtherInterfacesAreRefused) {
  const auto factory = NewFactory<Product>();
  GUID close = kClassFactory;
  close.Data1 = 2;
  for (const GUID& iid : {close, GUID{}, IID_IMarshal, __uuidof(IThumbnailProvider)}) {
    void* out = &close;
    EXPECT_EQ(factory->QueryInterface(iid, &out), static_cast<HRESULT>(0x80004002));
    EXPECT_EQ(out, nullptr);
  }
  EXPECT_EQ(ReferencesOf(*factory), 1U);
}

TEST_F(ClassFactoryTest, MissingOutputsAreRefused) {
  const auto factory = NewFactory<Product>();
  EXPECT_EQ(factory->QueryInterface(kUnknown, nullptr), E_POINTER);
  EXPECT_EQ(factory->CreateInstance(nullptr, kUnknown, nullptr), E_POINTER);
  EXPECT_EQ(ReferencesOf(*factory), 1U);
  EXPECT_EQ(Product::queries, 0);
}

TEST_F(ClassFactoryTest, ReferencesAreCountedExactlyBySixteenThreads) {
  const auto factory = NewFactory<Product>();
  OnThreads(16, [&](int) {
    for (int round = 0; round < 20'000; ++round) {
      void* out = nullptr;
      factory->QueryInterface(kClassFactory, &out);
      factory->AddRef();
      factory->Release();
      factory->Release();
    }
    return 0;
  });
  EXPECT_EQ(ReferencesOf(*factory), 1U);
}

TEST_F(ClassFactoryTest, LastReleaseFreesTheFactory) {
  auto* const factory = new ClassFactory<Product>;
  const HeapWatch heap;
  EXPECT_EQ(factory->AddRef(), 2U);
  EXPECT_EQ(factory->Release(), 1U);
  EXPECT_TRUE(HeapWatch::IsAllocated(factory));
  EXPECT_EQ(factory->Release(), 0U);
  EXPECT_TRUE(HeapWatch::WasFreed(factory));
}

TEST_F(ClassFactoryTest, MakesAnObjectThatTheCallerAloneHolds) {
  const auto factory = NewFactory<Product>();
  void* out = nullptr;
  ASSERT_EQ(factory->CreateInstance(nullptr, kUnknown, &out), S_OK);
  EXPECT_EQ(Product::alive, 1);
  EXPECT_EQ(Product::queries, 1);
  EXPECT_EQ(static_cast<Product*>(out)->Release(), 0U);
  EXPECT_EQ(Product::alive, 0);
  EXPECT_EQ(ReferencesOf(*factory), 1U);
}

TEST_F(ClassFactoryTest, MakesAnotherObjectEachTime) {
  const auto factory = NewFactory<Product>();
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(factory->CreateInstance(nullptr, kUnknown, &first), S_OK);
  ASSERT_EQ(factory->CreateInstance(nullptr, kUnknown, &second), S_OK);
  EXPECT_NE(first, second);
  static_cast<Product*>(first)->Release();
  static_cast<Product*>(second)->Release();
}

TEST_F(ClassFactoryTest, ObjectThatLacksTheInterfaceIsFreedAndItsAnswerGiven) {
  const auto factory = NewFactory<Product>();
  void* out = &out;
  EXPECT_EQ(factory->CreateInstance(nullptr, kClassFactory, &out), Product::refusal);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(Product::queries, 1);
  EXPECT_EQ(Product::alive, 0);
}

TEST_F(ClassFactoryTest, AggregationIsRefusedWithoutMakingAnything) {
  const auto factory = NewFactory<Product>();
  CallJournal journal;
  ComDouble<IUnknown> outer(journal, "outer", {kUnknown});
  void* out = &out;
  EXPECT_EQ(factory->CreateInstance(&outer, kUnknown, &out), static_cast<HRESULT>(0x80040110));
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(Product::queries, 0);
  EXPECT_THAT(journal.Entries(), testing::IsEmpty());
}

TEST_F(ClassFactoryTest, ExhaustedMemoryIsAResult) {
  const auto factory = NewFactory<Product>();
  void* out = &out;
  HRESULT result = S_OK;
  {
    HeapWatch heap;
    heap.FailAllocation(1);
    result = factory->CreateInstance(nullptr, kUnknown, &out);
    heap.StopFailing();
    EXPECT_TRUE(heap.Failed());
  }
  EXPECT_EQ(result, static_cast<HRESULT>(0x8007000E));
  EXPECT_EQ(out, nullptr);
}

TEST_F(ClassFactoryTest, LockingTheServerChangesNothing) {
  const auto factory = NewFactory<Product>();
  for (const BOOL lock : {TRUE, TRUE, FALSE, FALSE, FALSE, -1}) {
    EXPECT_EQ(factory->LockServer(lock), S_OK);
  }
  EXPECT_EQ(ReferencesOf(*factory), 1U);
}

TEST_F(ClassFactoryTest, ConsistsOfItsTableAndItsCount) {
  const auto factory = NewFactory<Product>();
  EXPECT_EQ(sizeof(ClassFactory<Product>), 16U);
  const auto* const bytes = reinterpret_cast<const std::byte*>(factory.get());
  std::uint32_t count = 0;
  std::memcpy(&count, bytes + 8, sizeof(count));
  EXPECT_EQ(count, 1U);

  void** slots = nullptr;
  std::memcpy(static_cast<void*>(&slots), bytes, sizeof(void*));
  using Create = HRESULT(STDMETHODCALLTYPE*)(void*, IUnknown*, const GUID&, void**);
  using Lock = HRESULT(STDMETHODCALLTYPE*)(void*, BOOL);
  using Count = ULONG(STDMETHODCALLTYPE*)(void*);
  EXPECT_EQ(reinterpret_cast<Count>(slots[1])(factory.get()), 2U);
  EXPECT_EQ(reinterpret_cast<Count>(slots[2])(factory.get()), 1U);
  void* out = nullptr;
  EXPECT_EQ(reinterpret_cast<Create>(slots[3])(factory.get(), nullptr, kUnknown, &out), S_OK);
  EXPECT_EQ(reinterpret_cast<Lock>(slots[4])(factory.get(), TRUE), S_OK);
  static_cast<Product*>(out)->Release();
}

TEST_F(ClassFactoryTest, MakesThumbnailProviders) {
  const auto factory = NewFactory<WinCFThumbnailProvider>();
  for (const GUID& iid : {kUnknown, IID_IInitializeWithItem, __uuidof(IThumbnailProvider)}) {
    void* out = nullptr;
    int blocks = 0;
    const HeapWatch heap;
    ASSERT_EQ(factory->CreateInstance(nullptr, iid, &out), S_OK);
    blocks = heap.LiveBlocks();
    EXPECT_EQ(blocks, 1);
    EXPECT_EQ(static_cast<IUnknown*>(out)->Release(), 0U);
    EXPECT_EQ(heap.LiveBlocks(), 0);
  }
}

TEST_F(ClassFactoryTest, FreesAThumbnailProviderThatLacksTheInterface) {
  const auto factory = NewFactory<WinCFThumbnailProvider>();
  void* out = &out;
  const HeapWatch heap;
  EXPECT_EQ(factory->CreateInstance(nullptr, kClassFactory, &out), E_NOINTERFACE);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(heap.Allocations(), 1);
  EXPECT_EQ(heap.LiveBlocks(), 0);
}

}  // namespace
}  // namespace nimbra_test
