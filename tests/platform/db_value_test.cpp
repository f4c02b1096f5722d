// Field values and the SQL text helpers.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "kavrel/platform/db.h"
#include "support/checks.h"

namespace kavrel::db {
namespace {

template <class F>
int32_t errorOf(F&& f) {
  return test::thrownBy(f).number();
}

TEST(DbValue, NullIsNotEmptyText) {
  Value null;
  Value empty("");
  EXPECT_TRUE(null.isNull());
  EXPECT_FALSE(empty.isNull());
  EXPECT_FALSE(null == empty);
  EXPECT_TRUE(null == Value(nullptr));
  EXPECT_EQ(null.toText(), "");
  EXPECT_EQ(errorOf([&] { null.toInt32(); }), 94);
  EXPECT_EQ(errorOf([&] { null.toDouble(); }), 94);
  EXPECT_EQ(errorOf([&] { null.toBool(); }), 94);
  EXPECT_EQ(errorOf([&] { empty.toInt32(); }), 13);
}

TEST(DbValue, IntegerConversionsRoundHalfToEvenAndCheckRange) {
  for (auto [in, out] : {std::pair{Value(2.5), 2}, {Value(3.5), 4}, {Value(-2.5), -2}, {Value(2.4999), 2},
                         {Value(" 12 "), 12}, {Value("12.5"), 12}, {Value("-7"), -7}, {Value("+7"), 7},
                         {Value(int64_t{2147483647}), 2147483647}})
    EXPECT_EQ(in.toInt32(), out) << in.toText();
  for (Value big : {Value(int64_t{2147483648}), Value("2147483648"), Value(std::nan(""))})
    EXPECT_EQ(errorOf([&] { big.toInt32(); }), 6) << big.toText();
  EXPECT_EQ(errorOf([] { Value(1e300).toInt64(); }), 6);
  EXPECT_EQ(Value("9223372036854775807").toInt64(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Value("-9223372036854775808").toInt64(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(errorOf([] { Value("12abc").toInt32(); }), 13);
  EXPECT_EQ(errorOf([] { Value("abc").toInt64(); }), 13);
  EXPECT_EQ(errorOf([] { Value("inf").toDouble(); }), 13);
}

TEST(DbValue, RealsTextsAndBooleans) {
  EXPECT_DOUBLE_EQ(Value(int32_t{3}).toDouble(), 3.0);
  EXPECT_DOUBLE_EQ(Value("8.25").toDouble(), 8.25);
  EXPECT_DOUBLE_EQ(Value("1e-3").toDouble(), 0.001);
  for (auto [in, out] : {std::pair{Value(12.5), "12.5"}, {Value(0.1), "0.1"}, {Value(12.0), "12"}, {Value(-0.0), "0"},
                         {Value(int64_t{-3}), "-3"}, {Value("texte"), "texte"}})
    EXPECT_EQ(in.toText(), out);
  EXPECT_TRUE(Value(int64_t{12}) == Value(12.0));
  EXPECT_FALSE(Value(int64_t{12}) == Value("12"));
  // Booleans are stored -1 / 0; any non-zero number is true.
  EXPECT_EQ(Value(true).rawInteger(), -1);
  EXPECT_EQ(Value(false).rawInteger(), 0);
  for (Value yes : {Value(int32_t{1}), Value(int32_t{-1}), Value(0.5), Value("True"), Value("-1")})
    EXPECT_TRUE(yes.toBool()) << yes.toText();
  for (Value no : {Value(int32_t{0}), Value(" false "), Value("0")}) EXPECT_FALSE(no.toBool()) << no.toText();
  EXPECT_EQ(errorOf([] { Value("oui").toBool(); }), 13);
}

TEST(DbSqlText, QuotingDoublesQuotesAndSplicingAQuoteFailsLikeASyntaxError) {
  EXPECT_EQ(sql::quote("O'Neil"), "'O''Neil'");
  EXPECT_EQ(sql::quote(""), "''");
  EXPECT_EQ(sql::doubleQuotes("a''b"), "a''''b");
  EXPECT_EQ(sql::quoteOrNull(""), "Null");
  EXPECT_EQ(sql::quoteOrNull("x'y"), "'x''y'");
  EXPECT_EQ(sql::spliceUnquoted("Soft 1.2"), "Soft 1.2");
  const std::string d = test::thrownBy<DbError>([] { sql::spliceUnquoted("x' OR '1'='1"); }).description();
  EXPECT_TRUE(test::contains(d, "syntax error"));
  EXPECT_TRUE(test::contains(d, "x' OR '1'='1"));
}

}  // namespace
}  // namespace kavrel::db
