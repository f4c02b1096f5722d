#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "platform/postgres/pg_internal.h"

namespace kavrel::db::postgres {

namespace {

// Longest statement text quoted in an error description.
constexpr size_t kShownSqlLimit = 2000;
// A statement outside a transaction that loses a serialization conflict or
// a deadlock is run again this many times.
constexpr int kRetries = 5;

// Type numbers of the server's built-in types.
constexpr Oid kBool = 16, kInt8 = 20, kInt2 = 21, kInt4 = 23, kOid = 26, kFloat4 = 700, kFloat8 = 701,
              kNumeric = 1700;

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

// The codes of the embedded engine for the same refusals, so that callers
// and tests see one number whichever engine refused.
int codeFor(const std::string& state) {
  if (state == "23505") return 2067;  // unique
  if (state == "23503") return 787;   // relation
  if (state == "23514") return 275;   // check
  if (state == "23502") return 1299;  // not null
  if (state.rfind("23", 0) == 0) return 19;
  if (state == "40001" || state == "40P01" || state == "55P03") return 5;  // busy
  if (state.rfind("08", 0) == 0) return 10;                                 // I/O
  return 1;
}

bool isRetryable(const std::string& state) { return state == "40001" || state == "40P01"; }

std::string trimmed(const char* s) {
  std::string m = s ? s : "";
  while (!m.empty() && (m.back() == '\n' || m.back() == ' ')) m.pop_back();
  return m;
}

}  // namespace

Param toParam(const Value& v) {
  switch (v.type()) {
    case Value::Type::Null: return std::nullopt;
    case Value::Type::Integer: return std::to_string(v.rawInteger());
    case Value::Type::Real: {
      double d = v.rawReal();
      if (std::isnan(d)) return std::string("NaN");
      if (std::isinf(d)) return std::string(d > 0 ? "Infinity" : "-Infinity");
      char buf[64];
      auto [p, ec] = std::to_chars(buf, buf + sizeof buf, d);
      return std::string(buf, ec == std::errc() ? p : buf);
    }
    case Value::Type::Text: return v.rawText();
  }
  return std::nullopt;
}

Value fieldValue(const PGresult* r, int row, int column) {
  if (PQgetisnull(r, row, column)) return Value();
  const char* s = PQgetvalue(r, row, column);
  const int len = PQgetlength(r, row, column);
  switch (PQftype(r, column)) {
    case kInt2:
    case kInt4:
    case kInt8:
    case kOid: {
      int64_t i = 0;
      std::from_chars(s, s + len, i);
      return Value(i);
    }
    case kNumeric: {
      int64_t i = 0;
      auto [p, ec] = std::from_chars(s, s + len, i);
      if (ec == std::errc() && p == s + len) return Value(i);
      return Value(std::strtod(s, nullptr));
    }
    case kFloat4:
    case kFloat8: {
      if (std::strcmp(s, "NaN") == 0) return Value(std::nan(""));
      return Value(std::strtod(s, nullptr));  // also reads "Infinity"
    }
    case kBool: return Value(s[0] == 't');  // -1 or 0, as the legacy engine
    default: return Value(std::string(s, static_cast<size_t>(len)));
  }
}

// --- Database ----------------------------------------------------------------

Database::Database(ConnHandle conn, std::string description)
    : conn_(std::move(conn)), description_(std::move(description)) {}

Database::~Database() { close(); }

PGconn* Database::handle() {
  if (ahead_) endReadAhead();  // the reader gives the connection back first
  checkOpen();
  return conn_.get();
}

void Database::checkOpen() const {
  if (!conn_) {
    std::string d = "The connection to '" + description_ + "' is closed";
    throw DbError(21, kSource, d, 21, d);
  }
}

void Database::close() noexcept {
  endReadAhead();
  conn_.reset();
  transactionDepth = 0;
}

DbError Database::errorOf(const Result& r, std::string_view sql) const {
  std::string state = sqlState(r);
  std::string message;
  if (r) message = trimmed(PQresultErrorField(r.get(), PG_DIAG_MESSAGE_PRIMARY));
  if (message.empty() && r) message = trimmed(PQresultErrorMessage(r.get()));
  if (message.empty() && conn_) message = trimmed(PQerrorMessage(conn_.get()));
  if (message.empty()) message = "the server gave no result";
  if (r) {
    const char* detail = PQresultErrorField(r.get(), PG_DIAG_MESSAGE_DETAIL);
    if (detail) message += " (" + trimmed(detail) + ")";
  }
  int code = codeFor(state);
  std::string shown = state.empty() ? message : message + " [" + state + "]";
  return DbError(code, kSource, describe(shown, sql), isRetryable(state) ? kConflictCode : code, message);
}

void Database::fail(const Result& r, std::string_view sql) { fail(errorOf(r, sql)); }

void Database::fail(DbError e) {
  errors_.clear();
  errors_.push_back(e);
  throw e;
}

std::string Database::adapt(std::string_view sql) {
  try {
    return adaptSql(sql);
  } catch (const DbError& e) {
    fail(e);
  }
}

Result Database::exec(const std::string& sql, const std::vector<Param>& params) {
  std::vector<const char*> values;
  values.reserve(params.size());
  for (const Param& p : params) values.push_back(p ? p->c_str() : nullptr);
  return Result(PQexecParams(handle(), sql.c_str(), static_cast<int>(params.size()), nullptr, values.data(),
                             nullptr, nullptr, 0));
}

Result Database::execPrepared(const std::string& name, const std::vector<Param>& params) {
  std::vector<const char*> values;
  values.reserve(params.size());
  for (const Param& p : params) values.push_back(p ? p->c_str() : nullptr);
  return Result(
      PQexecPrepared(handle(), name.c_str(), static_cast<int>(params.size()), values.data(), nullptr, nullptr, 0));
}

void Database::control(const std::string& sql) {
  Result r(PQexec(handle(), sql.c_str()));
  if (!succeeded(r)) fail(r, sql);
}

Result Database::run(std::string_view sql, const std::vector<Param>& params, std::string_view shownSql) {
  if (shownSql.empty()) shownSql = sql;
  return runQuery({std::string(sql), params, {}}, shownSql);
}

Result Database::runPrepared(const std::string& sql, const std::vector<Param>& params) {
  auto it = prepared_.find(sql);
  if (it == prepared_.end()) {
    std::string name = "kavrel_" + std::to_string(prepared_.size() + 1);
    Result r(PQprepare(handle(), name.c_str(), sql.c_str(), 0, nullptr));
    if (!succeeded(r)) fail(r, sql);
    it = prepared_.emplace(sql, std::move(name)).first;
  }
  return runQuery({sql, params, it->second}, sql);
}

Result Database::runQuery(const Query& q, std::string_view shownSql) {
  const std::string& text = q.sql;
  const std::vector<Param>& params = q.params;
  if (transactionDepth == 0) {
    for (int attempt = 0;; ++attempt) {
      Result r = q.statement.empty() ? exec(text, params) : execPrepared(q.statement, params);
      if (succeeded(r)) return r;
      if (attempt < kRetries && isRetryable(sqlState(r))) continue;
      fail(r, shownSql);
    }
  }
  // One round trip: the savepoint, the statement and its release.
  auto results = pipeline({{"SAVEPOINT kavrel_statement", {}, {}}, q, {"RELEASE kavrel_statement", {}, {}}});
  if (succeeded(results[1]) && succeeded(results[2])) return std::move(results[1]);
  DbError e = errorOf(succeeded(results[0]) ? results[1] : results[0], shownSql);
  Result undo(PQexec(handle(), "ROLLBACK TO kavrel_statement; RELEASE kavrel_statement"));
  fail(e);
}

std::vector<Result> Database::pipeline(const std::vector<Query>& queries) {
  PGconn* c = handle();
  std::vector<Result> results;
  if (!PQenterPipelineMode(c)) {
    fail(DbError(10, kSource, "Cannot send several statements at once: " + trimmed(PQerrorMessage(c)), 10,
                 trimmed(PQerrorMessage(c))));
  }
  bool sent = true;
  for (const Query& q : queries) {
    std::vector<const char*> values;
    values.reserve(q.params.size());
    for (const Param& p : q.params) values.push_back(p ? p->c_str() : nullptr);
    const int n = static_cast<int>(q.params.size());
    if (!(q.statement.empty() ? PQsendQueryParams(c, q.sql.c_str(), n, nullptr, values.data(), nullptr, nullptr, 0)
                              : PQsendQueryPrepared(c, q.statement.c_str(), n, values.data(), nullptr, nullptr, 0))) {
      sent = false;
      break;
    }
  }
  if (sent) sent = PQpipelineSync(c) == 1;
  if (sent) {
    // Each query gives its result then a null; the sync gives its own.
    for (size_t k = 0; k < queries.size(); ++k) {
      Result r(PQgetResult(c));
      if (!r) break;
      while (PGresult* extra = PQgetResult(c)) PQclear(extra);
      results.push_back(std::move(r));
    }
    for (;;) {
      Result r(PQgetResult(c));
      if (!r || PQresultStatus(r.get()) == PGRES_PIPELINE_SYNC) break;
    }
  }
  std::string message = trimmed(PQerrorMessage(c));
  PQexitPipelineMode(c);
  if (!sent || results.size() != queries.size()) {
    fail(DbError(10, kSource, "The connection to the server failed: " + message, 10, message));
  }
  return results;
}

// --- autonumbers ------------------------------------------------------------------

void Database::autonumberGiven(const std::string& table) {
  if (std::find(autonumbersGiven_.begin(), autonumbersGiven_.end(), table) == autonumbersGiven_.end()) {
    autonumbersGiven_.push_back(table);
  }
  if (transactionDepth == 0) settleAutonumbers();
}

void Database::settleAutonumbers() {
  std::vector<std::string> tables;
  tables.swap(autonumbersGiven_);
  for (const std::string& table : tables) {
    const auto [column, sequence] = autonumberOf(table);
    if (column.empty()) continue;
    run("SELECT setval($1::regclass, greatest(m, (SELECT last_value FROM " + sequence + "))) FROM (SELECT max(" +
            quoteIdentifier(column) + ") AS m FROM " + quoteIdentifier(table) + ") x WHERE m IS NOT NULL",
        {sequence});
  }
}

const std::pair<std::string, std::string>& Database::autonumberOf(const std::string& table) {
  auto it = autonumbers_.find(table);
  if (it != autonumbers_.end()) return it->second;
  Result r = run(
      "SELECT a.attname, pg_get_serial_sequence(quote_ident(c.relname), a.attname) FROM pg_class c "
      "JOIN pg_attribute a ON a.attrelid = c.oid WHERE c.oid = to_regclass(quote_ident($1)) AND a.attidentity <> ''",
      {table});
  std::pair<std::string, std::string> found;
  if (PQntuples(r.get()) == 1) found = {PQgetvalue(r.get(), 0, 0), PQgetvalue(r.get(), 0, 1)};
  return autonumbers_.emplace(table, std::move(found)).first->second;
}

// --- catalog ---------------------------------------------------------------------

const TableInfo& Database::tableInfo(unsigned oid) {
  auto it = tables_.find(oid);
  if (it != tables_.end()) return it->second;
  TableInfo info;
  std::string id = std::to_string(oid);
  Result r = run(
      "SELECT c.relname, a.attnum, a.attname, a.attidentity, a.atthasdef, "
      "pg_get_serial_sequence(quote_ident(n.nspname) || '.' || quote_ident(c.relname), a.attname) "
      "FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace "
      "JOIN pg_attribute a ON a.attrelid = c.oid WHERE c.oid = $1 AND a.attnum > 0 AND NOT a.attisdropped",
      {id});
  for (int row = 0; row < PQntuples(r.get()); ++row) {
    info.name = PQgetvalue(r.get(), row, 0);
    ColumnInfo c;
    c.name = PQgetvalue(r.get(), row, 2);
    bool identity = PQgetvalue(r.get(), row, 3)[0] != '\0';
    c.hasDefault = PQgetvalue(r.get(), row, 4)[0] == 't';
    if (identity) {
      info.identityColumn = c.name;
      info.identitySequence = PQgetvalue(r.get(), row, 5);
    }
    info.columns.emplace(std::atoi(PQgetvalue(r.get(), row, 1)), std::move(c));
  }
  return tables_.emplace(oid, std::move(info)).first->second;
}

const SelectShape& Database::shapeOf(const std::string& sql, std::string_view shownSql) {
  auto it = shapes_.find(sql);
  if (it != shapes_.end()) return it->second;
  PGconn* c = handle();
  Result prepared(PQprepare(c, "", sql.c_str(), 0, nullptr));
  if (!succeeded(prepared)) fail(prepared, shownSql);
  Result d(PQdescribePrepared(c, ""));
  if (!succeeded(d)) fail(d, shownSql);
  SelectShape shape;
  bool oneTable = true;
  for (int f = 0; f < PQnfields(d.get()); ++f) {
    shape.fieldNames.push_back(PQfname(d.get(), f));
    Oid table = PQftable(d.get(), f);
    int column = PQftablecol(d.get(), f);
    std::string name;
    if (table != InvalidOid && column > 0) {
      if (shape.tableOid == 0) shape.tableOid = table;
      if (shape.tableOid != table) oneTable = false;
      const TableInfo& info = tableInfo(table);
      auto col = info.columns.find(column);
      if (col != info.columns.end()) name = col->second.name;
    }
    shape.columns.push_back(std::move(name));
  }
  if (!oneTable) shape.tableOid = 0;
  return shapes_.emplace(sql, std::move(shape)).first->second;
}

}  // namespace kavrel::db::postgres
