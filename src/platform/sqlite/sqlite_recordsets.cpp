// Read-only result sets: the forward-only one of execute(), and the rows of
// the client-side one (which the engine-neutral in-memory result set holds
// and filters).
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <unordered_map>

#include "kavrel/platform/names.h"
#include "platform/memory_recordset.h"
#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::sqlite {

namespace {

// Steps `stmt`; true on a row, false at the end (the statement is then reset
// so that it holds no lock). Failures throw the engine's error.
bool step(Database& db, Statement& stmt) {
  sqlite3_stmt* s = stmt.get();
  int rc = sqlite3_step(s);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) {
    sqlite3_reset(s);
    return false;
  }
  try {
    db.fail(rc, stmt.sql());
  } catch (...) {
    sqlite3_reset(s);
    throw;
  }
}

FieldNames columnNames(sqlite3_stmt* s) {
  FieldNames names;
  int n = sqlite3_column_count(s);
  for (int i = 0; i < n; ++i) {
    const char* name = sqlite3_column_name(s, i);
    names.add(name ? name : "");
  }
  return names;
}

class ForwardRecordset final : public Recordset {
 public:
  ForwardRecordset(std::shared_ptr<Database> db, std::unique_ptr<Statement> stmt)
      : db_(std::move(db)), stmt_(std::move(stmt)), names_(columnNames(stmt_->get())) {
    row_.resize(static_cast<size_t>(names_.size()));
    fetch();
  }

  bool eof() override {
    checkOpen();
    return eof_;
  }

  void moveNext() override {
    checkOpen();
    if (eof_) throwNoCurrentRow();
    fetch();
  }

  int fieldCount() override {
    checkOpen();
    return names_.size();
  }

  std::string fieldName(int index) override {
    checkOpen();
    names_.checkIndex(index);
    return names_.name(index);
  }

  const Value& field(int index) override {
    checkOpen();
    names_.checkIndex(index);
    if (eof_) throwNoCurrentRow();
    return row_[static_cast<size_t>(index)];
  }

  const Value& field(std::string_view name) override {
    checkOpen();
    int index = names_.require(name);
    if (eof_) throwNoCurrentRow();
    return row_[static_cast<size_t>(index)];
  }

  void close() override {
    if (closed_) return;
    closed_ = true;
    stmt_.reset();
  }

 private:
  void checkOpen() const {
    if (closed_) throwClosed();
  }

  void fetch() {
    eof_ = true;  // stays so if the step fails
    if (!step(*db_, *stmt_)) return;
    sqlite3_stmt* s = stmt_->get();
    for (int i = 0; i < names_.size(); ++i) row_[static_cast<size_t>(i)] = columnValue(s, i);
    eof_ = false;
  }

  std::shared_ptr<Database> db_;
  std::unique_ptr<Statement> stmt_;
  FieldNames names_;
  std::vector<Value> row_;
  bool eof_ = true;
  bool closed_ = false;
};

}  // namespace

std::unique_ptr<Recordset> makeForwardRecordset(std::shared_ptr<Database> db, std::unique_ptr<Statement> stmt) {
  return std::make_unique<ForwardRecordset>(std::move(db), std::move(stmt));
}

std::unique_ptr<ClientRecordset> makeClientRecordset(std::shared_ptr<Database> db, std::unique_ptr<Statement> stmt) {
  // Everything is read at once; the statement (and its read lock) goes.
  FieldNames names = columnNames(stmt->get());
  const int n = names.size();
  return memory::makeClientRecordset(std::move(names), [&](Value* out) {
    if (!step(*db, *stmt)) return false;
    sqlite3_stmt* s = stmt->get();
    for (int i = 0; i < n; ++i) out[i] = columnValue(s, i);
    return true;
  });
}

}  // namespace kavrel::db::sqlite
