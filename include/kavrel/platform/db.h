// Backend-neutral database access. Item classes reach the database only
// through these interfaces; each engine lives behind them in its own folder
// (src/platform/<engine>) and CMake target.
//
// The item classes issue SQL texts in the legacy dialect (bracketed
// identifiers, "DELETE * FROM", booleans stored as -1/0). A backend adapts
// what its engine does not take, and refuses a text that holds more than one
// statement.
//
// Ownership: a Connection is shared (std::shared_ptr) by the session and
// whoever else needs it; record sets are owned by their caller
// (std::unique_ptr) and must not outlive their connection.
// Errors: every failure throws kavrel::DbError (backend code and message).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kavrel/error.h"

namespace kavrel::db {

// A field value: Null, integer, real or UTF-8 text.
class Value {
 public:
  enum class Type { Null, Integer, Real, Text };

  Value() = default;
  Value(std::nullptr_t) {}
  Value(int32_t v) : type_(Type::Integer), i_(v) {}
  Value(int64_t v) : type_(Type::Integer), i_(v) {}
  Value(double v) : type_(Type::Real), d_(v) {}
  // Legacy databases hold -1 for true and 0 for false.
  Value(bool v) : type_(Type::Integer), i_(v ? -1 : 0) {}
  Value(std::string v) : type_(Type::Text), s_(std::move(v)) {}
  Value(std::string_view v) : type_(Type::Text), s_(v) {}
  Value(const char* v) : type_(Type::Text), s_(v) {}

  Type type() const noexcept { return type_; }
  bool isNull() const noexcept { return type_ == Type::Null; }

  // Conversions. Integer and real conversions of Null throw error 94
  // "Invalid use of Null"; text that is not a number throws error 13
  // "Type mismatch"; out-of-range throws error 6 "Overflow". Reals are
  // rounded half to even when converted to integers.
  int32_t toInt32() const;
  int64_t toInt64() const;
  double toDouble() const;
  // Any non-zero number is true. Null throws error 94.
  bool toBool() const;
  // Null gives the empty string; numbers give their decimal text.
  std::string toText() const;

  // Raw access (no conversion).
  int64_t rawInteger() const noexcept { return i_; }
  double rawReal() const noexcept { return d_; }
  const std::string& rawText() const noexcept { return s_; }

  friend bool operator==(const Value& a, const Value& b);

 private:
  Type type_ = Type::Null;
  int64_t i_ = 0;
  double d_ = 0.0;
  std::string s_;
};

// A result set positioned on its first row when opened (eof() when empty).
// Field names are matched without letter case and without brackets.
class Recordset {
 public:
  virtual ~Recordset() = default;

  virtual bool eof() = 0;
  virtual void moveNext() = 0;
  virtual int fieldCount() = 0;
  virtual std::string fieldName(int index) = 0;
  // Current row's field by position (0-based) or by name. Throws error 3265
  // "Item cannot be found in the collection corresponding to the requested
  // name or ordinal." for an unknown name or position, and error 3021 when
  // there is no current row.
  virtual const Value& field(int index) = 0;
  virtual const Value& field(std::string_view name) = 0;
  virtual void close() = 0;
};

// A result set held in memory that can be filtered any number of times.
// filter("") (or clearFilter()) shows every row again. A filter expression is
// one equality "[Column]='text'" (quotes doubled inside) or "[Column]=number";
// brackets are optional; texts match by the name rule (kavrel/platform/names.h).
// The first filter on a column builds an index so that
// many filters cost little each. Rows keep the query's order under a filter.
class ClientRecordset : public Recordset {
 public:
  virtual void filter(std::string_view expression) = 0;
  void clearFilter() { filter({}); }
  virtual void moveFirst() = 0;
  // Rows visible under the current filter.
  virtual int64_t recordCount() = 0;
};

// A result set opened on a one-table SELECT through which rows are added,
// changed and deleted. The query runs lazily: opening one only to add rows
// reads nothing. After update() of a new row, its autonumber column (and any
// column the database filled) reads back through field().
class UpdatableRecordset : public Recordset {
 public:
  virtual void addNew() = 0;
  // Adds a row with the given fields and values and writes it at once.
  virtual void addNew(const std::vector<std::string>& fields, const std::vector<Value>& values) = 0;
  // Sets a field of the new row, or of the current row (starting an edit).
  virtual void setField(std::string_view name, Value value) = 0;
  // Writes the pending new row or edit. On failure the pending change stays
  // (cancelUpdate() drops it) and DbError is thrown.
  virtual void update() = 0;
  virtual void cancelUpdate() = 0;
  // Deletes the current row.
  virtual void deleteCurrent() = 0;
};

class Connection {
 public:
  virtual ~Connection() = default;

  // Runs one statement. A SELECT gives its rows (forward-only); any other
  // statement gives an empty, closed-at-end result.
  virtual std::unique_ptr<Recordset> execute(std::string_view sql) = 0;
  // Rows of the statement affected by the last execute() of a non-query.
  virtual int64_t recordsAffected() const = 0;
  virtual std::unique_ptr<ClientRecordset> openClient(std::string_view sql) = 0;
  virtual std::unique_ptr<UpdatableRecordset> openUpdatable(std::string_view sql) = 0;

  // Transactions nest: begin() inside a transaction opens a savepoint.
  // Write transactions take the write lock at once, waiting for another
  // process rather than failing: up to the lock timeout, the environment
  // variable KAVREL_LOCK_TIMEOUT in seconds (default 60), after which they
  // fail with the engine's "database is locked".
  virtual void begin() = 0;
  // A read transaction: every read until its end sees the database as it
  // was at the first one (one snapshot), whatever other processes commit
  // meanwhile, and takes no write lock. Nested inside a transaction it is a
  // plain inner level. Ended by commit() or rollback() like any other.
  virtual void beginRead() { begin(); }
  virtual void commit() = 0;
  virtual void rollback() = 0;
  virtual int transactionDepth() const = 0;
  // Until the current transaction level ends (the nested one it is called
  // in, or the outermost), relations between tables are checked when that
  // level commits instead of after each statement: a nested level that
  // leaves them broken fails its commit (and stays open to be rolled back);
  // the enclosing levels check after each statement again.
  virtual void deferConstraintChecks() = 0;
  // Until the outermost transaction ends, another connection asking for the
  // same key waits: for check-then-write steps such as "store the target
  // unless one has its name" when several writers work at once. An engine
  // that lets one writing transaction in at a time (the embedded one) has
  // nothing to do; outside a transaction nothing is held.
  virtual void lockKey(std::string_view key) { (void)key; }

  // Batched writes, for bulk inserts where a refused row is rare. Between
  // beginBatchedWrites() and the matching endBatchedWrites() (they nest;
  // db::BatchedWrites pairs them), inside a transaction, a backend may hold
  // the rows added through updatable result sets and write them later,
  // several at once, by endBatchedWrites() at the latest. A new row's
  // autonumber still reads back right after update() (the backend sets it
  // aside beforehand), and so do the columns the database fills. Anything
  // else on the connection (a read, execute, begin, commit, rollback,
  // deferConstraintChecks, openClient, editing or deleting a row) writes what
  // is held first. Held rows are written parent tables first, so a row
  // that refers to a row added after it in the scope is not refused, as it
  // would be row by row; other rules are checked as row by row.
  //
  // A row refused when its batch is written is not reported by the update()
  // that added it: the write that fails throws kErrBatchRefused (never a row
  // refusal for isRowRefusal), naming the engine's reason; a fault throws
  // the engine's error. Either way what the scope wrote is incomplete: every
  // later operation but rollback() throws kErrBatchRefused (or the fault)
  // again, until the caller rolls back the transaction level the scope was
  // begun in. Writing the same rows again one by one then reports each
  // refusal where it arises.
  //
  // Outside a transaction, and on engines that write each row at once
  // (the default), both calls do nothing.
  virtual void beginBatchedWrites() {}
  virtual void endBatchedWrites() {}
  // True when this connection's engine holds rows in batched writes, so
  // that a caller knows whether it must be ready to write them again.
  virtual bool batchesWrites() const { return false; }

  // Read-ahead, for a caller that knows the SELECTs it is about to run (a
  // whole-target read). readAhead() hands over their texts in the order they
  // will be run; an engine on a server may send them all at once, so that
  // the server works on the later ones while the caller reads the earlier
  // results. Nothing the caller sees changes: execute() or openClient() of
  // a statement with the very text given gets the rows that running it
  // then would give (it runs in the same transaction, and a write on this
  // connection cannot come between: anything else on the connection, other
  // statements, writes, begin, commit, rollback, first ends the read-ahead).
  // A statement that failed when read ahead, or whose result was dropped,
  // runs again when asked and fails then as it would have. endReadAhead()
  // waits for what was sent and drops what was not used; a second
  // readAhead() ends the first. Texts that are not a single SELECT are
  // ignored. On engines that run each statement when asked (the default),
  // both calls do nothing. Neither throws: a read-ahead that cannot start
  // leaves each statement to run when asked.
  virtual void readAhead(const std::vector<std::string>& statements) noexcept { (void)statements; }
  virtual void endReadAhead() noexcept {}

  // The errors of the last failing operation (newest last), like the legacy
  // connection's error list. clearErrors() empties it.
  virtual const std::vector<DbError>& errors() const = 0;
  virtual void clearErrors() = 0;

  virtual bool isOpen() const = 0;
  virtual void close() = 0;
  // What the connection was opened on (for messages).
  virtual std::string description() const = 0;
};

// Whether a failed write is a row refused by the database's rules (a
// constraint: a name used twice, a link to a missing row; a value or text
// the statement cannot take) or the library's own refusal of one item,
// rather than a fault of the engine, the disk or the connection (I/O error,
// disk full, out of memory, locked, read-only, corrupt). Bulk inserts drop
// and report refused rows and go on; a fault ends them, with everything
// they wrote rolled back.
bool isRowRefusal(const Error& e);

// Whether a failure is a conflict with another connection that the engine
// resolved by failing this one's transaction: a deadlock or a serialization
// failure on the server (whose transaction is then of no use: its unit of
// work must run again from its start), or on SQLite a read transaction that
// can no longer become a write one (BUSY_SNAPSHOT). A lock not had within the
// lock timeout is not a conflict: the caller was told how long to wait. The
// DbError keeps saying so when an item class re-raises it with a prefix; an
// error that reached the caller only through the last-error record does not.
bool isConflict(const Error& e);

// Runs `work`, one unit of work that opens and commits its own outermost
// transaction on `conn`, and runs it again when it fails with a conflict
// (isConflict), up to kConflictAttempts attempts in all, each after a short
// random pause (a few milliseconds, doubling) so that the two sides of a
// deadlock do not meet again. Before each new attempt every transaction
// level the failed attempt left open is rolled back, the last-error record
// is put back as it was before the first attempt, and `undo` (when given)
// puts back what the attempt changed in memory (ids read back, changed
// flags, collected reports): `work` must find everything as the first
// attempt did. Any other failure, and the conflict of the last attempt, is
// thrown as it came. Called inside a transaction, `work` runs once: only the
// outermost transaction can be run again.
inline constexpr int kConflictAttempts = 5;
void retryOnConflict(Connection& conn, const std::function<void()>& work, const std::function<void()>& undo = {});

// Error of a batch of rows (Connection::beginBatchedWrites) that the
// database refused when it was written.
inline constexpr int32_t kErrBatchRefused = 3197;

// Batched writes for its lifetime (Connection::beginBatchedWrites). end()
// writes what is held and may throw; the destructor ends the scope quietly
// when end() was not reached (after a failure, which the caller rolls back).
class BatchedWrites {
 public:
  explicit BatchedWrites(Connection& conn) : conn_(conn) { conn_.beginBatchedWrites(); }
  ~BatchedWrites();
  BatchedWrites(const BatchedWrites&) = delete;
  BatchedWrites& operator=(const BatchedWrites&) = delete;
  void end();

 private:
  Connection& conn_;
  bool done_ = false;
};

// Read-ahead of the given statements for its lifetime
// (Connection::readAhead / endReadAhead).
class ReadAhead {
 public:
  ReadAhead(Connection& conn, const std::vector<std::string>& statements) : conn_(conn) {
    conn_.readAhead(statements);
  }
  ~ReadAhead() { conn_.endReadAhead(); }
  ReadAhead(const ReadAhead&) = delete;
  ReadAhead& operator=(const ReadAhead&) = delete;

 private:
  Connection& conn_;
};

// Rolls back on destruction unless committed (nest freely). A Read one
// (Connection::beginRead) gives one snapshot to the reads inside it.
class Transaction {
 public:
  enum class Kind { Write, Read };
  explicit Transaction(Connection& conn, Kind kind = Kind::Write);
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  void commit();

 private:
  Connection& conn_;
  bool done_ = false;
};

// Opens a connection. Accepted forms:
//  - "Provider=Microsoft.Jet.OLEDB.4.0;...;Data source=<file>" (or the
//    later Access provider), and a bare path ending in ".mdb": a legacy
//    Access file, opened read-only (every change refused with error 3027
//    naming the file; see src/platform/mdb/mdb_backend.h);
//  - "File name=<file.udl>": a data-link file (UTF-16 LE with BOM, or UTF-8)
//    whose init string names the data source;
//  - key/value pairs "Provider=SQLite;Data Source=<file>" (or without
//    provider);
//  - a bare path to an SQLite file.
// Opening never creates a database; a missing file throws an error naming it.
std::shared_ptr<Connection> openConnection(std::string_view connectionString);

// The local files that openConnection(connectionString) reads: each
// data-link file on the way and the database file it ends at (relative
// names resolved as opening resolves them; a bare name ending in ".udl" is
// followed as the data link the session opens). Empty for a server database.
// Does not open the database; a data-link file that cannot be read ends the
// list there (opening it would fail anyway). For tools that must never write
// over the database they read.
std::vector<std::string> localFilesOf(std::string_view connectionString);

// Creates a new, empty definitions database at `path` with the whole schema
// and the [system] version row "4". Fails if the file already exists.
void createDatabase(const std::string& path);

// Removes what createDatabase made at `path`: the file (and its journal),
// or, for a server database, the schema's tables and the objects made with
// them (the database itself stays, empty). What is already gone is no
// error; a server that cannot be reached is.
void removeDatabase(const std::string& path);

// The schema's SQL text (for tools and tests).
std::string_view schemaSql();

// The schema's tables, in the order the schema creates them (a table after
// the tables it refers to).
std::vector<std::string> schemaTables();

// One table of a copy: rows read from the source, rows written to the
// destination (a conversion that does not copy table by table gives -1 as
// rows read for a table the source does not have).
struct TableCopy {
  std::string table;
  int64_t rowsRead = 0;
  int64_t rowsWritten = 0;
};

// Copies every table of the schema from `source`, an open definitions
// database of schema version "4" (any backend), into `destination`, a new
// definitions database made by createDatabase (any backend), table by table
// in schemaTables() order, every column as it stands: ids are kept, and the
// destination's autonumbers go on after the highest id copied. The
// destination's tables are emptied first (a new database holds its version
// row only). `progress`, when given, is called after each table.
//
// Between two SQLite databases (a file, or the memory database a legacy file
// is loaded into) whose schemas are the same text, the pages are copied whole
// instead, in one write transaction, with the same counts checked after.
//
// All in one transaction on the destination, relations checked at its end.
// After each table the rows the source holds, the rows read and the rows the
// destination holds must agree. On any failure (a table or column of the
// schema missing in the source, a column of the source the schema does not
// have, a row refused, counts that differ) it throws and the destination is
// left as it was; the source is only read.
// The rows go in batched writes (Connection::beginBatchedWrites): on an
// engine that batches, a refused row is reported as kErrBatchRefused for
// its table once that table's rows are written.
std::vector<TableCopy> copyDatabase(Connection& source, Connection& destination,
                                    const std::function<void(const TableCopy&)>& progress = {});

// SQL text helpers for the item classes.
namespace sql {
// 'text' with every ' doubled.
std::string quote(std::string_view text);
// The text doubled but not enclosed.
std::string doubleQuotes(std::string_view text);
// For statements that splice a text between quotes WITHOUT doubling its
// quotes (kept as legacy behaviour): returns the text unchanged when it holds
// no quote; otherwise throws DbError (syntax error) so the statement fails
// instead of running with another meaning.
std::string spliceUnquoted(std::string_view text);
// Empty text gives the bare word Null, any other text quote(text).
std::string quoteOrNull(std::string_view text);
}  // namespace sql

}  // namespace kavrel::db
