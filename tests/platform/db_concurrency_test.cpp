// Several connections (standing in for processes) on one file, and an engine
// that runs out of room: creation is exclusive, readers see one snapshot and
// never wait for a writer, and a transaction the engine gives up fails as a
// whole with the engine's own error.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "kavrel/platform/db.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

int64_t count(db::Connection& conn, const std::string& sql) {
  auto rs = conn.execute(sql);
  const int64_t n = rs->field(0).toInt64();
  rs->close();
  return n;
}

TEST(DbConcurrency, OfSeveralCreatorsOfOneFileOneWinsAndItsFileStays) {
  TempDir dir;
  for (int round = 0; round < 20; ++round) {
    const std::string path = dir.file("same-" + std::to_string(round) + ".sqlite");
    std::atomic<int> made{0};
    std::vector<std::thread> creators;
    for (int i = 0; i < 4; ++i)
      creators.emplace_back([&] {
        try {
          db::createDatabase(path);
          ++made;
        } catch (const Error&) {
        }
      });
    for (auto& t : creators) t.join();
    ASSERT_EQ(made, 1) << "round " << round;
    // The winner's database is whole: the losers removed nothing.
    auto conn = db::openConnection(path);
    EXPECT_EQ(count(*conn, "SELECT count(*) FROM [system] WHERE [parameter]='version'"), 1) << "round " << round;
  }
}

TEST(DbConcurrency, AReadTransactionSeesOneSnapshotAndDoesNotHoldWritersBack) {
  // A writer held back by the reader would fail after this long.
  ::setenv("KAVREL_LOCK_TIMEOUT", "2", 1);
  TempDb db;
  auto reader = db.connection();
  auto writer = db.openAnother();
  ::unsetenv("KAVREL_LOCK_TIMEOUT");
  writer->execute("CREATE TABLE t (x INTEGER)");
  writer->execute("INSERT INTO t VALUES (1)");

  db::Transaction snapshot(*reader, db::Transaction::Kind::Read);
  EXPECT_EQ(count(*reader, "SELECT count(*) FROM t"), 1);
  {
    db::Transaction tx(*writer);
    writer->execute("INSERT INTO t VALUES (2)");
    tx.commit();  // does not wait for the reader
  }
  EXPECT_EQ(count(*reader, "SELECT count(*) FROM t"), 1);  // still the snapshot
  snapshot.commit();
  EXPECT_EQ(count(*reader, "SELECT count(*) FROM t"), 2);
  // Nested in a write transaction it is an inner level.
  db::Transaction outer(*reader);
  db::Transaction inner(*reader, db::Transaction::Kind::Read);
  EXPECT_EQ(reader->transactionDepth(), 2);
}

TEST(DbConcurrency, ADatabaseThatRunsOutOfRoomFailsTheWholeTransactionWithTheEnginesError) {
  TempDb db;
  auto conn = db.connection();
  conn->execute("CREATE TABLE t (x TEXT)");
  // A small disk: the file may not grow beyond a few pages more.
  const int64_t pages = count(*conn, "PRAGMA page_count");
  conn->execute("PRAGMA max_page_count=" + std::to_string(pages + 4));

  const std::string row = "INSERT INTO t VALUES ('" + repeat("x", 2000) + "')";
  db::Transaction tx(*conn);
  int written = 0;
  Error first = thrownBy([&] {
    for (; written < 1000; ++written) conn->execute(row);
  });
  ASSERT_GT(written, 0);
  EXPECT_TRUE(contains(first.description(), "database or disk is full"));
  // Nothing more runs outside the transaction the engine gave up; each
  // further step, and the commit, report the same failure.
  EXPECT_TRUE(throws([&] { conn->execute("INSERT INTO t VALUES ('small')"); }, first.number(),
                     first.description()));
  Error atCommit = thrownBy([&] { tx.commit(); });
  EXPECT_EQ(atCommit.description(), first.description());
  EXPECT_FALSE(contains(atCommit.description(), "no transaction is active"));
  // The caller's roll-back ends it quietly, and the connection works again.
  conn->rollback();
  EXPECT_EQ(conn->transactionDepth(), 0);
  EXPECT_EQ(count(*conn, "SELECT count(*) FROM t"), 0);
  conn->execute("INSERT INTO t VALUES ('small')");
  EXPECT_EQ(count(*conn, "SELECT count(*) FROM t"), 1);
}

}  // namespace
}  // namespace kavrel::test
