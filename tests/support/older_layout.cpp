#include "support/older_layout.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "kavrel/platform/db.h"

namespace kavrel::test {

const std::vector<std::string_view>& olderLayoutStatements() {
  static const std::vector<std::string_view> statements = {
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
  };
  return statements;
}

void createOlderLayoutDb(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::exists(path, ec))
    throw std::runtime_error("cannot create the older-layout database '" + path + "': the file already exists");
  {
    // An empty file is an empty database for the engine; the connection
    // then creates the tables through the ordinary interface.
    std::ofstream f(path, std::ios::binary);
    if (!f) throw std::runtime_error("cannot create the older-layout database '" + path + "'");
  }
  try {
    auto conn = db::openConnection(path);
    {
      db::Transaction tx(*conn);
      for (auto statement : olderLayoutStatements()) conn->execute(statement);
      tx.commit();
    }
    conn->close();
  } catch (...) {
    std::filesystem::remove(path, ec);
    throw;
  }
}

}  // namespace kavrel::test
