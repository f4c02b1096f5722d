// What only the server engine has: connection strings and passwords, the
// schema generated from the one schema text, and the name rule in SQL.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <latch>
#include <map>
#include <set>
#include <thread>
#include <tuple>

#include "kavrel/platform/names.h"
#include "platform/postgres/pg_backend.h"
#include "support/checks.h"
#include "support/engines.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

// host= and user= of the test server's URI (its query part).
std::string queryValue(const std::string& uri, const std::string& key) {
  size_t at = uri.find(key + "=");
  if (at == std::string::npos) return {};
  size_t end = uri.find('&', at);
  return uri.substr(at + key.size() + 1, (end == std::string::npos ? uri.size() : end) - at - key.size() - 1);
}

std::string databaseOf(const std::string& uri) {
  size_t path = uri.find('/', uri.find("://") + 3);
  return uri.substr(path + 1, uri.find('?') - path - 1);
}

TEST(PostgresConnection, UriKeyValueAndDataLinkFormsOpenAndPasswordsAreNeverShown) {
  TempDb db(Engine::PostgreSQL);
  const std::string host = queryValue(db.path(), "host"), user = queryValue(db.path(), "user"),
                    name = databaseOf(db.path());
  if (host.empty() || user.empty()) GTEST_SKIP() << "the test server is not named by host= and user=";
  auto version = [](const std::string& cs) {
    return db::openConnection(cs)->execute("SELECT [value] FROM [system]")->field(0).toText();
  };
  EXPECT_EQ(version(db.path()), "4");
  EXPECT_EQ(version("Provider=PostgreSQL;Host=" + host + ";Database=" + name + ";User ID=" + user), "4");
  EXPECT_EQ(version("provider=postgres; server = " + host + " ; Initial Catalog='" + name + "';user=" + user), "4");
  TempDir dir;
  std::string link = "[oledb]\r\n; kept for the old tools\r\nProvider=PostgreSQL;Host=" + host + ";Database=" + name +
                     ";User ID=" + user + "\r\n";
  std::string utf16 = "\xFF\xFE";
  for (char c : link) utf16 += std::string{c, '\0'};
  writeBytes(dir.file("server.udl"), utf16);
  EXPECT_EQ(version("File name=" + dir.file("server.udl")), "4");
  // A password in any form stays out of every message.
  for (const std::string& cs :
       {"postgresql://" + user + ":S3cret-pw@/no_such_db?host=" + host,
        "postgresql:///no_such_db?host=" + host + "&user=" + user + "&password=S3cret-pw",
        "Provider=PostgreSQL;Host=" + host + ";Database=no_such_db;User ID=" + user + ";Password=S3cret-pw"}) {
    const Error e = thrownBy([&] { db::openConnection(cs); });
    EXPECT_EQ(e.number(), 14);
    EXPECT_TRUE(contains(e.description(), "no_such_db"));
    EXPECT_FALSE(contains(e.description(), "S3cret")) << e.description();
  }
  EXPECT_EQ(db::postgres::redact("postgresql://u:pw@h/d"), "postgresql://u@h/d");
  // init needs an empty database: one with tables is refused, untouched.
  EXPECT_EQ(thrownBy([&] { db::createDatabase(db.path()); }).number(), 58);
  EXPECT_EQ(version(db.path()), "4");
}

// The tables, columns, types, keys, relations and cascades of a database,
// as its engine's catalog tells them (names folded to lower case).
struct Layout {
  std::map<std::string, std::vector<std::string>> columns;  // table -> "name type notnull"
  std::set<std::string> keys;       // "table: primary|unique (cols)"
  std::set<std::string> relations;  // "table (cols) -> table (cols) delete update"
};

std::string lower(std::string s) {
  for (char& ch : s) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return s;  // ASCII is enough: the schema's non-ASCII letters are all small
}

Layout sqliteLayout(db::Connection& c) {
  Layout l;
  auto tables = c.execute("SELECT name FROM sqlite_master WHERE type='table' AND name NOT LIKE 'sqlite%' ORDER BY name");
  std::vector<std::string> names;
  for (; !tables->eof(); tables->moveNext()) names.push_back(tables->field(0).toText());
  for (const std::string& t : names) {
    std::vector<std::pair<int, std::string>> pk;
    for (auto rs = c.execute("PRAGMA table_info(\"" + t + "\")"); !rs->eof(); rs->moveNext()) {
      std::string type = lower(rs->field("type").toText());
      type = type == "integer" ? "bigint" : type == "real" ? "double precision" : type;
      l.columns[lower(t)].push_back(lower(rs->field("name").toText()) + " " + type + " " +
                                    (rs->field("notnull").toInt32() || rs->field("pk").toInt32() ? "1" : "0"));
      if (rs->field("pk").toInt32()) pk.emplace_back(rs->field("pk").toInt32(), lower(rs->field("name").toText()));
    }
    std::sort(pk.begin(), pk.end());
    std::string cols;
    for (auto& [n, col] : pk) cols += (cols.empty() ? "" : ",") + col;
    if (!cols.empty()) l.keys.insert(lower(t) + ": (" + cols + ")");
    for (auto ix = c.execute("PRAGMA index_list(\"" + t + "\")"); !ix->eof(); ix->moveNext()) {
      if (!ix->field("unique").toInt32() || ix->field("origin").toText() == "pk") continue;
      std::string ucols;
      for (auto ic = c.execute("PRAGMA index_info(\"" + ix->field("name").toText() + "\")"); !ic->eof(); ic->moveNext())
        ucols += (ucols.empty() ? "" : ",") + lower(ic->field("name").toText());
      l.keys.insert(lower(t) + ": (" + ucols + ")");
    }
    std::map<int, std::string> fks;
    for (auto fk = c.execute("PRAGMA foreign_key_list(\"" + t + "\")"); !fk->eof(); fk->moveNext()) {
      std::string& f = fks[fk->field("id").toInt32()];
      if (f.empty()) {
        f = lower(fk->field("table").toText()) + "|" + lower(fk->field("on_delete").toText()) + " " +
            lower(fk->field("on_update").toText()) + "|";
      }
      f += lower(fk->field("from").toText()) + ">" + lower(fk->field("to").toText()) + ",";
    }
    for (auto& [id, f] : fks) l.relations.insert(lower(t) + "->" + f);
  }
  return l;
}

Layout serverLayout(db::Connection& c) {
  Layout l;
  for (auto rs = c.execute("SELECT table_name, column_name, data_type, is_nullable FROM information_schema.columns "
                           "WHERE table_schema = current_schema() ORDER BY table_name, ordinal_position");
       !rs->eof(); rs->moveNext()) {
    l.columns[rs->field(0).toText()].push_back(rs->field(1).toText() + " " + rs->field(2).toText() + " " +
                                               (rs->field(3).toText() == "NO" ? "1" : "0"));
  }
  // Keys and relations, columns in their order in the constraint.
  for (auto rs = c.execute(
           "SELECT k.contype, t.relname, (SELECT string_agg(a.attname, ',' ORDER BY u.i) FROM unnest(k.conkey) WITH "
           "ORDINALITY u(n, i) JOIN pg_attribute a ON a.attrelid = k.conrelid AND a.attnum = u.n), r.relname, "
           "(SELECT string_agg(a.attname || '>' || b.attname, ',' ORDER BY u.i) FROM unnest(k.conkey, k.confkey) "
           "WITH ORDINALITY u(n, m, i) JOIN pg_attribute a ON a.attrelid = k.conrelid AND a.attnum = u.n "
           "JOIN pg_attribute b ON b.attrelid = k.confrelid AND b.attnum = u.m), k.confdeltype, k.confupdtype "
           "FROM pg_constraint k JOIN pg_class t ON t.oid = k.conrelid LEFT JOIN pg_class r ON r.oid = k.confrelid "
           "WHERE t.relnamespace = current_schema()::regnamespace AND k.contype IN ('p', 'u', 'f')");
       !rs->eof(); rs->moveNext()) {
    const std::string type = rs->field(0).toText(), table = rs->field(1).toText();
    if (type != "f") {
      l.keys.insert(table + ": (" + rs->field(2).toText() + ")");
      continue;
    }
    auto action = [](const std::string& a) {
      return a == "c" ? "cascade" : a == "a" ? "no action" : a == "r" ? "restrict" : a == "n" ? "set null" : "set default";
    };
    l.relations.insert(table + "->" + rs->field(3).toText() + "|" + action(rs->field(5).toText()) + " " +
                       action(rs->field(6).toText()) + "|" + rs->field(4).toText() + ",");
  }
  return l;
}

TEST(PostgresSchema, TheGeneratedSchemaHasTheSameTablesColumnsTypesKeysRelationsAndCascades) {
  TempDb file(Engine::SQLite), server(Engine::PostgreSQL);
  const Layout a = sqliteLayout(*file.connection()), b = serverLayout(*server.connection());
  EXPECT_EQ(a.columns, b.columns);
  EXPECT_EQ(a.keys, b.keys);
  EXPECT_EQ(a.relations, b.relations);
  EXPECT_GT(a.relations.size(), 30u);  // the comparison saw the schema
  // The same version row.
  EXPECT_EQ(joinedRows(*server.connection(), "SELECT [parameter] || '=' || [value] FROM [system]"),
            joinedRows(*file.connection(), "SELECT [parameter] || '=' || [value] FROM [system]"));
}

TEST(PostgresNames, NameColumnsCompareAndSortByTheNameRule) {
  TempDb db(Engine::PostgreSQL);
  auto c = db.connection();
  c->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (1, 'T')");
  const std::vector<std::string> names = {"Vitesse", "éclairage", "Eclairage", "Zèbre", "eclairage2", "Moteur",
                                          "Moteur\t", "ÉCLAIRAGE B", "a", "B", "œuf", "Straße"};
  for (const auto& n : names) {
    c->execute("INSERT INTO Données ([Target Id], [Data Name]) VALUES (1, " + db::sql::quote(n) + ")");
  }
  // Equal but for letter case: refused as the same name; an accent or a
  // trailing tab makes another name.
  EXPECT_EQ(thrownBy([&] { c->execute("INSERT INTO Données ([Target Id], [Data Name]) VALUES (1, 'VITESSE')"); })
                .number(),
            2067);
  EXPECT_EQ(c->execute("SELECT count(*) FROM Données WHERE [Data Name]='ÉCLAIRAGE'")->field(0).toInt32(), 1);
  EXPECT_EQ(c->execute("SELECT count(*) FROM Données WHERE [Data Name]='moteur'")->field(0).toInt32(), 1);
  // ORDER BY gives the library's order.
  std::vector<std::string> expected = names;
  std::sort(expected.begin(), expected.end(), [](const std::string& x, const std::string& y) {
    return names::compare(x, y) < 0;
  });
  std::vector<std::string> got;
  for (auto rs = c->execute("SELECT [Data Name] FROM Données ORDER BY [Data Name]"); !rs->eof(); rs->moveNext())
    got.push_back(rs->field(0).toText());
  EXPECT_EQ(got, expected);
}

}  // namespace
}  // namespace kavrel::test

namespace kavrel::test {
namespace {

// Every field of every row, in the order read.
std::vector<std::vector<std::string>> rowsOf(db::Recordset& rs) {
  std::vector<std::vector<std::string>> out;
  for (; !rs.eof(); rs.moveNext()) {
    std::vector<std::string> row;
    for (int f = 0; f < rs.fieldCount(); ++f) {
      const db::Value& v = rs.field(f);
      row.push_back(v.isNull() ? "<null>" : v.toText());
    }
    out.push_back(std::move(row));
  }
  return out;
}

TEST(PostgresOrder, SelectsSortedByTheClientGiveTheServersOrderAndHideTheirSortFields) {
  TempDb db(Engine::PostgreSQL);
  auto c = db.connection();
  c->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (1, 'T')");
  // Names that differ by case, accent, length and script; numbers with ties,
  // Null and NaN.
  const struct {
    const char* name;
    const char* bits;
    const char* coeff;
  } rows[] = {{"Vitesse", "8", "1.5"},    {"éclairage", "Null", "Null"}, {"Eclairage B", "16", "'NaN'"},
              {"Zèbre", "8", "-2"},       {"a", "Null", "0"},           {"Œuf", "16", "1.5"},
              {"Straße", "1", "Null"},    {"moteur", "8", "'NaN'"},     {"Moteur\t", "1", "1e300"}};
  for (const auto& r : rows) {
    c->execute(std::string("INSERT INTO Données ([Target Id], [Data Name], NumberBits, CoeffA, [Unité]) ") +
               "VALUES (1, " + db::sql::quote(r.name) + ", " + r.bits + ", " + r.coeff + ", " +
               db::sql::quote(r.name) + ")");
  }
  // The server's own order (an updatable result set sorts there) is the
  // reference for every statement a plain read sorts on the client.
  for (const char* sql : {
           "SELECT [Data Name], NumberBits FROM Données ORDER BY [Data Name]",
           "SELECT [Data Name], NumberBits FROM Données ORDER BY NumberBits DESC, [Data Name] DESC",
           "SELECT [Data Name], NumberBits, CoeffA FROM Données ORDER BY NumberBits, [Data Name]",
           "SELECT [Data Name], CoeffA FROM Données ORDER BY CoeffA, [Data Name] DESC",
           "SELECT [Data Name], CoeffA FROM Données ORDER BY [CoeffA] DESC , Données.[Data Name];",
           "SELECT [Data Name], [Unité] FROM Données ORDER BY [Unité], [Data Id]",
           "SELECT * FROM Données ORDER BY [Data Name]",
       }) {
    SCOPED_TRACE(sql);
    auto server = rowsOf(*c->openUpdatable(sql));
    ASSERT_EQ(server.size(), std::size(rows));
    EXPECT_EQ(rowsOf(*c->execute(sql)), server);
    auto client = c->openClient(sql);
    EXPECT_EQ(rowsOf(*client), server);
    client->filter("[Data Name]='MOTEUR'");
    EXPECT_EQ(client->recordCount(), 1);
  }
  // A term that is not selected sorts without being shown; a join sorts by
  // its qualified terms.
  auto ids = c->execute("SELECT [Data Id] FROM Données ORDER BY [Data Name] DESC");
  EXPECT_EQ(ids->fieldCount(), 1);
  EXPECT_THROW(ids->field("kavrel sort 1"), Error);
  for (const char* label : {"[Data Name]", "'un'"}) {
    c->execute(std::string("INSERT INTO Listes ([Data Id], Valeur, Numérique, Liste, Libellé) SELECT [Data Id], ") +
               (label[0] == '[' ? "2" : "1") + ", 0, 0, " + label + " FROM Données");
  }
  std::vector<std::vector<std::string>> joined;
  for (auto rs = c->execute("SELECT Listes.Valeur, Listes.[Libellé] FROM Listes, Données WHERE Données.[Data Id] = "
                            "Listes.[Data Id] AND Données.[Data Name] IN ('a', 'Zèbre') ORDER BY Listes.[Valeur] "
                            "DESC, Données.[Data Name] DESC");
       !rs->eof(); rs->moveNext()) {
    joined.push_back({rs->field(0).toText(), rs->field(1).toText()});
  }
  EXPECT_EQ(joined, (std::vector<std::vector<std::string>>{{"2", "Zèbre"}, {"2", "a"}, {"1", "un"}, {"1", "un"}}));
}


TEST(PostgresOrder, SortTermsThatAreSelectedColumnsSortAsTheServerDoesInEveryShapeOfSelectList) {
  TempDb db(Engine::PostgreSQL);
  auto c = db.connection();
  c->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (1, 'T')");
  // Ties on the numbers, Nulls, and names in both letter cases.
  const char* const rows[][2] = {{"b", "8"}, {"A", "Null"}, {"ab", "8"}, {"c", "1"}, {"Bb", "Null"}, {"cA", "8"}};
  for (const auto& r : rows) {
    c->execute(std::string("INSERT INTO Données ([Target Id], [Data Name], NumberBits) VALUES (1, ") +
               db::sql::quote(r[0]) + ", " + r[1] + ")");
  }
  c->execute("INSERT INTO Listes ([Data Id], Valeur, Numérique, Liste, Libellé) SELECT [Data Id], "
             "COALESCE(NumberBits, 5), 0, 0, [Data Name] FROM Données");
  const std::string joined = " FROM Listes, Données WHERE Données.[Data Id] = Listes.[Data Id]";
  // Each statement against the same one sorted by the server (a LIMIT
  // leaves the ORDER BY to it); the last term makes the order total.
  for (const std::string& sql : {
           std::string("SELECT [Data Id], [Data Name], NumberBits FROM Données ORDER BY [Data Name], NumberBits DESC, "
                       "[Data Id]"),
           std::string("SELECT NumberBits, [Data Id] FROM Données ORDER BY [NUMBERBITS] DESC, [Data Name], [Data Id]"),
           std::string("SELECT Données.[Data Name], Données.[Data Id] FROM Données ORDER BY [Data Name] DESC, "
                       "Données.[Data Id]"),
           std::string("SELECT [Data Id] AS Ident, [Data Name] FROM Données ORDER BY NumberBits, [Data Id]"),
           std::string("SELECT * FROM Données ORDER BY NumberBits, [Data Name] DESC, [Data Id]"),
           std::string("SELECT [Data Name], * FROM Données ORDER BY [Data Name], [Data Id] DESC"),
           std::string("SELECT *, [Data Id] FROM Données ORDER BY [Data Name], [Data Id]"),
           std::string("SELECT Données.* FROM Données ORDER BY Données.[Data Name], [Data Id]"),
           "SELECT Listes.Valeur, Données.[Data Name], Listes.[Data Id]" + joined +
               " ORDER BY Listes.Valeur DESC, Données.[Data Name], Listes.[Data Id]",
           "SELECT Listes.*" + joined + " ORDER BY Valeur, Libellé DESC, Listes.[Data Id]",
           "SELECT *" + joined + " ORDER BY Valeur, [Libellé], Listes.[Data Id]",
       }) {
    SCOPED_TRACE(sql);
    auto client = c->execute(sql);
    auto server = c->execute(sql + " LIMIT 100");
    EXPECT_EQ(client->fieldCount(), server->fieldCount());
    EXPECT_EQ(rowsOf(*client), rowsOf(*server));
    auto filtered = c->openClient(sql);
    EXPECT_EQ(filtered->recordCount(), static_cast<int64_t>(std::size(rows)));
  }
  // A term the statement cannot take fails as it did, whatever is selected.
  for (const char* sql : {"SELECT * FROM Données ORDER BY [No Such Column]",
                          "SELECT [Data Name] FROM Données ORDER BY Listes.[Data Name]",
                          "SELECT Données.[Data Name] FROM Données ORDER BY Listes.[Data Name]"}) {
    SCOPED_TRACE(sql);
    EXPECT_THROW(c->execute(sql), Error);
    EXPECT_THROW(c->openClient(sql), Error);
  }
}

TEST(PostgresConflicts, ADeadlockedUnitOfWorkRunsAgainAndBothWritersSucceed) {
  TempDb db(Engine::PostgreSQL);
  {
    auto c = db.connection();
    c->execute("INSERT INTO Cibles (Address, [Target Name], [Référence]) VALUES (1, 'A', 0)");
    c->execute("INSERT INTO Cibles (Address, [Target Name], [Référence]) VALUES (2, 'B', 0)");
  }
  // Each writer takes one row, waits until the other holds the other row,
  // then asks for it: the server fails one of them with a deadlock. Only
  // the first attempts meet; a second attempt goes straight through.
  std::latch bothHoldOne(2);
  std::atomic<int> attempts{0}, undos{0};
  auto writer = [&](const char* first, const char* second, std::string& failure) {
    try {
      auto conn = db::openConnection(db.path());
      recordError(7, "", "pending before");
      bool firstAttempt = true;
      db::retryOnConflict(
          *conn,
          [&] {
            ++attempts;
            db::Transaction tx(*conn);
            conn->execute(std::string("UPDATE Cibles SET [Référence]=[Référence]+1 WHERE [Target Name]='") + first +
                          "'");
            if (firstAttempt) {
              firstAttempt = false;
              bothHoldOne.arrive_and_wait();
            }
            recordError(9, "", "left by the attempt");
            conn->execute(std::string("UPDATE Cibles SET [Référence]=[Référence]+10 WHERE [Target Name]='") +
                          second + "'");
            tx.commit();
          },
          [&] {
            ++undos;
            if (lastError().number != 7) failure = "the last-error record was not put back";
          });
      EXPECT_EQ(conn->transactionDepth(), 0);
    } catch (const Error& e) {
      failure = e.description();
    }
  };
  std::string failureA, failureB;
  std::thread a(writer, "A", "B", std::ref(failureA));
  std::thread b(writer, "B", "A", std::ref(failureB));
  a.join();
  b.join();
  EXPECT_EQ(failureA, "");
  EXPECT_EQ(failureB, "");
  EXPECT_EQ(attempts.load(), 3);
  EXPECT_EQ(undos.load(), 1);
  // Every committed attempt counted once on each row, the lost one not at all.
  auto c = db.connection();
  EXPECT_EQ(joinedRows(*c, "SELECT [Target Name] || '=' || [Référence] FROM Cibles ORDER BY [Target Name]"),
            "A=11,B=11");
}

TEST(PostgresConflicts, OnlyDeadlocksAndSerializationFailuresAreConflictsAndOthersAreNotRetried) {
  TempDb db(Engine::PostgreSQL);
  auto c = db.connection();
  for (const char* state : {"40P01", "40001", "55P03", "23505"}) {
    const DbError e = thrownBy<DbError>([&] {
      c->execute(std::string("DO $$BEGIN RAISE EXCEPTION 'provoked' USING ERRCODE = '") + state + "'; END$$");
    });
    const bool conflict = std::string(state).rfind("40", 0) == 0;
    EXPECT_EQ(db::isConflict(e), conflict) << state;
    if (state[0] == '4' && state[1] == '0') continue;  // retried by the engine outside a transaction
    int runs = 0;
    EXPECT_THROW(db::retryOnConflict(*c, [&] {
      ++runs;
      throw e;
    }),
                 Error);
    EXPECT_EQ(runs, 1) << state;
  }
  // A conflict that lasts is thrown as it came after the last attempt; inside
  // a transaction the work runs once.
  const DbError conflict(5, "PostgreSQL", "deadlock detected [40P01]", 5 | (4 << 8), "deadlock detected");
  int runs = 0;
  EXPECT_THROW(db::retryOnConflict(*c, [&] {
    ++runs;
    throw conflict;
  }),
               DbError);
  EXPECT_EQ(runs, db::kConflictAttempts);
  runs = 0;
  db::Transaction outer(*c);
  EXPECT_THROW(db::retryOnConflict(*c, [&] {
    ++runs;
    throw conflict;
  }),
               DbError);
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(db::isConflict(Error(5, "", "deadlock detected [40P01]")));
}

}  // namespace
}  // namespace kavrel::test
