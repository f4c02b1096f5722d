// Nested transactions, rollback on destruction and a second writer waiting.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "support/temp_db.h"

namespace kavrel::test {
namespace {


class TransactionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = db.connection();
    conn->execute("CREATE TABLE t (v INTEGER)");
  }
  int64_t rows() { return conn->execute("SELECT count(*) FROM t")->field(0).toInt64(); }
  void add(int v) { conn->execute("INSERT INTO t VALUES (" + std::to_string(v) + ")"); }
  TempDb db;
  std::shared_ptr<db::Connection> conn;
};

TEST_F(TransactionTest, NestedLevelsCommitAndRollBackApart) {
  add(0);  // outside a transaction a statement stands at once
  EXPECT_EQ(db.openAnother()->execute("SELECT count(*) FROM t")->field(0).toInt64(), 1);
  {
    db::Transaction outer(*conn);
    add(1);
    {
      db::Transaction inner(*conn);
      EXPECT_EQ(conn->transactionDepth(), 2);
      add(2);
    }  // not committed: only the inner work is undone
    EXPECT_EQ(conn->transactionDepth(), 1);
    EXPECT_EQ(rows(), 2);
    {
      db::Transaction inner(*conn);
      add(3);
      inner.commit();
    }
    outer.commit();
  }
  EXPECT_EQ(conn->transactionDepth(), 0);
  EXPECT_EQ(rows(), 3);
  {
    db::Transaction dropped(*conn);
    add(4);
    db::Transaction inner(*conn);
    add(5);
    inner.commit();
  }  // the outer level drops what the committed inner level did
  EXPECT_EQ(rows(), 3);
  EXPECT_THROW(conn->commit(), DbError);
  EXPECT_THROW(conn->rollback(), DbError);
}

TEST_F(TransactionTest, ASecondWriterWaitsInsteadOfFailing) {
  auto other = db.openAnother();
  conn->begin();
  add(1);
  std::exception_ptr failure;
  std::thread writer([&] {
    try {
      other->begin();  // waits for the first writer's commit
      other->execute("INSERT INTO t VALUES (2)");
      other->commit();
    } catch (...) {
      failure = std::current_exception();
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  conn->commit();
  writer.join();
  if (failure) std::rethrow_exception(failure);
  EXPECT_EQ(rows(), 2);
}

}  // namespace
}  // namespace kavrel::test
