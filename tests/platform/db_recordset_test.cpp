// Forward-only, client-side and updatable result sets.
#include <gtest/gtest.h>

#include <random>

#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

using db::Value;

template <class F>
int32_t errorOf(F&& f) {
  return thrownBy(f).number();
}

class RecordsetTest : public ::testing::Test {
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

TEST_F(RecordsetTest, ForwardOnlyFieldsByNameAndPosition) {
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

  auto count = conn->execute("SELECT count(*) FROM t");
  EXPECT_EQ(count->field("count(*)").toInt32(), 2);
  auto none = conn->execute("DELETE FROM t WHERE n=1");
  EXPECT_TRUE(none->eof());
  EXPECT_EQ(conn->recordsAffected(), 1);
}

TEST_F(RecordsetTest, ClientFilterOnTextsNumbersAndQuotes) {
  insert("A", "1");
  insert("O'Neil", "2");
  insert("A", "3");
  insert("", "4");
  insert("a", "5");
  conn->execute("UPDATE t SET x = n / 2.0");
  auto rs = conn->openClient("SELECT [Request Name], n, x FROM t ORDER BY n DESC");
  EXPECT_EQ(rs->recordCount(), 5);

  auto ns = [&] {
    std::vector<int> out;
    for (; !rs->eof(); rs->moveNext()) out.push_back(rs->field("n").toInt32());
    return out;
  };
  rs->filter("[Request Name]='A'");
  EXPECT_EQ(ns(), (std::vector<int>{3, 1}));  // query order kept, letter case matters
  rs->filter("[Request Name]='O''Neil'");
  EXPECT_EQ(ns(), (std::vector<int>{2}));
  rs->filter("Request Name = ''");
  EXPECT_EQ(ns(), (std::vector<int>{4}));
  rs->filter("[n]=3");
  EXPECT_EQ(ns(), (std::vector<int>{3}));
  rs->filter("[x]=1.5");  // a real
  EXPECT_EQ(ns(), (std::vector<int>{3}));
  rs->filter("[x]=2");  // 2.0 stored as a real matches the integer literal
  EXPECT_EQ(ns(), (std::vector<int>{4}));
  rs->filter("[Request Name]='A' AND [n]=1");
  EXPECT_EQ(ns(), (std::vector<int>{1}));
  rs->filter("[Request Name]='missing'");
  EXPECT_TRUE(rs->eof());
  EXPECT_EQ(rs->recordCount(), 0);
  rs->clearFilter();
  EXPECT_EQ(rs->recordCount(), 5);
  rs->moveNext();
  rs->moveFirst();
  EXPECT_EQ(rs->field("n").toInt32(), 5);

  EXPECT_EQ(errorOf([&] { rs->filter("[Request Name] LIKE 'A%'"); }), 3001);
  EXPECT_EQ(errorOf([&] { rs->filter("[Request Name]='unclosed"); }), 3001);
  EXPECT_EQ(errorOf([&] { rs->filter("[nope]=1"); }), 3265);
}

TEST_F(RecordsetTest, ClientIndexAgreesWithAScanOnManyFilters) {
  std::mt19937 rng(42);
  {
    db::Transaction tx(*conn);
    for (int i = 0; i < 2000; ++i) insert("R" + std::to_string(rng() % 50), std::to_string(rng() % 30));
    tx.commit();
  }
  const std::string query = "SELECT id, [Request Name], n FROM t ORDER BY [Request Name], n DESC";
  std::vector<std::tuple<int64_t, std::string, std::string>> rows;  // id, filter on the name, filter on n
  for (auto all = conn->execute(query); !all->eof(); all->moveNext())
    rows.emplace_back(all->field(0).toInt64(), "[Request Name]='" + all->field(1).toText() + "'",
                      "[n]=" + all->field(2).toText());
  auto rs = conn->openClient(query);
  for (int round = 0; round < 200; ++round) {
    const std::string f = round % 2 ? "[Request Name]='R" + std::to_string(rng() % 55) + "'"
                                    : "[n]=" + std::to_string(rng() % 32);
    std::vector<int64_t> expected, got;
    for (auto& [id, byName, byN] : rows)
      if (f == byName || f == byN) expected.push_back(id);
    rs->filter(f);
    for (; !rs->eof(); rs->moveNext()) got.push_back(rs->field("id").toInt64());
    ASSERT_EQ(got, expected) << f;
  }
}

TEST_F(RecordsetTest, UpdatableAddsRowsAndReadsTheAutonumberBack) {
  auto rs = conn->openUpdatable("SELECT id, [Request Name], n, filled FROM t");
  rs->addNew();
  rs->setField("Request Name", Value("first"));
  rs->setField("[N]", Value(int32_t{10}));
  EXPECT_EQ(rs->field("n").toInt32(), 10);  // the pending row reads back
  rs->update();
  int64_t first = rs->field("id").toInt64();
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
}

TEST_F(RecordsetTest, UpdatableEditsDeletesAndKeepsAFailedChange) {
  conn->execute("CREATE UNIQUE INDEX t_name ON t ([Request Name])");
  insert("a", "1");
  insert("b", "3");
  insert("c", "5");
  // Renumber while walking rows in index order, as a reorder does.
  auto rs = conn->openUpdatable("SELECT n FROM t ORDER BY n");
  int counter = 1;
  for (; !rs->eof(); rs->moveNext()) {
    if (rs->field("n").toInt32() != counter) {
      rs->setField("n", Value(int32_t{counter}));
      rs->update();
    }
    ++counter;
  }
  EXPECT_EQ(counter, 4);
  auto sum = conn->execute("SELECT sum(n) FROM t");
  EXPECT_EQ(sum->field(0).toInt32(), 6);

  auto ed = conn->openUpdatable("SELECT [Request Name] FROM t WHERE n=2");
  ASSERT_FALSE(ed->eof());
  conn->clearErrors();
  ed->setField("Request Name", Value("a"));  // duplicate
  EXPECT_THROW(ed->update(), DbError);
  ASSERT_EQ(conn->errors().size(), 1u);
  EXPECT_EQ(conn->errors()[0].backendCode(), 2067);  // unique constraint
  EXPECT_EQ(ed->field(0).toText(), "a");  // still pending
  ed->cancelUpdate();
  EXPECT_EQ(ed->field(0).toText(), "b");
  ed->deleteCurrent();
  EXPECT_EQ(errorOf([&] { ed->field(0); }), 3021);
  EXPECT_EQ(conn->execute("SELECT count(*) FROM t")->field(0).toInt32(), 2);
}

TEST_F(RecordsetTest, OpeningForUpdateReadsNothingUntilAsked) {
  // This query fails when it runs (malformed JSON), not when prepared.
  auto rs = conn->openUpdatable("SELECT id, n FROM t WHERE n = json('not json')");
  rs->addNew();
  rs->setField("n", Value(int32_t{1}));
  rs->update();
  EXPECT_EQ(rs->field("n").toInt32(), 1);
  rs->moveNext();
  EXPECT_TRUE(rs->eof());
  auto again = conn->openUpdatable("SELECT id, n FROM t WHERE n = json('not json')");
  EXPECT_THROW(again->eof(), DbError);
}

TEST_F(RecordsetTest, ResultSetsFailCleanlyOnceTheConnectionIsClosed) {
  insert("a", "1");
  insert("b", "2");
  auto forward = conn->execute("SELECT n FROM t ORDER BY n");
  auto updatable = conn->openUpdatable("SELECT n FROM t");
  conn->close();
  EXPECT_THROW(forward->moveNext(), DbError);
  EXPECT_THROW(updatable->eof(), DbError);
  EXPECT_NO_THROW(forward->close());
}

}  // namespace
}  // namespace kavrel::test
