// A complete target written with plain SQL, for the database-layer tests:
// one row (or two) in every table, with non-ASCII names.
#pragma once

#include <cstdint>
#include <string>

#include "kavrel/platform/db.h"

namespace kavrel::test {

struct SampleTarget {
  int64_t address = 0;
  int64_t targetId = 0;
  int64_t readRequestId = 0;   // "Lecture état": carries Régime and Vitesse
  int64_t writeRequestId = 0;  // "Ecriture": carries Vitesse as a parameter
  int64_t regimeId = 0;        // data with list, sheet, reference position
  int64_t vitesseId = 0;       // data linked to the organ
  int64_t libreId = 0;         // data used nowhere
  int64_t organId = 0;
  int64_t categoryId = 0;
  int64_t screenId = 0;
  int64_t labelId = 0;
  int64_t buttonId = 0;
  int64_t dataDisplayId = 0;     // shows Régime in "Lecture état", has a threshold
  int64_t requestDisplayId = 0;  // shows "Lecture état"
};

inline constexpr const char* kReadRequest = "Lecture état";
inline constexpr const char* kWriteRequest = "Ecriture";

inline int64_t maxId(db::Connection& c, const std::string& table, const std::string& column) {
  auto rs = c.execute("SELECT max(" + column + ") FROM " + table);
  return rs->field(0).toInt64();
}

inline SampleTarget addSampleTarget(db::Connection& c, int64_t address, const std::string& name) {
  SampleTarget t;
  t.address = address;
  db::Transaction tx(c);  // one write to disk instead of one per statement
  const std::string a = std::to_string(address);
  c.execute("INSERT OR IGNORE INTO [Type Panne] VALUES (0, 'Ne contient pas de pannes')");
  c.execute("INSERT OR IGNORE INTO [Type Organe] VALUES (1, 'Entrée')");
  c.execute("INSERT OR IGNORE INTO Protocoles VALUES ('KWP 2000', 2, -1)");
  c.execute("INSERT OR IGNORE INTO Fonctions VALUES (" + a + ", 'Fonction " + a + "', NULL, NULL)");
  c.execute("INSERT INTO Cibles (Address, [Target Name], Langue, [Référence]) VALUES (" + a + ", " +
            db::sql::quote(name) + ", 'Français', -1)");
  t.targetId = maxId(c, "Cibles", "[Target Id]");
  const std::string id = std::to_string(t.targetId);
  c.execute("INSERT INTO [Appartenance cible] VALUES (" + a + ", " + id + ", " + a + ", " + id + ")");
  c.execute("INSERT INTO [Paramètres UCE] ([Ecu Id], Comment, [Init Mode], Multipoint, [Type Panne Id]) VALUES (" + id +
            ", 'essai', 2, -1, 0)");
  c.execute("INSERT INTO Identification VALUES (" + a + ", " + id + ", 1, NULL, 'SUP', 'Logiciel', 'V1', 'Français')");

  auto request = [&](const std::string& n) {
    c.execute("INSERT INTO Requêtes (Address, [Target Id], [Request Name], [Length Datas]) VALUES (" + a + ", " + id +
              ", " + db::sql::quote(n) + ", 1)");
    return maxId(c, "Requêtes", "[Request Id]");
  };
  t.readRequestId = request(kReadRequest);
  t.writeRequestId = request(kWriteRequest);

  auto data = [&](const std::string& n, bool liste) {
    c.execute("INSERT INTO Données (Address, [Target Id], [Data Name], NumberBits, Numérique, Liste) VALUES (" + a +
              ", " + id + ", " + db::sql::quote(n) + ", 8, -1, " + (liste ? "-1" : "0") + ")");
    return maxId(c, "Données", "[Data Id]");
  };
  t.regimeId = data("Régime", true);
  t.vitesseId = data("Vitesse", false);
  t.libreId = data("Libre", false);
  const std::string regime = std::to_string(t.regimeId);
  c.execute("INSERT INTO [Fiches Diag] VALUES (" + regime + ", 'fiche')");
  c.execute("INSERT INTO Listes VALUES (" + regime + ", 0, -1, -1, 'Arrêt', NULL)");
  c.execute("INSERT INTO Listes VALUES (" + regime + ", 1, -1, -1, 'Marche', 'info')");

  auto position = [&](const std::string& requestName, const std::string& dataName, int param) {
    c.execute("INSERT INTO [Emplacement Donnée] VALUES (" + a + ", " + id + ", " + db::sql::quote(requestName) + ", " +
              db::sql::quote(dataName) + ", 1, 0, 0, " + std::to_string(param) + ")");
  };
  position(kReadRequest, "Régime", 0);
  position(kReadRequest, "Vitesse", 0);
  position(kWriteRequest, "Vitesse", -1);
  c.execute("INSERT INTO Donnée_Ref VALUES (" + a + ", " + id + ", 'Régime', " + db::sql::quote(kReadRequest) + ")");

  c.execute("INSERT INTO Organes (Address, [Target Id], [Organe Name], Mnemonique, [Type Organe Id], DTC, OBD) VALUES (" +
            a + ", " + id + ", 'Moteur', 'MOT', 1, 0, 0)");
  t.organId = maxId(c, "Organes", "[Organe Id]");
  c.execute("INSERT INTO [Lien_DTC_ReqContext] VALUES (" + a + ", " + id + ", " + db::sql::quote(kReadRequest) +
            ", 'Moteur')");
  c.execute("INSERT INTO Lien_Données_ds_Organe VALUES (" + a + ", " + id + ", 'Vitesse', 'Moteur', -1)");

  c.execute("INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + id + ", 'Catégorie')");
  t.categoryId = maxId(c, "Catégories", "[Category Id]");
  c.execute("INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name], [Init Id], WindowState, Height, Width, "
            "ScreenColor) VALUES (" +
            id + ", " + std::to_string(t.categoryId) + ", 'Écran', 0, 0, 400, 600, 16777215)");
  t.screenId = maxId(c, "Ecrans", "[Screen Id]");
  const std::string screen = std::to_string(t.screenId);
  c.execute("INSERT INTO Titres ([Target Id], [Screen Id], [Text], FontSize) VALUES (" + id + ", " + screen +
            ", 'Titre', 8.25)");
  t.labelId = maxId(c, "Titres", "[Label Id]");
  c.execute("INSERT INTO Boutons ([Target Id], [Screen Id], Caption, FontSize) VALUES (" + id + ", " + screen +
            ", 'Go', 12)");
  t.buttonId = maxId(c, "Boutons", "[Button Id]");
  c.execute("INSERT INTO Scenarios VALUES (" + id + ", " + std::to_string(t.buttonId) + ", 1, " + a + ", " + id + ", " +
            db::sql::quote(kWriteRequest) + ", 0, 100)");

  c.execute("INSERT INTO Affichages ([Target Id], [Screen Id], [Type Affich]) VALUES (" + id + ", " + screen + ", 3)");
  t.dataDisplayId = maxId(c, "Affichages", "[Display Id]");
  c.execute("INSERT INTO Données_Aff VALUES (" + id + ", " + screen + ", " + std::to_string(t.dataDisplayId) + ", 3, " +
            a + ", " + id + ", 'Régime', " + db::sql::quote(kReadRequest) + ")");
  c.execute("INSERT INTO Seuils VALUES (" + std::to_string(t.dataDisplayId) + ", 12.5, 255, -1, 3)");
  c.execute("INSERT INTO Affichages ([Target Id], [Screen Id], [Type Affich]) VALUES (" + id + ", " + screen + ", 1)");
  t.requestDisplayId = maxId(c, "Affichages", "[Display Id]");
  c.execute("INSERT INTO Extra_Aff VALUES (" + id + ", " + screen + ", " + std::to_string(t.requestDisplayId) + ", 1, " +
            a + ", " + id + ", " + db::sql::quote(kReadRequest) + ", 0, 0)");
  tx.commit();
  return t;
}

// Rows of `table` (a whole-table count).
inline int64_t countRows(db::Connection& c, const std::string& table) {
  return c.execute("SELECT count(*) FROM " + table)->field(0).toInt64();
}

}  // namespace kavrel::test
