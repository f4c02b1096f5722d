// Text conversions; the ASCII short cuts must agree with the general rules.
#include "kavrel/platform/text.h"

#include <gtest/gtest.h>

#include <cmath>
#include <utility>

#include "kavrel/error.h"

namespace kavrel::text {
namespace {

template <class F>
int32_t errorNumberOf(F&& f) {
  try {
    f();
  } catch (const Error& e) {
    EXPECT_EQ(e.rawSource(), "");
    EXPECT_EQ(e.number() == kErrTypeMismatch, e.description() == "Type mismatch") << e.description();
    return e.number();
  }
  return 0;
}

TEST(TextConversions, IntegersRoundHalfToEvenAndCheckRange) {
  for (auto [in, out] : {std::pair{"42", 42}, {"  -17 ", -17}, {" 12\t", 12}, {"+8", 8}, {"-0", 0}, {"2.5", 2},
                         {"3.5", 4}, {"-2.5", -2}, {"2.51", 3}, {"1e3", 1000}, {"000000123", 123},
                         {"0000000000012", 12}, {"999999999", 999999999}, {"-999999999", -999999999},
                         {"2147483647", 2147483647}, {"-2147483648", INT32_MIN}})
    EXPECT_EQ(toInt(in), out) << in;
  for (const char* bad : {"", " ", "12a", "1,5", "-", "+", "x", "1 2", "--1", "0x10", "١٢"})
    EXPECT_EQ(errorNumberOf([&] { toInt(bad); }), kErrTypeMismatch) << bad;
  for (const char* big : {"2147483648", "2147483647.5", "1e400"})
    EXPECT_EQ(errorNumberOf([&] { toInt(big); }), kErrOverflow) << big;
  // The comma is a decimal point for toRoundedInt only.
  for (auto [in, out] : {std::pair{"10,6", 11}, {"2,5", 2}, {"3,5", 4}, {" 10", 10}, {"2.5", 2}})
    EXPECT_EQ(toRoundedInt(in), out) << in;
  EXPECT_EQ(errorNumberOf([] { toRoundedInt("ten"); }), kErrTypeMismatch);
  for (const char* yes : {"1", "-1", "True", "TRUE"}) EXPECT_TRUE(toBool(yes)) << yes;
  for (const char* no : {"0", "false"}) EXPECT_FALSE(toBool(no)) << no;
  for (const char* bad : {"yes", ""}) EXPECT_EQ(errorNumberOf([&] { toBool(bad); }), kErrTypeMismatch);
}

TEST(TextConversions, ValReadsUpToTheFirstCharacterNotPartOfANumber) {
  for (auto [in, out] : {std::pair{"12,5", 12.0}, {" 12.5abc", 12.5}, {"1e-05", 1e-05}, {"2e", 2.0}, {"-.5", -0.5},
                         {"7.", 7.0}, {"", 0.0}, {"abc", 0.0}, {"1e-400", 0.0}})
    EXPECT_DOUBLE_EQ(val(in), out) << in;
  EXPECT_TRUE(std::isinf(val("1e400")));
}

TEST(TextNumbers, NumberToTextPutsABlankBeforeNonNegativesAndDecimalTextIsShortest) {
  for (auto [in, out] : {std::pair{12.5, " 12.5"}, {10.0, " 10"}, {-3.0, "-3"}, {8.25, " 8.25"}, {0.0, " 0"},
                         {-0.0, " 0"}, {0.1, " 0.1"}, {100000.0, " 100000"}, {123456792.0, " 123456792"}})
    EXPECT_EQ(numberToText(in), out) << in;
  EXPECT_EQ(numberToText(8.3f), " 8.3");  // a float's value keeps the float's short text
  for (auto [in, out] : {std::pair{1.5, "1.5"}, {0.1, "0.1"}, {12.0, "12"}, {1e-05, "1e-05"}, {-0.25, "-0.25"},
                         {0.0001, "0.0001"}, {120.0, "120"}, {1.5e20, "1.5e+20"}, {0.0, "0"}})
    EXPECT_EQ(decimalText(in), out) << in;
  for (double v : {0.1 + 0.2, 1.0 / 3.0, 123456.789, -9.87654321e-7, 6.02214076e23, 5e-324}) {
    EXPECT_EQ(val(decimalText(v)), v) << decimalText(v);
    EXPECT_EQ(val(numberToText(v)), v) << numberToText(v);
  }
}

TEST(TextCharacters, CountCodePointsNotBytesAndMapLatin1Case) {
  const std::string s = "Élan€x";  // É: 2 bytes, €: 3 bytes
  EXPECT_EQ(length(s), 6u);
  EXPECT_EQ(length("plain ascii"), 11u);
  EXPECT_EQ(length("ascii then é€"), 13u);
  EXPECT_EQ(length(std::string("\xFF\xFEz", 3)), 3u);  // a malformed byte counts as one
  EXPECT_EQ(left(s, 1), "É");
  EXPECT_EQ(left(s, 5), "Élan€");
  EXPECT_EQ(left(s, 99), s);
  EXPECT_EQ(right(s, 2), "€x");
  EXPECT_EQ(right(s, 99), s);
  EXPECT_EQ(right(s, 0), "");
  EXPECT_EQ(trim("  a b  "), "a b");
  EXPECT_EQ(trim("\ta "), "\ta");
  EXPECT_EQ(lower("Data 001 ABC xyz"), "data 001 abc xyz");
  EXPECT_EQ(lower("ÉCRAN Ÿ×"), "écran Ÿ×");
  EXPECT_EQ(upper("écran ÿ÷ß a"), "ÉCRAN ÿ÷ß A");
  EXPECT_EQ(lower(std::string("A\xFF" "B", 3)), std::string("a\xFF" "b", 3));  // malformed byte kept
  EXPECT_TRUE(iequals("Engine SPEED", "engine speed"));
  EXPECT_TRUE(iequals("Données", "DONNÉES"));
  EXPECT_FALSE(iequals("Donnee", "Données"));
  EXPECT_FALSE(iequals("abc", "ab"));
  EXPECT_FALSE(iequals("a\xC3", "a\xE3"));
}

TEST(TextCharacters, ReplaceAllAndHex) {
  EXPECT_EQ(replaceAll("a'b''c", "'", "''"), "a''b''''c");
  EXPECT_EQ(replaceAll("aaa", "aa", "b"), "ba");
  EXPECT_EQ(replaceAll("abc", "", "x"), "abc");
  for (auto [in, out] : {std::pair{255, "FF"}, {0, "0"}, {0x7E8, "7E8"}, {-1, "FFFFFFFF"}}) EXPECT_EQ(hex(in), out);
}

}  // namespace
}  // namespace kavrel::text
