// The relations of the definitions schema, proved on a fresh database.
#include <gtest/gtest.h>

#include <map>

#include "platform/db_sample_target.h"
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
  TempDb db;
  std::shared_ptr<db::Connection> conn;
  SampleTarget a, b;
};

TEST_F(SchemaTest, NewDatabaseCarriesVersionFour) {
  auto rs = conn->execute("SELECT [value] FROM [system] WHERE [parameter]='version'");
  ASSERT_FALSE(rs->eof());
  EXPECT_EQ(rs->field("value").toText(), "4");
}

TEST_F(SchemaTest, DeletingATargetRowRemovesAllItHolds) {
  auto before = counts(*conn);
  conn->execute("DELETE * FROM Cibles WHERE [Target Id]=" + std::to_string(a.targetId));
  auto after = counts(*conn);
  for (const char* t : kTargetTables) {
    EXPECT_EQ(after[t] * 2, before[t]) << t;  // the other target keeps its half
    EXPECT_GT(after[t], 0) << t;
  }
  EXPECT_EQ(countRows(*conn, "Fonctions"), 2);  // shared catalogue untouched
}

TEST_F(SchemaTest, SessionTargetDeleteSucceedsInOneDeferredTransaction) {
  const std::string id = std::to_string(a.targetId);
  // Alone, deleting the categories is refused: they still have screens.
  expectRefused(*conn, "DELETE * FROM Catégories WHERE [Target Id]=" + id);

  auto before = counts(*conn);
  {
    db::Transaction tx(*conn);
    conn->deferConstraintChecks();
    conn->execute("DELETE * FROM Catégories WHERE [Target Id]=" + id);
    conn->execute("DELETE * FROM Organes WHERE [Target Id]=" + id);
    conn->execute("DELETE * FROM Cibles WHERE [Target Id]=" + id);
    tx.commit();
  }
  auto after = counts(*conn);
  for (const char* t : kTargetTables) EXPECT_EQ(after[t] * 2, before[t]) << t;
}

TEST_F(SchemaTest, DeferredDeleteThatLeavesOrphansFailsAtCommitAndRollsBack) {
  auto before = counts(*conn);
  {
    db::Transaction tx(*conn);
    conn->deferConstraintChecks();
    conn->execute("DELETE * FROM Catégories WHERE [Target Id]=" + std::to_string(a.targetId));
    EXPECT_THROW(tx.commit(), DbError);  // the screens would be orphans
  }
  EXPECT_EQ(conn->transactionDepth(), 0);
  EXPECT_EQ(counts(*conn), before);
  // The deferral ended with the transaction: a plain delete is refused again.
  expectRefused(*conn, "DELETE * FROM Catégories WHERE [Target Id]=" + std::to_string(a.targetId));
}

TEST_F(SchemaTest, RowsOthersDependOnCannotBeDeleted) {
  const std::string tid = std::to_string(a.targetId);
  const std::string read = db::sql::quote(kReadRequest);
  const std::string write = db::sql::quote(kWriteRequest);
  // A screen with a label, a button or a display.
  expectRefused(*conn, "DELETE FROM Ecrans WHERE [Screen Id]=" + std::to_string(a.screenId));
  conn->execute("DELETE FROM Affichages WHERE [Screen Id]=" + std::to_string(a.screenId));
  conn->execute("DELETE FROM Boutons WHERE [Screen Id]=" + std::to_string(a.screenId));
  expectRefused(*conn, "DELETE FROM Ecrans WHERE [Screen Id]=" + std::to_string(a.screenId));  // the label
  conn->execute("DELETE FROM Titres WHERE [Screen Id]=" + std::to_string(a.screenId));
  conn->execute("DELETE FROM Ecrans WHERE [Screen Id]=" + std::to_string(a.screenId));

  // A data position shown by a display, and a reference position.
  const std::string regimePos = "DELETE * From [Emplacement Donnée] WHERE [Target Id]=" + tid +
                                " AND [Request Name]=" + read + " AND [Data Name]='Régime'";
  const std::string bPos = "DELETE FROM [Emplacement Donnée] WHERE [Target Id]=" + std::to_string(b.targetId) +
                           " AND [Data Name]='Régime'";
  expectRefused(*conn, bPos);  // b's position is shown by b's display
  conn->execute("DELETE FROM Données_Aff WHERE [Target Id]=" + std::to_string(b.targetId));
  expectRefused(*conn, bPos);  // still b's reference position
  conn->execute("DELETE FROM Donnée_Ref WHERE [Target Id]=" + std::to_string(b.targetId));
  conn->execute(bPos);
  EXPECT_EQ(conn->recordsAffected(), 1);

  // A request's plain positions go with it; a request used by an organ's
  // freeze-frame link, a scenario or a request display is kept by each use
  // alone. (Target a's screen contents, its scenario included, are gone
  // already.)
  const std::string bid = std::to_string(b.targetId);
  auto deleteRequest = [&](int64_t id) { return "DELETE * From [Requêtes] WHERE [Request Id]=" + std::to_string(id); };
  conn->execute(deleteRequest(a.writeRequestId));
  EXPECT_EQ(countRows(*conn, "[Emplacement Donnée] WHERE [Target Id]=" + tid + " AND [Request Name]=" + write), 0);

  conn->execute("DELETE FROM Donnée_Ref WHERE [Target Id]=" + tid);
  conn->execute(regimePos);
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
  expectRefused(*conn, "DELETE * from Catégories WHERE [Category Id]=" + std::to_string(b.categoryId));
  expectRefused(*conn, "DELETE * from Données WHERE [Data Id]=" + std::to_string(b.vitesseId));
}

TEST_F(SchemaTest, DeletingAParentRemovesWhatBelongsToIt) {
  const std::string tid = std::to_string(a.targetId);
  // The data item: its list, sheet, positions and reference position go
  // (once the display showing it is deleted, as the data item's delete does).
  conn->execute("DELETE * from Affichages WHERE [Target Id]=" + tid +
                " AND [Display Id] in (select [Display Id] from Données_Aff where [Target Id]=" + tid +
                " AND [Data Name]='Régime')");
  EXPECT_EQ(countRows(*conn, "Seuils"), 1);  // the display's threshold went with it
  conn->execute("DELETE * from Données WHERE [Data Id]=" + std::to_string(a.regimeId));
  auto left = [&](const std::string& table, const std::string& where) {
    return conn->execute("SELECT count(*) FROM " + table + " WHERE " + where)->field(0).toInt64();
  };
  const std::string regime = std::to_string(a.regimeId);
  EXPECT_EQ(left("Listes", "[Data Id]=" + regime), 0);
  EXPECT_EQ(left("[Fiches Diag]", "[Data Id]=" + regime), 0);
  EXPECT_EQ(left("[Emplacement Donnée]", "[Target Id]=" + tid + " AND [Data Name]='Régime'"), 0);
  EXPECT_EQ(left("Donnée_Ref", "[Target Id]=" + tid), 0);

  // The request display: its request link.
  conn->execute("DELETE * FROM Affichages WHERE [Display Id]=" + std::to_string(a.requestDisplayId));
  EXPECT_EQ(left("Extra_Aff", "[Target Id]=" + tid), 0);
  // The button: its scenario steps.
  conn->execute("DELETE * FROM Boutons WHERE [Button Id]=" + std::to_string(a.buttonId));
  EXPECT_EQ(left("Scenarios", "[Target Id]=" + tid), 0);
  // The organ: its freeze-frame link and its data links.
  conn->execute("DELETE * FROM Organes WHERE [Organe Id]=" + std::to_string(a.organId));
  EXPECT_EQ(left("[Lien_DTC_ReqContext]", "[Target Id]=" + tid), 0);
  EXPECT_EQ(left("Lien_Données_ds_Organe", "[Target Id]=" + tid), 0);
  // Target b is untouched.
  EXPECT_EQ(countRows(*conn, "Listes"), 2);
  EXPECT_EQ(countRows(*conn, "Scenarios"), 1);
}

TEST_F(SchemaTest, NamesAreUniqueInTheirScope) {
  const std::string tid = std::to_string(a.targetId);
  const std::string other = std::to_string(b.targetId);
  expectRefused(*conn, "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, " + tid + ", 'Ecriture')");
  expectRefused(*conn, "UPDATE Requêtes SET [Request Name]='Ecriture' WHERE [Request Id]=" +
                           std::to_string(a.readRequestId));
  // Data names compare without letter case.
  expectRefused(*conn, "INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, " + tid + ", 'VITESSE')");
  expectRefused(*conn, "UPDATE Données SET [Data Name]='LIBRE' WHERE [Data Id]=" + std::to_string(a.vitesseId));
  expectRefused(*conn, "INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + tid + ", 'Catégorie')");
  expectRefused(*conn, "INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (" + tid + ", " +
                           std::to_string(a.categoryId) + ", 'Écran')");
  expectRefused(*conn, "INSERT INTO Organes (Address, [Target Id], [Organe Name]) VALUES (122, " + tid + ", 'Moteur')");
  expectRefused(*conn, "INSERT INTO Donnée_Ref VALUES (122, " + tid + ", 'Régime', 'Lecture état')");
  expectRefused(*conn, "INSERT INTO Listes VALUES (" + std::to_string(a.regimeId) + ", 1, -1, -1, 'x', NULL)");
  expectRefused(*conn, "INSERT INTO Lien_Données_ds_Organe VALUES (122, " + tid + ", 'Vitesse', 'Moteur', 0)");
  expectRefused(*conn, "INSERT INTO Fonctions VALUES (122, 'again', NULL, NULL)");

  // The same names elsewhere are fine: another target, another category,
  // another flag combination of a list value.
  conn->execute("INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (64, " + other + ", 'Nouvelle')");
  conn->execute("INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, " + tid + ", 'Nouvelle')");
  conn->execute("INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + tid + ", 'Autre')");
  conn->execute("INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (" + tid + ", " +
                std::to_string(maxId(*conn, "Catégories", "[Category Id]")) + ", 'Écran')");
  conn->execute("INSERT INTO Listes VALUES (" + std::to_string(a.regimeId) + ", 1, 0, -1, 'x', NULL)");
  // Identification rows have no key: the same entry twice is kept.
  conn->execute("INSERT INTO Identification VALUES (122, " + tid + ", 1, NULL, 'SUP', 'Logiciel', 'V1', 'Français')");
  EXPECT_EQ(conn->execute("SELECT count(*) FROM Identification WHERE [Target Id]=" + tid)->field(0).toInt64(), 2);
}

TEST_F(SchemaTest, RenamesAreCarriedIntoEveryRowThatNamesTheParent) {
  const std::string tid = std::to_string(a.targetId);
  auto count = [&](const std::string& table, const std::string& column, const std::string& value) {
    return conn
        ->execute("SELECT count(*) FROM " + table + " WHERE [Target Id]=" + tid + " AND " + column + "=" +
                  db::sql::quote(value))
        ->field(0)
        .toInt64();
  };
  conn->execute("UPDATE Requêtes SET [Request Name]='Lecture' WHERE [Request Id]=" + std::to_string(a.readRequestId));
  EXPECT_EQ(count("[Emplacement Donnée]", "[Request Name]", "Lecture"), 2);
  EXPECT_EQ(count("Donnée_Ref", "[Request Name]", "Lecture"), 1);
  EXPECT_EQ(count("[Lien_DTC_ReqContext]", "[Request Name]", "Lecture"), 1);
  EXPECT_EQ(count("Données_Aff", "[Request Name]", "Lecture"), 1);
  EXPECT_EQ(count("Extra_Aff", "[Request Name]", "Lecture"), 1);
  conn->execute("UPDATE Requêtes SET [Request Name]='Écrire' WHERE [Request Id]=" + std::to_string(a.writeRequestId));
  EXPECT_EQ(count("Scenarios", "[Request Name]", "Écrire"), 1);

  conn->execute("UPDATE Données SET [Data Name]='Régime moteur' WHERE [Data Id]=" + std::to_string(a.regimeId));
  EXPECT_EQ(count("[Emplacement Donnée]", "[Data Name]", "Régime moteur"), 1);
  EXPECT_EQ(count("Donnée_Ref", "[Data Name]", "Régime moteur"), 1);
  EXPECT_EQ(count("Données_Aff", "[Data Name]", "Régime moteur"), 1);
  conn->execute("UPDATE Données SET [Data Name]='Vitesse véhicule' WHERE [Data Id]=" + std::to_string(a.vitesseId));
  EXPECT_EQ(count("[Emplacement Donnée]", "[Data Name]", "Vitesse véhicule"), 2);
  EXPECT_EQ(count("Lien_Données_ds_Organe", "[Data Name]", "Vitesse véhicule"), 1);

  conn->execute("UPDATE Organes SET [Organe Name]='Boîte' WHERE [Organe Id]=" + std::to_string(a.organId));
  EXPECT_EQ(count("[Lien_DTC_ReqContext]", "[Organe Name]", "Boîte"), 1);
  EXPECT_EQ(count("Lien_Données_ds_Organe", "[Organe Name]", "Boîte"), 1);

  // Nothing of target b moved.
  EXPECT_EQ(countRows(*conn, "Données_Aff WHERE [Request Name]='Lecture état'"), 1);
}

TEST_F(SchemaTest, LengthLimitsCountCharacters) {
  const std::string tid = std::to_string(a.targetId);
  auto repeat = [](const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
  };
  auto dataName = [&](const std::string& n) {
    return "INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, " + tid + ", '" + n + "')";
  };
  conn->execute(dataName(repeat("é", 70)));  // 140 bytes, 70 characters
  expectRefused(*conn, dataName(repeat("x", 71)));
  conn->execute("UPDATE [Paramètres UCE] SET Comment='" + repeat("ç", 255) + "', Reprogrammable='" + repeat("r", 50) +
                "' WHERE [Ecu Id]=" + tid);
  expectRefused(*conn, "UPDATE [Paramètres UCE] SET Comment='" + repeat("c", 256) + "' WHERE [Ecu Id]=" + tid);
  expectRefused(*conn, "UPDATE [Paramètres UCE] SET Reprogrammable='" + repeat("r", 51) + "' WHERE [Ecu Id]=" + tid);
  expectRefused(*conn, "UPDATE Données SET Description='" + repeat("d", 256) + "' WHERE [Data Id]=" +
                           std::to_string(a.libreId));
  expectRefused(*conn, "UPDATE Organes SET [Organe Name]='" + repeat("o", 71) + "' WHERE [Organe Id]=" +
                           std::to_string(a.organId));
  conn->execute("UPDATE Organes SET Mnemonique='" + repeat("m", 50) + "' WHERE [Organe Id]=" + std::to_string(a.organId));
  expectRefused(*conn, "UPDATE Organes SET Mnemonique='" + repeat("m", 51) + "' WHERE [Organe Id]=" +
                           std::to_string(a.organId));
  conn->execute("UPDATE Listes SET Libellé='" + repeat("l", 80) + "' WHERE Valeur=0");
  expectRefused(*conn, "UPDATE Listes SET Libellé='" + repeat("l", 81) + "' WHERE Valeur=0");
}

TEST_F(SchemaTest, KeysWithoutRelationsAndAutonumbers) {
  // A parameter row may name a failure type that does not exist: the read
  // then reports the parameters as not found, the insert is not refused.
  conn->execute("UPDATE [Paramètres UCE] SET [Type Panne Id]=99 WHERE [Ecu Id]=" + std::to_string(a.targetId));
  // Autonumbers are never given twice, even after the highest row went.
  conn->execute("DELETE FROM Boutons WHERE [Button Id]=" + std::to_string(b.buttonId));
  conn->execute("INSERT INTO Boutons ([Target Id], [Screen Id]) VALUES (" + std::to_string(b.targetId) + ", " +
                std::to_string(b.screenId) + ")");
  EXPECT_GT(maxId(*conn, "Boutons", "[Button Id]"), b.buttonId);
  // Booleans are stored -1/0 and legacy filters rely on it.
  auto rs = conn->execute("SELECT count(*) AS N FROM Données WHERE Numérique=-1 AND Liste=-1");
  EXPECT_EQ(rs->field("N").toInt64(), 2);
}

}  // namespace
}  // namespace kavrel::test
