// The relations of the definitions schema and the legacy SQL texts (dialect
// adaptation, one statement per text), proved on a fresh database.
#include <gtest/gtest.h>

#include <map>

#include "platform/db_sample_target.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

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

std::string id(int64_t v) { return std::to_string(v); }

// Runs `sql` and expects the database to refuse it for a broken relation.
void expectRefused(db::Connection& c, const std::string& sql) {
  try {
    c.execute(sql);
    ADD_FAILURE() << "accepted: " << sql;
  } catch (const DbError& e) {
    EXPECT_EQ(e.backendCode() & 0xFF, 19) << e.description();  // a constraint
  }
}

class SchemaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = db.connection();
    a = addSampleTarget(*conn, 122, "ABS");
    b = addSampleTarget(*conn, 64, "Injection");
  }
  // Rows of target a in `table` where `condition` holds.
  int64_t rowsOfA(const std::string& table, const std::string& condition) {
    return countRows(*conn, table + " WHERE [Target Id]=" + id(a.targetId) + " AND " + condition);
  }
  TempDb db;
  std::shared_ptr<db::Connection> conn;
  SampleTarget a, b;
};

TEST_F(SchemaTest, DeletingATargetRowRemovesAllItHolds) {
  auto before = counts(*conn);
  conn->execute("DELETE * FROM Cibles WHERE [Target Id]=" + id(a.targetId));
  auto after = counts(*conn);
  for (const char* t : kTargetTables) {
    EXPECT_EQ(after[t] * 2, before[t]) << t;  // the other target keeps its half
    EXPECT_GT(after[t], 0) << t;
  }
  EXPECT_EQ(countRows(*conn, "Fonctions"), 2);  // shared catalogue untouched
}

TEST_F(SchemaTest, SessionTargetDeleteNeedsOneDeferredTransaction) {
  const std::string categories = "DELETE * FROM Catégories WHERE [Target Id]=" + id(a.targetId);
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
    conn->execute("DELETE * FROM Organes WHERE [Target Id]=" + id(a.targetId));
    conn->execute("DELETE * FROM Cibles WHERE [Target Id]=" + id(a.targetId));
    tx.commit();
  }
  auto after = counts(*conn);
  for (const char* t : kTargetTables) EXPECT_EQ(after[t] * 2, before[t]) << t;
}

TEST_F(SchemaTest, RowsOthersDependOnCannotBeDeleted) {
  const std::string tid = id(a.targetId), bid = id(b.targetId);
  const std::string read = db::sql::quote(kReadRequest);
  const std::string write = db::sql::quote(kWriteRequest);
  // A screen with a label, a button or a display.
  const std::string screen = "DELETE FROM Ecrans WHERE [Screen Id]=" + id(a.screenId);
  expectRefused(*conn, screen);
  conn->execute("DELETE FROM Affichages WHERE [Screen Id]=" + id(a.screenId));
  conn->execute("DELETE FROM Boutons WHERE [Screen Id]=" + id(a.screenId));
  expectRefused(*conn, screen);  // the label
  conn->execute("DELETE FROM Titres WHERE [Screen Id]=" + id(a.screenId));
  conn->execute(screen);

  // A data position shown by a display, and a reference position.
  const std::string bPos = "DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + bid + " AND [Data Name]='Régime'";
  expectRefused(*conn, bPos);  // b's position is shown by b's display
  conn->execute("DELETE FROM Données_Aff WHERE [Target Id]=" + bid);
  expectRefused(*conn, bPos);  // still b's reference position
  conn->execute("DELETE FROM Donnée_Ref WHERE [Target Id]=" + bid);
  conn->execute(bPos);
  EXPECT_EQ(conn->recordsAffected(), 1);

  // A request's plain positions go with it; a request used by an organ's
  // freeze-frame link, a scenario or a request display is kept by each use
  // alone. (Target a's screen contents, its scenario included, are gone
  // already.)
  auto deleteRequest = [&](int64_t r) { return "DELETE * From [Requêtes] WHERE [Request Id]=" + id(r); };
  conn->execute(deleteRequest(a.writeRequestId));
  EXPECT_EQ(rowsOfA("[Emplacement Donnée]", "[Request Name]=" + write), 0);

  conn->execute("DELETE FROM Donnée_Ref WHERE [Target Id]=" + tid);
  conn->execute("DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + tid);
  expectRefused(*conn, deleteRequest(a.readRequestId));  // the freeze-frame link alone
  conn->execute("DELETE * FROM [Lien_DTC_ReqContext] WHERE [Target Id]=" + tid);
  conn->execute(deleteRequest(a.readRequestId));

  conn->execute("DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + bid + " AND [Request Name]=" + write);
  expectRefused(*conn, deleteRequest(b.writeRequestId));  // the scenario alone
  conn->execute("DELETE * from Scenarios WHERE [Target Id]=" + bid + " AND [Request Name]=" + write);
  conn->execute(deleteRequest(b.writeRequestId));

  conn->execute("DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + bid);
  conn->execute("DELETE FROM [Lien_DTC_ReqContext] WHERE [Target Id]=" + bid);
  expectRefused(*conn, deleteRequest(b.readRequestId));  // the request display alone
  conn->execute("DELETE FROM Extra_Aff WHERE [Target Id]=" + bid);
  conn->execute(deleteRequest(b.readRequestId));

  // A category with screens; a data item used by an organ.
  expectRefused(*conn, "DELETE * from Catégories WHERE [Category Id]=" + id(b.categoryId));
  expectRefused(*conn, "DELETE * from Données WHERE [Data Id]=" + id(b.vitesseId));
}

TEST_F(SchemaTest, DeletingAParentRemovesWhatBelongsToIt) {
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
  EXPECT_EQ(rowsOfA("Donnée_Ref", "1"), 0);

  // The request display: its request link; the button: its scenario steps;
  // the organ: its freeze-frame link and its data links.
  conn->execute("DELETE * FROM Affichages WHERE [Display Id]=" + id(a.requestDisplayId));
  EXPECT_EQ(rowsOfA("Extra_Aff", "1"), 0);
  conn->execute("DELETE * FROM Boutons WHERE [Button Id]=" + id(a.buttonId));
  EXPECT_EQ(rowsOfA("Scenarios", "1"), 0);
  conn->execute("DELETE * FROM Organes WHERE [Organe Id]=" + id(a.organId));
  EXPECT_EQ(rowsOfA("[Lien_DTC_ReqContext]", "1"), 0);
  EXPECT_EQ(rowsOfA("Lien_Données_ds_Organe", "1"), 0);
  // Target b is untouched.
  EXPECT_EQ(countRows(*conn, "Listes"), 2);
  EXPECT_EQ(countRows(*conn, "Scenarios"), 1);
}

TEST_F(SchemaTest, NamesAreUniqueInTheirScope) {
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
  conn->execute("INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (64, " + id(b.targetId) +
                ", 'Nouvelle')");
  conn->execute("INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, " + tid + ", 'Nouvelle')");
  conn->execute("INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + tid + ", 'Autre')");
  conn->execute("INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (" + tid + ", " +
                id(maxId(*conn, "Catégories", "[Category Id]")) + ", 'Écran')");
  conn->execute("INSERT INTO Listes VALUES (" + id(a.regimeId) + ", 1, 0, -1, 'x', NULL)");
  // Identification rows have no key: the same entry twice is kept.
  conn->execute("INSERT INTO Identification VALUES (122, " + tid + ", 1, NULL, 'SUP', 'Logiciel', 'V1', 'Français')");
  EXPECT_EQ(rowsOfA("Identification", "1"), 2);
}

TEST_F(SchemaTest, RenamesAreCarriedIntoEveryRowThatNamesTheParent) {
  auto rename = [&](const std::string& table, const std::string& column, const std::string& key, int64_t row,
                    const std::string& name) {
    conn->execute("UPDATE " + table + " SET " + column + "=" + db::sql::quote(name) + " WHERE " + key + "=" + id(row));
  };
  struct Carried {
    const char* table;
    int64_t rows;
  };
  auto expectCarried = [&](const std::string& column, const std::string& name, std::initializer_list<Carried> into) {
    for (const auto& c : into)
      EXPECT_EQ(rowsOfA(c.table, column + "=" + db::sql::quote(name)), c.rows) << c.table << " " << name;
  };
  rename("Requêtes", "[Request Name]", "[Request Id]", a.readRequestId, "Lecture");
  expectCarried("[Request Name]", "Lecture",
                {{"[Emplacement Donnée]", 2}, {"Donnée_Ref", 1}, {"[Lien_DTC_ReqContext]", 1}, {"Données_Aff", 1},
                 {"Extra_Aff", 1}});
  rename("Requêtes", "[Request Name]", "[Request Id]", a.writeRequestId, "Écrire");
  expectCarried("[Request Name]", "Écrire", {{"Scenarios", 1}});
  rename("Données", "[Data Name]", "[Data Id]", a.regimeId, "Régime moteur");
  expectCarried("[Data Name]", "Régime moteur", {{"[Emplacement Donnée]", 1}, {"Donnée_Ref", 1}, {"Données_Aff", 1}});
  rename("Données", "[Data Name]", "[Data Id]", a.vitesseId, "Vitesse véhicule");
  expectCarried("[Data Name]", "Vitesse véhicule", {{"[Emplacement Donnée]", 2}, {"Lien_Données_ds_Organe", 1}});
  rename("Organes", "[Organe Name]", "[Organe Id]", a.organId, "Boîte");
  expectCarried("[Organe Name]", "Boîte", {{"[Lien_DTC_ReqContext]", 1}, {"Lien_Données_ds_Organe", 1}});
  // Nothing of target b moved.
  EXPECT_EQ(countRows(*conn, "Données_Aff WHERE [Request Name]='Lecture état'"), 1);
}

TEST_F(SchemaTest, LengthLimitsCountCharacters) {
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
}

TEST_F(SchemaTest, KeysWithoutRelationsAndAutonumbers) {
  // A parameter row may name a failure type that does not exist: the read
  // then reports the parameters as not found, the insert is not refused.
  conn->execute("UPDATE [Paramètres UCE] SET [Type Panne Id]=99 WHERE [Ecu Id]=" + id(a.targetId));
  // Autonumbers are never given twice, even after the highest row went.
  conn->execute("DELETE FROM Boutons WHERE [Button Id]=" + id(b.buttonId));
  conn->execute("INSERT INTO Boutons ([Target Id], [Screen Id]) VALUES (" + id(b.targetId) + ", " + id(b.screenId) +
                ")");
  EXPECT_GT(maxId(*conn, "Boutons", "[Button Id]"), b.buttonId);
  // Booleans are stored -1/0 and legacy filters rely on it.
  EXPECT_EQ(countRows(*conn, "Données WHERE Numérique=-1 AND Liste=-1"), 2);
}

// ---- SQL texts

using SqlTextTest = SchemaTest;

// Runs a statement to its end; returns the rows a query gave.
int64_t run(db::Connection& c, const std::string& sql) {
  int64_t n = 0;
  for (auto rs = c.execute(sql); !rs->eof(); rs->moveNext()) ++n;
  return n;
}

TEST_F(SqlTextTest, DeleteStarIsAdaptedInAnyCaseAndSpacing) {
  EXPECT_EQ(run(*conn, "DELETE * FROM Seuils WHERE [Display Id]=-5"), 0);
  EXPECT_EQ(run(*conn, "  delete *  from [Fiches Diag] WHERE [Data Id] =" + id(a.regimeId)), 0);
  EXPECT_EQ(conn->recordsAffected(), 1);
  EXPECT_EQ(run(*conn, "DeLeTe\t*\nFrom\tListes WHERE [Data Id]=" + id(a.regimeId)), 0);
  EXPECT_EQ(conn->recordsAffected(), 2);
  // Only the leading "DELETE *" is touched: a star elsewhere stays.
  EXPECT_EQ(run(*conn, "DELETE FROM Seuils WHERE [Display Id] IN (SELECT [Display Id] FROM Affichages WHERE 2*2=5)"),
            0);
}

TEST_F(SqlTextTest, ATextHoldsOneStatementOnly) {
  const int64_t before = countRows(*conn, "Seuils");
  EXPECT_THROW(conn->execute("DELETE FROM Seuils; DROP TABLE Seuils"), DbError);
  EXPECT_THROW(conn->execute("SELECT 1; SELECT 2"), DbError);
  EXPECT_THROW(conn->openClient("SELECT 1;DELETE FROM Seuils"), DbError);
  EXPECT_THROW(conn->openUpdatable("SELECT Seuil FROM Seuils; DELETE FROM Seuils"), DbError);
  EXPECT_EQ(countRows(*conn, "Seuils"), before);
  ASSERT_FALSE(conn->errors().empty());
  EXPECT_TRUE(contains(conn->errors().back().description(), "more than one statement"));
  // A closing semicolon or comment is no second statement.
  EXPECT_EQ(run(*conn, "SELECT 1;  -- done"), 1);

  // A name that would close the quote and add a statement stays a name once
  // quoted; spliced unquoted it fails before reaching the database.
  const std::string evil = "x'; DELETE FROM Seuils; --";
  EXPECT_EQ(run(*conn, "SELECT Address,[Target Id] FROM Cibles WHERE [Target Name]=" + db::sql::quote(evil)), 0);
  EXPECT_THROW(conn->execute("SELECT * FROM Identification WHERE [Logiciel]='" + db::sql::spliceUnquoted(evil) + "'"),
               DbError);
  EXPECT_EQ(countRows(*conn, "Seuils"), before);
}

}  // namespace
}  // namespace kavrel::test
