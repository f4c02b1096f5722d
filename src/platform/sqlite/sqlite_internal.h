// Private parts of the SQLite backend shared by its connection and result
// sets. Nothing here is visible above src/platform/sqlite.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "kavrel/platform/db.h"
#include "platform/memory_recordset.h"

namespace kavrel::db::sqlite {

inline constexpr const char* kSource = "SQLite";
// Field names and the result sets' own failures (numbers of the legacy
// data-access layer) are the engine-neutral ones.
using memory::FieldNames;
using memory::foldName;
using memory::kErrBadArguments;
using memory::kErrItemNotFound;
using memory::kErrNoCurrentRow;
using memory::kErrNotSupported;
using memory::kErrObjectClosed;
using memory::kRecordsetSource;
using memory::throwClosed;
using memory::throwItemNotFound;
using memory::throwNoCurrentRow;
using memory::throwRecordsetError;

class Database;

// A prepared statement. It registers with its database so that closing the
// connection finalizes it even while a result set still holds it; using it
// afterwards throws "connection closed".
class Statement {
 public:
  Statement(Database& db, sqlite3_stmt* stmt, std::string sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  sqlite3_stmt* get();  // throws when the connection was closed
  const std::string& sql() const { return sql_; }
  void finalize() noexcept;

  // Binds a value to parameter `index` (1-based). Text is bound without a
  // copy: the value must live until the statement has stepped.
  void bind(int index, const Value& v);
  // Steps a statement that returns no row, then resets it (also on failure).
  void runToEnd();

 private:
  Database* db_;
  sqlite3_stmt* stmt_;
  std::string sql_;
};

struct ColumnInfo {
  std::string name;
  std::string declaredType;
  int pkPosition = 0;  // 0 = not part of the primary key
};

struct TableInfo {
  std::string name;
  std::vector<ColumnInfo> columns;
  // The column that aliases the rowid (INTEGER PRIMARY KEY), or -1.
  int rowidAlias = -1;
};

// The open database and the state every object on it shares.
class Database {
 public:
  Database(sqlite3* db, std::string description);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  sqlite3* handle();  // throws when closed
  bool isOpen() const { return db_ != nullptr; }
  void close() noexcept;
  const std::string& description() const { return description_; }

  // Builds the DbError of a failed engine call, records it in the error list
  // and throws it. `sql` (may be empty) is named in the description.
  [[noreturn]] void fail(int rc, std::string_view sql);
  [[noreturn]] void fail(DbError e);
  std::vector<DbError>& errors() { return errors_; }

  // Prepares one statement (already adapted to the engine's dialect).
  // A text holding a second statement is refused.
  std::unique_ptr<Statement> prepare(std::string_view sql, std::string_view shownSql = {});
  // A statement kept for reuse by its text (row inserts and updates).
  std::shared_ptr<Statement> cached(const std::string& sql);
  // Runs a statement that returns no rows.
  void run(std::string_view sql);

  const TableInfo& tableInfo(const std::string& table);

  void registerStatement(Statement* s) { statements_.insert(s); }
  void unregisterStatement(Statement* s) { statements_.erase(s); }

  int transactionDepth = 0;
  // The transaction level that deferred relation checks (0: none).
  int deferredAtDepth = 0;
  int64_t recordsAffected = 0;
  // Set when a failure (disk full, I/O error, out of memory, damaged file)
  // made the engine give up the open transaction: every later statement
  // fails with this same error, rather than running outside the transaction,
  // until the caller has rolled back each level.
  std::optional<DbError> lost;
  // Throws `lost` when it is set.
  void checkNotLost();
  // Whether the file's name columns are known to use the name collation
  // (checked, and upgraded if need be, before the first write).
  bool nameRuleCurrent = false;

 private:
  sqlite3* db_;
  std::string description_;
  std::vector<DbError> errors_;
  std::unordered_set<Statement*> statements_;
  std::map<std::string, std::shared_ptr<Statement>> cache_;
  std::map<std::string, TableInfo> tables_;
};

// The engine's value of a result column.
Value columnValue(sqlite3_stmt* stmt, int column);

// Dialect: what the legacy SQL texts need to run here. "DELETE * FROM" (any
// case and blanks) becomes "DELETE FROM"; the rest is taken as it stands.
std::string adaptSql(std::string_view sql);
// "name" quoted as an identifier for generated statements.
std::string quoteIdentifier(std::string_view name);
// Position of the top-level FROM keyword of a SELECT, or npos.
size_t findTopLevelFrom(std::string_view select);

// The database under a connection of this backend (null for another
// backend's connection): for backends built on this one.
std::shared_ptr<Database> databaseOf(Connection& conn);

// The name rule (sqlite_names.cpp): registers the KAVREL_NAME collation on a
// connection; on open (and, while that did not succeed, before every
// write) upgrades a file whose name columns predate it (one transaction; refused with error 2067, file unchanged, when
// rows would collide). The rewrite of one CREATE TABLE text is exposed for
// tests.
void registerNameCollation(sqlite3* db);
void ensureNameRule(Database& db);
std::string withNameCollationForTest(const std::string& createTable, const std::vector<std::string>& columns);

std::unique_ptr<Recordset> makeForwardRecordset(std::shared_ptr<Database> db, std::unique_ptr<Statement> stmt);
std::unique_ptr<ClientRecordset> makeClientRecordset(std::shared_ptr<Database> db, std::unique_ptr<Statement> stmt);
std::unique_ptr<UpdatableRecordset> makeUpdatableRecordset(std::shared_ptr<Database> db, std::string_view sql);

}  // namespace kavrel::db::sqlite
