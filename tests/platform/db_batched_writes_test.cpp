// Batched writes (Connection::beginBatchedWrites): what a scope writes is
// what row-by-row writing would have stored, ids read back included, and a
// refused batch can never be committed half-written.
#include <gtest/gtest.h>

#include "support/checks.h"
#include "support/engines.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

using db::Value;

class BatchedWritesTest : public EngineTest {
 protected:
  void SetUp() override {
    conn = db.connection();
    conn->execute("CREATE TABLE b (id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT UNIQUE, n INTEGER)");
    conn->execute("CREATE TABLE k (name TEXT, n INTEGER)");  // no autonumber, no key
    conn->execute("CREATE TABLE d (id INTEGER PRIMARY KEY AUTOINCREMENT, name TEXT, filled INTEGER DEFAULT 7)");
  }
  int64_t count(const std::string& sql) { return conn->execute(sql)->field(0).toInt64(); }
  TempDb db;
  std::shared_ptr<db::Connection> conn;
};

TEST_P(BatchedWritesTest, IdsReadBackAreStoredAndEditsLevelsAndReadsSeeHeldRows) {
  std::vector<int64_t> ids;
  conn->begin();
  {
    db::BatchedWrites batch(*conn);
    auto rs = conn->openUpdatable("SELECT id, name, n FROM b");
    auto keyless = conn->openUpdatable("SELECT name, n FROM k");
    for (int i = 0; i < 100; ++i) {
      rs->addNew();
      rs->setField("name", "r" + std::to_string(i));
      rs->setField("n", i);
      rs->update();
      ids.push_back(rs->field("id").toInt64());
      keyless->addNew({"name", "n"}, {Value("k" + std::to_string(i)), Value(i)});
    }
    // The row just added is changed, then another is added and dropped.
    rs->setField("n", 1000);
    rs->update();
    keyless->setField("n", -1);
    keyless->update();
    rs->addNew({"name", "n"}, {Value("dropped"), Value(0)});
    rs->deleteCurrent();
    // Rows added in a level rolled back go with it, whether held or written.
    conn->begin();
    rs->addNew({"name", "n"}, {Value("rolled back"), Value(0)});
    conn->rollback();
    // A column the database fills reads back at once.
    auto filled = conn->openUpdatable("SELECT id, name, filled FROM d");
    filled->addNew({"name"}, {Value("x")});
    EXPECT_EQ(filled->field("filled"), Value(int64_t{7}));
    // A read sees every row held before it.
    EXPECT_EQ(count("SELECT count(*) FROM b"), 100);
    rs->addNew({"name", "n"}, {Value("after the read"), Value(0)});
    ids.push_back(rs->field("id").toInt64());
    batch.end();
  }
  conn->commit();
  std::string expected;
  for (size_t i = 0; i < ids.size(); ++i) expected += (i ? "," : "") + std::to_string(ids[i]);
  EXPECT_EQ(joinedRows(*conn, "SELECT id FROM b ORDER BY id"), expected);  // increasing, as added
  EXPECT_EQ(count("SELECT id FROM b WHERE name='r57'"), ids[57]);
  EXPECT_EQ(count("SELECT n FROM b WHERE name='r99'"), 1000);
  EXPECT_EQ(count("SELECT n FROM k WHERE name='k99'"), -1);
  EXPECT_EQ(count("SELECT count(*) FROM k"), 100);
  EXPECT_EQ(count("SELECT filled FROM d"), 7);
  // Autonumbers go on after the ids read back.
  conn->execute("INSERT INTO b (name, n) VALUES ('later', 0)");
  EXPECT_GT(count("SELECT id FROM b WHERE name='later'"), ids.back());
}

TEST_P(BatchedWritesTest, ARefusedRowIsReportedAtOnceOrByTheScopeAndNothingHalfWrittenCommits) {
  conn->execute("INSERT INTO b (name, n) VALUES ('taken', 0)");
  conn->begin();
  auto batch = std::make_unique<db::BatchedWrites>(*conn);
  auto rs = conn->openUpdatable("SELECT id, name, n FROM b");
  rs->addNew({"name", "n"}, {Value("new"), Value(1)});
  bool refusedAtOnce = false;
  try {
    rs->addNew({"name", "n"}, {Value("taken"), Value(2)});
  } catch (const Error& e) {
    EXPECT_TRUE(db::isRowRefusal(e));
    refusedAtOnce = true;
    rs->cancelUpdate();
  }
  EXPECT_EQ(refusedAtOnce, !conn->batchesWrites());
  if (refusedAtOnce) {
    batch->end();
    conn->commit();
    EXPECT_EQ(count("SELECT count(*) FROM b"), 2);
    return;
  }
  const Error refused = thrownBy([&] { batch->end(); });
  EXPECT_EQ(refused.number(), db::kErrBatchRefused);
  EXPECT_FALSE(db::isRowRefusal(refused));
  EXPECT_TRUE(contains(refused.description(), "COPY"));
  // Nothing goes on until the level is rolled back.
  EXPECT_EQ(thrownBy([&] { conn->execute("SELECT count(*) FROM b"); }).number(), db::kErrBatchRefused);
  EXPECT_EQ(thrownBy([&] { conn->commit(); }).number(), db::kErrBatchRefused);
  batch.reset();
  conn->rollback();
  EXPECT_EQ(count("SELECT count(*) FROM b"), 1);
  conn->begin();
  conn->execute("INSERT INTO b (name, n) VALUES ('new', 1)");
  conn->commit();
  EXPECT_EQ(count("SELECT count(*) FROM b"), 2);
}

KAVREL_ON_ENGINES(BatchedWritesTest);

}  // namespace
}  // namespace kavrel::test
