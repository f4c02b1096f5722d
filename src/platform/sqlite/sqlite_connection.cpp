#include <filesystem>
#include <system_error>

#include "platform/sqlite/sqlite_backend.h"
#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::sqlite {

namespace {

// A second process writing the same file is waited for this long.
constexpr int kBusyTimeoutMs = 5000;

// Number of the legacy runtime for "File already exists".
constexpr int32_t kErrFileExists = 58;

[[noreturn]] void openFailure(int code, const std::string& path, const std::string& reason) {
  std::string d = "Cannot open the database '" + path + "': " + reason;
  throw DbError(code, kSource, d, code, reason);
}

// What a statement that returns no rows gives back.
class EmptyRecordset final : public Recordset {
 public:
  bool eof() override { return true; }
  void moveNext() override { throwNoCurrentRow(); }
  int fieldCount() override { return 0; }
  std::string fieldName(int index) override { throwItemNotFound(std::to_string(index)); }
  const Value& field(int) override { throwNoCurrentRow(); }
  const Value& field(std::string_view name) override { throwItemNotFound(name); }
  void close() override {}
};

class SqliteConnection final : public Connection {
 public:
  explicit SqliteConnection(std::shared_ptr<Database> db) : db_(std::move(db)) {}
  ~SqliteConnection() override { db_->close(); }

  std::unique_ptr<Recordset> execute(std::string_view sql) override {
    auto stmt = db_->prepare(adaptSql(sql), sql);
    if (!db_->nameRuleCurrent && !sqlite3_stmt_readonly(stmt->get())) ensureNameRule(*db_);
    if (sqlite3_column_count(stmt->get()) > 0) return makeForwardRecordset(db_, std::move(stmt));
    stmt->runToEnd();
    db_->recordsAffected = sqlite3_changes64(db_->handle());
    return std::make_unique<EmptyRecordset>();
  }

  int64_t recordsAffected() const override { return db_->recordsAffected; }

  std::unique_ptr<ClientRecordset> openClient(std::string_view sql) override {
    return makeClientRecordset(db_, db_->prepare(adaptSql(sql), sql));
  }

  std::unique_ptr<UpdatableRecordset> openUpdatable(std::string_view sql) override {
    ensureNameRule(*db_);
    return makeUpdatableRecordset(db_, sql);
  }

  void begin() override {
    syncDepth();
    ensureNameRule(*db_);
    if (db_->transactionDepth == 0) {
      // Take the write lock at once: two writers cannot deadlock, and the
      // busy timeout makes the second one wait.
      db_->run("BEGIN IMMEDIATE");
    } else {
      db_->run("SAVEPOINT " + savepoint(db_->transactionDepth));
    }
    ++db_->transactionDepth;
  }

  void commit() override {
    if (!syncDepth()) noTransaction("commit");
    if (db_->transactionDepth == 1) {
      // A failed COMMIT (e.g. deferred relations still broken) leaves the
      // transaction open, so the caller can still roll it back.
      db_->run("COMMIT");
    } else {
      db_->run("RELEASE " + savepoint(db_->transactionDepth - 1));
    }
    --db_->transactionDepth;
  }

  void rollback() override {
    if (!syncDepth()) noTransaction("roll back");
    if (db_->transactionDepth == 1) {
      db_->run("ROLLBACK");
    } else {
      std::string name = savepoint(db_->transactionDepth - 1);
      db_->run("ROLLBACK TO " + name);
      db_->run("RELEASE " + name);
    }
    --db_->transactionDepth;
  }

  int transactionDepth() const override { return db_->transactionDepth; }

  const std::shared_ptr<Database>& database() const { return db_; }

  void deferConstraintChecks() override { db_->run("PRAGMA defer_foreign_keys=ON"); }

  const std::vector<DbError>& errors() const override { return db_->errors(); }
  void clearErrors() override { db_->errors().clear(); }

  bool isOpen() const override { return db_->isOpen(); }
  void close() override { db_->close(); }
  std::string description() const override { return db_->description(); }

 private:
  static std::string savepoint(int level) { return "kavrel_level_" + std::to_string(level); }

  // The engine ends a transaction by itself after some failures (disk full,
  // out of memory); forget the levels it dropped. Returns depth > 0.
  bool syncDepth() {
    if (db_->transactionDepth > 0 && sqlite3_get_autocommit(db_->handle())) db_->transactionDepth = 0;
    return db_->transactionDepth > 0;
  }

  [[noreturn]] void noTransaction(const char* what) {
    std::string m = std::string("cannot ") + what + " - no transaction is active";
    db_->fail(DbError(SQLITE_ERROR, kSource, m, SQLITE_ERROR, m));
  }

  std::shared_ptr<Database> db_;
};

}  // namespace

namespace {

// Opens the engine on `path` with `flags` and sets the handle up as every
// connection of this backend needs it: a database file and a database held
// in memory go through here alike.
std::shared_ptr<Database> connect(const std::string& path, int flags, const std::string& description) {
  sqlite3* raw = nullptr;
  // A connection belongs to one session, which runs on one thread: the
  // engine's per-call locking (taken for every column read) is not needed.
  int rc = sqlite3_open_v2(path.c_str(), &raw, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    std::string reason = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc);
    int code = raw ? sqlite3_extended_errcode(raw) : rc;
    sqlite3_close_v2(raw);
    openFailure(code, path, reason);
  }
  sqlite3_extended_result_codes(raw, 1);
  sqlite3_busy_timeout(raw, kBusyTimeoutMs);
  registerNameCollation(raw);
  auto db = std::make_shared<Database>(raw, description);
  try {
    db->run("PRAGMA foreign_keys=ON");
    // Reading the schema proves the file is a database (the engine reads
    // nothing until asked).
    db->run("SELECT count(*) FROM sqlite_master");
  } catch (const DbError& e) {
    db->close();
    openFailure(e.backendCode(), path, e.backendMessage());
  }
  // A file of an earlier version takes the name rule now, so that lookups
  // and orders follow it from the first read. When it cannot (names that
  // would collide, a read-only file, a busy writer) it opens as it is: reads
  // then follow the file's own column rules, and every write retries the
  // upgrade first (refused with the numbered error naming the collisions).
  if (!sqlite3_db_readonly(raw, "main")) {
    try {
      ensureNameRule(*db);
    } catch (const DbError&) {
      db->errors().clear();
    }
  }
  return db;
}

}  // namespace

std::shared_ptr<Connection> openDatabase(const std::string& path, const std::string& description) {
  std::error_code ec;
  auto status = std::filesystem::status(path, ec);
  if (!std::filesystem::exists(status)) openFailure(SQLITE_CANTOPEN, path, "the file does not exist");
  if (std::filesystem::is_directory(status)) openFailure(SQLITE_CANTOPEN, path, "it is a folder, not a file");
  return std::make_shared<SqliteConnection>(connect(path, SQLITE_OPEN_READWRITE, description));
}

std::shared_ptr<Connection> openMemoryDatabase(const std::string& description) {
  return std::make_shared<SqliteConnection>(
      connect(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_MEMORY, description));
}

std::shared_ptr<Database> databaseOf(Connection& conn) {
  auto* c = dynamic_cast<SqliteConnection*>(&conn);
  return c ? c->database() : nullptr;
}

void createDatabase(const std::string& path, std::string_view script) {
  std::error_code ec;
  if (std::filesystem::exists(path, ec)) {
    std::string d = "Cannot create the database '" + path + "': the file already exists";
    throw DbError(kErrFileExists, kSource, d, 0, "the file already exists");
  }
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  std::string reason;
  int code = rc;
  if (rc == SQLITE_OK) {
    sqlite3_extended_result_codes(raw, 1);
    registerNameCollation(raw);
    // The journal of a file being created can stay in memory: on failure
    // the file is removed anyway.
    std::string all = "PRAGMA foreign_keys=ON;\nPRAGMA journal_mode=MEMORY;\nBEGIN IMMEDIATE;\n";
    all.append(script);
    all += "\nCOMMIT;\n";
    char* message = nullptr;
    rc = sqlite3_exec(raw, all.c_str(), nullptr, nullptr, &message);
    if (rc != SQLITE_OK) {
      code = sqlite3_extended_errcode(raw);
      reason = message ? message : sqlite3_errstr(rc);
    }
    sqlite3_free(message);
  } else {
    code = raw ? sqlite3_extended_errcode(raw) : rc;
    reason = raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc);
  }
  int closeRc = sqlite3_close(raw);
  if (rc == SQLITE_OK && closeRc != SQLITE_OK) {
    rc = closeRc;
    code = closeRc;
    reason = sqlite3_errstr(closeRc);
  }
  if (rc != SQLITE_OK) {
    std::filesystem::remove(path, ec);
    std::filesystem::remove(path + "-journal", ec);
    std::string d = "Cannot create the database '" + path + "': " + reason;
    throw DbError(code, kSource, d, code, reason);
  }
}

}  // namespace kavrel::db::sqlite
