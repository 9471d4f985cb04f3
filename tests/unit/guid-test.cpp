#include <windows.h>
// windows.h first.
#include <malloc.h>
#include <objbase.h>

#include <cctype>
#include <cstring>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "nimbra/nimbra.h"
#include "tests/support/heap-watch.h"
#include "tests/support/import-hooks.h"
#include "tests/support/nimbra-test.h"
#include "tests/support/threads.h"

namespace nimbra_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using CreateGuidDouble = ImportDouble<"CoCreateGuid", decltype(&::CoCreateGuid)>;
using GuidTextDouble = ImportDouble<"StringFromCLSID", decltype(&::StringFromCLSID)>;
using FreeTextDouble = ImportDouble<"CoTaskMemFree", decltype(&::CoTaskMemFree)>;

// A text of the library's, given back to it at the end.
class Guid {
 public:
  Guid() : result_(CORVWinCFGenerateGuid(&text_)) {}
  Guid(Guid&& other) noexcept
      : text_(std::exchange(other.text_, nullptr)), result_(other.result_) {}
  ~Guid() { CORVWinCFReleaseGuid(text_); }
  Guid(const Guid&) = delete;
  Guid& operator=(const Guid&) = delete;

  CORVWinCFStatus Result() const { return result_; }
  char* Memory() const { return text_; }
  std::string Text() const { return text_ != nullptr ? text_ : "(null)"; }

 private:
  char* text_ = nullptr;
  CORVWinCFStatus result_;
};

bool IsRegistryForm(const std::string& text) {
  const std::string form = "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}";
  if (text.size() != form.size()) {
    return false;
  }
  for (std::size_t i = 0; i < form.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const bool isUpperHex = std::isdigit(c) != 0 || (c >= 'A' && c <= 'F');
    if (form[i] == 'X' ? !isUpperHex : text[i] != form[i]) {
      return false;
    }
  }
  return true;
}

// A text with its terminator.
constexpr std::size_t kTextSize = 39;

// Watches the C runtime's heap for blocks of a text's size. A double that records would take its
// own memory from there.
class TextMemory {
 public:
  TextMemory()
      : malloc_("malloc", reinterpret_cast<void*>(&Malloc)),
        free_("free", reinterpret_cast<void*>(&Free)) {
    // Nothing in between takes memory.
    realMalloc = reinterpret_cast<decltype(realMalloc)>(malloc_.Original());
    realFree = reinterpret_cast<decltype(realFree)>(free_.Original());
    made = nullptr;
    frees = 0;
    refused = false;
  }

  // The block that was made last.
  const void* Made() const { return made; }
  // How often that block was freed.
  int Frees() const { return frees; }
  void Refuse() { refused = true; }

 private:
  static void* Malloc(std::size_t size) {
    if (size != kTextSize) {
      return realMalloc(size);
    }
    made = refused ? nullptr : realMalloc(size);
    return made;
  }
  static void Free(void* memory) {
    frees += memory != nullptr && memory == made ? 1 : 0;
    realFree(memory);
  }

  static inline void* (*realMalloc)(std::size_t) = nullptr;
  static inline void (*realFree)(void*) = nullptr;
  static inline void* made = nullptr;
  static inline int frees = 0;
  static inline bool refused = false;
  ScopedImportHook malloc_;
  ScopedImportHook free_;
};

class GuidTest : public NimbraTest {};

TEST_F(GuidTest, IsTheNewIdentifierInRegistryForm) {
  constexpr GUID kGuid = {0xDEADBEEF, 0x0A1B, 0x2C3D, {0x4E, 0x5F, 0, 1, 2, 3, 0xAB, 0xCD}};
  const CreateGuidDouble create([&](auto, GUID* guid) -> HRESULT {
    *guid = kGuid;
    return S_OK;
  });
  const Guid guid;
  EXPECT_EQ(guid.Result(), 0);
  EXPECT_EQ(guid.Text(), "{DEADBEEF-0A1B-2C3D-4E5F-00010203ABCD}");
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(GuidTest, AThousandAreAllWellFormedAndDifferent) {
  std::set<std::string> texts;
  for (int i = 0; i < 1000; ++i) {
    const Guid guid;
    ASSERT_EQ(guid.Result(), 0);
    EXPECT_TRUE(IsRegistryForm(guid.Text())) << guid.Text();
    texts.insert(guid.Text());
  }
  EXPECT_EQ(texts.size(), 1000u);
}

TEST_F(GuidTest, ThreadsGetDifferentOnes) {
  const auto perThread = OnThreads(8, [](int) {
    std::vector<std::string> texts;
    for (int i = 0; i < 200; ++i) {
      texts.push_back(Guid().Text());
    }
    return texts;
  });
  std::set<std::string> texts;
  for (const auto& some : perThread) {
    texts.insert(some.begin(), some.end());
  }
  EXPECT_EQ(texts.size(), 1600u);
}

TEST_F(GuidTest, WhenThereIsNoNewIdentifierTheOutputStaysAsItIs) {
  CreateGuidDouble create;
  create.FailCall(1, E_FAIL, ERROR_SUCCESS);
  const GuidTextDouble convert;
  char mark = 0;
  char* out = &mark;

  EXPECT_EQ(CORVWinCFGenerateGuid(&out), -1);

  EXPECT_EQ(out, &mark);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kSyncEngineSource, "Failed to gen uuid")));
  EXPECT_EQ(convert.Count(), 0);
}

TEST_F(GuidTest, AnIdentifierWithoutATextLeavesTheOutputAsItIs) {
  GuidTextDouble convert;
  convert.FailCall(1, E_OUTOFMEMORY, ERROR_SUCCESS);
  const FreeTextDouble freed;
  char mark = 0;
  char* out = &mark;

  EXPECT_EQ(CORVWinCFGenerateGuid(&out), -1);

  EXPECT_EQ(out, &mark);
  EXPECT_THAT(log_.Lines(), ElementsAre(IsLogLine(kSyncEngineSource, "Failed to convert guid")));
  EXPECT_THAT(freed.Calls(), testing::Each(std::tuple<LPVOID>(nullptr)));
}

TEST_F(GuidTest, AnEmptyTextIsAFailureWithoutALine) {
  const GuidTextDouble convert([](auto, REFCLSID, LPOLESTR* text) -> HRESULT {
    *text = static_cast<LPOLESTR>(CoTaskMemAlloc(sizeof(wchar_t)));
    **text = L'\0';
    return S_OK;
  });
  char mark = 0;
  char* out = &mark;

  EXPECT_EQ(CORVWinCFGenerateGuid(&out), -1);

  EXPECT_EQ(out, &mark);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(GuidTest, TheSystemsTextGoesBackToTheSystemOnce) {
  LPOLESTR made = nullptr;
  const GuidTextDouble convert([&](GuidTextDouble::Function original, REFCLSID id, LPOLESTR* text) {
    const HRESULT result = original(id, text);
    made = *text;
    return result;
  });
  const FreeTextDouble freed;

  const Guid guid;

  ASSERT_EQ(guid.Result(), 0);
  EXPECT_THAT(freed.Calls(), ElementsAre(std::tuple<LPVOID>(made)));
}

TEST_F(GuidTest, ItsMemoryIsTheCRuntimesAndFreeFreesIt) {
  const TextMemory memory;
  char* text = nullptr;
  ASSERT_EQ(CORVWinCFGenerateGuid(&text), 0);
  EXPECT_EQ(memory.Made(), text);
  EXPECT_FALSE(HeapWatch::IsAllocated(text)) << "not the C++ heap's";
  EXPECT_GE(_msize(text), kTextSize);
  EXPECT_EQ(std::strlen(text), kTextSize - 1);
  EXPECT_EQ(memory.Frees(), 0);
  CORVWinCFReleaseGuid(text);
  EXPECT_EQ(memory.Frees(), 1);
}

TEST_F(GuidTest, ReleasingNothingIsHarmless) {
  CORVWinCFReleaseGuid(nullptr);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(GuidTest, WithoutAnOutputNothingIsMade) {
  const CreateGuidDouble create;
  EXPECT_EQ(CORVWinCFGenerateGuid(nullptr), -1);
  EXPECT_EQ(create.Count(), 0);
  EXPECT_THAT(log_.Lines(), IsEmpty());
}

TEST_F(GuidTest, WorksWithTheGateClosed) {
  windows_.Become(kBuildWithoutStreaming);
  const Guid guid;
  EXPECT_EQ(guid.Result(), 0);
  EXPECT_TRUE(IsRegistryForm(guid.Text())) << guid.Text();
}

TEST_F(GuidTest, WorksWithoutComInitialised) {
  // A new thread is in no apartment.
  const auto texts = OnThreads(1, [](int) { return Guid().Text(); });
  EXPECT_TRUE(IsRegistryForm(texts[0])) << texts[0];
}

TEST_F(GuidTest, EveryAllocationThatFailsIsAFailureAndTheSystemsTextIsFreed) {
  int converted = 0;
  const GuidTextDouble convert([&](GuidTextDouble::Function original, REFCLSID id, LPOLESTR* text) {
    ++converted;
    return original(id, text);
  });
  const FreeTextDouble freed;
  const int failures = ForEachFailingAllocation([&](auto watched, bool& failed) {
    char mark = 0;
    char* out = &mark;
    CORVWinCFStatus result = 0;
    watched([&] { result = CORVWinCFGenerateGuid(&out); });
    EXPECT_EQ(result, failed ? -1 : 0);
    if (failed) {
      EXPECT_EQ(out, &mark);
    } else {
      CORVWinCFReleaseGuid(out);
    }
    EXPECT_EQ(freed.Count(), converted);
  });
  EXPECT_GT(failures, 0);
}

TEST_F(GuidTest, WithoutMemoryForTheTextTheOutputStaysAsItIs) {
  TextMemory memory;
  memory.Refuse();
  char mark = 0;
  char* out = &mark;
  EXPECT_EQ(CORVWinCFGenerateGuid(&out), -1);
  EXPECT_EQ(out, &mark);
}

}  // namespace
}  // namespace nimbra_test
