#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

const std::string kExample = std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml";

using test::thrownBy;
using test::throws;

void expectPending(int32_t number, const std::string& reportedSource, const std::string& description) {
  EXPECT_TRUE(test::recorded(number, description));
  EXPECT_EQ(lastError().reportedSource(), reportedSource);
}

int64_t count(db::Connection& conn, const std::string& sql) { return conn.execute(sql)->field(0).toInt64(); }

// A session opened on a fresh database.
struct OpenSession {
  test::TempDb tdb;
  std::shared_ptr<KavrelDatabase> s = KavrelDatabase::create();
  OpenSession() { s->DbOpen(tdb.path()); }
  db::Connection& conn() { return *s->DbConnection(); }
};

// ---- open and close

TEST(SessionOpen, NameRequiredSecondOpenRefusedAndTheFileNameSetterClosesAndForgets) {
  auto s = KavrelDatabase::create();
  EXPECT_TRUE(throws([&] { s->DbOpen(); }, 2, "Error database name not defined", "KavrelDatabase"));
  test::TempDb tdb;
  s->DbOpen(tdb.path());
  EXPECT_EQ(s->fileName(), tdb.path());
  auto first = s->DbConnection();
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(throws([&] { s->DbOpen(tdb.path()); }, 1, "Database already open", "KavrelDatabase.DbOpen"));
  EXPECT_EQ(s->DbConnection(), first);
  // Closed, the stored name is opened again.
  s->DbClose();
  EXPECT_EQ(s->DbConnection(), nullptr);
  s->DbOpen();
  EXPECT_NE(s->DbConnection(), nullptr);
  s->DbRead();
  s->NewTarget();
  ASSERT_NE(s->functions(), nullptr);
  s->setFileName("other");
  EXPECT_EQ(s->fileName(), "other");
  EXPECT_EQ(s->DbConnection(), nullptr);
  EXPECT_EQ(s->ActiveTarget(), nullptr);
  EXPECT_TRUE(!s->functions() && !s->protocols() && !s->typeOrganes() && !s->Pannes());
  // Destroyed open with a target, a session closes quietly.
  {
    auto other = KavrelDatabase::create();
    other->DbOpen(tdb.path());
    other->DbRead();
    other->NewTarget();
    recordError(7, "x", "pending");
  }
  EXPECT_FALSE(lastError().pending());
}

TEST(SessionOpen, ConnectionStringChosenByCaseSensitiveExtension) {
  test::TempDir dir;
  auto s = KavrelDatabase::create();
  // ".mdb" selects the legacy engine, which is refused naming the file.
  const std::string mdb = dir.file("defs.mdb");
  EXPECT_TRUE(test::contains(thrownBy([&] { s->DbOpen(mdb); }).description(), mdb));
  EXPECT_EQ(s->DbConnection(), nullptr);
  EXPECT_EQ(s->fileName(), mdb);
  // ".MDB" is not recognised: the name is used as it is (a database path).
  const std::string upper = dir.file("defs.MDB");
  KavrelDatabase::createDatabase(upper);
  s->DbOpen(upper);
  EXPECT_TRUE(s->IsKavrelDatabase());
  s->DbClose();
  // ".udl": a data-link file naming the data source.
  const std::string udl = dir.file("defs.udl");
  test::writeBytes(udl, "[oledb]\r\n; Everything after this line is an OLE DB initstring\r\n"
                        "Provider=SQLite;Data Source=" + upper + "\r\n");
  s->DbOpen(udl);
  EXPECT_TRUE(s->IsKavrelDatabase());
}

// ---- identity and version

class SessionVersion : public ::kavrel::test::EngineTest {};

TEST_P(SessionVersion, OnlyVersionFourIsAKavrelDatabase) {
  OpenSession o;
  EXPECT_TRUE(o.s->IsKavrelDatabase());
  o.s->CheckDatabaseVersion();
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(o.s->dbVersion(), "4");
  // Another version is recorded by one check and cleared by the other.
  for (const char* v : {"3", "4.0", " 4"}) {
    SCOPED_TRACE(v);
    o.conn().execute(std::string("UPDATE [system] SET [value]='") + v + "' WHERE [parameter]='version'");
    EXPECT_FALSE(o.s->IsKavrelDatabase());
    expectPending(5, "KavrelDatabase.IsKavrelDatabase",
                  "Bad version, use builder to convert database to lastest version");
    EXPECT_EQ(o.s->dbVersion(), v);
  }
  o.s->CheckDatabaseVersion();
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(o.s->dbVersion(), " 4");
  o.conn().execute("DELETE FROM [system]");
  EXPECT_FALSE(o.s->IsKavrelDatabase());
  expectPending(4, "KavrelDatabase.IsKavrelDatabase", "version undefined, database is not a Kavrel database");
  EXPECT_EQ(o.s->dbVersion(), "-1");
  o.s->CheckDatabaseVersion();
  expectPending(4, "KavrelBuilderLibrary", "version undefined, bad Kavrel database");
  o.conn().execute("DROP TABLE [system]");
  EXPECT_FALSE(o.s->IsKavrelDatabase());
  expectPending(3, "KavrelDatabase.IsKavrelDatabase", "system table missing, database is not a Kavrel database");
  EXPECT_EQ(o.s->dbVersion(), "-1");
  o.s->CheckDatabaseVersion();
  expectPending(3, "KavrelBuilderLibrary", "system table missing, database is not a Kavrel database");
  EXPECT_EQ(lastError().source, "");
  clearLastError();
  auto closed = KavrelDatabase::create();
  EXPECT_FALSE(closed->IsKavrelDatabase());  // no connection
  EXPECT_EQ(lastError().number, 3);
}

// ---- catalogues

class SessionRead : public ::kavrel::test::EngineTest {};

TEST_P(SessionRead, NeedsANameAndPutsDefaultsForMissingTypeTables) {
  auto s = KavrelDatabase::create();
  Error e = thrownBy([&] { s->DbRead(); });
  EXPECT_EQ(e.number(), 2);
  EXPECT_EQ(e.rawSource(), "");
  EXPECT_EQ(e.description(), "Error database not defined");
  EXPECT_THROW(s->dbReadKVR(), Error);
  EXPECT_EQ(thrownBy([&] { s->importParametersFromXml(kExample); }).number(), 2);
  test::TempDb tdb;
  for (const char* sql : {"DROP TABLE [Type Organe]", "DROP TABLE [Type Panne]",
                          "INSERT INTO [Fonctions] ([Address],[Function Name]) VALUES (122,'Moteur')"})
    tdb.connection()->execute(sql);
  tdb.connection()->close();
  s->setFileName(tdb.path());
  s->DbRead();  // opens the file
  EXPECT_NE(s->DbConnection(), nullptr);
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(s->functions()->Count(), 1);
  EXPECT_EQ(s->protocols()->Count(), 0);
  auto only = [](const auto& c) {
    return c->Count() == 1 ? std::to_string(c->Item(1)->id()) + " " + c->Item(1)->libelle() : "?";
  };
  EXPECT_EQ(only(s->typeOrganes()), "1 Entrée");
  EXPECT_EQ(only(s->Pannes()), "0 Ne contient pas de pannes");
}

TEST_P(SessionRead, MissingFunctionsOrProtocolsStopTheRead) {
  OpenSession o;
  o.s->DbRead();
  auto oldProtocols = o.s->protocols();
  auto oldTypes = o.s->typeOrganes();
  o.conn().execute("DROP TABLE [Protocoles]");
  o.s->DbRead();
  expectPending(1, "KavrelBuilderLibrary", "No protocol defined in database, bad database");
  EXPECT_NE(o.s->protocols(), oldProtocols);  // replaced before the failing read
  EXPECT_EQ(o.s->typeOrganes(), oldTypes);    // not reached
  o.conn().execute("DROP TABLE [Fonctions]");
  auto protocolsNow = o.s->protocols();
  o.s->dbReadKVR();
  expectPending(1, "KavrelBuilderLibrary", "No function defined in database, bad database");
  EXPECT_EQ(o.s->protocols(), protocolsNow);
  EXPECT_EQ(o.s->typeOrganes(), oldTypes);
}

TEST_P(SessionRead, OlderLayout) {
  test::OlderLayoutDb old;
  old.conn->execute("INSERT INTO Fonctions (Address,[Function Name]) VALUES (88,'Freinage')");
  auto s = KavrelDatabase::create();
  s->setFileName(old.path);
  s->dbReadKVR();  // opens the file
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(s->functions()->Count(), 1);
  EXPECT_EQ(s->functions()->Item(1)->CanXId(), -1);
  EXPECT_EQ(s->typeOrganes()->Count(), 1);  // the layout has no type tables: the defaults
  EXPECT_EQ(s->Pannes()->Count(), 1);
  EXPECT_EQ(s->dbVersion(), "");  // not read by the catalogues
  EXPECT_FALSE(s->IsKavrelDatabase());
  EXPECT_EQ(s->dbVersion(), "3");
}

// ---- targets

class SessionTargets : public ::kavrel::test::EngineTest {};

TEST_P(SessionTargets, FindByNameDoublesQuotesAndNewTargetReplacesTheActiveOne) {
  OpenSession o;
  o.conn().execute("INSERT INTO Cibles (Address,[Target Name]) VALUES (122,'Moteur d''essai'), (123,'Moteur d''essai')");
  int32_t address = -5, id = -6;
  EXPECT_TRUE(o.s->DbFindUceByName("Moteur d'essai", address, id));
  EXPECT_EQ(address, 122);
  EXPECT_EQ(id, count(o.conn(), "SELECT MIN([Target Id]) FROM Cibles"));
  // Names are found by the name rule: letter case ignored, accents and
  // blanks kept.
  o.conn().execute("INSERT INTO Cibles (Address,[Target Name]) VALUES (124,'Électrovanne')");
  for (const char* same : {"moteur d'essai", "MOTEUR D'ESSAI"}) {
    address = -5;
    EXPECT_TRUE(o.s->DbFindUceByName(same, address, id)) << same;
    EXPECT_EQ(address, 122);
  }
  EXPECT_TRUE(o.s->DbFindUceByName("ÉLECTROVANNE", address, id));
  EXPECT_EQ(address, 124);
  address = -5;
  id = -6;
  EXPECT_FALSE(o.s->DbFindUceByName("Electrovanne", address, id));
  EXPECT_FALSE(o.s->DbFindUceByName("Moteur d'essai ", address, id));
  EXPECT_FALSE(o.s->DbFindUceByName("x' OR '1'='1", address, id));
  EXPECT_EQ(address, -5);
  EXPECT_EQ(id, -6);
  auto t1 = o.s->NewTarget();
  EXPECT_EQ(t1->parent(), o.s);
  auto t2 = o.s->NewTarget();
  EXPECT_EQ(o.s->ActiveTarget(), t2);
  EXPECT_EQ(t1->parent(), nullptr);  // cleared
  o.s->ClearTarget();
  EXPECT_EQ(o.s->ActiveTarget(), nullptr);
}

TEST_P(SessionTargets, DeleteUceRemovesAFullTargetOrNothing) {
  OpenSession o;
  // Two targets, each with a category holding a screen, and an organ.
  auto add = [&](const std::string& name) {
    o.conn().execute("INSERT INTO Cibles (Address,[Target Name]) VALUES (122,'" + name + "')");
    const std::string id = std::to_string(count(o.conn(), "SELECT MAX([Target Id]) FROM Cibles"));
    o.conn().execute("INSERT INTO Catégories ([Target Id],[Category Name]) VALUES (" + id + ",'Mesures')");
    o.conn().execute("INSERT INTO Ecrans ([Target Id],[Category Id],[Screen Name]) VALUES (" + id +
                     ",(SELECT MAX([Category Id]) FROM Catégories),'Moteur')");
    o.conn().execute("INSERT INTO Organes (Address,[Target Id],[Organe Name]) VALUES (122," + id + ",'Pompe')");
    return std::stoi(id);
  };
  auto rowsOf = [&](int32_t id) {
    int64_t n = 0;
    for (const char* table : {"Cibles", "Catégories", "Ecrans", "Organes"})
      n += count(o.conn(), std::string("SELECT COUNT(*) FROM ") + table + " WHERE [Target Id]=" + std::to_string(id));
    return n;
  };
  const int32_t keep = add("Garde");
  const int32_t gone = add("Efface");
  o.s->DbDeleteUce();  // no active target: nothing happens
  EXPECT_EQ(rowsOf(gone), 4);
  // A screen of the other target filed under this one's category keeps that
  // category from going: nothing is deleted.
  o.conn().execute("INSERT INTO Ecrans ([Target Id],[Category Id],[Screen Name]) VALUES (" + std::to_string(keep) +
                   ",(SELECT [Category Id] FROM Catégories WHERE [Target Id]=" + std::to_string(gone) + "),'Intrus')");
  o.s->NewTarget()->setTargetid(gone);
  EXPECT_THROW(o.s->DbDeleteUce(), Error);
  EXPECT_EQ(rowsOf(gone), 4);
  EXPECT_NE(o.s->ActiveTarget(), nullptr);
  o.conn().execute("DELETE FROM Ecrans WHERE [Screen Name]='Intrus'");
  o.s->DbDeleteUce();
  EXPECT_EQ(rowsOf(gone), 0);
  EXPECT_EQ(rowsOf(keep), 4);
  EXPECT_EQ(o.s->ActiveTarget(), nullptr);
}

// ---- seeding

class SessionImport : public ::kavrel::test::EngineTest {};

TEST_P(SessionImport, SeedsANewDatabaseFromTheExampleOnce) {
  // (The parameters document's round trip is checked with the documents.)
  OpenSession o;
  o.s->importParametersFromXml(kExample);
  o.s->DbRead();
  EXPECT_FALSE(lastError().pending());
  EXPECT_GE(o.s->functions()->Count(), 10);
  EXPECT_EQ(o.s->functions()->ItemName("Injection diesel")->CanXId(), static_cast<int32_t>(0x80000000u | 0x18DA10F1u));
  for (int32_t mode : {0, 1, 2, 3, 255}) EXPECT_NE(o.s->protocols()->ItemId(mode, false), nullptr) << mode;
  EXPECT_EQ(o.s->protocols()->ItemId(3, true)->protocolName(), "ISO 15765 CAN 500 kbit/s multipoint");
  EXPECT_EQ(o.s->typeOrganes()->ItemId(1)->libelle(), "Entrée");
  // A second import collides with the first and writes nothing.
  const int64_t before = count(o.conn(), "SELECT COUNT(*) FROM [Type Organe]");
  EXPECT_THROW(o.s->importParametersFromXml(kExample), Error);
  EXPECT_EQ(count(o.conn(), "SELECT COUNT(*) FROM [Type Organe]"), before);
}

TEST_P(SessionImport, RefusesBadInput) {
  OpenSession o;
  const test::TempDir& dir = o.tdb.dir();
  const std::string missing = dir.file("absent.xml");
  Error e = thrownBy([&] { o.s->importParametersFromXml(missing); });
  EXPECT_EQ(e.number(), 1);
  EXPECT_TRUE(test::contains(e.description(), missing));
  test::writeBytes(dir.file("root.xml"), "<?xml version=\"1.0\"?><params><Functions/></params>");
  EXPECT_TRUE(throws([&] { o.s->importParametersFromXml(dir.file("root.xml")); }, 1,
                     "Bad xml file, RootNode \"xml\" not found"));
  test::writeBytes(dir.file("bad.xml"), "<xml><Functions><Function Name=\"A\" Address=\"1\"/></Functions>"
                                        "<Failures><Failure Name=\"B\" Id=\"un\"/></Failures></xml>");
  e = thrownBy([&] { o.s->importParametersFromXml(dir.file("bad.xml")); });
  EXPECT_EQ(e.number(), kErrTypeMismatch);
  EXPECT_TRUE(test::contains(e.description(), "Failures"));
  EXPECT_EQ(count(o.conn(), "SELECT COUNT(*) FROM [Fonctions]"), 0);
}

KAVREL_ON_ENGINES(SessionVersion);
KAVREL_ON_ENGINES(SessionRead);
KAVREL_ON_ENGINES(SessionTargets);
KAVREL_ON_ENGINES(SessionImport);

}  // namespace
}  // namespace kavrel
