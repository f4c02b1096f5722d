// Test helper: a definitions database of the OLDER layout, the one the
// `...KVR` readers read.
//
//   kavrel::test::OlderLayoutDb old;   // file in its own temporary folder, connection open
//   old.conn->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (122, 'ABS')");
//
// The tables are those of olderLayoutStatements() and hold no rows but the
// [system] version row "3". As in databases of that era there are no
// relations; autonumbers are INTEGER PRIMARY KEY AUTOINCREMENT and booleans
// -1 / 0. Données holds one row per placement of a data item in a request
// (Start, Length, Masque, NumBitFort, NumBitFaible), so a [Data Name] may
// repeat; Cibles has no Langue / [Référence], Fonctions no XId / RId,
// [Paramètres UCE] no failure type, Reprogrammable or date. Identification,
// the organ and screen tables, [Type Organe], [Type Panne], [Appartenance
// cible], [Emplacement Donnée] and Donnée_Ref are absent (no reader of that
// layout needs them).
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kavrel/platform/db.h"
#include "support/temp_db.h"

namespace kavrel::test {

// Creates the database file at `path` (which must not exist yet). Throws
// (kavrel::Error or std::runtime_error) on failure.
void createOlderLayoutDb(const std::string& path);

// The CREATE TABLE / INSERT statements used, one statement per entry.
const std::vector<std::string_view>& olderLayoutStatements();

// A fresh older-layout file ("old.sqlite" in its own folder) and a connection
// on it, closed at the end.
struct OlderLayoutDb {
  OlderLayoutDb() {
    createOlderLayoutDb(path);
    conn = db::openConnection(path);
  }
  ~OlderLayoutDb() { conn->close(); }
  TempDir dir;
  std::string path = dir.file("old.sqlite");
  std::shared_ptr<db::Connection> conn;
};

}  // namespace kavrel::test
