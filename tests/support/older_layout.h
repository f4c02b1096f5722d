// Test helper: a definitions database of the OLDER layout, the one the
// `...KVR` readers read.
//
//   kavrel::test::OlderLayoutDb old;   // file in its own temporary folder, connection open
//   old.conn->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (122, 'ABS')");
//
// The tables hold no rows but the [system] version row "3". As in databases
// of that era there are no relations; autonumbers are INTEGER PRIMARY KEY
// AUTOINCREMENT and booleans -1 / 0. Données holds one row per placement of a
// data item in a request (Start, Length, Masque, NumBitFort, NumBitFaible),
// so a [Data Name] may repeat; Cibles has no Langue / [Référence], Fonctions
// no XId / RId, [Paramètres UCE] no failure type, Reprogrammable or date.
// The screen tables have the current columns, except Affichages, which has
// no [Type Affich] and carries the name of the data a display shows. Identification, the organ tables, [Type Organe], [Type Panne],
// [Appartenance cible], [Emplacement Donnée] and Donnée_Ref are absent (no
// reader of that layout needs them).
#pragma once

#include <fstream>

#include "kavrel/platform/db.h"
#include "support/temp_db.h"

namespace kavrel::test {

struct OlderLayoutDb {
  OlderLayoutDb() {
    // An empty file is an empty database for the engine; the connection
    // then creates the tables through the ordinary interface.
    // On the server engine: a new empty database of the test server.
    if (currentEngine() == Engine::PostgreSQL) {
      path = createServerDatabase();
      onServer = true;
    } else {
      std::ofstream(path, std::ios::binary).flush();
    }
    conn = db::openConnection(path);
    db::Transaction tx(*conn);
    for (const char* statement : {
             "CREATE TABLE [system] ([parameter] TEXT NOT NULL PRIMARY KEY, [value] TEXT)",
             "INSERT INTO [system] ([parameter], [value]) VALUES ('version', '3')",
             "CREATE TABLE [Fonctions] ([Address] INTEGER PRIMARY KEY, [Function Name] TEXT)",
             "CREATE TABLE [Protocoles] ([Protocol Name] TEXT NOT NULL PRIMARY KEY, [Init mode] INTEGER, "
             "[Multipoint] INTEGER)",
             "CREATE TABLE Cibles ([Target Id] INTEGER PRIMARY KEY AUTOINCREMENT, Address INTEGER, [Target Name] TEXT)",
             "CREATE TABLE [Paramètres UCE] ([Ecu Id] INTEGER PRIMARY KEY, Comment TEXT, [Init Mode] INTEGER, "
             "Multipoint INTEGER, Key1 INTEGER, Key2 INTEGER, [Baud Rate] INTEGER, InterByteDelay INTEGER, "
             "KW2Delay INTEGER, FirstRequestDelay INTEGER, ReplyToRequestDelay INTEGER, TesterPresentDelay INTEGER, "
             "KW2Timeout INTEGER, RequestToReplyTimeout INTEGER, ErrorDelay INTEGER, [Little Endian] INTEGER)",
             "CREATE TABLE Requêtes ([Request Id] INTEGER PRIMARY KEY AUTOINCREMENT, Address INTEGER, "
             "[Target Id] INTEGER, [Request Name] TEXT, [Request Bytes] TEXT, [Length Datas] INTEGER, "
             "[Manual Send] INTEGER, LgVariable INTEGER)",
             "CREATE TABLE Données ([Data Id] INTEGER PRIMARY KEY AUTOINCREMENT, Address INTEGER, [Target Id] INTEGER, "
             "[Request Id] INTEGER, [Data Name] TEXT, Numérique INTEGER, Liste INTEGER, Param INTEGER, Start INTEGER, "
             "Length INTEGER, Masque INTEGER, NumBitFort INTEGER, NumBitFaible INTEGER, Unité TEXT, Signé INTEGER, "
             "CoeffA REAL, CoeffB REAL, CoeffC REAL, Format TEXT, Ascii INTEGER, [Little Endian] INTEGER, "
             "StartBit INTEGER, NumberBits INTEGER, Mnemo TEXT, Description TEXT)",
             "CREATE INDEX [Données by target] ON Données ([Target Id], [Data Name])",
             "CREATE TABLE [Fiches Diag] ([Data Id] INTEGER PRIMARY KEY, Fiche TEXT)",
             "CREATE TABLE Listes ([Data Id] INTEGER, Valeur INTEGER, Numérique INTEGER, Liste INTEGER, "
             "Libellé TEXT, Info TEXT)",
             "CREATE TABLE Catégories ([Category Id] INTEGER PRIMARY KEY AUTOINCREMENT, [Target Id] INTEGER, "
             "[Category Name] TEXT)",
             "CREATE TABLE Ecrans ([Screen Id] INTEGER PRIMARY KEY AUTOINCREMENT, [Target Id] INTEGER, "
             "[Category Id] INTEGER, [Screen Name] TEXT, [Init Id] INTEGER, WindowState INTEGER, Height INTEGER, "
             "Width INTEGER, ScreenColor INTEGER)",
             "CREATE TABLE Titres ([Label Id] INTEGER PRIMARY KEY AUTOINCREMENT, [Target Id] INTEGER, "
             "[Screen Id] INTEGER, [Text] TEXT, [Left] INTEGER, [Top] INTEGER, Height INTEGER, Width INTEGER, "
             "FontName TEXT, FontSize REAL, FontBold INTEGER, FontItalic INTEGER, FontColor INTEGER, Color INTEGER, "
             "Alignment INTEGER)",
             "CREATE TABLE Boutons ([Button Id] INTEGER PRIMARY KEY AUTOINCREMENT, [Target Id] INTEGER, "
             "[Screen Id] INTEGER, Caption TEXT, [Left] INTEGER, [Top] INTEGER, Height INTEGER, Width INTEGER, "
             "FontName TEXT, FontSize REAL, FontBold INTEGER, FontItalic INTEGER, Message TEXT)",
             "CREATE TABLE Scenarios ([Target Id] INTEGER, [Button Id] INTEGER, [Index] INTEGER, Address INTEGER, "
             "[Ecu Id] INTEGER, [Request Name] TEXT, LgVariable INTEGER, Delay INTEGER)",
             // No [Type Affich]: that layout tells a display's kind by its links.
             // A display row names the data it shows itself (data name, address,
             // target and written flag of a Données row).
             "CREATE TABLE Affichages ([Display Id] INTEGER PRIMARY KEY AUTOINCREMENT, [Target Id] INTEGER, "
             "[Screen Id] INTEGER, [Left] INTEGER, [Top] INTEGER, Height INTEGER, Width INTEGER, "
             "CaptionWidth INTEGER, FontName TEXT, FontSize INTEGER, FontBold INTEGER, FontItalic INTEGER, "
             "FontColor INTEGER, Color INTEGER, [Data Name] TEXT, Address INTEGER, [Ecu Id] INTEGER, Param INTEGER)",
             "CREATE TABLE Seuils ([Display Id] INTEGER, Seuil REAL, Couleur INTEGER, SonFlag INTEGER, Son INTEGER)"})
      conn->execute(statement);
    tx.commit();
  }
  ~OlderLayoutDb() {
    conn->close();
    if (onServer) dropServerDatabase(path);
  }
  TempDir dir;
  std::string path = dir.file("old.sqlite");
  bool onServer = false;
  std::shared_ptr<db::Connection> conn;
};

}  // namespace kavrel::test
