// The relations of the definitions schema and the legacy SQL texts (dialect
// adaptation, one statement per text), proved on a fresh database.
#include <gtest/gtest.h>

#include <map>

#include "kavrel/platform/text.h"
#include "support/engines.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

std::string id(int64_t v) { return std::to_string(v); }
int64_t countRows(db::Connection& c, const std::string& table) {
  return c.execute("SELECT count(*) FROM " + table)->field(0).toInt64();
}

// A complete target written with plain SQL: one row (or two) in every table,
// with non-ASCII names. "Lecture état" carries Régime and Vitesse and is shown
// by a request display; "Ecriture" carries Vitesse as a parameter and is used
// by a scenario. Régime has a list, a sheet, a reference position and a
// display with a threshold; Vitesse is linked to the organ; Libre is unused.
struct SampleTarget {
  int64_t targetId, readRequestId, writeRequestId, regimeId, vitesseId, libreId, organId, categoryId, screenId,
      buttonId, requestDisplayId;
};

SampleTarget addSampleTarget(db::Connection& c, int64_t address, const std::string& name) {
  db::Transaction tx(c);  // one write to disk instead of one per statement
  c.execute("INSERT INTO Cibles (Address, [Target Name], Langue, [Référence]) VALUES (" + id(address) + ", " +
            db::sql::quote(name) + ", 'Français', -1)");
  const std::string t = id(c.execute("SELECT max([Target Id]) FROM Cibles")->field(0).toInt64());
  // Rows are found by the latest id of their table: the sample is written alone.
  const std::pair<std::string, std::string> placeholders[] = {
      {"$screen", "(SELECT max([Screen Id]) FROM Ecrans)"}, {"$display", "(SELECT max([Display Id]) FROM Affichages)"},
      {"$regime", "(SELECT [Data Id] FROM Données WHERE [Target Id]=$t AND [Data Name]='Régime')"},
      {"$a", id(address)}, {"$t", t}};
  for (std::string sql : {
           // Plain SQL both engines take ("insert unless there").
           "INSERT INTO [Type Panne] SELECT 0, 'Ne contient pas de pannes' WHERE NOT EXISTS "
           "(SELECT 1 FROM [Type Panne] WHERE [Type Panne Id]=0)",
           "INSERT INTO [Type Organe] SELECT 1, 'Entrée' WHERE NOT EXISTS (SELECT 1 FROM [Type Organe] "
           "WHERE [Type Organe Id]=1)",
           "INSERT INTO Fonctions SELECT $a, 'Fonction $a', NULL, NULL WHERE NOT EXISTS (SELECT 1 FROM Fonctions "
           "WHERE Address=$a)",
           "INSERT INTO [Appartenance cible] VALUES ($a, $t, $a, $t)",
           "INSERT INTO [Paramètres UCE] ([Ecu Id], Comment, [Type Panne Id]) VALUES ($t, 'essai', 0)",
           "INSERT INTO Identification VALUES ($a, $t, 1, NULL, 'SUP', 'Logiciel', 'V1', 'Français')",
           "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES ($a, $t, 'Lecture état'), "
           "($a, $t, 'Ecriture')",
           "INSERT INTO Données (Address, [Target Id], [Data Name], Numérique, Liste) "
           "VALUES ($a, $t, 'Régime', -1, -1), ($a, $t, 'Vitesse', -1, 0), ($a, $t, 'Libre', -1, 0)",
           "INSERT INTO [Fiches Diag] VALUES ($regime, 'fiche')",
           "INSERT INTO Listes VALUES ($regime, 0, -1, -1, 'Arrêt', NULL), ($regime, 1, -1, -1, 'Marche', 'info')",
           "INSERT INTO [Emplacement Donnée] VALUES ($a, $t, 'Lecture état', 'Régime', 1, 0, 0, 0), "
           "($a, $t, 'Lecture état', 'Vitesse', 1, 0, 0, 0), ($a, $t, 'Ecriture', 'Vitesse', 1, 0, 0, -1)",
           "INSERT INTO Donnée_Ref VALUES ($a, $t, 'Régime', 'Lecture état')",
           "INSERT INTO Organes (Address, [Target Id], [Organe Name], Mnemonique, [Type Organe Id]) "
           "VALUES ($a, $t, 'Moteur', 'MOT', 1)",
           "INSERT INTO [Lien_DTC_ReqContext] VALUES ($a, $t, 'Lecture état', 'Moteur')",
           "INSERT INTO Lien_Données_ds_Organe VALUES ($a, $t, 'Vitesse', 'Moteur', -1)",
           "INSERT INTO Catégories ([Target Id], [Category Name]) VALUES ($t, 'Catégorie')",
           "INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) "
           "VALUES ($t, (SELECT max([Category Id]) FROM Catégories), 'Écran')",
           "INSERT INTO Titres ([Target Id], [Screen Id], [Text]) VALUES ($t, $screen, 'Titre')",
           "INSERT INTO Boutons ([Target Id], [Screen Id], Caption) VALUES ($t, $screen, 'Go')",
           "INSERT INTO Scenarios VALUES ($t, (SELECT max([Button Id]) FROM Boutons), 1, $a, $t, 'Ecriture', 0, 100)",
           "INSERT INTO Affichages ([Target Id], [Screen Id], [Type Affich]) VALUES ($t, $screen, 3)",
           "INSERT INTO Données_Aff VALUES ($t, $screen, $display, 3, $a, $t, 'Régime', 'Lecture état')",
           "INSERT INTO Seuils VALUES ($display, 12.5, 255, -1, 3)",
           "INSERT INTO Affichages ([Target Id], [Screen Id], [Type Affich]) VALUES ($t, $screen, 1)",
           "INSERT INTO Extra_Aff VALUES ($t, $screen, $display, 1, $a, $t, 'Lecture état', 0, 0)"}) {
    for (const auto& [from, to] : placeholders) sql = text::replaceAll(sql, from, to);
    c.execute(sql);
  }
  tx.commit();
  auto of = [&](const std::string& column, const std::string& table, const std::string& where = "1=1") {
    auto rs = c.execute("SELECT max(" + column + ") FROM " + table + " WHERE [Target Id]=" + t + " AND " + where);
    return rs->field(0).toInt64();
  };
  auto data = [&](const std::string& n) { return of("[Data Id]", "Données", "[Data Name]='" + n + "'"); };
  return {std::stoll(t), of("[Request Id]", "Requêtes", "[Request Name]='Lecture état'"),
          of("[Request Id]", "Requêtes", "[Request Name]='Ecriture'"), data("Régime"), data("Vitesse"),
          data("Libre"), of("[Organe Id]", "Organes"), of("[Category Id]", "Catégories"), of("[Screen Id]", "Ecrans"),
          of("[Button Id]", "Boutons"), of("[Display Id]", "Affichages", "[Type Affich]=1")};
}

const char* const kTargetTables[] = {
    "Cibles",   "[Appartenance cible]", "[Paramètres UCE]", "Identification", "Requêtes",
    "Données",  "[Fiches Diag]",        "Listes",           "[Emplacement Donnée]", "Donnée_Ref",
    "Organes",  "[Lien_DTC_ReqContext]", "Lien_Données_ds_Organe", "Catégories", "Ecrans",
    "Titres",   "Boutons",              "Scenarios",        "Affichages",     "Données_Aff",
    "Extra_Aff", "Seuils"};

std::map<std::string, int64_t> counts(db::Connection& c) {
  std::map<std::string, int64_t> m;
  for (const char* t : kTargetTables) m[t] = countRows(c, t);
  return m;
}

// Runs `sql` and expects the database to refuse it for a broken relation.
void expectRefused(db::Connection& c, const std::string& sql) {
  try {
    c.execute(sql);
    ADD_FAILURE() << "accepted: " << sql;
  } catch (const DbError& e) {
    EXPECT_EQ(e.backendCode() & 0xFF, 19) << e.description();  // a constraint
  }
}

class SchemaTest : public EngineTest {
 protected:
  void SetUp() override {
    conn = db.connection();
    a = addSampleTarget(*conn, 122, "ABS");
    b = addSampleTarget(*conn, 64, "Injection");
  }
  // Rows of target a in `table` where `condition` holds.
  int64_t rowsOfA(const std::string& table, const std::string& condition = "1=1") {
    return countRows(*conn, table + " WHERE [Target Id]=" + id(a.targetId) + " AND " + condition);
  }
  TempDb db;
  std::shared_ptr<db::Connection> conn;
  SampleTarget a, b;
};

TEST_P(SchemaTest, DeletingATargetRemovesAllItHoldsInOneDeferredTransaction) {
  const std::string tid = id(a.targetId), categories = "DELETE * FROM Catégories WHERE [Target Id]=" + tid;
  // Alone, deleting the categories is refused: they still have screens; a
  // deferred delete that leaves them orphans fails at commit and rolls back.
  expectRefused(*conn, categories);
  auto before = counts(*conn);
  {
    db::Transaction tx(*conn);
    conn->deferConstraintChecks();
    conn->execute(categories);
    EXPECT_THROW(tx.commit(), DbError);
  }
  EXPECT_EQ(conn->transactionDepth(), 0);
  EXPECT_EQ(counts(*conn), before);
  expectRefused(*conn, categories);  // the deferral ended with the transaction
  {
    db::Transaction tx(*conn);
    conn->deferConstraintChecks();
    conn->execute(categories);
    conn->execute("DELETE * FROM Organes WHERE [Target Id]=" + tid);
    conn->execute("DELETE * FROM Cibles WHERE [Target Id]=" + tid);
    tx.commit();
  }
  auto after = counts(*conn);
  for (const char* t : kTargetTables) {
    EXPECT_EQ(after[t] * 2, before[t]) << t;  // the other target keeps its half
    EXPECT_GT(after[t], 0) << t;
  }
  EXPECT_EQ(countRows(*conn, "Fonctions"), 2);  // shared catalogue untouched
  // Deleting the target row alone takes everything along too.
  conn->execute("DELETE * FROM Cibles WHERE [Target Id]=" + id(b.targetId));
  for (const auto& [table, rows] : counts(*conn)) EXPECT_EQ(rows, 0) << table;
}

TEST_P(SchemaTest, RowsOthersDependOnCannotBeDeleted) {
  const std::string tid = id(a.targetId), bid = id(b.targetId);
  const std::string screen = "DELETE FROM Ecrans WHERE [Screen Id]=" + id(a.screenId);
  const std::string bPos = "DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + bid + " AND [Data Name]='Régime'";
  auto request = [](int64_t r) { return "DELETE * From [Requêtes] WHERE [Request Id]=" + id(r); };
  // Each refused statement is accepted once the rows after it are gone. A
  // request's plain positions go with it; a request used by an organ's
  // freeze-frame link, a scenario or a request display is kept by each use.
  const struct {
    bool refused;
    std::string sql;
  } steps[] = {
      {true, screen},  // a display (its label and button would go with it)
      {false, "DELETE FROM Affichages WHERE [Screen Id]=" + id(a.screenId)},
      {false, screen},
      {true, bPos},  // shown by b's display
      {false, "DELETE FROM Données_Aff WHERE [Target Id]=" + bid},
      {true, bPos},  // still b's reference position
      {false, "DELETE FROM Donnée_Ref WHERE [Target Id]=" + bid},
      {false, bPos},
      {false, request(a.writeRequestId)},  // its scenario went with a's screen
      {false, "DELETE FROM Donnée_Ref WHERE [Target Id]=" + tid},
      {false, "DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + tid},
      {true, request(a.readRequestId)},  // the freeze-frame link alone
      {false, "DELETE * FROM [Lien_DTC_ReqContext] WHERE [Target Id]=" + tid},
      {false, request(a.readRequestId)},
      {false, "DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + bid + " AND [Request Name]='Ecriture'"},
      {true, request(b.writeRequestId)},  // the scenario alone
      {false, "DELETE * from Scenarios WHERE [Target Id]=" + bid + " AND [Request Name]='Ecriture'"},
      {false, request(b.writeRequestId)},
      {false, "DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + bid},
      {false, "DELETE FROM [Lien_DTC_ReqContext] WHERE [Target Id]=" + bid},
      {true, request(b.readRequestId)},  // the request display alone
      {false, "DELETE FROM Extra_Aff WHERE [Target Id]=" + bid},
      {false, request(b.readRequestId)},
      {true, "DELETE * from Catégories WHERE [Category Id]=" + id(b.categoryId)},  // it has screens
      {true, "DELETE * from Données WHERE [Data Id]=" + id(b.vitesseId)},          // used by an organ
  };
  for (const auto& s : steps) {
    if (s.refused) {
      expectRefused(*conn, s.sql);
    } else {
      EXPECT_NO_THROW(conn->execute(s.sql)) << s.sql;
      EXPECT_GT(conn->recordsAffected(), 0) << s.sql;
    }
  }
}

TEST_P(SchemaTest, DeletingAParentRemovesWhatBelongsToIt) {
  const std::string tid = id(a.targetId);
  // The data item: its list, sheet, positions and reference position go
  // (once the display showing it is deleted, as the data item's delete does).
  conn->execute("DELETE * from Affichages WHERE [Target Id]=" + tid +
                " AND [Display Id] in (select [Display Id] from Données_Aff where [Target Id]=" + tid +
                " AND [Data Name]='Régime')");
  EXPECT_EQ(countRows(*conn, "Seuils"), 1);  // the display's threshold went with it
  conn->execute("DELETE * from Données WHERE [Data Id]=" + id(a.regimeId));
  EXPECT_EQ(countRows(*conn, "Listes WHERE [Data Id]=" + id(a.regimeId)), 0);
  EXPECT_EQ(countRows(*conn, "[Fiches Diag] WHERE [Data Id]=" + id(a.regimeId)), 0);
  EXPECT_EQ(rowsOfA("[Emplacement Donnée]", "[Data Name]='Régime'"), 0);
  EXPECT_EQ(rowsOfA("Donnée_Ref"), 0);
  // The request display: its request link; the button: its scenario steps;
  // the organ: its freeze-frame link and its data links.
  conn->execute("DELETE * FROM Affichages WHERE [Display Id]=" + id(a.requestDisplayId));
  EXPECT_EQ(rowsOfA("Extra_Aff"), 0);
  conn->execute("DELETE * FROM Boutons WHERE [Button Id]=" + id(a.buttonId));
  EXPECT_EQ(rowsOfA("Scenarios"), 0);
  conn->execute("DELETE * FROM Organes WHERE [Organe Id]=" + id(a.organId));
  EXPECT_EQ(rowsOfA("[Lien_DTC_ReqContext]") + rowsOfA("Lien_Données_ds_Organe"), 0);
  // Target b is untouched.
  EXPECT_EQ(countRows(*conn, "Listes"), 2);
  EXPECT_EQ(countRows(*conn, "Scenarios"), 1);
}

TEST_P(SchemaTest, NamesAreUniqueInTheirScope) {
  const std::string tid = id(a.targetId);
  for (const std::string& sql : {
           "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, " + tid + ", 'Ecriture')",
           "UPDATE Requêtes SET [Request Name]='Ecriture' WHERE [Request Id]=" + id(a.readRequestId),
           // Data names compare without letter case.
           "INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, " + tid + ", 'VITESSE')",
           "UPDATE Données SET [Data Name]='LIBRE' WHERE [Data Id]=" + id(a.vitesseId),
           "INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + tid + ", 'Catégorie')",
           "INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (" + tid + ", " + id(a.categoryId) +
               ", 'Écran')",
           "INSERT INTO Organes (Address, [Target Id], [Organe Name]) VALUES (122, " + tid + ", 'Moteur')",
           "INSERT INTO Donnée_Ref VALUES (122, " + tid + ", 'Régime', 'Lecture état')",
           "INSERT INTO Listes VALUES (" + id(a.regimeId) + ", 1, -1, -1, 'x', NULL)",
           "INSERT INTO Lien_Données_ds_Organe VALUES (122, " + tid + ", 'Vitesse', 'Moteur', 0)",
           std::string("INSERT INTO Fonctions VALUES (122, 'again', NULL, NULL)")})
    expectRefused(*conn, sql);
  // The same names elsewhere are fine: another target, another category,
  // another flag combination of a list value.
  for (const std::string& sql : {
           "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (64, " + id(b.targetId) + ", 'Nouvelle')",
           "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, " + tid + ", 'Nouvelle')",
           "INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + tid + ", 'Autre')",
           "INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (" + tid +
               ", (SELECT max([Category Id]) FROM Catégories), 'Écran')",
           "INSERT INTO Listes VALUES (" + id(a.regimeId) + ", 1, 0, -1, 'x', NULL)",
           // Identification rows have no key: the same entry twice is kept.
           "INSERT INTO Identification VALUES (122, " + tid + ", 1, NULL, 'SUP', 'Logiciel', 'V1', 'Français')"})
    EXPECT_NO_THROW(conn->execute(sql)) << sql;
  EXPECT_EQ(rowsOfA("Identification"), 2);
}

TEST_P(SchemaTest, RenamesAreCarriedIntoEveryRowThatNamesTheParent) {
  struct Carried {
    const char* table;
    int64_t rows;
  };
  auto rename = [&](const std::string& table, const std::string& column, const std::string& key, int64_t row,
                    const std::string& name, std::initializer_list<Carried> into) {
    conn->execute("UPDATE " + table + " SET " + column + "=" + db::sql::quote(name) + " WHERE " + key + "=" + id(row));
    for (const auto& c : into)
      EXPECT_EQ(rowsOfA(c.table, column + "=" + db::sql::quote(name)), c.rows) << c.table << " " << name;
  };
  rename("Requêtes", "[Request Name]", "[Request Id]", a.readRequestId, "Lecture",
         {{"[Emplacement Donnée]", 2}, {"Donnée_Ref", 1}, {"[Lien_DTC_ReqContext]", 1}, {"Données_Aff", 1},
          {"Extra_Aff", 1}});
  rename("Requêtes", "[Request Name]", "[Request Id]", a.writeRequestId, "Écrire", {{"Scenarios", 1}});
  rename("Données", "[Data Name]", "[Data Id]", a.regimeId, "Régime moteur",
         {{"[Emplacement Donnée]", 1}, {"Donnée_Ref", 1}, {"Données_Aff", 1}});
  rename("Données", "[Data Name]", "[Data Id]", a.vitesseId, "Vitesse véhicule",
         {{"[Emplacement Donnée]", 2}, {"Lien_Données_ds_Organe", 1}});
  rename("Organes", "[Organe Name]", "[Organe Id]", a.organId, "Boîte",
         {{"[Lien_DTC_ReqContext]", 1}, {"Lien_Données_ds_Organe", 1}});
  // Nothing of target b moved.
  EXPECT_EQ(countRows(*conn, "Données_Aff WHERE [Request Name]='Lecture état'"), 1);
}

TEST_P(SchemaTest, LengthLimitsCountCharactersAndKeysWithoutRelations) {
  const std::string tid = id(a.targetId);
  // Each column's limit is accepted in characters (non-ASCII ones are two
  // bytes) and one more is refused.
  const struct {
    const char* column;  // table SET column
    std::string where;
    const char* unit;
    size_t limit;
  } columns[] = {
      {"[Paramètres UCE] SET Comment", " WHERE [Ecu Id]=" + tid, "ç", 255},
      {"[Paramètres UCE] SET Reprogrammable", " WHERE [Ecu Id]=" + tid, "r", 50},
      {"Données SET Description", " WHERE [Data Id]=" + id(a.libreId), "d", 255},
      {"Données SET [Data Name]", " WHERE [Data Id]=" + id(a.libreId), "é", 70},
      {"Organes SET [Organe Name]", " WHERE [Organe Id]=" + id(a.organId), "o", 70},
      {"Organes SET Mnemonique", " WHERE [Organe Id]=" + id(a.organId), "m", 50},
      {"Listes SET Libellé", " WHERE Valeur=0", "l", 80},
  };
  for (const auto& c : columns) {
    SCOPED_TRACE(c.column);
    conn->execute(std::string("UPDATE ") + c.column + "=" + db::sql::quote(repeat(c.unit, c.limit)) + c.where);
    expectRefused(*conn, std::string("UPDATE ") + c.column + "=" + db::sql::quote(repeat("x", c.limit + 1)) + c.where);
  }
  // A parameter row may name a failure type that does not exist: the read
  // then reports the parameters as not found, the insert is not refused.
  conn->execute("UPDATE [Paramètres UCE] SET [Type Panne Id]=99 WHERE [Ecu Id]=" + tid);
  // Autonumbers are never given twice, even after the highest row went.
  conn->execute("DELETE FROM Boutons WHERE [Button Id]=" + id(b.buttonId));
  conn->execute("INSERT INTO Boutons ([Target Id], [Screen Id]) VALUES (" + id(b.targetId) + ", " + id(b.screenId) +
                ")");
  EXPECT_GT(conn->execute("SELECT max([Button Id]) FROM Boutons")->field(0).toInt64(), b.buttonId);
  // Booleans are stored -1/0 and legacy filters rely on it.
  EXPECT_EQ(countRows(*conn, "Données WHERE Numérique=-1 AND Liste=-1"), 2);
}

// ---- SQL texts

// Runs a statement to its end; returns the rows a query gave.
int64_t run(db::Connection& c, const std::string& sql) {
  int64_t n = 0;
  for (auto rs = c.execute(sql); !rs->eof(); rs->moveNext()) ++n;
  return n;
}

TEST_P(SchemaTest, DeleteStarIsAdaptedAndATextHoldsOneStatementOnly) {
  EXPECT_EQ(run(*conn, "  delete *  from [Fiches Diag] WHERE [Data Id] =" + id(a.regimeId)), 0);
  EXPECT_EQ(conn->recordsAffected(), 1);
  EXPECT_EQ(run(*conn, "DeLeTe\t*\nFrom\tListes WHERE [Data Id]=" + id(a.regimeId)), 0);
  EXPECT_EQ(conn->recordsAffected(), 2);
  // Only the leading "DELETE *" is touched: a star elsewhere stays.
  EXPECT_EQ(run(*conn, "DELETE FROM Seuils WHERE [Display Id] IN (SELECT [Display Id] FROM Affichages WHERE 2*2=5)"),
            0);
  const int64_t before = countRows(*conn, "Seuils");
  EXPECT_THROW(conn->execute("DELETE FROM Seuils; DROP TABLE Seuils"), DbError);
  EXPECT_THROW(conn->execute("SELECT 1; SELECT 2"), DbError);
  EXPECT_THROW(conn->openClient("SELECT 1;DELETE FROM Seuils"), DbError);
  EXPECT_THROW(conn->openUpdatable("SELECT Seuil FROM Seuils; DELETE FROM Seuils"), DbError);
  ASSERT_FALSE(conn->errors().empty());
  EXPECT_TRUE(contains(conn->errors().back().description(), "more than one statement"));
  EXPECT_EQ(run(*conn, "SELECT 1;  -- done"), 1);  // a closing semicolon or comment is no second statement
  // A name that would close the quote and add a statement stays a name once
  // quoted; spliced unquoted it fails before reaching the database.
  const std::string evil = "x'; DELETE FROM Seuils; --";
  EXPECT_EQ(run(*conn, "SELECT Address,[Target Id] FROM Cibles WHERE [Target Name]=" + db::sql::quote(evil)), 0);
  EXPECT_THROW(conn->execute("SELECT * FROM Identification WHERE [Logiciel]='" + db::sql::spliceUnquoted(evil) + "'"),
               DbError);
  EXPECT_EQ(countRows(*conn, "Seuils"), before);
}

KAVREL_ON_ENGINES(SchemaTest);

}  // namespace
}  // namespace kavrel::test
