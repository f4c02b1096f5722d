// The ASCII short cuts of the text conversions agree with the general rules.
#include <gtest/gtest.h>

#include <string>

#include "kavrel/error.h"
#include "kavrel/platform/text.h"

namespace kavrel::text {
namespace {

int32_t errorOf(const std::string& s) {
  try {
    toInt(s);
  } catch (const Error& e) {
    return e.number();
  }
  return 0;
}

TEST(TextFastPaths, IntegersOfEveryShape) {
  EXPECT_EQ(toInt("0"), 0);
  EXPECT_EQ(toInt(" 12\t"), 12);
  EXPECT_EQ(toInt("+7"), 7);
  EXPECT_EQ(toInt("-0"), 0);
  EXPECT_EQ(toInt("000000123"), 123);
  EXPECT_EQ(toInt("999999999"), 999999999);
  EXPECT_EQ(toInt("-999999999"), -999999999);
  EXPECT_EQ(toInt("2147483647"), 2147483647);  // ten digits: the general path
  EXPECT_EQ(toInt("-2147483648"), INT32_MIN);
  EXPECT_EQ(toInt("0000000000012"), 12);
  EXPECT_EQ(toInt("2.5"), 2);  // half to even
  EXPECT_EQ(toInt("1e3"), 1000);
  EXPECT_EQ(errorOf("2147483648"), kErrOverflow);
  for (const char* bad : {"", " ", "-", "+", "12a", "1 2", "--1", "0x10", "١٢"})
    EXPECT_EQ(errorOf(bad), kErrTypeMismatch) << bad;
}

TEST(TextFastPaths, CaseAndLengthOverAsciiAndOtherText) {
  EXPECT_EQ(lower("Data 001 ABC xyz"), "data 001 abc xyz");
  EXPECT_EQ(lower("ÉTÉ Régime"), "été régime");
  EXPECT_EQ(upper("été a"), "ÉTÉ A");
  EXPECT_EQ(lower(std::string("A\xFF" "B", 3)), std::string("a\xFF" "b", 3));  // malformed byte kept
  EXPECT_TRUE(iequals("Engine SPEED", "engine speed"));
  EXPECT_TRUE(iequals("RÉGIME", "régime"));
  EXPECT_FALSE(iequals("speed", "speeds"));
  EXPECT_FALSE(iequals("a\xC3", "a\xE3"));
  EXPECT_EQ(length("plain ascii"), 11u);
  EXPECT_EQ(length("ascii then é€"), 13u);
  EXPECT_EQ(length(std::string("\xFF\xFEz", 3)), 3u);
}

}  // namespace
}  // namespace kavrel::text
