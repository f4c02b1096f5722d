// Field values and the SQL text helpers.
#include <gtest/gtest.h>

#include <functional>

#include <cmath>
#include <limits>

#include "kavrel/platform/db.h"

namespace kavrel::db {
namespace {

int32_t errorOf(const std::function<void()>& f) {
  try {
    f();
  } catch (const Error& e) {
    return e.number();
  }
  return 0;
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
  EXPECT_EQ(Value(2.5).toInt32(), 2);
  EXPECT_EQ(Value(3.5).toInt32(), 4);
  EXPECT_EQ(Value(-2.5).toInt32(), -2);
  EXPECT_EQ(Value(2.4999).toInt32(), 2);
  EXPECT_EQ(Value(" 12 ").toInt32(), 12);
  EXPECT_EQ(Value("12.5").toInt32(), 12);
  EXPECT_EQ(Value("-7").toInt32(), -7);
  EXPECT_EQ(Value("+7").toInt32(), 7);
  EXPECT_EQ(Value(int64_t{2147483647}).toInt32(), 2147483647);
  EXPECT_EQ(errorOf([] { Value(int64_t{2147483648}).toInt32(); }), 6);
  EXPECT_EQ(errorOf([] { Value("2147483648").toInt32(); }), 6);
  EXPECT_EQ(errorOf([] { Value(1e300).toInt64(); }), 6);
  EXPECT_EQ(errorOf([] { Value(std::nan("")).toInt32(); }), 6);
  EXPECT_EQ(Value("9223372036854775807").toInt64(), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Value("-9223372036854775808").toInt64(), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(errorOf([] { Value("12abc").toInt32(); }), 13);
  EXPECT_EQ(errorOf([] { Value("abc").toInt64(); }), 13);
  EXPECT_EQ(errorOf([] { Value("inf").toDouble(); }), 13);
}

TEST(DbValue, RealsAndTexts) {
  EXPECT_DOUBLE_EQ(Value(int32_t{3}).toDouble(), 3.0);
  EXPECT_DOUBLE_EQ(Value("8.25").toDouble(), 8.25);
  EXPECT_DOUBLE_EQ(Value("1e-3").toDouble(), 0.001);
  EXPECT_EQ(Value(12.5).toText(), "12.5");
  EXPECT_EQ(Value(0.1).toText(), "0.1");
  EXPECT_EQ(Value(12.0).toText(), "12");
  EXPECT_EQ(Value(-0.0).toText(), "0");
  EXPECT_EQ(Value(int64_t{-3}).toText(), "-3");
  EXPECT_EQ(Value("texte").toText(), "texte");
  EXPECT_TRUE(Value(int64_t{12}) == Value(12.0));
  EXPECT_FALSE(Value(int64_t{12}) == Value("12"));
}

TEST(DbValue, BooleansAreMinusOneAndAnyNonZeroIsTrue) {
  EXPECT_EQ(Value(true).rawInteger(), -1);
  EXPECT_EQ(Value(false).rawInteger(), 0);
  EXPECT_TRUE(Value(int32_t{1}).toBool());
  EXPECT_TRUE(Value(int32_t{-1}).toBool());
  EXPECT_TRUE(Value(0.5).toBool());
  EXPECT_FALSE(Value(int32_t{0}).toBool());
  EXPECT_TRUE(Value("True").toBool());
  EXPECT_FALSE(Value(" false ").toBool());
  EXPECT_TRUE(Value("-1").toBool());
  EXPECT_FALSE(Value("0").toBool());
  EXPECT_EQ(errorOf([] { Value("oui").toBool(); }), 13);
}

TEST(DbSqlText, QuotingDoublesQuotes) {
  EXPECT_EQ(sql::quote("O'Neil"), "'O''Neil'");
  EXPECT_EQ(sql::quote(""), "''");
  EXPECT_EQ(sql::doubleQuotes("a''b"), "a''''b");
  EXPECT_EQ(sql::quoteOrNull(""), "Null");
  EXPECT_EQ(sql::quoteOrNull("x'y"), "'x''y'");
}

TEST(DbSqlText, SplicingAQuoteUnchangedFailsLikeASyntaxError) {
  EXPECT_EQ(sql::spliceUnquoted("Soft 1.2"), "Soft 1.2");
  try {
    sql::spliceUnquoted("x' OR '1'='1");
    FAIL() << "a quote was spliced";
  } catch (const DbError& e) {
    EXPECT_NE(e.description().find("syntax error"), std::string::npos);
    EXPECT_NE(e.description().find("x' OR '1'='1"), std::string::npos);
  }
}

}  // namespace
}  // namespace kavrel::db
