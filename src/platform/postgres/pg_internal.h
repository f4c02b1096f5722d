// Private parts of the PostgreSQL backend shared by its connection and result
// sets. Nothing here is visible above src/platform/postgres.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kavrel/platform/db.h"
#include "platform/postgres/pg_backend.h"
#include "platform/memory_recordset.h"
#include "platform/postgres/pg_handle.h"

namespace kavrel::db::postgres {

inline constexpr const char* kSource = kErrorSource;

// A statement parameter: text, or no value for Null. The server gives it the
// type its place asks for.
using Param = std::optional<std::string>;
Param toParam(const Value& v);
// A result field as a Value, typed by the column's type.
Value fieldValue(const PGresult* r, int row, int column);

struct Query {
  std::string sql;
  std::vector<Param> params;
  std::string statement;  // the name it was prepared under, or empty
};

// A row held by batched writes: where it is, while it is held.
struct HeldRow {
  size_t batch = 0;
  size_t index = 0;
  uint64_t serial = 0;  // 0: not held
};

struct ColumnInfo {
  std::string name;  // as stored (lower case)
  bool hasDefault = false;  // a default other than the autonumber
};

struct TableInfo {
  std::string name;  // as stored
  std::map<int, ColumnInfo> columns;  // by attribute number
  std::string identityColumn;  // the autonumber column, or empty
  std::string identitySequence;
};

// The layout of an updatable SELECT (read without running it).
struct SelectShape {
  std::vector<std::string> fieldNames;  // as stored
  std::vector<std::string> columns;     // the table column of each field, or empty
  unsigned tableOid = 0;
};

struct ClientSortTerm;
struct ReadAheadState;

// The open connection and the state every object on it shares.
class Database {
 public:
  Database(ConnHandle conn, std::string description);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  // The connection, given back by a read-ahead first; throws when closed.
  PGconn* handle();
  // Throws as handle() when closed, leaving a read-ahead running.
  void checkOpen() const;
  bool isOpen() const { return conn_ != nullptr; }
  void close() noexcept;
  const std::string& description() const { return description_; }

  // Builds the DbError of a failed result, records it and throws it.
  [[noreturn]] void fail(const Result& r, std::string_view sql);
  [[noreturn]] void fail(DbError e);
  DbError errorOf(const Result& r, std::string_view sql) const;
  std::vector<DbError>& errors() { return errors_; }
  // adaptSql(), its refusal recorded in the error list.
  std::string adapt(std::string_view sql);

  // Runs one statement (already in the engine's dialect) and returns its
  // result; throws on failure. Inside a transaction the statement runs under
  // a savepoint of its own, so that a failed statement leaves the
  // transaction usable (as a failed statement does on the embedded engine).
  // Outside one, a serialization failure or deadlock is retried.
  Result run(std::string_view sql, const std::vector<Param>& params = {}, std::string_view shownSql = {});
  // As run(), for a statement the connection runs many times (the row
  // writes of the result sets): parsed and planned once.
  Result runPrepared(const std::string& sql, const std::vector<Param>& params);
  // Runs a statement on the bare connection (transaction control).
  void control(const std::string& sql);
  // Runs the queries in one round trip; results in order, a query skipped
  // after a failure gives a PGRES_PIPELINE_ABORTED result.
  std::vector<Result> pipeline(const std::vector<Query>& queries);

  const TableInfo& tableInfo(unsigned oid);
  // After a table definition changed: what was read of the tables goes.
  void forgetLayouts() {
    tables_.clear();
    shapes_.clear();
    autonumbers_.clear();
    if (!prepared_.empty() && conn_) {
      Result r(PQexec(conn_.get(), "DEALLOCATE ALL"));
    }
    prepared_.clear();
  }

  // A row was written with its autonumber given (a copy keeping its ids):
  // the table's sequence goes on after the highest id, as autonumbers do on
  // the embedded engine. Done at once outside a transaction, else when the
  // outermost one commits.
  void autonumberGiven(const std::string& table);
  void settleAutonumbers();
  // The autonumber column of a table (by stored name) and its sequence,
  // both empty when it has none.
  const std::pair<std::string, std::string>& autonumberOf(const std::string& table);
  const SelectShape& shapeOf(const std::string& sql, std::string_view shownSql);

  int transactionDepth = 0;
  int64_t recordsAffected = 0;

  // --- read-ahead (pg_read_ahead.cpp) ---
  // Sends the SELECTs among `statements` (legacy texts) at once, in the form
  // run() would send each, and starts a thread receiving their results. Ends
  // a read-ahead still running first. Never throws: when it cannot start,
  // each statement runs when asked.
  void beginReadAhead(const std::vector<std::string>& statements) noexcept;
  // The rows read ahead for exactly this text, waiting for them, and the
  // order to read them in when the client sorts them (see adaptSelect: the
  // reader thread works it out as the rows arrive); nullopt when there are
  // none (not sent, already taken, failed, or an order the client cannot
  // give): the caller then runs the statement itself, which ends the
  // read-ahead.
  struct AheadRows {
    Result result;
    int sortTerms = 0;              // hidden trailing fields
    std::optional<std::vector<int>> order;  // with sortTerms > 0
  };
  std::optional<AheadRows> takeReadAhead(std::string_view sql);
  // Waits for the reader, drops what was not taken and leaves the
  // connection as it was before (the savepoint undone after a failure).
  void endReadAhead() noexcept;
  bool readingAhead() const { return ahead_ != nullptr; }
  struct AheadCounts {
    int64_t sent = 0, used = 0, dropped = 0;
  };
  const AheadCounts& aheadCounts() const { return aheadCounts_; }

  // --- batched writes (pg_batch.cpp) ---
  // True between beginBatchedWrites() and its end, inside a transaction.
  bool batching() const { return batchDepth_ > 0 && batchLevel_ > 0 && transactionDepth >= batchLevel_; }
  void beginBatch();
  // Ends one scope; the outermost writes what is held. Throws as
  // flushBatches().
  void endBatch();
  // Writes what is held, one COPY per table and set of columns, parent
  // tables first. A refusal
  // throws kErrBatchRefused, a fault the engine's error; either leaves the
  // connection failed (checkBatch) until the scope's level is rolled back.
  void flushBatches();
  // Throws the failure of a batch written earlier, if any.
  void checkBatch() const;
  // Holds a new row for the next flush. `columns` are stored names, the
  // values those of the row.
  HeldRow holdRow(const std::string& table, const std::vector<std::string>& columns, std::vector<Param> values);
  // Changes a column of a row still held (it may move to the batch of its
  // new set of columns) and returns true; false when it was written since.
  bool editHeld(HeldRow& row, const std::string& column, Param value);
  // Drops a row still held and returns true; false when it was written.
  bool dropHeld(const HeldRow& row);
  // The next autonumber set aside for the table (reserved in blocks).
  int64_t reserveAutonumber(const TableInfo& table);
  // Transaction levels: held rows added inside a level that is rolled back
  // are dropped with it.
  void levelBegun();
  void levelCommitted();
  void levelRolledBack();

 private:
  Result exec(const std::string& sql, const std::vector<Param>& params);
  Result runQuery(const Query& q, std::string_view shownSql);
  Result execPrepared(const std::string& name, const std::vector<Param>& params);

  ConnHandle conn_;
  std::unique_ptr<ReadAheadState> ahead_;
  AheadCounts aheadCounts_;
  std::string description_;
  std::vector<DbError> errors_;
  std::unordered_map<unsigned, TableInfo> tables_;
  std::vector<std::string> autonumbersGiven_;
  std::unordered_map<std::string, std::pair<std::string, std::string>> autonumbers_;
  std::unordered_map<std::string, SelectShape> shapes_;
  std::unordered_map<std::string, std::string> prepared_;  // text -> name

  struct Batch {
    std::string table;  // as stored
    size_t rank = 0;    // the order batches are written in
    std::vector<std::string> columns;
    std::string copySql;
    std::vector<std::vector<Param>> rows;
    std::vector<uint64_t> serials;  // of each row; 0 once dropped
    size_t bytes = 0;               // roughly, of the rows held
  };
  bool isHeld(const HeldRow& row) const;
  void dropRows();
  uint64_t nextSerial_ = 0;
  struct Reserve {
    std::vector<int64_t> ids;
    size_t next = 0;
    int64_t block = 0;
  };
  void failBatch(DbError e);
  int batchDepth_ = 0;
  int batchLevel_ = 0;     // the transaction level the outermost scope began in
  std::vector<Batch> batches_;
  std::unordered_map<std::string, size_t> batchIndex_;  // table + columns -> batches_
  std::vector<std::vector<size_t>> levelMarks_;         // rows held when each inner level began
  std::unordered_map<std::string, Reserve> reserves_;   // by table
  std::optional<DbError> batchFailure_;
  int failureLevel_ = 0;  // the level to roll back to clear batchFailure_
};

// Dialect: the legacy SQL text as the engine takes it. Bracketed names
// become quoted lower-case identifiers (the schema's names are stored in lower
// case, so bare and bracketed spellings of any case meet), "DELETE * FROM"
// becomes "DELETE FROM", ORDER BY on a name column sorts by the name rule,
// and table definitions take the engine's types. A second statement is
// refused.
std::string adaptSql(std::string_view sql);
// A SELECT's ORDER BY is sorted here rather than on the server, which would
// evaluate the name rule's key per row and sort with its own collation (and
// sorts a large result on disk): the statement drops its ORDER BY and
// returns each term as a hidden trailing field instead, and clientOrder()
// gives the row order. Name columns compare by the name rule, other terms as
// numbers (nulls first ascending, last descending, as the embedded engine
// and the adapted server statements put them; NaN after every number); ties
// keep the server's order.
struct ClientSortTerm {
  bool name = false;        // a column sorted by the name rule
  bool descending = false;
};
// Statements sent at once and the results a reader thread receives for
// them (pg_read_ahead.cpp). While a reader runs it alone uses the
// connection; the caller takes finished results under the mutex.
struct ReadAheadState {
  struct Statement {
    std::string text;                   // as the caller gave it
    std::string sent;                   // as the server was sent it
    std::vector<ClientSortTerm> terms;  // as adaptSelect() gave them
    Result result;                      // once received
    std::optional<std::vector<int>> order;  // clientOrder() of the result, with terms
    bool taken = false;
  };
  std::vector<Statement> statements;
  bool savepoint = false;  // sent under a savepoint of its own (inside a transaction)
  std::mutex mutex;
  std::condition_variable arrived;
  size_t received = 0;  // statements whose result arrived (under mutex)
  bool finished = false;  // the reader is done (under mutex)
  bool failed = false;    // a statement failed or the connection broke (the reader's, read after join)
  std::thread reader;
};

struct ClientSortedSelect {
  std::string sql;                   // the statement the server runs
  std::vector<ClientSortTerm> terms; // empty: the server sorts (sql is adaptSql())
};
// Any statement; only a plain SELECT with an ORDER BY of [qualifier.]column
// terms is sorted here.
ClientSortedSelect adaptSelect(std::string_view sql);
// The order in which to read the rows of `r`, whose last terms.size() fields
// are the terms; nullopt when a term that is not a name is not a number
// either (its order is the server's collation: the server must sort).
std::optional<std::vector<int>> clientOrder(const PGresult* r, const std::vector<ClientSortTerm>& terms);

// The display spelling of a stored (lower-case) name: as the schema or the
// statement wrote it.
std::string displayName(const std::string& stored, std::string_view sql);
std::string quoteIdentifier(std::string_view name);
size_t findTopLevelFrom(std::string_view select);
// True for CREATE, DROP and ALTER statements.
bool isDefinition(std::string_view sql);
// The stored name of the table an INSERT statement writes when it gives
// the table's autonumber column (autonumberOf: a table's autonumber column,
// or empty), else empty.
std::string insertedTable(std::string_view adaptedSql,
                          const std::function<std::string(const std::string&)>& autonumberOf);
// False when the SELECT's FROM clause names more than one table (or one twice).
bool readsOneTable(std::string_view select);

// The schema as the engine takes it, generated from the one schema text.
std::string schemaScript(std::string_view legacySchema);

// The result sets of a query result. With `order`, rows are read in that
// order and the fields past `visible` (the hidden sort terms) are not shown.
struct RowOrder {
  int visible = -1;           // fields shown; -1: all
  std::vector<int> rows;      // empty: the result's own order
};
std::unique_ptr<Recordset> makeForwardRecordset(std::shared_ptr<Database> db, Result r, std::string_view sql,
                                                RowOrder order = {});
std::unique_ptr<ClientRecordset> makeClientRecordset(std::shared_ptr<Database> db, Result r, std::string_view sql,
                                                     RowOrder order = {});
std::unique_ptr<UpdatableRecordset> makeUpdatableRecordset(std::shared_ptr<Database> db, std::string_view sql);

}  // namespace kavrel::db::postgres
