#include "common/debug-log.h"

#include <gmock/gmock.h>
#include <windows.h>

#include <climits>
#include <clocale>
#include <locale>
#include <string>
#include <vector>

#include "tests/support/heap-watch.h"
#include "tests/support/import-double.h"
#include "tests/support/log-capture.h"
#include "tests/support/temp-folder.h"
#include "tests/support/threads.h"

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::EmitDebugLog;
using corvdrive::cloud_filter::Log;

constexpr const char* kSource = R"(lib\cloud-filter\win-cf\placeholder)";

class DebugLogTest : public testing::Test {
 protected:
  LogCapture log_;
};

TEST_F(DebugLogTest, ALineIsPathNumberMessageAndLineBreak) {
  Log(R"(lib\cloud-filter\nimbra-host\nimbra\nimbra)", 729, "Registring shell services");

  EXPECT_THAT(log_.Lines(),
              testing::ElementsAre("lib\\cloud-filter\\nimbra-host\\nimbra\\nimbra (729) | "
                                   "Registring shell services\r\n"));
}

TEST_F(DebugLogTest, PiecesFollowEachOtherWithoutSeparators) {
  Log(kSource, 1, "a", std::string("b"), 3, "", -4, "\n", 'x');

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(kSource, 1, "ab3-4\nx")));
}

TEST_F(DebugLogTest, AnEmptyValueStillGivesTheFullFrame) {
  Log(kSource, 42, "path: ", std::string(), ".");
  Log(kSource, 43, "");

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(kSource, 42, "path: ."),
                                                 ExpectedLine(kSource, 43, "")));
}

TEST_F(DebugLogTest, ResultsAreSignedDecimalNumbers) {
  Log(kSource, 1, static_cast<HRESULT>(0x80004005));
  Log(kSource, 2, static_cast<HRESULT>(0x80070005));
  Log(kSource, 3, static_cast<HRESULT>(0));
  Log(kSource, 4, LONG_MIN, LONG_MAX);

  EXPECT_THAT(
      log_.Lines(),
      testing::ElementsAre(ExpectedLine(kSource, 1, "-2147467259"),
                           ExpectedLine(kSource, 2, "-2147024891"), ExpectedLine(kSource, 3, "0"),
                           ExpectedLine(kSource, 4, "-21474836482147483647")));
}

// Puts points between the digits of every thousand.
class Grouping : public std::numpunct<char> {
 protected:
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(DebugLogTest, NumbersDoNotFollowTheProgramsLocale) {
  const std::locale previous =
      std::locale::global(std::locale(std::locale::classic(), new Grouping));
  Log(kSource, 1234567, 7654321);
  std::locale::global(previous);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(kSource, 1234567, "7654321")));
}

TEST_F(DebugLogTest, TextIsWrittenAsUtf16OfItsUtf8) {
  Log(kSource, 1, "\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80");

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(
                                ExpectedLine(kSource, 1, "\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80")));
}

TEST_F(DebugLogTest, LongLinesArriveWholeInOneCall) {
  const std::string text(100000, 'x');
  Log(kSource, 1, text);

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(ExpectedLine(kSource, 1, text)));
}

TEST_F(DebugLogTest, EmitHandsOverTheLineUnchanged) {
  EmitDebugLog("no frame, \xC3\xA9");

  EXPECT_THAT(log_.Lines(), testing::ElementsAre("no frame, \xC3\xA9"));
}

TEST_F(DebugLogTest, ALineWhoseConversionFailsIsWrittenAsAnEmptyString) {
  ImportDouble<"MultiByteToWideChar", decltype(&::MultiByteToWideChar)> toWide;
  toWide.FailCall(1, 0, ERROR_NO_UNICODE_TRANSLATION);

  EmitDebugLog("text");

  EXPECT_THAT(log_.Lines(), testing::ElementsAre(""));
}

TEST_F(DebugLogTest, TheLastErrorSurvivesALine) {
  SetLastError(4711);
  Log(kSource, 1, "message");
  const DWORD error = GetLastError();

  EXPECT_EQ(error, 4711u);
}

TEST_F(DebugLogTest, ReleasesItsBuffers) {
  Log(kSource, 1, "warm");
  const std::string text(1000, 'x');
  int left = -1;
  {
    const HeapWatch heap;
    Log(kSource, 1, text, 12);
    left = heap.LiveBlocks();
  }
  EXPECT_EQ(left, 0);
}

TEST_F(DebugLogTest, LinesOfManyThreadsDoNotMix) {
  constexpr int kLines = 50;
  OnThreads(8, [](int thread) {
    for (int i = 0; i < kLines; ++i) {
      Log(kSource, thread, "thread ", thread, " says ", i);
    }
    return 0;
  });

  std::vector<std::string> expected;
  for (int thread = 0; thread < 8; ++thread) {
    for (int i = 0; i < kLines; ++i) {
      expected.push_back(ExpectedLine(
          kSource, thread, "thread " + std::to_string(thread) + " says " + std::to_string(i)));
    }
  }
  EXPECT_THAT(log_.Lines(), testing::UnorderedElementsAreArray(expected));
}

}  // namespace
}  // namespace nimbra_test
