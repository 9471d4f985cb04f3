#include "common/session-number.h"

#include <gmock/gmock.h>

#include <climits>
#include <ostream>
#include <stdexcept>
#include <string>

namespace nimbra_test {
namespace {

using corvdrive::cloud_filter::ParseSessionNumber;

const std::string kPrefix = "Corvane.Drive.FileStreaming.session.";

struct NumberRow {
  const char* name;
  std::string text;
  int number;
};

void PrintTo(const NumberRow& row, std::ostream* out) { *out << row.name; }

class SessionNumberTest : public testing::TestWithParam<NumberRow> {};

TEST_P(SessionNumberTest, ReadsTheNumberBehindThePrefix) {
  EXPECT_EQ(ParseSessionNumber(GetParam().text), GetParam().number);
}

INSTANTIATE_TEST_SUITE_P(Numbers, SessionNumberTest,
                         testing::Values(NumberRow{"FortyTwo", kPrefix + "42", 42},
                                         NumberRow{"Twelve", kPrefix + "12", 12},
                                         NumberRow{"OneDigit", kPrefix + "7", 7},
                                         NumberRow{"Zero", kPrefix + "0", 0},
                                         NumberRow{"LeadingZeros", kPrefix + "00012", 12},
                                         NumberRow{"Largest", kPrefix + "2147483647", INT_MAX},
                                         NumberRow{"Smallest", kPrefix + "-2147483648", INT_MIN},
                                         NumberRow{"Negative", kPrefix + "-5", -5},
                                         NumberRow{"PlusSign", kPrefix + "+5", 5},
                                         NumberRow{"LeadingBlanks", kPrefix + " \t\n\v\f\r9", 9},
                                         NumberRow{"BlanksAndSign", kPrefix + "  -9", -9},
                                         NumberRow{"StopsAtALetter", kPrefix + "12abc", 12},
                                         NumberRow{"StopsAtABlank", kPrefix + "12 34", 12},
                                         NumberRow{"StopsAtAFullStop", kPrefix + "12.9", 12},
                                         NumberRow{"StopsAtANul",
                                                   kPrefix + std::string("12\0"
                                                                         "34",
                                                                         5),
                                                   12},
                                         NumberRow{"DecimalNotHexadecimal", kPrefix + "0x1F", 0},
                                         NumberRow{"DecimalNotOctal", kPrefix + "010", 10}),
                         testing::PrintToStringParamName());

INSTANTIATE_TEST_SUITE_P(
    NotASessionName, SessionNumberTest,
    testing::Values(NumberRow{"Empty", "", 0}, NumberRow{"Digits", "42", 0},
                    NumberRow{"ShorterThanThePrefix", kPrefix.substr(0, kPrefix.size() - 1), 0},
                    NumberRow{"OtherPrefix", "Another.Drive.FileStreaming.session.42", 0},
                    NumberRow{"OtherLetterCase", "corvane.drive.filestreaming.session.42", 0},
                    NumberRow{"TextInFront", "x" + kPrefix + "42", 0},
                    NumberRow{"BlankInFront", " " + kPrefix + "42", 0},
                    NumberRow{"NulInFront", std::string(1, '\0') + kPrefix + "42", 0},
                    NumberRow{"RepeatedPrefix", kPrefix + kPrefix + "42", 0},
                    NumberRow{"PrefixAgainBehindTheNumber", kPrefix + "42" + kPrefix, 0},
                    NumberRow{"PrefixAtTheEnd", "42" + kPrefix, 0},
                    NumberRow{"LongOther", std::string(100000, 'x'), 0}),
    testing::PrintToStringParamName());

template <typename Error>
std::string ErrorText(const std::string& name) {
  try {
    static_cast<void>(ParseSessionNumber(name));
  } catch (const Error& error) {
    return error.what();
  }
  return "nothing was thrown";
}

TEST(SessionNumberErrorTest, NoDigitsAreAnInvalidArgument) {
  for (const char* rest : {"", "a", "x12", " ", "-", "+", "+-1", "--1", ".", "\xC2\xB2"}) {
    SCOPED_TRACE(rest);
    EXPECT_EQ(ErrorText<std::invalid_argument>(kPrefix + rest), "invalid stoi argument");
  }
}

TEST(SessionNumberErrorTest, NumbersBeyond32BitsAreOutOfRange) {
  for (const char* rest : {"2147483648", "-2147483649", "4294967296", "9223372036854775807",
                           "18446744073709551615", "99999999999999999999999999", "  2147483648z"}) {
    SCOPED_TRACE(rest);
    EXPECT_EQ(ErrorText<std::out_of_range>(kPrefix + rest), "stoi argument out of range");
  }
}

}  // namespace
}  // namespace nimbra_test
