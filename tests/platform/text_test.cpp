#include "kavrel/platform/text.h"

#include <gtest/gtest.h>

#include <cmath>

#include "kavrel/error.h"

namespace kavrel::text {
namespace {

int32_t errorNumberOf(void (*f)()) {
  try {
    f();
  } catch (const Error& e) {
    EXPECT_EQ(e.rawSource(), "");
    return e.number();
  }
  return 0;
}

TEST(TextToInt, ReadsIntegersAndRoundsDecimalsHalfToEven) {
  EXPECT_EQ(toInt("42"), 42);
  EXPECT_EQ(toInt("  -17 "), -17);
  EXPECT_EQ(toInt("+8"), 8);
  EXPECT_EQ(toInt("2.5"), 2);
  EXPECT_EQ(toInt("3.5"), 4);
  EXPECT_EQ(toInt("-2.5"), -2);
  EXPECT_EQ(toInt("2.51"), 3);
  EXPECT_EQ(toInt("2147483647"), 2147483647);
  EXPECT_EQ(toInt("-2147483648"), INT32_MIN);
}

TEST(TextToInt, RejectsNonNumbersAndOutOfRange) {
  EXPECT_EQ(errorNumberOf([] { toInt(""); }), kErrTypeMismatch);
  EXPECT_EQ(errorNumberOf([] { toInt("12a"); }), kErrTypeMismatch);
  EXPECT_EQ(errorNumberOf([] { toInt("1,5"); }), kErrTypeMismatch);
  EXPECT_EQ(errorNumberOf([] { toInt("-"); }), kErrTypeMismatch);
  EXPECT_EQ(errorNumberOf([] { toInt("2147483648"); }), kErrOverflow);
  EXPECT_EQ(errorNumberOf([] { toInt("2147483647.5"); }), kErrOverflow);
  EXPECT_EQ(errorNumberOf([] { toInt("1e400"); }), kErrOverflow);
  try {
    toInt("x");
  } catch (const Error& e) {
    EXPECT_EQ(e.description(), "Type mismatch");
  }
}

TEST(TextVal, ReadsUpToTheFirstCharacterNotPartOfANumber) {
  EXPECT_DOUBLE_EQ(val("12,5"), 12);
  EXPECT_DOUBLE_EQ(val(" 12.5abc"), 12.5);
  EXPECT_DOUBLE_EQ(val("1e-05"), 1e-05);
  EXPECT_DOUBLE_EQ(val("2e"), 2);
  EXPECT_DOUBLE_EQ(val("-.5"), -0.5);
  EXPECT_DOUBLE_EQ(val("7."), 7);
  EXPECT_EQ(val(""), 0);
  EXPECT_EQ(val("abc"), 0);
  EXPECT_EQ(val("1e-400"), 0);
  EXPECT_TRUE(std::isinf(val("1e400")));
}

TEST(TextToRoundedInt, TakesCommaAsDecimalPoint) {
  EXPECT_EQ(toRoundedInt("10,6"), 11);
  EXPECT_EQ(toRoundedInt("2,5"), 2);
  EXPECT_EQ(toRoundedInt("3,5"), 4);
  EXPECT_EQ(toRoundedInt(" 10"), 10);
  EXPECT_EQ(toRoundedInt("2.5"), 2);
  EXPECT_EQ(errorNumberOf([] { toRoundedInt("ten"); }), kErrTypeMismatch);
}

TEST(TextToBool, AcceptsWordsAndNumbers) {
  EXPECT_TRUE(toBool("1"));
  EXPECT_TRUE(toBool("-1"));
  EXPECT_FALSE(toBool("0"));
  EXPECT_TRUE(toBool("True"));
  EXPECT_TRUE(toBool("TRUE"));
  EXPECT_FALSE(toBool("false"));
  EXPECT_EQ(errorNumberOf([] { toBool("yes"); }), kErrTypeMismatch);
  EXPECT_EQ(errorNumberOf([] { toBool(""); }), kErrTypeMismatch);
}

TEST(TextNumbers, NumberToTextPutsABlankBeforeNonNegatives) {
  EXPECT_EQ(numberToText(12.5), " 12.5");
  EXPECT_EQ(numberToText(10), " 10");
  EXPECT_EQ(numberToText(-3), "-3");
  EXPECT_EQ(numberToText(8.25), " 8.25");
  EXPECT_EQ(numberToText(0), " 0");
  EXPECT_EQ(numberToText(-0.0), " 0");
  EXPECT_EQ(numberToText(0.1), " 0.1");
  // A float's value keeps the float's short text.
  EXPECT_EQ(numberToText(8.3f), " 8.3");
  EXPECT_EQ(numberToText(100000), " 100000");
  EXPECT_EQ(numberToText(123456792.0), " 123456792");  // whole numbers keep every digit
}

TEST(TextNumbers, DecimalTextIsShortestAndReadsBack) {
  EXPECT_EQ(decimalText(1.5), "1.5");
  EXPECT_EQ(decimalText(0.1), "0.1");
  EXPECT_EQ(decimalText(12), "12");
  EXPECT_EQ(decimalText(1e-05), "1e-05");
  EXPECT_EQ(decimalText(-0.25), "-0.25");
  EXPECT_EQ(decimalText(0.0001), "0.0001");
  EXPECT_EQ(decimalText(120), "120");
  EXPECT_EQ(decimalText(1.5e20), "1.5e+20");
  EXPECT_EQ(decimalText(0), "0");
  for (double v : {0.1 + 0.2, 1.0 / 3.0, 123456.789, -9.87654321e-7, 6.02214076e23, 5e-324}) {
    EXPECT_EQ(val(decimalText(v)), v) << decimalText(v);
    EXPECT_EQ(val(numberToText(v)), v) << numberToText(v);
  }
}

TEST(TextCharacters, CountCodePointsNotBytes) {
  const std::string s = "Élan€x";  // É: 2 bytes, €: 3 bytes
  EXPECT_EQ(length(s), 6u);
  EXPECT_EQ(left(s, 1), "É");
  EXPECT_EQ(left(s, 5), "Élan€");
  EXPECT_EQ(left(s, 99), s);
  EXPECT_EQ(right(s, 2), "€x");
  EXPECT_EQ(right(s, 99), s);
  EXPECT_EQ(right(s, 0), "");
  EXPECT_EQ(length("a\xFF" "b"), 3u);  // a malformed byte counts as one
  EXPECT_EQ(trim("  a b  "), "a b");
  EXPECT_EQ(trim("\ta "), "\ta");
}

TEST(TextCharacters, CaseMappingCoversLatin1Letters) {
  EXPECT_EQ(lower("ÉCRAN Ÿ×"), "écran Ÿ×");
  EXPECT_EQ(upper("écran ÿ÷ß"), "ÉCRAN ÿ÷ß");
  EXPECT_TRUE(iequals("Données", "DONNÉES"));
  EXPECT_FALSE(iequals("Donnee", "Données"));
  EXPECT_FALSE(iequals("abc", "ab"));
}

TEST(TextCharacters, ReplaceAllAndHex) {
  EXPECT_EQ(replaceAll("a'b''c", "'", "''"), "a''b''''c");
  EXPECT_EQ(replaceAll("aaa", "aa", "b"), "ba");
  EXPECT_EQ(replaceAll("abc", "", "x"), "abc");
  EXPECT_EQ(hex(255), "FF");
  EXPECT_EQ(hex(0), "0");
  EXPECT_EQ(hex(0x7E8), "7E8");
  EXPECT_EQ(hex(-1), "FFFFFFFF");
}

}  // namespace
}  // namespace kavrel::text
