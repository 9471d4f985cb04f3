#include "tests/dll/image.h"

#include <gmock/gmock.h>
#include <windows.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "header-exports.h"
#include "tests/dll/import-call-counter.h"
#include "tests/dll/loaded-library.h"

namespace {

using nimbra_test::ExportNames;
using nimbra_test::ImportSlot;
using nimbra_test::ImportSlots;
using nimbra_test::LoadedLibrary;

class ImageTest : public testing::Test {
 protected:
  LoadedLibrary library_;
};

TEST_F(ImageTest, ExportsExactlyWhatTheHeaderDeclares) {
  std::vector<std::string> declared(std::begin(nimbra_test::kHeaderExports),
                                    std::end(nimbra_test::kHeaderExports));
  EXPECT_EQ(declared.size(), 62u);
  EXPECT_THAT(ExportNames(library_.Module()), testing::UnorderedElementsAreArray(declared));
  EXPECT_EQ(nimbra_test::NamelessExportCount(library_.Module()), 0u);
}

std::string LowerCase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// What costs more to load than this is loaded by the library itself, at first need.
TEST_F(ImageTest, ImportsFromTheCoreOfTheSystemOnly) {
  std::set<std::string> libraries;
  for (const ImportSlot& slot : ImportSlots(library_.Module())) {
    libraries.insert(LowerCase(slot.library));
  }
  EXPECT_THAT(libraries, testing::ElementsAre("advapi32.dll", "kernel32.dll", "msvcrt.dll"));
  wchar_t system[MAX_PATH];
  ASSERT_NE(GetSystemDirectoryW(system, MAX_PATH), 0u);
  for (const std::string& library : libraries) {
    SCOPED_TRACE(library);
    wchar_t path[MAX_PATH];
    ASSERT_NE(GetModuleFileNameW(GetModuleHandleA(library.c_str()), path, MAX_PATH), 0u);
    EXPECT_EQ(_wcsnicmp(path, system, wcslen(system)), 0);
  }
}

// A linker's delayed imports end in a structured exception where a DLL cannot be loaded.
TEST_F(ImageTest, HasNoDelayedImports) {
  EXPECT_EQ(nimbra_test::DelayedImportSize(library_.Module()), 0u);
}

TEST_F(ImageTest, DoesNotImportThePlatform) {
  for (const ImportSlot& slot : ImportSlots(library_.Module())) {
    EXPECT_NE(LowerCase(slot.library), "cldapi.dll");
    EXPECT_FALSE(slot.function.starts_with("Cf")) << slot.function;
  }
}

TEST_F(ImageTest, LoadingItDoesNotLoadThePlatform) {
  EXPECT_EQ(GetModuleHandleW(L"cldapi.dll"), nullptr);
}

// What the tests of the closed gate rely on: that a call would be counted.
TEST_F(ImageTest, ItsCallsThroughImportsCanBeCounted) {
  nimbra_test::ImportCallCounter calls(library_.Module());
  EXPECT_THAT(calls.Called(), testing::IsEmpty());
  CORVWinCFPlaceholderHandle placeholder = nullptr;
  ASSERT_EQ(NIMBRA_FUNCTION(library_, CORVWinCFPlaceholderNew)(&placeholder, "C:/x"), 0);
  EXPECT_THAT(calls.Called(), testing::Contains("msvcrt.dll!malloc"));
  calls.Clear();
  EXPECT_THAT(calls.Called(), testing::IsEmpty());
  NIMBRA_FUNCTION(library_, CORVWinCFPlaceholderRelease)(placeholder);
  EXPECT_THAT(calls.Called(), testing::Contains("msvcrt.dll!free"));
}

}  // namespace
