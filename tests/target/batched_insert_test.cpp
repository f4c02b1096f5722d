// A whole-target insert on an engine that writes in batches: the same rows,
// host entries and pending error as writing row by row, refused rows
// included, and faults still undo everything.
#include <gtest/gtest.h>

#include <regex>

#include "kavrel/kavrel.h"
#include "support/forwarding_connection.h"
#include "support/checks.h"
#include "support/engines.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

const std::string kExamples = std::string(KAVREL_SOURCE_DIR) + "/examples/";
const char* const kTargetTables[] = {"Cibles", "[Appartenance cible]", "[Paramètres UCE]", "Identification",
                                     "Requêtes", "Données", "[Fiches Diag]", "Listes", "[Emplacement Donnée]",
                                     "Donnée_Ref", "Organes", "Lien_DTC_ReqContext", "Lien_Données_ds_Organe",
                                     "Catégories", "Ecrans", "Boutons", "Scenarios", "Titres", "Affichages",
                                     "Données_Aff", "Extra_Aff", "Seuils"};

// The same connection, writing every row at once (it does not batch).
using RowByRow = test::ForwardingConnection;

struct Stored {
  std::shared_ptr<KavrelDatabase> session;
  std::shared_ptr<db::Connection> conn;
};

Stored openWithParameters(test::TempDb& db) {
  Stored s{KavrelDatabase::create(), db.connection()};
  s.session->setDbConnection(s.conn);
  s.session->importParametersFromXml(kExamples + "parameters.xml");
  s.session->DbRead();
  return s;
}

// What an insert left: the target exported from the database, the rows of
// each table, the host entries and the pending error (numbers masked: ids
// differ between databases).
struct Outcome {
  std::string xml, rows, entries, pending;
};

Outcome outcomeOf(Stored& s, test::TempDb& db, const std::string& name, const MemoryHost& host) {
  Outcome o;
  const std::regex digits("[0-9]+");
  for (const auto& e : host.entries()) {
    o.entries += std::to_string(static_cast<int>(e.kind)) + e.title + "|" + std::regex_replace(e.text, digits, "#") + "\n";
  }
  o.pending = std::to_string(lastError().number) + " " + std::regex_replace(lastError().description, digits, "#");
  for (const char* table : kTargetTables) {
    o.rows += std::string(table) + "=" + s.conn->execute(std::string("SELECT count(*) FROM ") + table)->field(0).toText() + " ";
  }
  int32_t address = 0, id = 0;
  if (s.session->DbFindUceByName(name, address, id)) {
    auto t = s.session->NewTarget();
    t->dbReadTargetAll(*s.conn, address, id);
    const std::string file = db.dir().file(name + ".xml");
    s.session->ExportUceToXml(file);
    o.xml = test::readBytes(file);
  }
  return o;
}

class BatchedInsert : public test::EngineTest {};

TEST_P(BatchedInsert, RefusedRowsGiveTheSameRowsEntriesAndErrorAsRowByRow) {
  Outcome outcomes[2];
  std::vector<int32_t> ids[2];
  for (int batched = 0; batched < 2; ++batched) {
    SCOPED_TRACE(batched ? "batched" : "row by row");
    test::TempDb db;
    Stored s = openWithParameters(db);
    s.session->ImportUceFromXml(kExamples + "can_target.xml");
    auto t = s.session->ActiveTarget();
    // A value listed twice, a name used twice (but for letter case), a
    // freeze frame naming a request the target does not have.
    auto listed = t->datas()->ItemName("Etat préchauffage");
    ASSERT_TRUE(listed);
    auto again = listed->DataListes()->Add(1);
    again->setParent(listed);
    again->setLibelle("encore un");
    auto twice = t->datas()->Add(0);
    twice->setParent(t);
    twice->setDataname("PRESSION RAIL");
    t->Organes()->Item(2)->setRequestName("Pas de requête");
    t->Organes()->Item(2)->setRequest(nullptr);
    auto host = std::make_shared<MemoryHost>();
    ScopedHost scoped(host);
    clearLastError();
    if (batched) {
      t->dbInsertTargetAll(*s.conn);
    } else {
      RowByRow w(*s.conn);
      t->dbInsertTargetAll(w);
    }
    EXPECT_EQ(s.conn->transactionDepth(), 0);
    for (const auto& d : *t->datas()) ids[batched].push_back(d->id() > 0 ? 1 : d->id());
    for (const auto& o : *t->Organes()) ids[batched].push_back(o->id() > 0 ? 1 : o->id());
    ids[batched].push_back(again->ValueChanged());
    outcomes[batched] = outcomeOf(s, db, t->name(), *host);
  }
  EXPECT_TRUE(test::contains(outcomes[0].entries, "Erreur de doublon #"));
  EXPECT_NE(outcomes[0].pending.rfind("0 ", 0), 0u) << outcomes[0].pending;
  EXPECT_EQ(outcomes[1].entries, outcomes[0].entries);
  EXPECT_EQ(outcomes[1].pending, outcomes[0].pending);
  EXPECT_EQ(outcomes[1].rows, outcomes[0].rows);
  EXPECT_EQ(outcomes[1].xml, outcomes[0].xml);
  EXPECT_EQ(ids[1], ids[0]);
}

TEST_P(BatchedInsert, AFaultInABatchUndoesEverythingAndReachesTheCaller) {
  if (!onServer()) GTEST_SKIP() << "the embedded engine writes each row at once";
  test::TempDb db;
  Stored s = openWithParameters(db);
  // A fault of the connection, not a refusal, when the value lists are written.
  s.conn->execute("CREATE FUNCTION fault() RETURNS trigger AS $$ BEGIN RAISE EXCEPTION 'link lost' USING "
                  "ERRCODE = '08006'; END $$ LANGUAGE plpgsql");
  s.conn->execute("CREATE TRIGGER fault BEFORE INSERT ON Listes FOR EACH ROW EXECUTE FUNCTION fault()");
  s.session->ImportUceFromXml(kExamples + "can_target.xml");
  auto t = s.session->ActiveTarget();
  const int32_t firstData = t->datas()->Item(1)->id();
  auto host = std::make_shared<MemoryHost>();
  ScopedHost scoped(host);
  const DbError e = test::thrownBy<DbError>([&] { t->dbInsertTargetAll(*s.conn); });
  EXPECT_TRUE(test::contains(e.description(), "link lost")) << e.number() << " " << e.description();
  EXPECT_FALSE(db::isRowRefusal(e));
  EXPECT_EQ(s.conn->transactionDepth(), 0);
  EXPECT_TRUE(t->ValueChanged());
  EXPECT_EQ(t->datas()->Item(1)->id(), firstData);
  EXPECT_TRUE(host->entries().empty());
  for (const char* table : kTargetTables)
    EXPECT_EQ(s.conn->execute(std::string("SELECT count(*) FROM ") + table)->field(0).toInt32(), 0) << table;
  // The connection goes on: without the fault the same target is stored.
  s.conn->execute("DROP TRIGGER fault ON Listes");
  t->dbInsertTargetAll(*s.conn);
  EXPECT_GT(t->targetid(), 0);
  EXPECT_GT(s.conn->execute("SELECT count(*) FROM Listes")->field(0).toInt32(), 0);
}

KAVREL_ON_ENGINES(BatchedInsert);

// The examples stored on the server in batches read back as on the
// embedded engine: same rows in every table, same export.
TEST(BatchedInsertOnBothEngines, TheExamplesGiveTheSameRowsAndExport) {
  Outcome outcomes[2];
  const test::Engine engines[] = {test::Engine::SQLite, test::Engine::PostgreSQL};
  for (int i = 0; i < 2; ++i) {
    test::TempDb db(engines[i]);
    Stored s = openWithParameters(db);
    MemoryHost none;
    for (const char* file : {"can_target.xml", "kline_target.xml"}) {
      s.session->ImportUceFromXml(kExamples + file);
      auto t = s.session->ActiveTarget();
      t->dbInsertTargetAll(*s.conn);
      const Outcome o = outcomeOf(s, db, t->name(), none);
      outcomes[i].xml += o.xml;
      outcomes[i].rows = o.rows;
    }
  }
  EXPECT_FALSE(outcomes[0].xml.empty());
  EXPECT_EQ(outcomes[1].rows, outcomes[0].rows);
  EXPECT_EQ(outcomes[1].xml, outcomes[0].xml);
}

}  // namespace
}  // namespace kavrel
