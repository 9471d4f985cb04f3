#include <windows.h>

#include <objbase.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/thread-watch.h"
#include "tests/unit/thumbnail-file-fixture.h"

namespace nimbra_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr int kRegisteringLine = 729;
constexpr GUID kProviderClass = {
    0xD35B8E20, 0x61C4, 0x4A97, {0xB2, 0xF3, 0x08, 0xE6, 0xC1, 0xA7, 0xD5, 0x94}};

auto RegisteringLine() {
  return ExpectedLine(kNimbraSource, kRegisteringLine, "Registring shell services");
}

// Starts the services with doubles for all that their thread does, and no wait: it ends at once.
class ShellServicesTest : public ThumbnailTest {
 protected:
  void TearDown() override {
    for (IUnknown* factory : factories_) {
      // The thread left its own reference behind.
      EXPECT_EQ(factory->Release(), 1U);
      factory->Release();
    }
    for (const HANDLE event : events_) {
      EXPECT_TRUE(CloseHandle(event)) << "the event was closed already";
    }
  }

  void StartAndWait() {
    CORVWinCFStartShellServices();
    ASSERT_TRUE(threads_.WaitUntilEnded());
  }
  // What the thread does when nothing keeps it from the wait.
  static auto IsWholeRun() {
    return ElementsAre("CoInitializeEx null 4",
                       "CoRegisterClassObject {D35B8E20-61C4-4A97-B2F3-08E6C1A7D594} 4 1",
                       "CreateEventW null 0 0 null", "CoWaitForMultipleHandles 8 4294967295 1");
  }

  HRESULT initializeResult_ = S_OK;
  HRESULT registerResult_ = S_OK;
  // What CreateEventW gives instead of a new event, and with which error.
  std::optional<HANDLE> event_;
  DWORD eventError_ = 0;
  std::vector<IUnknown*> factories_;
  std::vector<HANDLE> events_;
  std::atomic<HANDLE> waitedFor_ = nullptr;
  std::atomic<DWORD> threadOfCalls_ = 0;
  std::atomic<bool> holdsInitialize_ = false;
  const ThreadWatch threads_;

 private:
  static std::string NullOr(const void* pointer) { return pointer == nullptr ? "null" : "set"; }

  ImportDouble<"CoInitializeEx", decltype(&::CoInitializeEx)> initialize_{
      [this](auto, LPVOID reserved, DWORD model) {
        threadOfCalls_ = GetCurrentThreadId();
        journal_.Note("CoInitializeEx " + NullOr(reserved) + " " + std::to_string(model));
        while (holdsInitialize_) Sleep(1);
        return initializeResult_;
      }};
  ImportDouble<"CoRegisterClassObject", decltype(&::CoRegisterClassObject)> register_{
      [this](auto, const CLSID& clsid, IUnknown* factory, DWORD context, DWORD flags,
             const DWORD* cookie) {
        journal_.Note("CoRegisterClassObject " + GuidText(clsid) + " " + std::to_string(context) +
                      " " + std::to_string(flags) + (cookie == nullptr ? " no cookie" : ""));
        factory->AddRef();
        factories_.push_back(factory);
        return registerResult_;
      }};
  ImportDouble<"CreateEventW", decltype(&::CreateEventW)> createEvent_{
      [this](auto original, LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL state, LPCWSTR name) {
        journal_.Note("CreateEventW " + NullOr(security) + " " + std::to_string(manual) + " " +
                      std::to_string(state) + " " + NullOr(name));
        const HANDLE event = event_ ? *event_ : original(security, manual, state, name);
        if (!event_) events_.push_back(event);
        SetLastError(eventError_);
        return event;
      }};
  ImportDouble<"CoWaitForMultipleHandles", decltype(&::CoWaitForMultipleHandles)> wait_{
      [this](auto, DWORD flags, DWORD timeout, ULONG count, LPHANDLE handles, const DWORD* index) {
        journal_.Note("CoWaitForMultipleHandles " + std::to_string(flags) + " " +
                      std::to_string(timeout) + " " + std::to_string(count) +
                      (index == nullptr ? " no index" : ""));
        waitedFor_ = handles[0];
        return E_FAIL;
      }};
};

TEST_F(ShellServicesTest, ThreadRegistersTheProvidersClassAndWaitsForCalls) {
  StartAndWait();
  EXPECT_THAT(journal_.Entries(), IsWholeRun());
  ASSERT_EQ(events_.size(), 1U);
  EXPECT_EQ(waitedFor_, events_[0]);
  EXPECT_NE(threadOfCalls_, GetCurrentThreadId());
}

TEST_F(ShellServicesTest, RegisteredFactoryMakesProviders) {
  StartAndWait();
  ASSERT_EQ(factories_.size(), 1U);
  void* out = nullptr;
  ASSERT_EQ(factories_[0]->QueryInterface(IID_IClassFactory, &out), S_OK);
  const ComOwner<IClassFactory> factory(static_cast<IClassFactory*>(out));
  ASSERT_EQ(factory->CreateInstance(nullptr, IID_IInitializeWithItem, &out), S_OK);
  const ComOwner<IInitializeWithItem> provider(static_cast<IInitializeWithItem*>(out));
  EXPECT_EQ(provider->Initialize(&item_, 0), S_OK);
}

TEST_F(ShellServicesTest, ThreadGivesNothingBackWhenItEnds) {
  const ImportDouble<"CoUninitialize", decltype(&::CoUninitialize)> uninitialize;
  StartAndWait();
  EXPECT_EQ(uninitialize.Count(), 0);
  // The fixture closes the event and counts the factory's references.
  ASSERT_EQ(events_.size(), 1U);
  DWORD flags = 0;
  EXPECT_TRUE(GetHandleInformation(events_[0], &flags));
}

TEST_F(ShellServicesTest, CallReturnsWhileTheThreadStillWorks) {
  holdsInitialize_ = true;
  CORVWinCFStartShellServices();
  EXPECT_EQ(threads_.Running().size(), 1U);
  EXPECT_THAT(factories_, IsEmpty());
  holdsInitialize_ = false;
  ASSERT_TRUE(threads_.WaitUntilEnded());
  EXPECT_THAT(journal_.Entries(), IsWholeRun());
}

TEST_F(ShellServicesTest, FailuresOfComAreNotReported) {
  initializeResult_ = static_cast<HRESULT>(0x80010106);
  registerResult_ = E_ACCESSDENIED;
  StartAndWait();
  EXPECT_THAT(journal_.Entries(), IsWholeRun());
  EXPECT_THAT(log_.Lines(), ElementsAre(RegisteringLine()));
}

TEST_F(ShellServicesTest, InvalidEventIsNotWaitedFor) {
  event_ = INVALID_HANDLE_VALUE;
  StartAndWait();
  EXPECT_THAT(journal_.Entries(), Contains("CreateEventW null 0 0 null"));
  EXPECT_THAT(journal_.Entries(), Not(Contains(testing::StartsWith("CoWait"))));
  EXPECT_THAT(log_.Lines(), ElementsAre(RegisteringLine()));
}

TEST_F(ShellServicesTest, EventThatExistedIsNotWaitedFor) {
  eventError_ = ERROR_ALREADY_EXISTS;
  StartAndWait();
  EXPECT_EQ(events_.size(), 1U);
  EXPECT_THAT(journal_.Entries(), Not(Contains(testing::StartsWith("CoWait"))));
}

TEST_F(ShellServicesTest, OtherErrorsOfTheEventDoNotKeepFromWaiting) {
  event_ = nullptr;
  eventError_ = ERROR_NO_SYSTEM_RESOURCES;
  StartAndWait();
  EXPECT_THAT(journal_.Entries(), IsWholeRun());
  EXPECT_EQ(waitedFor_, nullptr);
}

TEST_F(ShellServicesTest, EachStartRegistersTheClassOnceMore) {
  StartAndWait();
  StartAndWait();
  EXPECT_THAT(log_.Lines(), ElementsAre(RegisteringLine(), RegisteringLine()));
  ASSERT_EQ(factories_.size(), 2U);
  EXPECT_NE(factories_[0], factories_[1]);
  EXPECT_EQ(journal_.Entries().size(), 8U);
}

TEST_F(ShellServicesTest, ModuleIsPinned) {
  const ImportDouble<"GetModuleHandleExW", decltype(&::GetModuleHandleExW)> pin;
  StartAndWait();
  ASSERT_EQ(pin.Count(), 1);
  const auto [flags, address, module] = pin.Calls()[0];
  EXPECT_EQ(flags, 5U);
  MEMORY_BASIC_INFORMATION memory{};
  ASSERT_NE(VirtualQuery(reinterpret_cast<const void*>(address), &memory, sizeof(memory)), 0U);
  EXPECT_EQ(memory.AllocationBase, GetModuleHandleW(nullptr));
}

using StartThread = std::uintptr_t(WINAPI*)(void*, unsigned, unsigned(WINAPI*)(void*), void*,
                                            unsigned, unsigned*);

TEST_F(ShellServicesTest, OneLineIsLoggedBeforeTheThreadStarts) {
  std::vector<std::string> before;
  const ImportDouble<"_beginthreadex", StartThread> start([&](auto original, auto... arguments) {
    before = log_.Lines();
    return original(arguments...);
  });
  StartAndWait();
  EXPECT_EQ(start.Count(), 1);
  EXPECT_THAT(before, ElementsAre(RegisteringLine()));
  EXPECT_THAT(log_.Lines(), ElementsAre(RegisteringLine()));
}

TEST_F(ShellServicesTest, ThreadThatCannotBeMadeIsASystemError) {
  ImportDouble<"_beginthreadex", StartThread> start;
  start.FailCall(1, 0, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_THROW(CORVWinCFStartShellServices(), std::system_error);
  EXPECT_EQ(start.Count(), 1);
  EXPECT_THAT(threads_.Running(), IsEmpty());
  EXPECT_THAT(log_.Lines(), ElementsAre(RegisteringLine()));
  EXPECT_THAT(journal_.Entries(), IsEmpty());
}

TEST_F(ShellServicesTest, FailingAllocationStartsNoThread) {
  const int failures = ForEachFailingAllocation([&](auto&& watched, const bool& failed) {
    bool threw = false;
    watched([&] {
      try {
        CORVWinCFStartShellServices();
      } catch (const std::bad_alloc&) {
        threw = true;
      } catch (const std::system_error&) {
        threw = true;
      }
    });
    EXPECT_TRUE(failed || !threw);
    EXPECT_TRUE(!threw || threads_.Running().empty());
    ASSERT_TRUE(threads_.WaitUntilEnded());
  });
  EXPECT_GE(failures, 1);
}

TEST_F(ShellServicesTest, NothingHappensWithTheGateClosed) {
  windows_.Become(kBuildWithoutStreaming);
  const ImportDouble<"GetModuleHandleExW", decltype(&::GetModuleHandleExW)> pin;
  const ImportDouble<"_beginthreadex", StartThread> start;
  int allocations = 0;
  {
    const HeapWatch heap;
    CORVWinCFStartShellServices();
    allocations = heap.Allocations();
  }
  EXPECT_EQ(start.Count(), 0);
  EXPECT_EQ(pin.Count(), 0);
  EXPECT_EQ(allocations, 0);
  EXPECT_THAT(threads_.Running(), IsEmpty());
  EXPECT_THAT(journal_.Entries(), IsEmpty());
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(ShellServicesTest, RetrieverIsNeitherSetNorClearedWithTheGateClosed) {
  const Retriever retriever([](const wchar_t*, wchar_t*) { return false; });
  const auto provider = Initialized();
  windows_.Become(kBuildWithoutStreaming);
  int allocations = 0;
  {
    const HeapWatch heap;
    CORVWinCFSetThumbRetrieverCb(nullptr);
    CORVWinCFSetThumbRetrieverCb([](const wchar_t*, wchar_t*) -> bool { throw 1; });
    allocations = heap.Allocations();
  }
  EXPECT_EQ(allocations, 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  Ask(*provider);
  EXPECT_EQ(retriever.Items().size(), 1U);
}

TEST_F(ShellServicesTest, SettingARetrieverIsSilent) {
  {
    const Retriever retriever([](const wchar_t*, wchar_t*) { return false; });
  }
  CORVWinCFSetThumbRetrieverCb(nullptr);
  EXPECT_THAT(log_.Lines(), IsEmpty());
  EXPECT_THAT(journal_.Entries(), IsEmpty());
}

// The class as COM itself serves it, from a thread that stays until the process ends.
class RunningShellServicesTest : public ThumbnailFileTest {
 protected:
  // The thread registers the class when it gets to it.
  static ComOwner<IClassFactory> WaitForFactory() {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    void* factory = nullptr;
    while (FAILED(CoGetClassObject(kProviderClass, CLSCTX_LOCAL_SERVER, nullptr, IID_IClassFactory,
                                   &factory)) &&
           std::chrono::steady_clock::now() < end) {
      Sleep(5);
    }
    return ComOwner<IClassFactory>(static_cast<IClassFactory*>(factory));
  }
};

// The thread outlives the test that started it.
std::atomic<DWORD> servingThread = 0;
std::atomic<bool> servingEnded = false;

TEST_F(RunningShellServicesTest, ComServesTheProviderInThisProcess) {
  void* out = nullptr;
  ASSERT_TRUE(FAILED(
      CoGetClassObject(kProviderClass, CLSCTX_LOCAL_SERVER, nullptr, IID_IClassFactory, &out)));
  const ThreadWatch threads;
  const ImportDouble<"CoWaitForMultipleHandles", decltype(&::CoWaitForMultipleHandles)> wait(
      [](auto original, auto... arguments) {
        servingThread = GetCurrentThreadId();
        const auto result = original(arguments...);
        servingEnded = true;
        return result;
      });
  CORVWinCFStartShellServices();
  EXPECT_THAT(log_.Lines(), ElementsAre(RegisteringLine()));

  // A class for several uses is given again and again.
  for (int i = 0; i < 3; ++i) {
    const auto factory = WaitForFactory();
    ASSERT_NE(factory, nullptr);
    ASSERT_EQ(factory->CreateInstance(nullptr, IID_IInitializeWithItem, &out), S_OK);
    const ComOwner<IInitializeWithItem> initialize(static_cast<IInitializeWithItem*>(out));
    ASSERT_EQ(initialize->Initialize(&item_, STGM_READ), S_OK);
    ASSERT_EQ(initialize->QueryInterface(__uuidof(IThumbnailProvider), &out), S_OK);
    const ComOwner<IThumbnailProvider> provider(static_cast<IThumbnailProvider*>(out));
    EXPECT_THAT(Ask(*provider), IsFailedThumbnail(S_OK));

    // A retriever that is set while the services run serves the next request.
    const Picture picture{2, 1, {0xFF102030, 0xFFA0B0C0}};
    const Retriever retriever(Wide(folder_.WriteFile("x.png", PngFile(picture, 8))));
    const BitmapOwner bitmap(Ask(*provider).bitmap);
    EXPECT_EQ(PixelsOf(bitmap.Get()), picture);
  }
  // Among the threads of COM's own, the one that was started waits on.
  EXPECT_THAT(threads.Running(), Contains(servingThread.load()));
  EXPECT_FALSE(servingEnded);
}

}  // namespace
}  // namespace nimbra_test
