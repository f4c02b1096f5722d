// Connection strings, data-link files, database creation, nested
// transactions and a second writer waiting.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "support/engines.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

bool opensVersionFour(const std::string& connection) {
  auto rs = db::openConnection(connection)->execute("SELECT [value] FROM [system] WHERE [parameter]='version'");
  return !rs->eof() && rs->field(0).toText() == "4";
}

// Opening `connection` is refused with a description naming `part`.
::testing::AssertionResult refusedNaming(const std::string& connection, const std::string& part) {
  return contains(thrownBy<DbError>([&] { db::openConnection(connection); }).description(), part);
}

std::string utf16le(std::string_view ascii) {
  std::string out;
  for (char c : ascii) out += std::string{c, '\0'};
  return out;
}

TEST(DbConnection, OpensBarePathsAndKeyValueFormsAndRefusesNamingTheFile) {
  TempDb db;
  EXPECT_TRUE(opensVersionFour(db.path()));
  EXPECT_TRUE(opensVersionFour("Provider=SQLite;Data Source=" + db.path()));
  EXPECT_TRUE(opensVersionFour("data source = \"" + db.path() + "\" ; Mode=ReadWrite"));
  auto c = db::openConnection("Data source=" + db.path());
  EXPECT_EQ(c->description(), "Data source=" + db.path());
  c->close();
  EXPECT_FALSE(c->isOpen());
  EXPECT_THROW(c->execute("SELECT 1"), DbError);
  const std::string missing = db.dir().file("absent.sqlite"), notADatabase = db.dir().file("notes.txt");
  writeBytes(notADatabase, std::string(2048, 'x'));
  EXPECT_TRUE(refusedNaming(missing, missing));
  EXPECT_TRUE(refusedNaming("Provider=SQLite;Data Source=" + missing, missing));
  EXPECT_FALSE(std::filesystem::exists(missing));
  EXPECT_TRUE(refusedNaming(notADatabase, notADatabase));
  // A missing legacy file and unknown providers are refused by name.
  const std::string jet = "Provider=Microsoft.Jet.OLEDB.4.0;Mode=ReadWrite;Data source=C:\\Bases\\X.mdb";
  EXPECT_TRUE(refusedNaming(jet, "does not exist"));
  EXPECT_TRUE(refusedNaming(jet, "C:\\Bases\\X.mdb"));
  EXPECT_TRUE(refusedNaming("Provider=Other.Engine;Data Source=a.db", "Other.Engine"));
  // An existing file is never overwritten.
  auto e = thrownBy<DbError>([&] { db::createDatabase(db.path()); });
  EXPECT_EQ(e.number(), 58);
  EXPECT_TRUE(contains(e.description(), db.path()));
  EXPECT_TRUE(opensVersionFour(db.path()));  // untouched
  EXPECT_THROW(db::createDatabase(db.dir().file("no/such/folder/x.sqlite")), DbError);
}

TEST(DbConnection, DataLinkFilesInUtf16AndUtf8) {
  TempDir dir;
  db::createDatabase(dir.file("Définitions.sqlite"));
  const std::string header = "[oledb]\r\n; Everything after this line is an OLE DB initstring\r\n";
  // UTF-16 LE with its byte-order mark, as such files are written (the
  // folder is ASCII; the file name's "é" is U+00E9).
  writeBytes(dir.file("wide.udl"), "\xFF\xFE" + utf16le(header + "Provider=SQLite;Data Source=" +
                                                        dir.path().string() + "/D") +
                                       std::string("\xE9\0", 2) + utf16le("finitions.sqlite\r\n"));
  // UTF-8, with a data source relative to the link file's folder.
  writeBytes(dir.file("narrow.udl"), "[oledb]\n; comment\nData Source=Définitions.sqlite\n");
  // A link naming another link is followed.
  writeBytes(dir.file("chained.udl"), "[oledb]\n; comment\nFile Name=" + dir.file("wide.udl") + "\n");
  for (const char* link : {"wide.udl", "narrow.udl", "chained.udl"})
    EXPECT_TRUE(opensVersionFour("File name=" + dir.file(link))) << link;
  // A link naming the legacy engine is refused with the file it names; a
  // missing or empty link with its own name.
  writeBytes(dir.file("jet.udl"), "[oledb]\n; comment\nProvider=Microsoft.Jet.OLEDB.4.0;Data Source=C:\\old.mdb;"
                                  "Persist Security Info=False\n");
  EXPECT_TRUE(refusedNaming("File name=" + dir.file("jet.udl"), "C:\\old.mdb"));
  EXPECT_TRUE(refusedNaming("File name=" + dir.file("missing.udl"), dir.file("missing.udl")));
  writeBytes(dir.file("empty.udl"), "[oledb]\n; nothing follows\n");
  EXPECT_TRUE(refusedNaming("File name=" + dir.file("empty.udl"), dir.file("empty.udl")));
  // A folder where a data-link file is expected (named .udl or not) and a
  // file too large to be one are numbered errors, not stream exceptions.
  std::filesystem::create_directory(dir.file("folder.udl"));
  EXPECT_TRUE(refusedNaming("File name=" + dir.file("folder.udl"), "it is a folder"));
  EXPECT_TRUE(refusedNaming("File name=" + dir.path().string(), dir.path().string()));
  writeBytes(dir.file("huge.udl"), "[oledb]\n" + std::string(2 << 20, ';'));
  EXPECT_TRUE(refusedNaming("File name=" + dir.file("huge.udl"), "too large"));
}

class TransactionTest : public EngineTest {
 protected:
  void SetUp() override { conn->execute("CREATE TABLE t (v INTEGER)"); }
  int64_t rows() { return conn->execute("SELECT count(*) FROM t")->field(0).toInt64(); }
  void add(int v) { conn->execute("INSERT INTO t VALUES (" + std::to_string(v) + ")"); }
  TempDb db;
  std::shared_ptr<db::Connection> conn = db.connection();
};

TEST_P(TransactionTest, NestedLevelsCommitAndRollBackApart) {
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
    db::Transaction inner(*conn);
    add(3);
    inner.commit();
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

TEST_P(TransactionTest, ASecondWriterWaitsInsteadOfFailing) {
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

KAVREL_ON_ENGINES(TransactionTest);

}  // namespace
}  // namespace kavrel::test
