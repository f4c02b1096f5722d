// The name rule inside the database: uniqueness, "=" and ORDER BY of every
// name column, client-side filters, and files of earlier versions (which
// still open, and take the rule on their first write unless rows collide).
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "platform/sqlite/sqlite_internal.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

std::vector<std::string> column(db::Connection& c, const std::string& sql) {
  std::vector<std::string> out;
  for (auto rs = c.execute(sql); !rs->eof(); rs->moveNext()) out.push_back(rs->field(0).toText());
  return out;
}

int32_t failureOf(db::Connection& c, const std::string& sql) {
  try {
    c.execute(sql);
  } catch (const Error& e) {
    return e.number();
  }
  return 0;
}

// Runs SQL on a file through a plain engine connection, as a stock shell
// would: no KAVREL_NAME collation. Returns the engine's message ("" = ok).
std::string plainEngine(const std::string& path, const std::string& sql) {
  sqlite3* h = nullptr;
  sqlite3_open_v2(path.c_str(), &h, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  char* message = nullptr;
  std::string result;
  if (sqlite3_exec(h, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) result = message ? message : "failed";
  sqlite3_free(message);
  sqlite3_close(h);
  return result;
}

TEST(SqliteNameRule, EveryNamedTableRefusesCaseVariantsAndFindsThem) {
  TempDb db;
  auto c = db.connection();
  c->execute("INSERT INTO Cibles ([Target Id], Address, [Target Name]) VALUES (1, 122, 'Moteur')");
  c->execute("INSERT INTO Catégories ([Category Id], [Target Id], [Category Name]) VALUES (1, 1, 'Général')");
  c->execute("INSERT INTO Ecrans ([Screen Id], [Target Id], [Category Id], [Screen Name]) VALUES (1, 1, 1, 'Écran')");
  c->execute("INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 1, 'Lecture état')");
  c->execute("INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, 1, 'écart de richesse')");
  c->execute("INSERT INTO Organes (Address, [Target Id], [Organe Name]) VALUES (122, 1, 'Électrovanne')");
  // $N is the first spelling, $V a case variant of it, $O another name.
  struct Case {
    const char* table;
    const char* insert;  // with $N / $V
    const char* first;
    const char* variant;
    const char* lookupColumn;
    bool refersToAnother = false;  // the name must exist in a parent table
  };
  const Case cases[] = {
      {"Protocoles", "INSERT INTO Protocoles VALUES ('$', 0, 0)", "Kwp Rapide", "KWP RAPIDE", "[Protocol Name]"},
      {"Requêtes", "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 1, '$')", "Lecture",
       "LECTURE", "[Request Name]"},
      {"Données", "INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, 1, '$')",
       "ÉTAT BATTERIE", "état batterie", "[Data Name]"},
      {"Organes", "INSERT INTO Organes (Address, [Target Id], [Organe Name]) VALUES (122, 1, '$')", "Pompe",
       "POMPE", "[Organe Name]"},
      {"Catégories", "INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (1, '$')", "Éclairage",
       "éclairage", "[Category Name]"},
      {"Ecrans", "INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (1, 1, '$')", "Synthèse",
       "SYNTHÈSE", "[Screen Name]"},
      {"[Emplacement Donnée]",
       "INSERT INTO [Emplacement Donnée] (Address, [Target Id], [Request Name], [Data Name]) "
       "VALUES (122, 1, 'Lecture état', '$')",
       "écart de richesse", "ÉCART DE RICHESSE", "[Data Name]", true},
      {"Donnée_Ref",
       "INSERT INTO Donnée_Ref (Address, [Target Id], [Data Name], [Request Name]) "
       "VALUES (122, 1, '$', 'lecture ÉTAT')",
       "Écart de richesse", "écart DE richesse", "[Data Name]", true},
      {"Lien_DTC_ReqContext",
       "INSERT INTO Lien_DTC_ReqContext (Address, [Target Id], [Request Name], [Organe Name]) "
       "VALUES (122, 1, 'LECTURE ÉTAT', '$')",
       "électrovanne", "ÉLECTROVANNE", "[Organe Name]", true},
      {"Lien_Données_ds_Organe",
       "INSERT INTO Lien_Données_ds_Organe (Address, [Target Id], [Data Name], [Organe Name]) "
       "VALUES (122, 1, 'ÉCART de richesse', '$')",
       "Électrovanne", "électrovanne", "[Organe Name]", true},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.table);
    c->execute(text::replaceAll(k.insert, "$", k.first));
    // The variant is the same name: refused, and found by "=".
    const int32_t failure = failureOf(*c, text::replaceAll(k.insert, "$", k.variant));
    EXPECT_TRUE(failure == SQLITE_CONSTRAINT_UNIQUE || failure == SQLITE_CONSTRAINT_PRIMARYKEY) << failure;
    const std::string where = std::string(" WHERE ") + k.lookupColumn + "='" + k.variant + "'";
    EXPECT_EQ(column(*c, std::string("SELECT ") + k.lookupColumn + " FROM " + k.table + where),
              std::vector<std::string>{k.first});
    // Accents count: the unaccented spelling is another name.
    const std::string plain = text::replaceAll(text::replaceAll(text::replaceAll(k.first, "É", "E"), "é", "e"), "è", "e");
    if (plain != k.first && !k.refersToAnother) {
      EXPECT_EQ(failureOf(*c, text::replaceAll(k.insert, "$", plain)), 0) << plain;
    }
  }
  // Targets are found by name whatever the letter case, and a name with a
  // trailing blank is another name.
  EXPECT_EQ(column(*c, "SELECT [Target Name] FROM Cibles WHERE [Target Name]='MOTEUR'"),
            std::vector<std::string>{"Moteur"});
  EXPECT_TRUE(column(*c, "SELECT [Target Name] FROM Cibles WHERE [Target Name]='Moteur '").empty());
}

TEST(SqliteNameRule, NameOrderedListsSortAsAFrenchReaderExpects) {
  TempDb db;
  auto c = db.connection();
  const std::vector<std::string> names = {"abs", "Capteur", "Eclairage", "Éclairage avant", "moteur", "Vitesse"};
  for (size_t i = names.size(); i-- > 0;) {
    const std::string n = db::sql::quote(names[i]);
    const std::string id = std::to_string(i + 1);
    c->execute("INSERT INTO Fonctions ([Address], [Function Name]) VALUES (" + id + ", " + n + ")");
    c->execute("INSERT INTO Protocoles VALUES (" + n + ", 0, 0)");
    c->execute("INSERT INTO [Type Organe] VALUES (" + id + ", " + n + ")");
    c->execute("INSERT INTO [Type Panne] VALUES (" + id + ", " + n + ")");
    c->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (" + id + ", " + n + ")");
  }
  EXPECT_EQ(column(*c, "SELECT [Function Name] FROM [Fonctions] ORDER BY [Function Name]"), names);
  EXPECT_EQ(column(*c, "SELECT [Protocol Name] FROM [Protocoles] ORDER BY [Protocol Name]"), names);
  EXPECT_EQ(column(*c, "SELECT [Libelle] FROM [Type Organe] ORDER BY [Libelle]"), names);
  EXPECT_EQ(column(*c, "SELECT [Libelle] FROM [Type Panne] ORDER BY [Libelle]"), names);
  EXPECT_EQ(column(*c, "SELECT [Target Name] FROM Cibles ORDER BY [Target Name]"), names);

  // A client-side filter on a name matches by the rule too.
  auto rs = c->openClient("SELECT [Target Name] FROM Cibles");
  rs->filter("[Target Name]='ÉCLAIRAGE AVANT'");
  ASSERT_EQ(rs->recordCount(), 1);
  EXPECT_EQ(rs->field(0).toText(), "Éclairage avant");
  rs->filter("[Target Name]='eclairage avant'");
  EXPECT_EQ(rs->recordCount(), 0);
}

TEST(SqliteNameRule, CreateTableTextsGainTheCollation) {
  using db::sqlite::withNameCollationForTest;
  EXPECT_EQ(withNameCollationForTest("CREATE TABLE [Emplacement Donnée] (\n  [Request Name] TEXT NOT NULL,\n"
                                     "  [Data Name] TEXT NOT NULL COLLATE NOCASE, -- a comment, (\n"
                                     "  Other TEXT COLLATE NOCASE,\n  PRIMARY KEY ([Request Name], [Data Name]))",
                                     {"Request Name", "Data Name"}),
            "CREATE TABLE [Emplacement Donnée] (\n  [Request Name] TEXT NOT NULL COLLATE KAVREL_NAME,\n"
            "  [Data Name] TEXT NOT NULL COLLATE KAVREL_NAME, -- a comment, (\n"
            "  Other TEXT COLLATE NOCASE,\n  PRIMARY KEY ([Request Name], [Data Name]))");
  EXPECT_EQ(withNameCollationForTest("CREATE TABLE Données (\"Data Name\" TEXT CHECK (length(\"Data Name\") <= 70), "
                                     "x TEXT DEFAULT 'a,b)')",
                                     {"Data Name"}),
            "CREATE TABLE Données (\"Data Name\" TEXT CHECK (length(\"Data Name\") <= 70) COLLATE KAVREL_NAME, "
            "x TEXT DEFAULT 'a,b)')");
  EXPECT_EQ(withNameCollationForTest("CREATE TABLE T (Caption)", {"caption"}),
            "CREATE TABLE T (Caption COLLATE KAVREL_NAME)");
}

// A file as an earlier version made it: the same tables without the name
// collation (data names compared with ASCII case folded only).
std::string earlierSchema() {
  std::string out;
  std::string s(db::schemaSql());
  size_t start = 0;
  while (start < s.size()) {
    size_t end = s.find('\n', start);
    if (end == std::string::npos) end = s.size();
    std::string line = s.substr(start, end - start);
    if (line.rfind("--", 0) != 0) {
      const bool data = line.find("[Data Name]") != std::string::npos;
      line = text::replaceAll(line, " COLLATE KAVREL_NAME", data ? " COLLATE NOCASE" : "");
    }
    out += line + "\n";
    start = end + 1;
  }
  return out;
}

struct EarlierFile {
  TempDir dir;
  std::string path = dir.file("earlier.sqlite");
  EarlierFile() {
    const std::string error = plainEngine(
        path, earlierSchema() + "INSERT INTO [system] VALUES ('version', '4');" +
                  "INSERT INTO Cibles ([Target Id], Address, [Target Name]) VALUES (1, 122, 'Moteur');"
                  "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 1, 'Lecture'), "
                  "(122, 1, 'Ecriture');"
                  "INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, 1, 'écart de richesse'), "
                  "(122, 1, 'Vitesse');"
                  "INSERT INTO [Emplacement Donnée] (Address, [Target Id], [Request Name], [Data Name]) "
                  "VALUES (122, 1, 'Lecture', 'Vitesse');");
    EXPECT_EQ(error, "");
  }
};

TEST(SqliteNameRule, AnEarlierFileTakesTheRuleWhenOpened) {
  EarlierFile f;
  {
    auto c = db::openConnection(f.path);
    EXPECT_EQ(column(*c, "SELECT [Request Name] FROM Requêtes WHERE [Request Name]='LECTURE'"),
              std::vector<std::string>{"Lecture"});
    c->execute("INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 1, 'Effacement')");
    for (const std::string& sql : column(*c, "SELECT sql FROM sqlite_master WHERE type='table'")) {
      EXPECT_FALSE(test::contains(sql, "NOCASE")) << sql;
      if (sql.find("Name]") != std::string::npos) {
        EXPECT_TRUE(test::contains(sql, "COLLATE KAVREL_NAME")) << sql;
      }
    }
    EXPECT_EQ(column(*c, "PRAGMA integrity_check"), std::vector<std::string>{"ok"});
    EXPECT_EQ(failureOf(*c, "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 1, 'ECRITURE')"),
              SQLITE_CONSTRAINT_UNIQUE);
    EXPECT_EQ(failureOf(*c, "INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, 1, 'ÉCART DE RICHESSE')"),
              SQLITE_CONSTRAINT_UNIQUE);
    EXPECT_EQ(column(*c, "SELECT [Request Name] FROM Requêtes ORDER BY [Request Name]"),
              (std::vector<std::string>{"Ecriture", "Effacement", "Lecture"}));
    // Relations still carry a rename to the rows that refer to the name.
    c->execute("UPDATE Requêtes SET [Request Name]='Lecture rapide' WHERE [Request Name]='lecture'");
    EXPECT_EQ(column(*c, "SELECT [Request Name] FROM [Emplacement Donnée]"), std::vector<std::string>{"Lecture rapide"});
    c->close();
  }
  // What a stock engine without the collation can and cannot do with it.
  EXPECT_EQ(plainEngine(f.path, "SELECT [Request Name], count(*) FROM Requêtes"), "");
  EXPECT_TRUE(test::contains(plainEngine(f.path, "SELECT [Request Name] FROM Requêtes ORDER BY [Request Name]"),
                             "no such collation sequence: KAVREL_NAME"));
  EXPECT_TRUE(test::contains(
      plainEngine(f.path, "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 1, 'X')"),
      "no such collation sequence: KAVREL_NAME"));
}

TEST(SqliteNameRule, AnEarlierFileWithCollidingNamesIsRefusedAndLeftUnchanged) {
  EarlierFile f;
  // Legal before: requests differed by case, data names by an accented capital.
  ASSERT_EQ(plainEngine(f.path,
                        "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 1, 'LECTURE');"
                        "INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, 1, 'ÉCART DE RICHESSE')"),
            "");
  const std::string before = readBytes(f.path);
  auto c = db::openConnection(f.path);  // opens, as it is
  EXPECT_EQ(column(*c, "SELECT count(*) FROM Requêtes"), std::vector<std::string>{"3"});
  for (int attempt = 0; attempt < 2; ++attempt) {
    Error e = thrownBy([&] { db::Transaction tx(*c); });
    EXPECT_EQ(e.number(), SQLITE_CONSTRAINT_UNIQUE);
    for (const char* part : {"Requêtes: '", "'Lecture'", "'LECTURE'", "Données: '", "'écart de richesse'",
                             "'ÉCART DE RICHESSE'", "(Target Id 1)"})
      EXPECT_TRUE(test::contains(e.description(), part));
    EXPECT_TRUE(test::contains(e.description(), "left unchanged"));
  }
  EXPECT_EQ(failureOf(*c, "DELETE FROM Requêtes"), SQLITE_CONSTRAINT_UNIQUE);
  EXPECT_EQ(column(*c, "SELECT count(*) FROM Requêtes"), std::vector<std::string>{"3"});
  c->close();
  EXPECT_EQ(readBytes(f.path), before);
  // Once one of each pair is renamed (here by a plain engine), it upgrades.
  ASSERT_EQ(plainEngine(f.path,
                        "UPDATE Requêtes SET [Request Name]='Lecture 2' WHERE [Request Name]='LECTURE';"
                        "DELETE FROM Données WHERE [Data Name]='ÉCART DE RICHESSE'"),
            "");
  c = db::openConnection(f.path);
  EXPECT_NO_THROW(db::Transaction tx(*c));
  EXPECT_TRUE(test::contains(column(*c, "SELECT sql FROM sqlite_master WHERE name='Données'")[0], "KAVREL_NAME"));
}

}  // namespace
}  // namespace kavrel::test
