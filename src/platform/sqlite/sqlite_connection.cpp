#include <fcntl.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/vfs.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "platform/sqlite/sqlite_backend.h"
#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::sqlite {

namespace {

// How long a writer waits for another process's write to end before it
// gives up with "database is locked": long enough for several whole-target
// imports queued one behind the other. KAVREL_LOCK_TIMEOUT (seconds) says
// otherwise.
constexpr double kDefaultLockTimeoutSeconds = 60;
constexpr const char* kLockTimeoutVariable = "KAVREL_LOCK_TIMEOUT";
// Changing the journal of a file others have open is only tried this long.
constexpr int kJournalSwitchTimeoutMs = 1000;

int lockTimeoutMs() {
  double seconds = kDefaultLockTimeoutSeconds;
  if (const char* v = std::getenv(kLockTimeoutVariable); v && *v) {
    char* end = nullptr;
    const double parsed = std::strtod(v, &end);
    if (end && *end == '\0' && std::isfinite(parsed) && parsed >= 0) seconds = parsed;
  }
  return static_cast<int>(std::min(seconds * 1000.0, 2147483647.0));
}

// Write-ahead logging lets readers go on while a writer works (each reader
// keeps the snapshot its transaction started on), but it needs memory
// shared between the processes, which network file systems do not give.
// There the rollback journal is used: readers then wait for a writer's
// commit, and correctness rests on the network file system's locks.
bool onNetworkFileSystem(const std::string& path) {
#ifdef __linux__
  struct statfs s {};
  if (::statfs(path.c_str(), &s) != 0) return false;
  switch (static_cast<unsigned long>(s.f_type)) {
    case 0x6969UL:      // NFS
    case 0x517BUL:      // SMB
    case 0xFF534D42UL:  // CIFS
    case 0xFE534D42UL:  // SMB2
    case 0x564CUL:      // NCP
    case 0x73757245UL:  // Coda
    case 0x5346414FUL:  // AFS
    case 0x01021997UL:  // 9P (shared folders of virtual machines)
    case 0x00C36400UL:  // Ceph
    case 0x0BD00BD0UL:  // Lustre
    case 0x01161970UL:  // GFS2
    case 0x7461636FUL:  // OCFS2
      return true;
    default:
      return false;
  }
#else
  (void)path;
  return false;
#endif
}

const char* wantedJournal(const std::string& path) { return onNetworkFileSystem(path) ? "delete" : "wal"; }

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
    if (db_->transactionDepth == 0) db_->lost.reset();
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

  void beginRead() override {
    syncDepth();
    if (db_->transactionDepth == 0) {
      db_->lost.reset();
      // Deferred: the first read takes the snapshot that every later read
      // of this transaction sees; no lock is held against writers.
      db_->run("BEGIN DEFERRED");
    } else {
      db_->run("SAVEPOINT " + savepoint(db_->transactionDepth));
    }
    ++db_->transactionDepth;
  }

  void commit() override {
    if (!syncDepth()) noTransaction("commit");
    if (db_->lost) db_->fail(*db_->lost);
    if (db_->transactionDepth == 1) {
      // A failed COMMIT (e.g. deferred relations still broken) leaves the
      // transaction open, so the caller can still roll it back.
      db_->run("COMMIT");
    } else {
      // The level that deferred the relation checks answers for them now,
      // as a whole transaction would at its commit.
      if (db_->deferredAtDepth == db_->transactionDepth) checkDeferredRelations();
      db_->run("RELEASE " + savepoint(db_->transactionDepth - 1));
    }
    --db_->transactionDepth;
    endDeferral();
  }

  void rollback() override {
    if (!syncDepth()) noTransaction("roll back");
    if (db_->lost) {
      // The engine has already undone everything; only the levels remain.
      if (--db_->transactionDepth == 0) db_->lost.reset();
      if (db_->deferredAtDepth > db_->transactionDepth) db_->deferredAtDepth = 0;
      return;
    }
    if (db_->transactionDepth == 1) {
      db_->run("ROLLBACK");
    } else {
      std::string name = savepoint(db_->transactionDepth - 1);
      db_->run("ROLLBACK TO " + name);
      db_->run("RELEASE " + name);
    }
    --db_->transactionDepth;
    endDeferral();
  }

  int transactionDepth() const override { return db_->transactionDepth; }

  const std::shared_ptr<Database>& database() const { return db_; }

  void deferConstraintChecks() override {
    db_->run("PRAGMA defer_foreign_keys=ON");
    if (db_->deferredAtDepth == 0) db_->deferredAtDepth = db_->transactionDepth;
  }

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
    if (db_->lost) return db_->transactionDepth > 0;
    if (db_->transactionDepth > 0 && sqlite3_get_autocommit(db_->handle())) {
      db_->transactionDepth = 0;
      db_->deferredAtDepth = 0;
    }
    return db_->transactionDepth > 0;
  }

  // A nested level whose statements left relations broken cannot be
  // released: like a failed commit, it stays open to be rolled back.
  void checkDeferredRelations() {
    int pending = 0;
    int highest = 0;
    sqlite3_db_status(db_->handle(), SQLITE_DBSTATUS_DEFERRED_FKS, &pending, &highest, 0);
    if (pending == 0) return;
    const std::string m = "FOREIGN KEY constraint failed";
    db_->fail(DbError(SQLITE_CONSTRAINT_FOREIGNKEY, kSource, m, SQLITE_CONSTRAINT_FOREIGNKEY, m));
  }

  // The deferral lasts as long as the level that asked for it: the engine
  // would keep it until the outermost commit, and then the statements of
  // the enclosing transaction (e.g. a lenient insert that drops a refused
  // row and goes on) would be checked only at that commit, failing it as a
  // whole. The engine ends it by itself with the outermost transaction.
  void endDeferral() {
    if (db_->deferredAtDepth == 0 || db_->transactionDepth >= db_->deferredAtDepth) return;
    db_->deferredAtDepth = 0;
    if (db_->transactionDepth > 0) db_->run("PRAGMA defer_foreign_keys=OFF");
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
  const int lockTimeout = lockTimeoutMs();
  sqlite3_busy_timeout(raw, lockTimeout);
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
  return db;
}

}  // namespace

std::shared_ptr<Connection> openDatabase(const std::string& path, const std::string& description) {
  std::error_code ec;
  auto status = std::filesystem::status(path, ec);
  if (!std::filesystem::exists(status)) openFailure(SQLITE_CANTOPEN, path, "the file does not exist");
  if (std::filesystem::is_directory(status)) openFailure(SQLITE_CANTOPEN, path, "it is a folder, not a file");
  auto db = connect(path, SQLITE_OPEN_READWRITE, description);
  sqlite3* raw = db->handle();
  const int lockTimeout = lockTimeoutMs();
  // A file made elsewhere (or on another kind of disk) gets the journal
  // this disk wants; when others have it open the switch is left for later.
  const std::string wanted = wantedJournal(path);
  try {
    auto stmt = db->prepare("PRAGMA journal_mode");
    std::string current;
    if (sqlite3_step(stmt->get()) == SQLITE_ROW) {
      const unsigned char* t = sqlite3_column_text(stmt->get(), 0);
      current = t ? reinterpret_cast<const char*>(t) : "";
    }
    stmt.reset();
    if (current != wanted && (current == "delete" || current == "wal" || current == "truncate" || current == "persist")) {
      sqlite3_busy_timeout(raw, kJournalSwitchTimeoutMs);
      db->run("PRAGMA journal_mode=" + wanted);
    }
  } catch (const DbError&) {
    db->errors().clear();
  }
  sqlite3_busy_timeout(raw, lockTimeout);
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
  return std::make_shared<SqliteConnection>(std::move(db));
}

std::shared_ptr<Connection> openMemoryDatabase(const std::string& description) {
  return std::make_shared<SqliteConnection>(
      connect(":memory:", SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_MEMORY, description));
}

std::shared_ptr<Database> databaseOf(Connection& conn) {
  auto* c = dynamic_cast<SqliteConnection*>(&conn);
  return c ? c->database() : nullptr;
}

namespace {

// Every schema object of the database, as one text.
std::string schemaText(Database& db) {
  std::string all;
  auto stmt = db.prepare("SELECT type, name, tbl_name, coalesce(sql, '') FROM sqlite_master ORDER BY type, name");
  int rc;
  while ((rc = sqlite3_step(stmt->get())) == SQLITE_ROW) {
    for (int i = 0; i < 4; ++i) {
      const unsigned char* t = sqlite3_column_text(stmt->get(), i);
      all += t ? reinterpret_cast<const char*>(t) : "";
      all += '\x1f';
    }
    all += '\x1e';
  }
  if (rc != SQLITE_DONE) db.fail(rc, "SELECT ... FROM sqlite_master");
  return all;
}

}  // namespace

bool copyWholeDatabase(Connection& source, Connection& destination) {
  auto src = databaseOf(source);
  auto dst = databaseOf(destination);
  if (!src || !dst || source.transactionDepth() != 0 || destination.transactionDepth() != 0) return false;
  if (schemaText(*src) != schemaText(*dst)) return false;
  sqlite3_backup* backup = sqlite3_backup_init(dst->handle(), "main", src->handle(), "main");
  if (backup == nullptr) dst->fail(sqlite3_extended_errcode(dst->handle()), "copy of the whole database");
  const int rc = sqlite3_backup_step(backup, -1);
  sqlite3_backup_finish(backup);
  if (rc != SQLITE_DONE) dst->fail(rc, "copy of the whole database");
  return true;
}

void createDatabase(const std::string& path, std::string_view script) {
  std::error_code ec;
  // Made here, exclusively: of several processes creating the same file one
  // wins, and the others fail without touching it. An empty file is an
  // empty database to the engine.
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) {
    const int err = errno;
    if (err == EEXIST) {
      std::string d = "Cannot create the database '" + path + "': the file already exists";
      throw DbError(kErrFileExists, kSource, d, 0, "the file already exists");
    }
    const std::string reason = std::generic_category().message(err);
    std::string d = "Cannot create the database '" + path + "': " + reason;
    throw DbError(SQLITE_CANTOPEN, kSource, d, SQLITE_CANTOPEN, reason);
  }
  ::close(fd);
  sqlite3* raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
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
    if (rc == SQLITE_OK) {
      // Persistent in the file; best effort (the open tries again).
      const std::string journal = std::string("PRAGMA journal_mode=") + wantedJournal(path) + ";";
      sqlite3_exec(raw, journal.c_str(), nullptr, nullptr, nullptr);
    }
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
    // The file is ours (made exclusively above), and so are its companions.
    std::filesystem::remove(path, ec);
    std::filesystem::remove(path + "-journal", ec);
    std::filesystem::remove(path + "-wal", ec);
    std::filesystem::remove(path + "-shm", ec);
    std::string d = "Cannot create the database '" + path + "': " + reason;
    throw DbError(code, kSource, d, code, reason);
  }
}

}  // namespace kavrel::db::sqlite

namespace kavrel::db {

bool isRowRefusal(const Error& e) {
  if (e.number() == kErrBatchRefused) return false;  // a whole batch, to write again row by row
  const auto* failure = dynamic_cast<const DbError*>(&e);
  if (failure == nullptr) return true;  // the library's own check of one item
  if (failure->source() == "Connection") return false;
  switch (failure->backendCode() & 0xFF) {
    case SQLITE_PERM:
    case SQLITE_ABORT:
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_NOMEM:
    case SQLITE_READONLY:
    case SQLITE_INTERRUPT:
    case SQLITE_IOERR:
    case SQLITE_CORRUPT:
    case SQLITE_FULL:
    case SQLITE_CANTOPEN:
    case SQLITE_PROTOCOL:
    case SQLITE_NOLFS:
    case SQLITE_AUTH:
    case SQLITE_NOTADB: return false;
    default: return true;
  }
}

}  // namespace kavrel::db
