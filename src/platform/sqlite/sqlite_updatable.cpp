// The updatable result set: rows are added, changed and deleted through
// statements generated on the SELECT's table, addressed by rowid.
//
// Nothing is read until a row is asked for: opening one only to add rows
// (the bulk inserts) costs one prepare. Rows, once asked for, are read at
// once with their rowids (a keyset), so changing rows while walking them
// cannot make the walk see a row twice.
#include <algorithm>
#include <unordered_map>

#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::sqlite {

namespace {

constexpr const char* kRowidName = "kavrel rowid";

struct Row {
  int64_t rowid = 0;
  std::vector<Value> values;
  // Columns whose value is known; a new row's columns that the database
  // filled are read by rowid when first asked for.
  std::vector<bool> known;
  bool deleted = false;
};

struct Field {
  std::string column;  // the table's column, empty for an expression
  bool rowidAlias = false;
};

class UpdatableRecordsetImpl final : public UpdatableRecordset {
 public:
  UpdatableRecordsetImpl(std::shared_ptr<Database> db, std::string_view sql) : db_(std::move(db)), shownSql_(sql) {
    std::string adapted = adaptSql(sql);
    size_t from = findTopLevelFrom(adapted);
    if (from == std::string::npos) notUpdatable("no FROM clause");
    // The rowid comes last so that positional ORDER BY terms keep meaning.
    adapted.insert(from, ", rowid AS " + quoteIdentifier(kRowidName) + " ");
    try {
      select_ = db_->prepare(adapted, sql);
    } catch (const DbError&) {
      // Either the text itself is wrong (its own error is then thrown) or the
      // rowid cannot be named: the SELECT reads more than one table.
      db_->prepare(adaptSql(sql), sql);
      notUpdatable("it is not a SELECT on one table");
    }
    sqlite3_stmt* s = select_->get();
    int n = sqlite3_column_count(s) - 1;
    for (int i = 0; i < n; ++i) {
      const char* name = sqlite3_column_name(s, i);
      names_.add(name ? name : "");
      const char* table = sqlite3_column_table_name(s, i);
      const char* origin = sqlite3_column_origin_name(s, i);
      Field f;
      if (table && origin) {
        if (table_.empty()) {
          table_ = table;
        } else if (table_ != table) {
          notUpdatable("it reads more than one table");
        }
        f.column = origin;
      }
      fields_.push_back(std::move(f));
    }
    if (table_.empty()) notUpdatable("it selects no column of a table");
    const TableInfo& info = db_->tableInfo(table_);
    if (info.rowidAlias >= 0) {
      const std::string& alias = info.columns[static_cast<size_t>(info.rowidAlias)].name;
      for (Field& f : fields_) f.rowidAlias = !f.column.empty() && foldName(f.column) == foldName(alias);
    }
    pendingValues_.resize(fields_.size());
    pendingSet_.assign(fields_.size(), 0);
  }

  // --- reading ---

  bool eof() override {
    checkOpen();
    if (onAdded_) return false;
    if (pastEnd_) return true;
    load();
    return pos_ >= rows_.size();
  }

  void moveNext() override {
    checkOpen();
    if (mode_ != Mode::None) update();
    if (onAdded_) {
      // A new row sits after the rows that were read.
      onAdded_ = false;
      pastEnd_ = true;
      return;
    }
    if (pastEnd_) throwNoCurrentRow();
    load();
    if (pos_ >= rows_.size()) throwNoCurrentRow();
    ++pos_;
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
    return valueAt(static_cast<size_t>(index));
  }

  const Value& field(std::string_view name) override {
    checkOpen();
    return valueAt(static_cast<size_t>(names_.require(name)));
  }

  void close() override {
    if (closed_) return;
    cancelUpdate();
    closed_ = true;
    rows_.clear();
    inserts_ = StatementCache();
    updates_ = StatementCache();
    deleteStmt_.reset();
    rereadStmt_.reset();
    select_.reset();
  }

  // --- writing ---

  void addNew() override {
    checkOpen();
    if (mode_ != Mode::None) update();
    mode_ = Mode::Adding;
    for (Value& v : pendingValues_) v = Value();
    std::fill(pendingSet_.begin(), pendingSet_.end(), 0);
  }

  void addNew(const std::vector<std::string>& fields, const std::vector<Value>& values) override {
    checkOpen();
    if (fields.size() != values.size()) {
      throwRecordsetError(kErrBadArguments, "addNew: " + std::to_string(fields.size()) + " fields but " +
                                                std::to_string(values.size()) + " values");
    }
    // Check every name before anything changes.
    std::vector<int> indexes;
    indexes.reserve(fields.size());
    for (const std::string& f : fields) indexes.push_back(writableField(f));
    addNew();
    for (size_t i = 0; i < indexes.size(); ++i) setPending(static_cast<size_t>(indexes[i]), values[i]);
    update();
  }

  void setField(std::string_view name, Value value) override {
    checkOpen();
    int index = writableField(name);
    if (mode_ == Mode::None) {
      currentRow();  // an edit needs a current row
      mode_ = Mode::Editing;
      std::fill(pendingSet_.begin(), pendingSet_.end(), 0);
    }
    setPending(static_cast<size_t>(index), std::move(value));
  }

  void update() override {
    checkOpen();
    if (mode_ == Mode::Adding) {
      insertPending();
    } else if (mode_ == Mode::Editing) {
      updatePending();
    }
  }

  void cancelUpdate() override {
    mode_ = Mode::None;
    std::fill(pendingSet_.begin(), pendingSet_.end(), 0);
  }

  void deleteCurrent() override {
    checkOpen();
    if (mode_ == Mode::Adding) {  // nothing written yet
      cancelUpdate();
      return;
    }
    cancelUpdate();
    Row& row = currentRow();
    if (!deleteStmt_) {
      deleteStmt_ = db_->cached("DELETE FROM " + quoteIdentifier(table_) + " WHERE rowid=?");
    }
    deleteStmt_->bind(1, Value(row.rowid));
    deleteStmt_->runToEnd();
    row.deleted = true;
  }

 private:
  enum class Mode { None, Adding, Editing };

  [[noreturn]] void notUpdatable(const std::string& why) {
    std::string m = "The query cannot be opened for update: " + why;
    db_->fail(DbError(kErrNotSupported, kSource, m + "; statement: " + shownSql_, kErrNotSupported, m));
  }

  void checkOpen() const {
    if (closed_) throwClosed();
  }

  int writableField(std::string_view name) {
    int index = names_.require(name);
    if (fields_[static_cast<size_t>(index)].column.empty()) {
      throwRecordsetError(kErrNotSupported, "The field '" + std::string(name) + "' is not a column and cannot be set");
    }
    return index;
  }

  void setPending(size_t index, Value value) {
    pendingValues_[index] = std::move(value);
    pendingSet_[index] = 1;
  }

  // Reads the rows of the SELECT (once).
  void load() {
    if (loaded_) return;
    loaded_ = true;
    pos_ = 0;
    sqlite3_stmt* s = select_->get();
    const size_t n = fields_.size();
    int rc;
    while ((rc = sqlite3_step(s)) == SQLITE_ROW) {
      Row row;
      row.values.resize(n);
      for (size_t i = 0; i < n; ++i) row.values[i] = columnValue(s, static_cast<int>(i));
      row.rowid = sqlite3_column_int64(s, static_cast<int>(n));
      row.known.assign(n, true);
      rows_.push_back(std::move(row));
    }
    if (rc != SQLITE_DONE) {
      loaded_ = false;
      rows_.clear();
      try {
        db_->fail(rc, shownSql_);
      } catch (...) {
        sqlite3_reset(s);
        throw;
      }
    }
    sqlite3_reset(s);
  }

  Row& currentRow() {
    if (onAdded_) return added_;
    if (pastEnd_) throwNoCurrentRow();
    load();
    if (pos_ >= rows_.size() || rows_[pos_].deleted) throwNoCurrentRow();
    return rows_[pos_];
  }

  const Value& valueAt(size_t index) {
    if (mode_ == Mode::Adding) return pendingValues_[index];
    if (mode_ == Mode::Editing && pendingSet_[index]) return pendingValues_[index];
    Row& row = currentRow();
    if (!row.known[index]) reread(row);
    return row.values[index];
  }

  // Fills the columns of a new row that the database gave values to.
  void reread(Row& row) {
    if (!rereadStmt_) {
      std::string sql = "SELECT ";
      for (size_t i = 0; i < fields_.size(); ++i) {
        if (i) sql += ", ";
        sql += fields_[i].column.empty() ? std::string("NULL") : quoteIdentifier(fields_[i].column);
      }
      sql += " FROM " + quoteIdentifier(table_) + " WHERE rowid=?";
      rereadStmt_ = db_->cached(sql);
    }
    rereadStmt_->bind(1, Value(row.rowid));
    sqlite3_stmt* s = rereadStmt_->get();
    int rc = sqlite3_step(s);
    if (rc == SQLITE_ROW) {
      for (size_t i = 0; i < fields_.size(); ++i) {
        if (!row.known[i]) row.values[i] = columnValue(s, static_cast<int>(i));
      }
    } else if (rc != SQLITE_DONE) {
      try {
        db_->fail(rc, rereadStmt_->sql());
      } catch (...) {
        sqlite3_reset(s);
        throw;
      }
    }
    // A row deleted meanwhile reads as Null.
    sqlite3_reset(s);
    row.known.assign(fields_.size(), true);
  }

  struct StatementCache {
    std::unordered_map<std::string, std::shared_ptr<Statement>> bySet;
    // The set used last: bulk inserts set the same columns row after row.
    std::vector<char> lastSet;
    Statement* last = nullptr;
  };

  // The statement for the set of columns given, prepared once per set.
  Statement& statementFor(StatementCache& cache, bool insert) {
    if (cache.last && cache.lastSet == pendingSet_) return *cache.last;
    std::string key(pendingSet_.begin(), pendingSet_.end());
    auto it = cache.bySet.find(key);
    if (it != cache.bySet.end()) {
      cache.lastSet = pendingSet_;
      cache.last = it->second.get();
      return *it->second;
    }
    std::string sql;
    if (insert) {
      std::string columns;
      std::string marks;
      for (size_t i = 0; i < fields_.size(); ++i) {
        if (!pendingSet_[i]) continue;
        if (!columns.empty()) {
          columns += ", ";
          marks += ", ";
        }
        columns += quoteIdentifier(fields_[i].column);
        marks += "?";
      }
      sql = "INSERT INTO " + quoteIdentifier(table_) +
            (columns.empty() ? std::string(" DEFAULT VALUES") : " (" + columns + ") VALUES (" + marks + ")");
    } else {
      sql = "UPDATE " + quoteIdentifier(table_) + " SET ";
      bool first = true;
      for (size_t i = 0; i < fields_.size(); ++i) {
        if (!pendingSet_[i]) continue;
        if (!first) sql += ", ";
        first = false;
        sql += quoteIdentifier(fields_[i].column) + "=?";
      }
      sql += " WHERE rowid=?";
    }
    auto stmt = db_->cached(sql);
    Statement& ref = *stmt;
    cache.bySet.emplace(std::move(key), std::move(stmt));
    cache.lastSet = pendingSet_;
    cache.last = &ref;
    return ref;
  }

  int bindPending(Statement& stmt) {
    int param = 0;
    for (size_t i = 0; i < fields_.size(); ++i) {
      if (pendingSet_[i]) stmt.bind(++param, pendingValues_[i]);
    }
    return param;
  }

  void insertPending() {
    Statement& stmt = statementFor(inserts_, true);
    bindPending(stmt);
    stmt.runToEnd();  // on failure the pending row stays for the caller
    int64_t rowid = sqlite3_last_insert_rowid(db_->handle());
    // The new row becomes the current row; the pending buffers take the
    // previous row's storage for the next addNew.
    added_.rowid = rowid;
    added_.deleted = false;
    added_.values.swap(pendingValues_);
    added_.known.resize(fields_.size());
    for (size_t i = 0; i < fields_.size(); ++i) {
      added_.known[i] = pendingSet_[i] != 0;
      if (fields_[i].rowidAlias) {
        added_.values[i] = Value(rowid);
        added_.known[i] = true;
      }
    }
    pendingValues_.resize(fields_.size());
    onAdded_ = true;
    mode_ = Mode::None;
  }

  void updatePending() {
    Row& row = currentRow();
    if (std::find(pendingSet_.begin(), pendingSet_.end(), 1) != pendingSet_.end()) {
      Statement& stmt = statementFor(updates_, false);
      int last = bindPending(stmt);
      stmt.bind(last + 1, Value(row.rowid));
      stmt.runToEnd();
      for (size_t i = 0; i < fields_.size(); ++i) {
        if (!pendingSet_[i]) continue;
        row.values[i] = std::move(pendingValues_[i]);
        row.known[i] = true;
        if (fields_[i].rowidAlias && row.values[i].type() == Value::Type::Integer) {
          row.rowid = row.values[i].rawInteger();
        }
      }
    }
    cancelUpdate();
  }

  std::shared_ptr<Database> db_;
  std::string shownSql_;
  std::unique_ptr<Statement> select_;
  std::string table_;
  FieldNames names_;
  std::vector<Field> fields_;

  bool loaded_ = false;
  std::vector<Row> rows_;
  size_t pos_ = 0;
  bool pastEnd_ = false;  // moved past a new row: at the end without reading
  Row added_;
  bool onAdded_ = false;

  Mode mode_ = Mode::None;
  std::vector<Value> pendingValues_;
  std::vector<char> pendingSet_;

  StatementCache inserts_;
  StatementCache updates_;
  std::shared_ptr<Statement> deleteStmt_;
  std::shared_ptr<Statement> rereadStmt_;
  bool closed_ = false;
};

}  // namespace

std::unique_ptr<UpdatableRecordset> makeUpdatableRecordset(std::shared_ptr<Database> db, std::string_view sql) {
  return std::make_unique<UpdatableRecordsetImpl>(std::move(db), sql);
}

}  // namespace kavrel::db::sqlite
