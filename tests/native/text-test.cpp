#include "common/text.h"

#include <gtest/gtest.h>

#include "reference-text.h"
#include "windows-stand-in.h"

namespace nimbra_native {
namespace {

using corvdrive::cloud_filter::Utf8ToWide;
using corvdrive::cloud_filter::WideToUtf8;

std::u16string Converted(const std::string& utf8) { return Units(Utf8ToWide(utf8)); }

TEST(NativeText, EveryMaximalPartOfAnIllFormedSequenceIsOneReplacement) {
  // The Unicode Standard's own examples.
  EXPECT_EQ(Converted("\xC0\xAF\xE0\x80\xBF\xF0\x81\x82\x41"),
            u"\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD"
            u"\xFFFD\xFFFD\xFFFD\x41");
  EXPECT_EQ(Converted("\xED\xA0\x80\xED\xBF\xBF\xED\xAF\x41"),
            u"\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD"
            u"\xFFFD\xFFFD\xFFFD\x41");
  EXPECT_EQ(Converted("\xF4\x91\x92\x93\xFF\x41\x80\xBF\x42"),
            u"\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD"
            u"\x41\xFFFD\xFFFD\x42");
  EXPECT_EQ(Converted("\xE1\x80\xE2\xF0\x91\x92\xF1\xBF\x41"), u"\xFFFD\xFFFD\xFFFD\xFFFD\x41");
}

TEST(NativeText, ASequenceCutByTheEndIsOneReplacement) {
  EXPECT_EQ(Converted("a\xC3"), u"a\xFFFD");
  EXPECT_EQ(Converted("a\xE6\x97"), u"a\xFFFD");
  EXPECT_EQ(Converted("a\xF0\x9F\x98"), u"a\xFFFD");
}

TEST(NativeText, EveryCharacterComesBack) {
  for (char32_t c = 1; c <= 0x10FFFF; ++c) {
    if (c >= 0xD800 && c <= 0xDFFF) continue;
    std::u16string units;
    if (c < 0x10000) {
      units = static_cast<char16_t>(c);
    } else {
      units = {static_cast<char16_t>(0xD7C0 + (c >> 10)), static_cast<char16_t>(0xDC00 + c % 1024)};
    }
    const std::string utf8 = WideToUtf8(Wide(units));
    ASSERT_EQ(utf8, ReferenceToUtf8(units)) << std::hex << static_cast<unsigned>(c);
    ASSERT_EQ(Converted(utf8), units) << std::hex << static_cast<unsigned>(c);
  }
}

TEST(NativeText, EverySequenceOfTwoBytesConvertsAsTheReferenceSays) {
  for (unsigned first = 1; first < 256; ++first) {
    for (unsigned second = 0; second < 256; ++second) {
      const std::string bytes = {static_cast<char>(first), static_cast<char>(second), 'z'};
      ASSERT_EQ(Converted(bytes), ReferenceToUtf16(bytes)) << first << " " << second;
    }
  }
}

TEST(NativeText, TextWithoutATerminatorEndsWithItsBuffer) {
  Windows().swallowsTerminator = true;
  EXPECT_EQ(Converted("\xE0"), u"\xFFFD");
  EXPECT_EQ(Converted("C:/a/b/c/d/e\xE6"), u"C:/a/b/c/d/e\xFFFD");
  Windows() = {};
}

TEST(NativeText, LoneSurrogatesAreReplacedOneByOne) {
  EXPECT_EQ(WideToUtf8(Wide(u"\xDE00\xD83D")), "\xEF\xBF\xBD\xEF\xBF\xBD");
  EXPECT_EQ(WideToUtf8(Wide(u"\xD83D\xD83D\xDE00")), "\xEF\xBF\xBD\xF0\x9F\x98\x80");
}

}  // namespace
}  // namespace nimbra_native
