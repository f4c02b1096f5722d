// The read-only connection on a loaded .mdb file: reads go to the memory
// database; an authorizer on it refuses every statement that would change
// it, and the refusal reaches the caller as one clear error.
#include <sqlite3.h>

#include <cstring>

#include "platform/mdb/mdb_internal.h"
#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::mdb {

namespace {

// Statements a read-only session still needs: reading, transactions
// (nothing to write), and the pragmas that only read or only set how this
// connection checks relations.
int authorize(void*, int action, const char* arg1, const char*, const char*, const char*) {
  switch (action) {
    case SQLITE_SELECT:
    case SQLITE_READ:
    case SQLITE_FUNCTION:
    case SQLITE_RECURSIVE:
    case SQLITE_TRANSACTION:
    case SQLITE_SAVEPOINT: return SQLITE_OK;
    case SQLITE_PRAGMA: {
      static const char* const kAllowed[] = {"table_info",       "table_xinfo",  "index_list",  "index_info",
                                             "index_xinfo",      "foreign_key_list", "defer_foreign_keys",
                                             "foreign_keys",     "collation_list", "database_list"};
      for (const char* a : kAllowed) {
        if (arg1 && sqlite3_stricmp(arg1, a) == 0) return SQLITE_OK;
      }
      return SQLITE_DENY;
    }
    default: return SQLITE_DENY;
  }
}

[[noreturn]] void readOnly(const std::string& path) {
  std::string d = "The database '" + path +
                  "' is a legacy Access file, opened read-only: convert it first (kavrel convert '" + path +
                  "' NEW.db) to change it";
  throw DbError(kErrReadOnly, kSource, d, SQLITE_AUTH, "read-only");
}

bool isRefusal(const DbError& e) {
  int code = e.backendCode() & 0xFF;
  return code == SQLITE_AUTH || code == SQLITE_READONLY;
}

class ReadOnlyUpdatable final : public UpdatableRecordset {
 public:
  ReadOnlyUpdatable(std::unique_ptr<UpdatableRecordset> inner, const std::string& path, std::vector<DbError>& errors)
      : inner_(std::move(inner)), path_(path), errors_(errors) {}
  bool eof() override { return inner_->eof(); }
  void moveNext() override { inner_->moveNext(); }
  int fieldCount() override { return inner_->fieldCount(); }
  std::string fieldName(int index) override { return inner_->fieldName(index); }
  const Value& field(int index) override { return inner_->field(index); }
  const Value& field(std::string_view name) override { return inner_->field(name); }
  void close() override { inner_->close(); }
  void addNew() override { refuse(); }
  void addNew(const std::vector<std::string>&, const std::vector<Value>&) override { refuse(); }
  void setField(std::string_view, Value) override { refuse(); }
  void update() override { refuse(); }
  void cancelUpdate() override {}
  void deleteCurrent() override { refuse(); }

 private:
  [[noreturn]] void refuse() {
    try {
      readOnly(path_);
    } catch (const DbError& e) {
      errors_.assign(1, e);
      throw;
    }
  }
  std::unique_ptr<UpdatableRecordset> inner_;
  std::string path_;
  std::vector<DbError>& errors_;
};

class ReadOnlyConnection final : public Connection {
 public:
  ReadOnlyConnection(std::shared_ptr<Connection> inner, std::string path)
      : inner_(std::move(inner)), path_(std::move(path)) {}

  const std::shared_ptr<Connection>& inner() const { return inner_; }

  std::unique_ptr<Recordset> execute(std::string_view sql) override {
    return guard([&] { return inner_->execute(sql); });
  }
  int64_t recordsAffected() const override { return inner_->recordsAffected(); }
  std::unique_ptr<ClientRecordset> openClient(std::string_view sql) override {
    return guard([&] { return inner_->openClient(sql); });
  }
  std::unique_ptr<UpdatableRecordset> openUpdatable(std::string_view sql) override {
    auto rs = guard([&] { return inner_->openUpdatable(sql); });
    return std::make_unique<ReadOnlyUpdatable>(std::move(rs), path_, errors_);
  }
  void begin() override { guard([&] { inner_->begin(); }); }
  void commit() override { guard([&] { inner_->commit(); }); }
  void rollback() override { guard([&] { inner_->rollback(); }); }
  int transactionDepth() const override { return inner_->transactionDepth(); }
  void deferConstraintChecks() override { guard([&] { inner_->deferConstraintChecks(); }); }
  const std::vector<DbError>& errors() const override { return errors_; }
  void clearErrors() override {
    errors_.clear();
    inner_->clearErrors();
  }
  bool isOpen() const override { return inner_->isOpen(); }
  void close() override { inner_->close(); }
  std::string description() const override { return inner_->description(); }

 private:
  // Runs `f`; a refusal of the authorizer becomes the read-only error, and
  // every failure is this connection's error list.
  template <class F>
  auto guard(F&& f) -> decltype(f()) {
    try {
      return f();
    } catch (const DbError& e) {
      if (isRefusal(e)) {
        try {
          readOnly(path_);
        } catch (const DbError& refused) {
          errors_.assign(1, refused);
          throw;
        }
      }
      errors_.assign(1, e);
      throw;
    }
  }

  std::shared_ptr<Connection> inner_;
  std::string path_;
  std::vector<DbError> errors_;
};

}  // namespace

Connection* loadedDatabaseOf(Connection& conn) {
  auto* c = dynamic_cast<ReadOnlyConnection*>(&conn);
  return c ? c->inner().get() : nullptr;
}

std::shared_ptr<Connection> makeReadOnly(std::shared_ptr<Connection> memory, const std::string& path) {
  auto db = sqlite::databaseOf(*memory);
  sqlite3_set_authorizer(db->handle(), authorize, nullptr);
  return std::make_shared<ReadOnlyConnection>(std::move(memory), path);
}

}  // namespace kavrel::db::mdb
