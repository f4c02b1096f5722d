// Conversion into a new SQLite definitions database: the legacy fixtures
// (read where they lie), an older-layout database, and the sources and
// destinations that must be refused without leaving a file behind.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

namespace fs = std::filesystem;
using test::TempDir;

std::string fixture(const std::string& name) {
  return std::string(KAVREL_SOURCE_DIR) + "/../shared/fixtures/legacy/" + name;
}
std::string example(const std::string& name) { return std::string(KAVREL_SOURCE_DIR) + "/examples/" + name; }

std::string exportOf(const std::string& database, const std::string& target, const TempDir& dir) {
  const std::string out = dir.file("export.xml");
  fs::remove(out);
  KavrelDatabase::create()->ExportNamedUceToXml(database, target, out);
  return test::readBytes(out);
}

int64_t count(const std::string& database, const std::string& sql) {
  auto conn = db::openConnection(database);
  int64_t n = conn->execute(sql)->field(0).toInt64();
  conn->close();
  return n;
}

TEST(ConvertDatabase, EachFixtureGivesADatabaseWithTheSameExportsAndIds) {
  for (const std::string name : {"definitions-v2000", "definitions-v2003", "empty-v2000"}) {
    SCOPED_TRACE(name);
    TempDir dir;
    const std::string out = dir.file("converted.db");
    std::vector<db::TableCopy> lines;
    auto tables = convertDatabase(fixture(name + ".mdb"), out, [&](const db::TableCopy& t) { lines.push_back(t); });
    ASSERT_EQ(lines.size(), 27u);
    int64_t rows = 0;
    for (const auto& t : lines) {
      EXPECT_EQ(t.rowsRead, t.rowsWritten) << t.table;
      rows += t.rowsWritten;
    }
    EXPECT_EQ(rows, name == "empty-v2000" ? 42 : 142);
    auto session = KavrelDatabase::create();
    session->DbOpen(out);
    EXPECT_TRUE(session->IsKavrelDatabase());
    session->DbClose();
    if (name == "empty-v2000") continue;
    EXPECT_EQ(exportOf(out, "Injection essence KWP 5 bauds", dir), test::readBytes(example("kline_target.xml")));
    EXPECT_EQ(exportOf(out, "Injection diesel CAN", dir), test::readBytes(example("can_target.xml")));
    // Ids kept; the next target goes after the highest id.
    EXPECT_EQ(count(out, "SELECT [Target Id] FROM Cibles WHERE [Target Name]='Injection diesel CAN'"), 2);
    auto s = KavrelDatabase::create();
    s->DbOpen(out);
    s->DbRead();
    s->ImportUceFromXml(example("can_target.xml"));
    s->ActiveTarget()->setName("Copie");
    s->ActiveTarget()->dbInsertTargetAll(*s->DbConnection());
    EXPECT_EQ(s->ActiveTarget()->targetid(), 3);
    EXPECT_EQ(count(out, "SELECT min([Request Id]) FROM Requêtes WHERE [Target Id]=3"), 11);
    s->DbClose();
  }
}

TEST(ConvertDatabase, OlderLayoutIsReadTargetByTargetAndWrittenThroughTheInserts) {
  TempDir dir;
  {
    test::OlderLayoutDb old;
    db::Connection& c = *old.conn;
    c.execute("INSERT INTO Fonctions (Address,[Function Name]) VALUES (122,'Freinage'), (123,'Moteur')");
    c.execute("INSERT INTO Protocoles ([Protocol Name],[Init mode],Multipoint) VALUES ('KWP',1,0)");
    c.execute("INSERT INTO Cibles (Address,[Target Name]) VALUES (122,'ABS ancien'), (123,'Moteur d''hier'), "
              "(124,'Sans fonction')");
    for (int id : {1, 2, 3})
      c.execute("INSERT INTO [Paramètres UCE] ([Ecu Id],[Init Mode],[Baud Rate],Multipoint,[Little Endian]) VALUES (" +
                std::to_string(id) + ",0,10400,0,0)");
    c.execute("INSERT INTO Requêtes ([Request Id],Address,[Target Id],[Request Name],[Request Bytes],[Length Datas]) "
              "VALUES (1,122,1,'Lire','21 01',4), (2,123,2,'Lire','21 02',2)");
    c.execute("INSERT INTO Données (Address,[Target Id],[Request Id],[Data Name],Numérique,Liste,Param,Start,Length,"
              "NumBitFort,NumBitFaible) VALUES (122,1,1,'Vitesse',-1,0,0,3,1,7,0), (122,1,1,'Mode',-1,-1,0,4,1,7,0),"
              "(123,2,2,'Régime',-1,0,0,3,2,7,0)");
    c.execute("INSERT INTO Listes ([Data Id],Valeur,Numérique,Liste,Libellé) VALUES (2,1,-1,-1,'marche')");
    std::vector<db::TableCopy> lines;
    convertDatabase(old.path, dir.file("new.db"), [&](const db::TableCopy& t) { lines.push_back(t); });
    ASSERT_EQ(lines.size(), 27u);
    for (const auto& t : lines) {
      if (t.table == "Requêtes") {
        EXPECT_EQ(t.rowsRead, 2);
        EXPECT_EQ(t.rowsWritten, 2);
      }
      if (t.table == "Cibles" || t.table == "Fonctions") {
        EXPECT_EQ(t.rowsRead, t.table == "Cibles" ? 3 : 2) << t.table;
        EXPECT_EQ(t.rowsWritten, 3) << t.table;  // the target without a function gets one
      }
      if (t.table == "Organes" || t.table == "Type Panne") {
        EXPECT_EQ(t.rowsRead, -1) << t.table;  // not in that layout
      }
    }
  }
  const std::string out = dir.file("new.db");
  EXPECT_EQ(count(out, "SELECT count(*) FROM [Emplacement Donnée]"), 3);
  EXPECT_EQ(count(out, "SELECT count(*) FROM [Type Organe]"), 1);  // the readers' default entries
  auto s = KavrelDatabase::create();
  s->DbOpen(out);
  EXPECT_TRUE(s->IsKavrelDatabase());
  s->DbClose();
  const std::string xml = exportOf(out, "ABS ancien", dir);
  EXPECT_TRUE(test::contains(xml, "<Function Name=\"Freinage\" Address=\"122\"/>"));
  EXPECT_TRUE(test::contains(xml, "Name=\"Mode\""));
  EXPECT_TRUE(test::contains(xml, "marche"));
  EXPECT_TRUE(test::contains(exportOf(out, "Moteur d'hier", dir), "Name=\"Régime\""));
}

TEST(ConvertDatabase, RefusedSourcesAndDestinationsLeaveNoFile) {
  TempDir dir;
  test::TempDb good;
  // Sources that are not definitions databases: the identity check's errors.
  auto noSystem = dir.file("no-system.db"), noVersion = dir.file("no-version.db"), future = dir.file("v5.db");
  for (const auto& [path, sql] : {std::pair{noSystem, "CREATE TABLE t (x)"},
                                  {noVersion, "CREATE TABLE [system] ([parameter] TEXT, [value] TEXT)"},
                                  {future, "CREATE TABLE [system] ([parameter] TEXT, [value] TEXT)"}}) {
    test::writeBytes(path, "");
    auto c = db::openConnection(path);
    c->execute(sql);
    if (path == future) c->execute("INSERT INTO [system] VALUES ('version','5')");
    c->close();
  }
  // A version-4 source with a column the schema does not have: its data
  // would be lost, so the copy stops half-way and the file goes.
  test::TempDb extra;
  extra.connection()->execute("ALTER TABLE Requêtes ADD COLUMN Note TEXT");
  extra.connection()->close();
  const std::string existing = dir.file("existing.db");
  test::writeBytes(existing, "keep");
  struct Case {
    std::string source, destination;
    int32_t number;
    std::string part;
  } cases[] = {
      {noSystem, dir.file("a.db"), 3, "system table missing"},
      {noVersion, dir.file("b.db"), 4, "version undefined"},
      {future, dir.file("c.db"), 5, "Bad version"},
      {dir.file("missing.mdb"), dir.file("d.db"), 53, "does not exist"},
      {extra.path(), dir.file("e.db"), 3001, "[Note]"},
      {good.path(), existing, 58, "already exists"},
      {good.path(), dir.file("f.mdb"), 3001, "only read"},
  };
  for (const auto& c : cases) {
    Error e = test::thrownBy([&] { convertDatabase(c.source, c.destination); });
    EXPECT_EQ(e.number(), c.number) << c.source;
    EXPECT_TRUE(test::contains(e.description(), c.part)) << c.source;
    if (c.destination != existing) {
      EXPECT_FALSE(fs::exists(c.destination)) << c.destination;
    }
  }
  EXPECT_EQ(test::readBytes(existing), "keep");
  clearLastError();
}

}  // namespace
}  // namespace kavrel
