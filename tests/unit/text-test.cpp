#include "common/text.h"

#include <gmock/gmock.h>
#include <windows.h>

#include <ostream>
#include <string>

#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/threads.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::Utf8ToWide;
using corvdrive::cloud_filter::WideToUtf8;

using ToWideDouble = ImportDouble<"MultiByteToWideChar", decltype(&::MultiByteToWideChar)>;
using ToNarrowDouble = ImportDouble<"WideCharToMultiByte", decltype(&::WideCharToMultiByte)>;

struct TextRow {
  const char* name;
  std::string utf8;
  std::wstring wide;
};

void PrintTo(const TextRow& row, std::ostream* out) { *out << row.name; }

class TextTest : public testing::TestWithParam<TextRow> {};

TEST_P(TextTest, ConvertsBothWays) {
  EXPECT_EQ(Utf8ToWide(GetParam().utf8.c_str()), GetParam().wide);
  EXPECT_EQ(WideToUtf8(GetParam().wide.c_str()), GetParam().utf8);
}

INSTANTIATE_TEST_SUITE_P(
    Valid, TextTest,
    testing::Values(
        TextRow{"Ascii", "C:/Sync/file.txt", L"C:/Sync/file.txt"},
        TextRow{"OneCharacter", "x", L"x"},
        TextRow{"Controls", "\x01\x7F\t\r\n", L"\x01\x7F\t\r\n"},
        TextRow{"TwoBytes", "\xC2\x80\xC3\xBC\xDF\xBF", L"\x0080\x00FC\x07FF"},
        TextRow{"ThreeBytes", "\xE0\xA0\x80\xE6\x97\xA5\xEF\xBF\xBD", L"\x0800\x65E5\xFFFD"},
        TextRow{"FourBytes", "\xF0\x90\x80\x80\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF",
                L"\xD800\xDC00\xD83D\xDE00\xDBFF\xDFFF"},
        TextRow{"Mixed", "a\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80z", L"a\x00E9\x65E5\xD83D\xDE00z"},
        TextRow{"ByteOrderMark", "\xEF\xBB\xBFx", L"\xFEFFx"},
        TextRow{"LongestPath", std::string(32767, 'p'), std::wstring(32767, L'p')},
        TextRow{"OneMebibyte", std::string(1 << 20, 'm'), std::wstring(1 << 20, L'm')}),
    testing::PrintToStringParamName());

TEST(TextConversionTest, PathsOf259UnitsMayTake777Bytes) {
  std::string utf8;
  for (int i = 0; i < 259; ++i) {
    utf8 += "\xE6\x97\xA5";
  }
  EXPECT_EQ(WideToUtf8(std::wstring(259, L'\x65E5').c_str()), utf8);
  EXPECT_EQ(Utf8ToWide(utf8.c_str()), std::wstring(259, L'\x65E5'));
}

TEST(TextConversionTest, EmptyTextNeedsNoConverter) {
  const ToWideDouble toWide;
  const ToNarrowDouble toNarrow;
  EXPECT_EQ(Utf8ToWide(""), L"");
  EXPECT_EQ(WideToUtf8(L""), "");
  EXPECT_EQ(toWide.Count(), 0);
  EXPECT_EQ(toNarrow.Count(), 0);
}

TEST(TextConversionTest, TextBehindAnEmbeddedNulIsDropped) {
  const std::string utf8("ab\0cd", 5);
  const std::wstring wide(L"ab\0cd", 5);
  EXPECT_EQ(Utf8ToWide(utf8.c_str()), L"ab");
  EXPECT_EQ(WideToUtf8(wide.c_str()), "ab");
}

TEST(TextConversionTest, IllFormedBytesBecomeReplacementCharacters) {
  // Where the system draws the border between two errors is its own affair.
  for (const std::string& bad :
       {std::string("\xFF"), std::string("\x80"), std::string("\xC3"), std::string("\xE6\x97"),
        std::string("\xF0\x9F\x98"), std::string("\xC0\xAF"), std::string("\xED\xA0\x80"),
        std::string("\xF4\x90\x80\x80"), std::string("\xF8\x88\x80\x80\x80")}) {
    SCOPED_TRACE(testing::PrintToString(bad));
    const std::wstring wide = Utf8ToWide(("a" + bad + "z").c_str());
    ASSERT_GE(wide.size(), 3u);
    EXPECT_EQ(wide.front(), L'a');
    EXPECT_EQ(wide.back(), L'z');
    EXPECT_EQ(wide.find_first_not_of(L'\xFFFD', 1), wide.size() - 1);
  }
}

TEST(TextConversionTest, LoneSurrogatesBecomeReplacementCharacters) {
  EXPECT_EQ(WideToUtf8(L"a\xD800z"), "a\xEF\xBF\xBDz");
  EXPECT_EQ(WideToUtf8(L"a\xDC00z"), "a\xEF\xBF\xBDz");
  EXPECT_EQ(WideToUtf8(L"\xDE00\xD83D"), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(TextConversionTest, AsksForTheLengthAndConvertsInASecondPass) {
  const ToWideDouble toWide;
  const char* text = "\xC3\xA9z";
  EXPECT_EQ(Utf8ToWide(text), L"\x00E9z");

  ASSERT_EQ(toWide.Count(), 2);
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    const auto [page, flags, source, length, buffer, capacity] =
        toWide.Calls()[static_cast<std::size_t>(i)];
    EXPECT_EQ(page, 65001u);
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(source, text);
    EXPECT_EQ(length, -1);
    EXPECT_EQ(buffer != nullptr, i == 1);
    EXPECT_EQ(capacity, i == 1 ? 3 : 0);
  }
}

TEST(TextConversionTest, AsksForTheByteCountWithoutDefaultCharacter) {
  const ToNarrowDouble toNarrow;
  const wchar_t* text = L"\x00E9z";
  EXPECT_EQ(WideToUtf8(text), "\xC3\xA9z");

  ASSERT_EQ(toNarrow.Count(), 2);
  for (int i = 0; i < 2; ++i) {
    SCOPED_TRACE(i);
    const auto [page, flags, source, length, buffer, capacity, byDefault, usedDefault] =
        toNarrow.Calls()[static_cast<std::size_t>(i)];
    EXPECT_EQ(page, 65001u);
    EXPECT_EQ(flags, 0u);
    EXPECT_EQ(source, text);
    EXPECT_EQ(length, -1);
    EXPECT_EQ(buffer != nullptr, i == 1);
    EXPECT_EQ(capacity, i == 1 ? 4 : 0);
    EXPECT_EQ(byDefault, nullptr);
    EXPECT_EQ(usedDefault, nullptr);
  }
}

TEST(TextConversionTest, AFailureInEitherPassGivesEmptyText) {
  for (const int result : {0, -1}) {
    for (const int pass : {1, 2}) {
      SCOPED_TRACE(pass);
      ToWideDouble toWide;
      toWide.FailCall(pass, result, ERROR_INVALID_PARAMETER);
      EXPECT_EQ(Utf8ToWide("text"), L"");
      EXPECT_EQ(toWide.Count(), pass);

      ToNarrowDouble toNarrow;
      toNarrow.FailCall(pass, result, ERROR_INVALID_PARAMETER);
      EXPECT_EQ(WideToUtf8(L"text"), "");
      EXPECT_EQ(toNarrow.Count(), pass);
    }
  }
}

TEST(TextConversionTest, EmptyTextWhenTheBufferCannotBeAllocated) {
  const std::string utf8(1000, 'x');
  const std::wstring wide(1000, L'x');
  const int wideFailures = ForEachFailingAllocation([&](auto watched, bool& failed) {
    std::wstring result = L"untouched";
    try {
      watched([&] { result = Utf8ToWide(utf8.c_str()); });
      EXPECT_EQ(result, failed ? L"" : wide);
    } catch (const std::bad_alloc&) {
      // Building the string itself may fail in its own way.
      EXPECT_TRUE(failed);
    }
  });
  const int narrowFailures = ForEachFailingAllocation([&](auto watched, bool& failed) {
    std::string result = "untouched";
    try {
      watched([&] { result = WideToUtf8(wide.c_str()); });
      EXPECT_EQ(result, failed ? "" : utf8);
    } catch (const std::bad_alloc&) {
      EXPECT_TRUE(failed);
    }
  });
  EXPECT_GT(wideFailures, 0);
  EXPECT_GT(narrowFailures, 0);
}

TEST(TextConversionTest, FreesItsBuffers) {
  const std::string utf8(1000, 'x');
  const std::wstring wide(1000, L'x');
  int left = -1;
  {
    const HeapWatch heap;
    static_cast<void>(Utf8ToWide(utf8.c_str()));
    static_cast<void>(WideToUtf8(wide.c_str()));
    left = heap.LiveBlocks();
  }
  EXPECT_EQ(left, 0);
}

TEST(TextConversionTest, ManyThreadsConvertAtOnce) {
  const auto wrong = OnThreads(8, [](int thread) {
    const std::string utf8 =
        std::string(static_cast<std::size_t>(thread) * 100, 'x') + "\xF0\x9F\x98\x80";
    int count = 0;
    for (int i = 0; i < 500; ++i) {
      count += WideToUtf8(Utf8ToWide(utf8.c_str()).c_str()) != utf8;
    }
    return count;
  });
  EXPECT_THAT(wrong, testing::Each(0));
}

}  // namespace
}  // namespace nimbra_test
