// Read-ahead (Connection::readAhead): whatever was sent ahead, every
// statement gives what running it at that moment gives: the same rows in
// the same order, the same refusal, the rows a write made in between.
#include <gtest/gtest.h>

#include "platform/postgres/pg_backend.h"
#include "support/engines.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

class ReadAheadTest : public EngineTest {
 protected:
  void SetUp() override {
    conn = db.connection();
    conn->execute("CREATE TABLE p (id INTEGER PRIMARY KEY, name TEXT, n INTEGER, note TEXT)");
    conn->execute("CREATE TABLE c (pid INTEGER, v INTEGER)");
    db::Transaction tx(*conn);
    for (int i = 1; i <= 300; ++i) {
      // Texts in several letter cases and accents, for the server's collation.
      const char* stems[] = {"Élan", "elan", "Zèbre", "abc", "ÉTÉ"};
      const std::string name = stems[i % 5] + std::to_string(i % 7);
      conn->execute("INSERT INTO p VALUES (" + std::to_string(i) + ", '" + name + "', " +
                    std::to_string((i * 37) % 11) + ", '" + name + "')");
      conn->execute("INSERT INTO c VALUES (" + std::to_string(i) + ", " + std::to_string(i * 3) + ")");
    }
    tx.commit();
  }
  // Every row of a forward and of a client result, in order.
  std::string forward(const std::string& sql) { return joinedRows(*conn, sql, ";"); }
  std::string client(const std::string& sql) {
    auto rs = conn->openClient(sql);
    std::string out;
    for (; !rs->eof(); rs->moveNext()) {
      for (int f = 0; f < rs->fieldCount(); ++f) out += rs->fieldName(f) + "=" + rs->field(f).toText() + ",";
      out += ";";
    }
    return out;
  }
  db::postgres::ReadAheadCounts counts() const { return db::postgres::readAheadCounts(*conn); }

  const std::vector<std::string> statements = {
      "SELECT id, name, n FROM p ORDER BY n DESC, [id]",
      "SELECT * FROM c WHERE v > 30",
      "SELECT p.name, c.v FROM p INNER JOIN c ON p.id = c.pid ORDER BY c.v DESC",
      "SELECT n, count(*) FROM p GROUP BY n ORDER BY n",
      // Sorted by the server's collation, not by the name rule.
      "SELECT id, note FROM p ORDER BY note, id",
  };
  TempDb db;
  std::shared_ptr<db::Connection> conn;
};

TEST_P(ReadAheadTest, RowsAreThoseOfRunningEachStatementInAnyOrderInOrOutOfATransaction) {
  std::vector<std::string> plain, plainClient;
  for (const auto& sql : statements) {
    plain.push_back(forward(sql));
    plainClient.push_back(client(sql));
  }
  for (bool inTransaction : {false, true}) {
    SCOPED_TRACE(inTransaction ? "in a transaction" : "outside one");
    if (inTransaction) conn->beginRead();
    {
      db::ReadAhead ahead(*conn, statements);
      // Taken out of order, as forward and as client results.
      EXPECT_EQ(client(statements[2]), plainClient[2]);
      EXPECT_EQ(forward(statements[0]), plain[0]);
      EXPECT_EQ(forward(statements[3]), plain[3]);
      EXPECT_EQ(client(statements[1]), plainClient[1]);
      EXPECT_EQ(forward(statements[4]), plain[4]);
      // Asked again: run again, same rows.
      EXPECT_EQ(forward(statements[0]), plain[0]);
    }
    if (inTransaction) conn->commit();
  }
  if (onServer()) {
    EXPECT_EQ(counts().sent, 10);
    EXPECT_EQ(counts().used, 10);
    EXPECT_EQ(counts().dropped, 0);
  }
}

TEST_P(ReadAheadTest, AnythingElseOnTheConnectionEndsItAndLaterReadsSeeTheWrite) {
  db::ReadAhead ahead(*conn, statements);
  EXPECT_EQ(forward("SELECT count(*) FROM c WHERE v > 30"), "290");  // not among them
  conn->execute("INSERT INTO c VALUES (999, 5000)");
  // Sent before the write, asked after it: the write is there.
  EXPECT_NE(forward(statements[1]).find("999"), std::string::npos);
  // Non-SELECT texts and a second read-ahead are harmless.
  conn->readAhead({"DELETE * FROM c", "SELECT count(*) FROM c"});
  conn->readAhead({"SELECT count(*) FROM c"});
  EXPECT_EQ(forward("SELECT count(*) FROM c"), "301");
  EXPECT_EQ(forward("SELECT count(*) FROM c WHERE pid = 999"), "1");  // the DELETE was never run
  if (onServer()) {
    EXPECT_EQ(counts().dropped, 5 + 1);  // the first list, then the second read-ahead's
  }
}

TEST_P(ReadAheadTest, AFailedStatementFailsWhenAskedAndTheRestAndTheTransactionGoOn) {
  const std::vector<std::string> withFailure = {statements[0], "SELECT nothing FROM missing_table", statements[1],
                                                statements[3]};
  std::string expected;
  try {
    conn->execute(withFailure[1]);
  } catch (const Error& e) {
    expected = e.description();
  }
  ASSERT_FALSE(expected.empty());
  const std::string rows0 = forward(statements[0]), rows1 = forward(statements[1]);
  for (bool inTransaction : {false, true}) {
    SCOPED_TRACE(inTransaction ? "in a transaction" : "outside one");
    if (inTransaction) conn->begin();
    {
      db::ReadAhead ahead(*conn, withFailure);
      EXPECT_EQ(forward(withFailure[0]), rows0);
      try {
        conn->execute(withFailure[1]);
        ADD_FAILURE() << "the failing statement gave rows";
      } catch (const Error& e) {
        EXPECT_EQ(e.description(), expected);
        ASSERT_FALSE(conn->errors().empty());
      }
      EXPECT_EQ(forward(withFailure[2]), rows1);
    }
    if (inTransaction) {
      conn->execute("INSERT INTO c VALUES (1000, 1)");
      conn->commit();
      EXPECT_EQ(forward("SELECT count(*) FROM c WHERE pid = 1000"), "1");
    }
  }
}

TEST_P(ReadAheadTest, ClosingOrDroppingTheConnectionMidWayNeitherHangsNorCrashes) {
  conn->readAhead(statements);
  (void)forward(statements[0]);
  conn->close();
  EXPECT_THROW(conn->execute(statements[1]), Error);
  auto other = db::openConnection(db.path());
  other->readAhead(statements);
  other.reset();  // destroyed with results still coming
}

KAVREL_ON_ENGINES(ReadAheadTest);

}  // namespace
}  // namespace kavrel::test
