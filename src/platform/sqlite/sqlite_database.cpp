#include <utility>

#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::sqlite {

namespace {

// Statements kept for reuse; beyond this many, those no result set holds
// are dropped.
constexpr size_t kCacheLimit = 256;

// Longest statement text quoted in an error description.
constexpr size_t kShownSqlLimit = 2000;

std::string describe(std::string_view message, std::string_view sql) {
  std::string d(message);
  if (!sql.empty()) {
    d += "; statement: ";
    if (sql.size() > kShownSqlLimit) {
      d.append(sql.substr(0, kShownSqlLimit));
      d += "...";
    } else {
      d.append(sql);
    }
  }
  return d;
}

bool onlyBlanksOrSemicolons(const char* p, const char* end) {
  for (; p < end; ++p) {
    char c = *p;
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n' && c != ';' && c != '\f' && c != '\v') return false;
  }
  return true;
}

}  // namespace

// --- Statement ---------------------------------------------------------------

Statement::Statement(Database& db, sqlite3_stmt* stmt, std::string sql)
    : db_(&db), stmt_(stmt), sql_(std::move(sql)) {
  db_->registerStatement(this);
}

Statement::~Statement() {
  finalize();
  if (db_) db_->unregisterStatement(this);
}

void Statement::finalize() noexcept {
  if (stmt_) {
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
  }
}

sqlite3_stmt* Statement::get() {
  if (db_) db_->checkNotLost();
  if (!stmt_) {
    std::string d = "The connection is closed";
    throw DbError(SQLITE_MISUSE, kSource, d, SQLITE_MISUSE, d);
  }
  return stmt_;
}

void Statement::bind(int index, const Value& v) {
  sqlite3_stmt* s = get();
  int rc = SQLITE_OK;
  switch (v.type()) {
    case Value::Type::Null: rc = sqlite3_bind_null(s, index); break;
    case Value::Type::Integer: rc = sqlite3_bind_int64(s, index, v.rawInteger()); break;
    case Value::Type::Real: rc = sqlite3_bind_double(s, index, v.rawReal()); break;
    case Value::Type::Text:
      rc = sqlite3_bind_text64(s, index, v.rawText().data(), v.rawText().size(), SQLITE_STATIC, SQLITE_UTF8);
      break;
  }
  if (rc != SQLITE_OK) db_->fail(rc, sql_);
}

void Statement::runToEnd() {
  sqlite3_stmt* s = get();
  int rc;
  do {
    rc = sqlite3_step(s);
  } while (rc == SQLITE_ROW);
  if (rc != SQLITE_DONE) {
    // Read the message before reset, which may replace it.
    try {
      db_->fail(rc, sql_);
    } catch (...) {
      sqlite3_reset(s);
      throw;
    }
  }
  sqlite3_reset(s);
}

// --- Database ----------------------------------------------------------------

Database::Database(sqlite3* db, std::string description) : db_(db), description_(std::move(description)) {}

Database::~Database() { close(); }

sqlite3* Database::handle() {
  if (!db_) {
    std::string d = "The connection to '" + description_ + "' is closed";
    throw DbError(SQLITE_MISUSE, kSource, d, SQLITE_MISUSE, d);
  }
  checkNotLost();
  return db_;
}

void Database::checkNotLost() {
  if (lost) fail(*lost);
}

void Database::close() noexcept {
  if (!db_) return;
  cache_.clear();
  for (Statement* s : statements_) s->finalize();
  sqlite3_close_v2(db_);
  db_ = nullptr;
  transactionDepth = 0;
  deferredAtDepth = 0;
  lost.reset();
}

void Database::fail(int rc, std::string_view sql) {
  int code = rc;
  std::string message;
  if (db_) {
    int ext = sqlite3_extended_errcode(db_);
    // The connection's last error belongs to this failure when its primary
    // code matches; otherwise (e.g. a misuse caught before the engine) keep rc.
    if ((ext & 0xFF) == (rc & 0xFF)) code = ext;
    message = sqlite3_errmsg(db_);
  }
  if (message.empty() || message == "not an error") message = sqlite3_errstr(rc);
  DbError e(code, kSource, describe(message, sql), code, message);
  // After these the engine may have rolled back the whole transaction or
  // only the statement; either way what is left cannot be committed whole.
  // End it here, so that nothing after runs outside it and the commit
  // reports this error, once, instead of "no transaction is active".
  const int primary = rc & 0xFF;
  const bool fatal = primary == SQLITE_FULL || primary == SQLITE_IOERR || primary == SQLITE_NOMEM ||
                     primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
  if (fatal && db_ && transactionDepth > 0 && !lost) {
    if (!sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    lost = e;
  }
  fail(std::move(e));
}

void Database::fail(DbError e) {
  errors_.clear();
  errors_.push_back(e);
  throw e;
}

std::unique_ptr<Statement> Database::prepare(std::string_view sql, std::string_view shownSql) {
  if (shownSql.empty()) shownSql = sql;
  sqlite3* h = handle();
  sqlite3_stmt* stmt = nullptr;
  const char* tail = nullptr;
  int rc = sqlite3_prepare_v3(h, sql.data(), static_cast<int>(sql.size()), 0, &stmt, &tail);
  if (rc != SQLITE_OK) fail(rc, shownSql);
  if (!stmt) {
    std::string m = "The SQL text holds no statement";
    fail(DbError(SQLITE_ERROR, kSource, describe(m, shownSql), SQLITE_ERROR, m));
  }
  auto result = std::make_unique<Statement>(*this, stmt, std::string(shownSql));
  // Whatever follows the first statement must be blanks, semicolons or
  // comments: a second statement is refused, never run.
  const char* end = sql.data() + sql.size();
  while (tail && tail < end && !onlyBlanksOrSemicolons(tail, end)) {
    sqlite3_stmt* next = nullptr;
    const char* nextTail = nullptr;
    int rc2 = sqlite3_prepare_v2(h, tail, static_cast<int>(end - tail), &next, &nextTail);
    if (next) sqlite3_finalize(next);
    if (rc2 != SQLITE_OK || next || nextTail == tail) {
      std::string m = "The SQL text holds more than one statement";
      fail(DbError(SQLITE_ERROR, kSource, describe(m, shownSql), SQLITE_ERROR, m));
    }
    tail = nextTail;
  }
  return result;
}

std::shared_ptr<Statement> Database::cached(const std::string& sql) {
  auto it = cache_.find(sql);
  if (it != cache_.end()) return it->second;
  if (cache_.size() >= kCacheLimit) {
    for (auto i = cache_.begin(); i != cache_.end();) {
      if (i->second.use_count() == 1) {
        i = cache_.erase(i);
      } else {
        ++i;
      }
    }
  }
  sqlite3* h = handle();
  sqlite3_stmt* stmt = nullptr;
  int rc = sqlite3_prepare_v3(h, sql.data(), static_cast<int>(sql.size()), SQLITE_PREPARE_PERSISTENT, &stmt,
                              nullptr);
  if (rc != SQLITE_OK) fail(rc, sql);
  std::shared_ptr<Statement> s = std::make_shared<Statement>(*this, stmt, sql);
  cache_.emplace(sql, s);
  return s;
}

void Database::run(std::string_view sql) { prepare(sql)->runToEnd(); }

const TableInfo& Database::tableInfo(const std::string& table) {
  auto it = tables_.find(table);
  if (it != tables_.end()) return it->second;
  TableInfo info;
  info.name = table;
  auto stmt = prepare("PRAGMA table_info(" + quoteIdentifier(table) + ")");
  sqlite3_stmt* s = stmt->get();
  int rc;
  while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
    ColumnInfo c;
    auto text = [&](int i) {
      const unsigned char* t = sqlite3_column_text(s, i);
      return t ? std::string(reinterpret_cast<const char*>(t)) : std::string();
    };
    c.name = text(1);
    c.declaredType = text(2);
    c.pkPosition = sqlite3_column_int(s, 5);
    info.columns.push_back(std::move(c));
  }
  if (rc != SQLITE_DONE) fail(rc, stmt->sql());
  int pkCount = 0;
  int pkColumn = -1;
  for (size_t i = 0; i < info.columns.size(); ++i) {
    if (info.columns[i].pkPosition > 0) {
      ++pkCount;
      pkColumn = static_cast<int>(i);
    }
  }
  if (pkCount == 1 && foldName(info.columns[static_cast<size_t>(pkColumn)].declaredType) == "integer") {
    info.rowidAlias = pkColumn;
  }
  return tables_.emplace(table, std::move(info)).first->second;
}

// --- values and names --------------------------------------------------------

Value columnValue(sqlite3_stmt* stmt, int column) {
  switch (sqlite3_column_type(stmt, column)) {
    case SQLITE_INTEGER: return Value(static_cast<int64_t>(sqlite3_column_int64(stmt, column)));
    case SQLITE_FLOAT: return Value(sqlite3_column_double(stmt, column));
    case SQLITE_NULL: return Value();
    case SQLITE_BLOB: {
      const void* p = sqlite3_column_blob(stmt, column);
      int n = sqlite3_column_bytes(stmt, column);
      return Value(std::string(static_cast<const char*>(p), static_cast<size_t>(n)));
    }
    default: {
      const unsigned char* t = sqlite3_column_text(stmt, column);
      int n = sqlite3_column_bytes(stmt, column);
      return Value(std::string(reinterpret_cast<const char*>(t), static_cast<size_t>(n)));
    }
  }
}

}  // namespace kavrel::db::sqlite
