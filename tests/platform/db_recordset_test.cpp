// Forward-only, client-side and updatable result sets.
#include <gtest/gtest.h>

#include <random>

#include "support/engines.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

using db::Value;

template <class F>
int32_t errorOf(F&& f) {
  return thrownBy(f).number();
}

class RecordsetTest : public EngineTest {
 protected:
  void SetUp() override {
    conn = db.connection();
    conn->execute("CREATE TABLE t (id INTEGER PRIMARY KEY AUTOINCREMENT, [Request Name] TEXT, n INTEGER, "
                  "Numérique INTEGER, x REAL, filled INTEGER DEFAULT 7)");
  }
  void insert(const std::string& name, const std::string& n) {
    conn->execute("INSERT INTO t ([Request Name], n) VALUES (" + db::sql::quote(name) + ", " + n + ")");
  }
  TempDb db;
  std::shared_ptr<db::Connection> conn;
};

TEST_P(RecordsetTest, ForwardOnlyFieldsByNameAndPosition) {
  insert("", "1");  // empty text
  insert("", "NULL");
  conn->execute("UPDATE t SET [Request Name]=NULL WHERE n IS NULL");
  auto rs = conn->execute("SELECT id, [Request Name], n, Numérique, count(*) OVER () AS N FROM t ORDER BY id");
  ASSERT_FALSE(rs->eof());
  EXPECT_EQ(rs->fieldCount(), 5);
  EXPECT_EQ(rs->fieldName(1), "Request Name");
  EXPECT_EQ(rs->field("[request name]").type(), Value::Type::Text);
  EXPECT_EQ(rs->field("REQUEST NAME").toText(), "");
  EXPECT_EQ(rs->field("NUMÉRIQUE").type(), Value::Type::Null);  // Latin-1 capitals fold too
  EXPECT_EQ(rs->field("n"), Value(int64_t{1}));
  EXPECT_EQ(rs->field(4).toInt32(), 2);
  rs->moveNext();
  EXPECT_TRUE(rs->field(1).isNull());
  EXPECT_EQ(errorOf([&] { rs->field("nope"); }), 3265);
  EXPECT_EQ(errorOf([&] { rs->field(5); }), 3265);
  rs->moveNext();
  EXPECT_TRUE(rs->eof());
  EXPECT_EQ(errorOf([&] { rs->field(0); }), 3021);
  EXPECT_EQ(errorOf([&] { rs->moveNext(); }), 3021);
  rs->close();
  EXPECT_EQ(errorOf([&] { rs->eof(); }), 3704);
  EXPECT_EQ(conn->execute("SELECT count(*) AS n FROM t")->field("N").toInt32(), 2);
  EXPECT_TRUE(conn->execute("DELETE FROM t WHERE n=1")->eof());
  EXPECT_EQ(conn->recordsAffected(), 1);
}

TEST_P(RecordsetTest, ClientFilterOnTextsNumbersAndQuotesAgreesWithAScan) {
  for (auto [name, n] : {std::pair{"A", "1"}, {"O'Neil", "2"}, {"A", "3"}, {"", "4"}, {"a", "5"}}) insert(name, n);
  conn->execute("UPDATE t SET x = n / 2.0");
  auto rs = conn->openClient("SELECT [Request Name], n, x FROM t ORDER BY n DESC");
  EXPECT_EQ(rs->recordCount(), 5);
  auto ns = [&](const std::string& f) {
    rs->filter(f);
    std::vector<int> out;
    for (; !rs->eof(); rs->moveNext()) out.push_back(rs->field("n").toInt32());
    return out;
  };
  using V = std::vector<int>;
  EXPECT_EQ(ns("[Request Name]='A'"), (V{5, 3, 1}));  // query order kept, letter case ignored (name rule)
  EXPECT_EQ(ns("[Request Name]='O''Neil'"), V{2});
  EXPECT_EQ(ns("Request Name = ''"), V{4});
  EXPECT_EQ(ns("[n]=3"), V{3});
  EXPECT_EQ(ns("[n]='3'"), V{3});  // a number written as text finds an integer
  EXPECT_EQ(ns("[n]=3.5"), V{});
  {
    // A column of integers and Nulls finds both.
    auto withNull = conn->openClient("SELECT n FROM t UNION ALL SELECT NULL UNION ALL SELECT 4");
    withNull->filter("[n]=Null");
    EXPECT_EQ(withNull->recordCount(), 1);
    withNull->filter("[n]=4");
    EXPECT_EQ(withNull->recordCount(), 2);
  }
  EXPECT_EQ(ns("[x]=1.5"), V{3});  // a real
  EXPECT_EQ(ns("[x]=2"), V{4});    // 2.0 stored as a real matches the integer literal
  EXPECT_EQ(ns("[Request Name]='A' AND [n]=1"), V{1});
  EXPECT_EQ(ns("[Request Name]='missing'"), V{});
  EXPECT_EQ(rs->recordCount(), 0);
  rs->clearFilter();
  EXPECT_EQ(rs->recordCount(), 5);
  rs->moveNext();
  rs->moveFirst();
  EXPECT_EQ(rs->field("n").toInt32(), 5);
  EXPECT_EQ(errorOf([&] { rs->filter("[Request Name] LIKE 'A%'"); }), 3001);
  EXPECT_EQ(errorOf([&] { rs->filter("[Request Name]='unclosed"); }), 3001);
  EXPECT_EQ(errorOf([&] { rs->filter("[nope]=1"); }), 3265);
  // Many rows and filters: the index behind the filter agrees with the
  // database's own selection.
  std::mt19937 rng(42);
  db::Transaction tx(*conn);
  for (int i = 0; i < 2000; ++i) insert("R" + std::to_string(rng() % 50), std::to_string(rng() % 30));
  tx.commit();
  const std::string query = "SELECT id, [Request Name], n FROM t", order = " ORDER BY [Request Name], n DESC, id";
  auto many = conn->openClient(query + order);
  for (int round = 0; round < 200; ++round) {
    const std::string f = round % 2 ? "[Request Name]='R" + std::to_string(rng() % 55) + "'"
                                    : "[n]=" + std::to_string(rng() % 32);
    std::vector<int64_t> expected, got;
    for (auto sel = conn->execute(query + " WHERE " + f + order); !sel->eof(); sel->moveNext())
      expected.push_back(sel->field(0).toInt64());
    for (many->filter(f); !many->eof(); many->moveNext()) got.push_back(many->field("id").toInt64());
    ASSERT_EQ(got, expected) << f;
  }
}

TEST_P(RecordsetTest, IntegerFiltersInEverySpellingAgreeWithTheGeneralFilterAndValuesReadBackPerRow) {
  for (auto [name, n] : {std::pair{"12", "-3"}, {"b", "3"}, {"7", "7"}, {"d", "NULL"}, {"e", "3"}, {"-3", "12"}})
    insert(name, n);
  conn->execute("UPDATE t SET Numérique = n * 2, x = n");
  // The widest integers read back and sort as numbers.
  insert("max", "9223372036854775807");
  insert("min", "-9223372036854775807");
  std::string sorted;
  for (auto all = conn->openClient("SELECT [Request Name], n FROM t ORDER BY n DESC, id"); !all->eof(); all->moveNext())
    sorted += all->field(0).toText() + (all->field(1).isNull() ? "" : "=" + all->field(1).toText()) + ";";
  EXPECT_EQ(sorted, "max=9223372036854775807;-3=12;7=7;b=3;e=3;12=-3;min=-9223372036854775807;d;");
  conn->execute("DELETE FROM t WHERE n > 1000 OR n < -1000");
  auto rs = conn->openClient("SELECT id, [Request Name], n, Numérique, x FROM t ORDER BY id");
  auto names = [&](const std::string& f) {
    rs->filter(f);
    std::string out;
    for (; !rs->eof(); rs->moveNext()) out += rs->field("Request Name").toText() + ";";
    return out;
  };
  // Integer columns (one-term filters take a shortcut), then the same
  // filters on a text and a real column and combined with AND (which do not).
  const std::pair<const char*, const char*> cases[] = {
      {"[n]=3", "b;e;"},
      {"n = 3", "b;e;"},
      {"[N]=+3", "b;e;"},
      {"[n]=-3", "12;"},
      {"[n]=003", "b;e;"},
      {"[n]=Null", "d;"},
      {"[n]=9223372036854775808", ""},  // past the integers: no row, no failure
      {"[n]=3.0", "b;e;"},
      {"[NUMÉRIQUE]=6", "b;e;"},
      {"[Request Name]=12", "12;"},  // a text column holding the number
      {"[Request Name]=-3", "-3;"},
      {"[x]=7", "7;"},
      {"[n]=3 AND [Request Name]='E'", "e;"},
      {"[n]='7'", "7;"},
  };
  for (const auto& [filter, expected] : cases) EXPECT_EQ(names(filter), expected) << filter;
  // Going back and forth between columns and filters does not mix them up.
  EXPECT_EQ(names("[n]=12"), "-3;");
  EXPECT_EQ(names("[Numérique]=24"), "-3;");
  EXPECT_EQ(names("[n]=12"), "-3;");
  EXPECT_EQ(errorOf([&] { rs->filter("[nope]=3"); }), 3265);
  EXPECT_EQ(errorOf([&] { rs->filter("[n]=3x"); }), 3001);
  // Values of one row stay as they were read while the other fields of the
  // row are read, however often, and each row gives its own.
  rs->filter("[n]=3");
  const Value& first = rs->field("Request Name");
  const Value& n = rs->field(2);
  EXPECT_EQ(rs->field(1).toText(), "b");
  EXPECT_EQ(rs->field("x").toDouble(), 3.0);
  EXPECT_EQ(first.toText(), "b");
  EXPECT_EQ(n.toInt32(), 3);
  rs->moveNext();
  EXPECT_EQ(rs->field("Request Name").toText(), "e");
  rs->moveFirst();
  EXPECT_EQ(rs->field("Request Name").toText(), "b");
  rs->clearFilter();
  EXPECT_EQ(rs->recordCount(), 6);
  EXPECT_FALSE(rs->field("Numérique").isNull());
  rs->close();
  EXPECT_EQ(errorOf([&] { rs->field(0); }), 3704);
  EXPECT_EQ(errorOf([&] { rs->filter("[n]=3"); }), 3704);
}

TEST_P(RecordsetTest, UpdatableAddsEditsDeletesAndKeepsAFailedChange) {
  auto rs = conn->openUpdatable("SELECT id, [Request Name], n, filled FROM t");
  rs->addNew();
  rs->setField("Request Name", Value("a"));
  rs->setField("[N]", Value(int32_t{3}));
  EXPECT_EQ(rs->field("n").toInt32(), 3);  // the pending row reads back
  rs->update();
  const int64_t first = rs->field("id").toInt64();
  EXPECT_GT(first, 0);
  EXPECT_EQ(rs->field("filled").toInt32(), 7);  // filled by the database, read when asked for
  rs->addNew({"Request Name", "n"}, {Value(""), Value(nullptr)});
  EXPECT_EQ(rs->field("id").toInt64(), first + 1);
  rs->close();
  auto check = conn->execute("SELECT [Request Name], n FROM t WHERE id=" + std::to_string(first + 1));
  EXPECT_EQ(check->field(0).type(), Value::Type::Text);  // empty, not Null
  EXPECT_TRUE(check->field(1).isNull());
  auto bad = conn->openUpdatable("SELECT id, n, n * 2 AS twice FROM t");
  bad->addNew();
  EXPECT_EQ(errorOf([&] { bad->setField("twice", Value(int32_t{1})); }), 3251);
  EXPECT_EQ(errorOf([&] { bad->setField("nope", Value(int32_t{1})); }), 3265);
  EXPECT_EQ(errorOf([&] { conn->openUpdatable("SELECT t.id, u.id FROM t, t AS u"); }), 3251);
  // Renumber while walking rows in index order, as a reorder does.
  conn->execute("UPDATE t SET [Request Name]='b', n=5 WHERE n IS NULL");
  insert("c", "1");
  conn->execute("CREATE UNIQUE INDEX t_name ON t ([Request Name])");
  auto walk = conn->openUpdatable("SELECT n FROM t ORDER BY n");
  int counter = 1;
  for (; !walk->eof(); walk->moveNext(), ++counter) {
    walk->setField("n", Value(int32_t{counter}));
    walk->update();
  }
  std::string walked;
  for (auto all = conn->execute("SELECT n, [Request Name] FROM t ORDER BY [Request Name]"); !all->eof(); all->moveNext())
    walked += all->field(0).toText() + all->field(1).toText() + ",";
  EXPECT_EQ(walked, "2a,3b,1c,");
  auto ed = conn->openUpdatable("SELECT [Request Name] FROM t WHERE n=2");
  conn->clearErrors();
  ed->setField("Request Name", Value("c"));  // duplicate
  EXPECT_THROW(ed->update(), DbError);
  ASSERT_EQ(conn->errors().size(), 1u);
  EXPECT_EQ(conn->errors()[0].backendCode(), 2067);  // unique constraint
  EXPECT_EQ(ed->field(0).toText(), "c");             // still pending
  ed->cancelUpdate();
  EXPECT_EQ(ed->field(0).toText(), "a");
  ed->deleteCurrent();
  EXPECT_EQ(errorOf([&] { ed->field(0); }), 3021);
  EXPECT_EQ(conn->execute("SELECT count(*) FROM t")->field(0).toInt32(), 2);
}

TEST_P(RecordsetTest, OpeningForUpdateReadsNothingUntilAskedAndAClosedConnectionFailsCleanly) {
  // This query fails when it runs, not when prepared (each engine has its
  // own such failures: malformed JSON, a division by zero once a row is there).
  const std::string failsWhenRun = std::string("SELECT id, n FROM t WHERE ") +
                                   (onServer() ? "n / (n - 1) = 0" : "n = json('not json')");
  auto rs = conn->openUpdatable(failsWhenRun);
  rs->addNew();
  rs->setField("n", Value(int32_t{1}));
  rs->update();
  EXPECT_EQ(rs->field("n").toInt32(), 1);
  rs->moveNext();
  EXPECT_TRUE(rs->eof());
  EXPECT_THROW(conn->openUpdatable(failsWhenRun)->eof(), DbError);
  insert("b", "2");
  auto forward = conn->execute("SELECT n FROM t ORDER BY n");
  auto updatable = conn->openUpdatable("SELECT n FROM t");
  conn->close();
  EXPECT_THROW(forward->moveNext(), DbError);
  EXPECT_THROW(updatable->eof(), DbError);
  EXPECT_NO_THROW(forward->close());
}

KAVREL_ON_ENGINES(RecordsetTest);

}  // namespace
}  // namespace kavrel::test
