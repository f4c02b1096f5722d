// Legacy Access files: every table of the fixtures read back as its expected
// CSV, the connection forms that reach them, writes refused, bad files.
// The fixtures are read where they lie (../shared/fixtures/legacy).
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

namespace fs = std::filesystem;
using test::contains;
using test::TempDir;

std::string fixtures() { return std::string(KAVREL_SOURCE_DIR) + "/../shared/fixtures/legacy"; }
std::string fixture(const std::string& name) { return fixtures() + "/" + name; }
std::string jet(const std::string& path) {
  return "Provider=Microsoft.Jet.OLEDB.4.0;Mode=ReadWrite;Data source=" + path;
}

// A CSV field: Null (empty, unquoted), a quoted text, or a number.
struct Cell {
  bool null = false;
  bool text = false;
  std::string s;
};
using Row = std::vector<Cell>;

std::vector<Row> parseCsv(const std::string& data) {
  std::vector<Row> rows;
  Row row;
  size_t i = 0;
  while (i < data.size()) {
    Cell c;
    if (data[i] == '"') {
      c.text = true;
      for (++i; i < data.size(); ++i) {
        if (data[i] == '"') {
          if (i + 1 < data.size() && data[i + 1] == '"') {
            c.s += '"';
            ++i;
          } else {
            ++i;
            break;
          }
        } else {
          c.s += data[i];
        }
      }
    } else {
      size_t end = data.find_first_of(",\n", i);
      c.s = data.substr(i, end - i);
      c.null = c.s.empty();
      i = end == std::string::npos ? data.size() : end;
    }
    row.push_back(c);
    if (i < data.size() && data[i] == ',') {
      ++i;
    } else {
      rows.push_back(row);
      row.clear();
      if (i < data.size()) ++i;  // the line feed
    }
  }
  return rows;
}

Cell cellOf(const db::Value& v) {
  Cell c;
  c.null = v.isNull();
  c.text = v.type() == db::Value::Type::Text;
  c.s = v.toText();
  return c;
}

// Null first, then numbers numerically, then texts by code point.
bool cellLess(const Cell& a, const Cell& b) {
  if (a.null != b.null) return a.null;
  if (a.text != b.text) return !a.text;
  if (!a.text) return std::stod(a.s) < std::stod(b.s);
  return a.s < b.s;
}

// A value equals its CSV cell: kind and text exactly, numbers as doubles
// (Single columns as floats).
::testing::AssertionResult sameCell(const Cell& expected, const Cell& got, bool single) {
  bool same = expected.null == got.null && expected.text == got.text;
  if (same && !expected.null) {
    if (expected.text) {
      same = expected.s == got.s;
    } else if (single) {
      same = std::stof(expected.s) == std::stof(got.s);
    } else {
      same = std::stod(expected.s) == std::stod(got.s);
    }
  }
  if (same) return ::testing::AssertionSuccess();
  auto show = [](const Cell& c) { return c.null ? std::string("Null") : c.text ? "\"" + c.s + "\"" : c.s; };
  return ::testing::AssertionFailure() << "expected " << show(expected) << ", got " << show(got);
}

void sortRows(std::vector<Row>& rows) {
  std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), cellLess);
  });
}

TEST(MdbRead, EveryTableOfEveryFixtureAsItsCsv) {
  for (const std::string name : {"definitions-v2000", "definitions-v2003", "empty-v2000"}) {
    SCOPED_TRACE(name);
    auto conn = db::openConnection(jet(fixture(name + ".mdb")));
    int tables = 0;
    for (const auto& entry : fs::directory_iterator(fixtures() + "/expected/" + name)) {
      const std::string table = entry.path().stem().string();
      SCOPED_TRACE(table);
      ++tables;
      std::vector<Row> expected = parseCsv(test::readBytes(entry.path().string()));
      ASSERT_FALSE(expected.empty());
      Row header = expected.front();
      expected.erase(expected.begin());
      auto rs = conn->execute("SELECT * FROM [" + table + "]");
      ASSERT_EQ(rs->fieldCount(), static_cast<int>(header.size()));
      for (int i = 0; i < rs->fieldCount(); ++i) EXPECT_EQ(rs->fieldName(i), header[static_cast<size_t>(i)].s);
      std::vector<Row> got;
      for (; !rs->eof(); rs->moveNext()) {
        Row r;
        for (int i = 0; i < rs->fieldCount(); ++i) r.push_back(cellOf(rs->field(i)));
        got.push_back(r);
      }
      sortRows(expected);
      sortRows(got);
      ASSERT_EQ(got.size(), expected.size());
      const bool single = table == "Titres" || table == "Boutons";
      for (size_t r = 0; r < got.size(); ++r)
        for (size_t c = 0; c < header.size(); ++c)
          EXPECT_TRUE(sameCell(expected[r][c], got[r][c], single && header[c].s == "FontSize"))
              << "row " << r << " column " << header[c].s;
    }
    EXPECT_EQ(tables, 27);
  }
}

TEST(MdbRead, ValuesThatAReaderGetsWrong) {
  auto conn = db::openConnection(jet(fixture("definitions-v2000.mdb")));
  auto one = [&](const std::string& sql) {
    auto rs = conn->execute(sql);
    EXPECT_FALSE(rs->eof()) << sql;
    return rs->eof() ? db::Value() : rs->field(0);
  };
  // Empty texts are not Null; Null texts are.
  EXPECT_EQ(one("SELECT count(*) FROM Requêtes WHERE Commentaire = ''").toInt64(), 6);
  EXPECT_EQ(one("SELECT count(*) FROM Requêtes WHERE Commentaire IS NULL").toInt64(), 0);
  EXPECT_TRUE(one("SELECT XId FROM Fonctions WHERE XId IS NULL").isNull());
  // Bit 31 set: a negative Long Integer; doubles exact; Yes/No as -1.
  EXPECT_EQ(one("SELECT XId FROM Fonctions WHERE Address=89").toInt64(), -1730533135);
  EXPECT_EQ(one("SELECT count(*) FROM Données WHERE CoeffA = 0.08").toInt64() > 0, true);
  EXPECT_EQ(one("SELECT [Référence] FROM Cibles WHERE [Target Id]=1").toInt64(), -1);
  // Multi-line Memo texts keep their line feeds.
  EXPECT_TRUE(contains(one("SELECT Fiche FROM [Fiches Diag] WHERE [Data Id]=4").toText(), "\n"));
  // The next autonumber goes on after the highest id.
  EXPECT_EQ(one("SELECT seq FROM sqlite_sequence WHERE name='Requêtes'").toInt64(), 10);
}

TEST(MdbOpen, SessionFormsReachTheFileAndOnlyLowerCaseMdbIsAccess) {
  TempDir dir;
  const std::string file = fixture("definitions-v2003.mdb");
  // The file name (DbOpen builds the legacy connection string), a data link
  // naming the file, and a bare path through the connection layer.
  test::writeBytes(dir.file("defs.udl"), "[oledb]\n; comment\n" + jet(file) + ";Persist Security Info=False\n");
  for (const std::string& name : {file, dir.file("defs.udl")}) {
    auto s = KavrelDatabase::create();
    s->DbOpen(name);
    EXPECT_TRUE(s->IsKavrelDatabase()) << name;
    s->DbRead();
    EXPECT_FALSE(lastError().pending());
    EXPECT_EQ(s->functions()->Count(), 16);
    int32_t address = 0, id = 0;
    EXPECT_TRUE(s->DbFindUceByName("Injection diesel CAN", address, id));
    auto t = s->NewTarget();
    EXPECT_TRUE(t->dbReadTargetAll(*s->DbConnection(), address, id));
    EXPECT_EQ(t->Requests()->Count(), 5);
    s->DbClose();
  }
  EXPECT_EQ(db::openConnection(file)->execute("SELECT count(*) FROM Cibles")->field(0).toInt64(), 2);
  // ".MDB" is not the legacy form: the name is taken as an SQLite file.
  fs::create_symlink(file, dir.file("UPPER.MDB"));
  auto e = test::thrownBy<DbError>([&] { KavrelDatabase::create()->DbOpen(dir.file("UPPER.MDB")); });
  EXPECT_EQ(e.source(), "SQLite");
}

TEST(MdbWrite, EveryChangeIsRefusedNamingTheFileAndNothingChanges) {
  const std::string file = fixture("definitions-v2000.mdb");
  auto conn = db::openConnection(jet(file));
  auto refused = [&](auto&& f) {
    Error e = test::thrownBy([&] { f(); });
    return e.number() == 3027 && contains(e.description(), file) && contains(e.description(), "convert it first") &&
           conn->errors().size() == 1 && conn->errors().back().number() == 3027;
  };
  for (const char* sql : {"INSERT INTO Cibles (Address,[Target Name]) VALUES (1,'x')", "UPDATE Cibles SET Address=1",
                          "DELETE * FROM Cibles", "DROP TABLE Cibles", "CREATE TABLE t (x)",
                          "CREATE TEMP TABLE t (x)", "PRAGMA query_only=0", "ATTACH ':memory:' AS other"})
    EXPECT_TRUE(refused([&] { conn->execute(sql); })) << sql;
  auto rs = conn->openUpdatable("SELECT [Target Id],[Target Name] FROM Cibles");
  EXPECT_FALSE(rs->eof());  // reading through it works
  EXPECT_TRUE(refused([&] { rs->setField("Target Name", "x"); }));
  EXPECT_TRUE(refused([&] { rs->addNew(); }));
  EXPECT_TRUE(refused([&] { rs->deleteCurrent(); }));
  EXPECT_TRUE(refused([&] { rs->update(); }));
  rs->close();
  {
    db::Transaction tx(*conn);  // transactions open and close
    tx.commit();
  }
  // Through the session: an insert and a deletion reach the caller refused.
  auto s = KavrelDatabase::create();
  s->DbOpen(file);
  s->DbRead();
  int32_t address = 0, id = 0;
  ASSERT_TRUE(s->DbFindUceByName("Injection diesel CAN", address, id));
  auto t = s->NewTarget();
  t->dbReadTargetAll(*s->DbConnection(), address, id);
  EXPECT_EQ(test::thrownBy([&] { t->dbInsertTargetAll(*s->DbConnection()); }).number(), 3027);
  clearLastError();
  EXPECT_EQ(test::thrownBy([&] { s->DbDeleteUce(); }).number(), 3027);
  EXPECT_EQ(conn->execute("SELECT count(*) FROM Cibles")->field(0).toInt64(), 2);
  s->DbClose();
}

TEST(MdbOpen, BadFilesGiveNumberedErrorsAndCreateNothing) {
  TempDir dir;
  const std::string good = test::readBytes(fixture("definitions-v2003.mdb"));
  test::writeBytes(dir.file("text.mdb"), std::string(5000, 'x'));
  test::writeBytes(dir.file("empty.mdb"), "");
  test::writeBytes(dir.file("truncated.mdb"), good.substr(0, 300000));
  test::writeBytes(dir.file("header.mdb"), good.substr(0, 2048));
  fs::create_directory(dir.file("folder.mdb"));
  struct Case {
    const char* name;
    int32_t number;
    const char* part;
  } cases[] = {
      {"missing.mdb", 53, "does not exist"},       {"folder.mdb", 75, "folder"},
      {"text.mdb", 3343, "not an Access database"}, {"empty.mdb", 3343, "not an Access database"},
      {"truncated.mdb", 3343, "truncated"},         {"header.mdb", 3343, ""},
  };
  std::vector<std::string> before;
  for (const auto& f : fs::directory_iterator(dir.path())) before.push_back(f.path().string());
  for (const auto& c : cases) {
    const std::string path = dir.file(c.name);
    auto e = test::thrownBy<DbError>([&] { db::openConnection(jet(path)); });
    EXPECT_EQ(e.number(), c.number) << c.name;
    EXPECT_TRUE(contains(e.description(), path)) << c.name;
    EXPECT_TRUE(contains(e.description(), c.part)) << c.name;
  }
  std::vector<std::string> after;
  for (const auto& f : fs::directory_iterator(dir.path())) after.push_back(f.path().string());
  EXPECT_EQ(after.size(), before.size());
  // Another application's file opens, and is told apart by the identity check.
  std::string other = good;
  const std::string from("s\0y\0s\0t\0e\0m\0", 12), to("S\0i\0s\0t\0e\0m\0", 12);
  for (size_t at = other.find(from); at != std::string::npos; at = other.find(from, at)) other.replace(at, 12, to);
  test::writeBytes(dir.file("other.mdb"), other);
  auto s = KavrelDatabase::create();
  s->DbOpen(dir.file("other.mdb"));
  EXPECT_FALSE(s->IsKavrelDatabase());
  EXPECT_EQ(lastError().number, 3);
  clearLastError();
}

}  // namespace
}  // namespace kavrel
