// The name rule in the SQLite engine: the KAVREL_NAME collation, and the
// one-time upgrade of files whose name columns were declared before it.
//
// Upgrade, when the library opens a file whose known name columns lack the
// collation (and again before each write while it has not succeeded), in
// one transaction:
//   1. every unique index that holds such a column is checked under the new
//      rule; if two rows now count as the same name, the upgrade is refused
//      with error 2067 naming them, and the file is left as it was;
//   2. the column definitions are rewritten to "COLLATE KAVREL_NAME" (the
//      table texts in the schema table; no row is copied);
//   3. every index is rebuilt (REINDEX), so stored order matches the rule.
#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "kavrel/platform/names.h"
#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::sqlite {

namespace {

// Tables and their name columns. Columns a file lacks (older layouts) are
// skipped; the list covers every column compared, made unique, looked up or
// sorted by name, and every column referring to one (a relation needs the
// same collation at both ends).
struct NameColumns {
  const char* table;
  std::vector<const char*> columns;
};

const std::vector<NameColumns>& nameColumns() {
  static const std::vector<NameColumns> all = {
      {"Fonctions", {"Function Name"}},
      {"Protocoles", {"Protocol Name"}},
      {"Type Organe", {"Libelle"}},
      {"Type Panne", {"Libelle"}},
      {"Cibles", {"Target Name"}},
      {"Requêtes", {"Request Name"}},
      {"Données", {"Data Name"}},
      {"Emplacement Donnée", {"Request Name", "Data Name"}},
      {"Donnée_Ref", {"Data Name", "Request Name"}},
      {"Organes", {"Organe Name"}},
      {"Lien_DTC_ReqContext", {"Request Name", "Organe Name"}},
      {"Lien_Données_ds_Organe", {"Data Name", "Organe Name"}},
      {"Catégories", {"Category Name"}},
      {"Ecrans", {"Screen Name"}},
      {"Boutons", {"Caption"}},
      {"Titres", {"Text"}},
      {"Scenarios", {"Request Name"}},
      {"Affichages", {"Data Name"}},
      {"Données_Aff", {"Data Name", "Request Name"}},
      {"Extra_Aff", {"Request Name"}},
  };
  return all;
}

int collate(void*, int lengthA, const void* a, int lengthB, const void* b) {
  const std::string_view x(static_cast<const char*>(a), static_cast<size_t>(lengthA));
  const std::string_view y(static_cast<const char*>(b), static_cast<size_t>(lengthB));
  try {
    return names::compare(x, y);
  } catch (...) {  // out of memory: never let an exception cross the engine
    return x.compare(y);
  }
}

bool asciiIEquals(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    auto l = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    if (l(a[i]) != l(b[i])) return false;
  }
  return true;
}

// --- Rewriting a CREATE TABLE text ------------------------------------------

struct Token {
  size_t begin;
  size_t end;
};

class Scanner {
 public:
  explicit Scanner(std::string_view s) : s_(s) {}
  size_t pos = 0;

  // Skips blanks and comments.
  void skipSpace() {
    while (pos < s_.size()) {
      char c = s_[pos];
      if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v') {
        ++pos;
      } else if (s_.compare(pos, 2, "--") == 0) {
        while (pos < s_.size() && s_[pos] != '\n') ++pos;
      } else if (s_.compare(pos, 2, "/*") == 0) {
        size_t e = s_.find("*/", pos + 2);
        pos = e == std::string_view::npos ? s_.size() : e + 2;
      } else {
        return;
      }
    }
  }

  // One token: a quoted identifier or string, a word, or one character.
  Token next() {
    skipSpace();
    const size_t b = pos;
    if (pos >= s_.size()) return {b, b};
    char c = s_[pos];
    auto quoted = [&](char close) {
      ++pos;
      while (pos < s_.size()) {
        if (s_[pos] == close) {
          if (close != ']' && pos + 1 < s_.size() && s_[pos + 1] == close) {
            pos += 2;
            continue;
          }
          ++pos;
          return;
        }
        ++pos;
      }
    };
    if (c == '[') {
      quoted(']');
    } else if (c == '"' || c == '\'' || c == '`') {
      quoted(c);
    } else if (isWordChar(c)) {
      while (pos < s_.size() && isWordChar(s_[pos])) ++pos;
    } else {
      ++pos;
    }
    return {b, pos};
  }

  std::string_view text(Token t) const { return s_.substr(t.begin, t.end - t.begin); }

  static bool isWordChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
           static_cast<unsigned char>(c) >= 0x80;
  }

 private:
  std::string_view s_;
};

std::string unquoted(std::string_view id) {
  if (id.size() >= 2 && (id.front() == '[' || id.front() == '"' || id.front() == '`' || id.front() == '\'')) {
    const char close = id.front() == '[' ? ']' : id.front();
    std::string out;
    for (size_t i = 1; i + 1 < id.size(); ++i) {
      out += id[i];
      if (close != ']' && id[i] == close && i + 2 < id.size() && id[i + 1] == close) ++i;
    }
    return out;
  }
  return std::string(id);
}

// Gives each listed column "COLLATE KAVREL_NAME" in a CREATE TABLE text,
// replacing any collation it had. Other text is kept as written.
std::string withNameCollation(const std::string& sql, const std::vector<std::string>& columns) {
  Scanner sc(sql);
  // Find the opening parenthesis of the column list.
  Token t;
  do t = sc.next();
  while (t.end > t.begin && sc.text(t) != "(");
  if (t.end == t.begin) return sql;

  struct Edit {
    size_t begin, end;
    std::string text;
  };
  std::vector<Edit> edits;
  bool done = false;
  while (!done) {
    // One column definition or table constraint, up to "," or ")" at depth 0.
    Token first = sc.next();
    if (first.end == first.begin) break;
    const bool isColumn = std::any_of(columns.begin(), columns.end(), [&](const std::string& c) {
      return asciiIEquals(unquoted(sc.text(first)), c);
    });
    size_t lastEnd = first.end;
    int depth = 0;
    bool afterCollate = false;
    size_t collateBegin = 0;
    Token tok = first;
    while (true) {
      if (tok.end == tok.begin) {
        done = true;
        break;
      }
      if (tok.begin != first.begin) {
        const std::string_view word = sc.text(tok);
        if (depth == 0 && (word == "," || word == ")")) {
          if (word == ")") done = true;
          break;
        }
        if (word == "(") ++depth;
        if (word == ")") --depth;
        if (isColumn && depth == 0) {
          if (afterCollate) {
            edits.push_back({collateBegin, tok.end, ""});
            afterCollate = false;
          } else if (asciiIEquals(word, "COLLATE")) {
            afterCollate = true;
            collateBegin = tok.begin;
          }
        }
        lastEnd = tok.end;
      }
      tok = sc.next();
    }
    if (isColumn) edits.push_back({lastEnd, lastEnd, std::string(" COLLATE ") + names::kSqliteCollation});
  }
  std::string out = sql;
  std::sort(edits.begin(), edits.end(), [](const Edit& a, const Edit& b) { return a.begin > b.begin; });
  for (const Edit& e : edits) {
    size_t begin = e.begin;
    // A removed collation takes the blank before it along.
    if (e.text.empty() && begin > 0 && out[begin - 1] == ' ') --begin;
    out.replace(begin, e.end - begin, e.text);
  }
  return out;
}

// --- Small statement helpers ------------------------------------------------

class Stmt {
 public:
  Stmt(Database& db, const std::string& sql) : db_(db), sql_(sql) {
    int rc = sqlite3_prepare_v2(db.handle(), sql.c_str(), static_cast<int>(sql.size()), &s_, nullptr);
    if (rc != SQLITE_OK) db.fail(rc, sql);
  }
  ~Stmt() { sqlite3_finalize(s_); }
  Stmt(const Stmt&) = delete;
  Stmt& operator=(const Stmt&) = delete;

  bool step() {
    int rc = sqlite3_step(s_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) db_.fail(rc, sql_);
    return false;
  }
  std::string text(int i) {
    const unsigned char* t = sqlite3_column_text(s_, i);
    return t ? std::string(reinterpret_cast<const char*>(t), static_cast<size_t>(sqlite3_column_bytes(s_, i)))
             : std::string();
  }
  int integer(int i) { return sqlite3_column_int(s_, i); }
  void bindText(int i, const std::string& v) { sqlite3_bind_text(s_, i, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT); }

 private:
  Database& db_;
  std::string sql_;
  sqlite3_stmt* s_ = nullptr;
};

std::string sqlQuoted(std::string_view v) {
  std::string out = "'";
  for (char c : v) {
    out += c;
    if (c == '\'') out += '\'';
  }
  return out + "'";
}

// The listed columns of `table` that the file has without the collation.
std::vector<std::string> columnsToUpgrade(Database& db, const NameColumns& table) {
  std::vector<std::string> out;
  for (const char* column : table.columns) {
    const char* type = nullptr;
    const char* collation = nullptr;
    int notNull = 0, primaryKey = 0, autoIncrement = 0;
    if (sqlite3_table_column_metadata(db.handle(), "main", table.table, column, &type, &collation, &notNull,
                                      &primaryKey, &autoIncrement) != SQLITE_OK)
      continue;  // no such table or column in this file
    if (!collation || !asciiIEquals(collation, names::kSqliteCollation)) out.emplace_back(column);
  }
  return out;
}

// Rows of `table` that the unique indexes holding `columns` would refuse
// under the new rule, described for a message (at most `room` of them).
void findCollisions(Database& db, const std::string& table, const std::vector<std::string>& columns,
                    std::vector<std::string>& found, size_t room) {
  std::vector<std::string> indexes;
  {
    Stmt list(db, "PRAGMA index_list(" + quoteIdentifier(table) + ")");
    while (list.step())
      if (list.integer(2)) indexes.push_back(list.text(1));
  }
  for (const std::string& index : indexes) {
    std::vector<std::string> indexColumns;
    bool expression = false;
    {
      Stmt info(db, "PRAGMA index_info(" + quoteIdentifier(index) + ")");
      while (info.step()) {
        if (info.integer(1) < 0) expression = true;
        indexColumns.push_back(info.text(2));
      }
    }
    if (expression) continue;
    std::vector<std::string> named, others;
    for (const std::string& c : indexColumns) {
      const bool isName = std::any_of(columns.begin(), columns.end(), [&](const std::string& n) { return asciiIEquals(n, c); });
      (isName ? named : others).push_back(c);
    }
    if (named.empty()) continue;
    std::string groupBy, notNull, shown, context;
    for (const std::string& c : indexColumns) {
      const bool isName = std::find(named.begin(), named.end(), c) != named.end();
      if (!groupBy.empty()) groupBy += ", ";
      groupBy += quoteIdentifier(c) + (isName ? std::string(" COLLATE ") + names::kSqliteCollation : "");
      notNull += (notNull.empty() ? " WHERE " : " AND ") + quoteIdentifier(c) + " IS NOT NULL";
    }
    for (const std::string& c : named) shown += (shown.empty() ? "" : " || ', ' || ") + ("quote(" + quoteIdentifier(c) + ")");
    for (const std::string& c : others)
      context += (context.empty() ? "" : " || ', ' || ") + (sqlQuoted(c) + " || ' ' || " + quoteIdentifier(c));
    if (context.empty()) context = "''";
    Stmt dup(db, "SELECT group_concat(" + shown + ", ' / '), " + context + " FROM " + quoteIdentifier(table) + notNull +
                     " GROUP BY " + groupBy + " HAVING count(*) > 1 LIMIT " + std::to_string(room));
    while (dup.step() && found.size() < room) {
      std::string d = table + ": " + dup.text(0);
      const std::string where = dup.text(1);
      if (!where.empty()) d += " (" + where + ")";
      found.push_back(d);
    }
  }
}

}  // namespace

void registerNameCollation(sqlite3* db) {
  sqlite3_create_collation_v2(db, names::kSqliteCollation, SQLITE_UTF8, nullptr, collate, nullptr);
}

std::string withNameCollationForTest(const std::string& createTable, const std::vector<std::string>& columns) {
  return withNameCollation(createTable, columns);
}

void ensureNameRule(Database& db) {
  if (db.nameRuleCurrent) return;
  struct Upgrade {
    std::string table;
    std::vector<std::string> columns;
  };
  std::vector<Upgrade> upgrades;
  for (const NameColumns& t : nameColumns()) {
    auto columns = columnsToUpgrade(db, t);
    if (!columns.empty()) upgrades.push_back({t.table, std::move(columns)});
  }
  if (upgrades.empty()) {
    db.nameRuleCurrent = true;
    return;
  }

  sqlite3* h = db.handle();
  const bool ownTransaction = sqlite3_get_autocommit(h) != 0;
  db.run(ownTransaction ? "BEGIN IMMEDIATE" : "SAVEPOINT kavrel_name_rule");
  bool schemaWritable = false;
  try {
    constexpr size_t kShown = 10;
    std::vector<std::string> collisions;
    for (const Upgrade& u : upgrades) findCollisions(db, u.table, u.columns, collisions, kShown);
    if (!collisions.empty()) {
      std::string d =
          "The database cannot take the current name rule (names differing only in letter case are one name): "
          "these names collide, rename one of each and retry; the file was left unchanged: ";
      for (size_t i = 0; i < collisions.size(); ++i) d += (i ? "; " : "") + collisions[i];
      db.fail(DbError(SQLITE_CONSTRAINT_UNIQUE, kSource, d, SQLITE_CONSTRAINT_UNIQUE, d));
    }
    int version = 0;
    {
      Stmt v(db, "PRAGMA schema_version");
      if (v.step()) version = v.integer(0);
    }
    db.run("PRAGMA writable_schema=ON");
    schemaWritable = true;
    for (const Upgrade& u : upgrades) {
      std::string sql;
      {
        Stmt get(db, "SELECT sql FROM sqlite_master WHERE type='table' AND name=?1");
        get.bindText(1, u.table);
        if (!get.step()) continue;
        sql = get.text(0);
      }
      Stmt put(db, "UPDATE sqlite_master SET sql=?1 WHERE type='table' AND name=?2");
      put.bindText(1, withNameCollation(sql, u.columns));
      put.bindText(2, u.table);
      put.step();
    }
    db.run("PRAGMA schema_version=" + std::to_string(version + 1));
    db.run("PRAGMA writable_schema=RESET");
    schemaWritable = false;
    db.run("REINDEX");
    db.run(ownTransaction ? "COMMIT" : "RELEASE kavrel_name_rule");
  } catch (...) {
    char* ignored = nullptr;
    if (schemaWritable) sqlite3_exec(h, "PRAGMA writable_schema=RESET", nullptr, nullptr, &ignored);
    sqlite3_free(ignored);
    ignored = nullptr;
    sqlite3_exec(h, ownTransaction ? "ROLLBACK" : "ROLLBACK TO kavrel_name_rule; RELEASE kavrel_name_rule", nullptr,
                 nullptr, &ignored);
    sqlite3_free(ignored);
    throw;
  }
  db.nameRuleCurrent = true;
}

}  // namespace kavrel::db::sqlite
