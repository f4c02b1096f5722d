// Result sets on the server: the forward-only one of execute(), the
// client-side one, and the updatable one.
//
// The updatable result set addresses its rows by their physical position
// (ctid), which every table has, keyed or not; a changed row's new position is
// read back with the change. A new row is written at once (a statement
// prepared once per table and set of columns), its autonumber and every
// column read back with it, so that a refused row is reported by the
// update() that wrote it. Inside batched writes (Connection::
// beginBatchedWrites) a new row is held instead (pg_batch.cpp), its
// autonumber set aside beforehand; an edit or delete writes what is held
// first and finds a held row again by its autonumber (or, in a table without
// one, by the values it was written with).
#include <algorithm>
#include <charconv>
#include <type_traits>
#include <cmath>
#include <cstdlib>

#include "kavrel/platform/names.h"
#include "platform/postgres/pg_internal.h"

namespace kavrel::db::postgres {

using memory::FieldNames;
using memory::throwClosed;
using memory::throwItemNotFound;
using memory::throwNoCurrentRow;
using memory::throwRecordsetError;

namespace {

// Type numbers of the server's built-in types the client sort reads.
constexpr Oid kBool = 16, kInt8 = 20, kInt2 = 21, kInt4 = 23, kText = 25, kOid = 26, kFloat4 = 700,
              kFloat8 = 701, kBpchar = 1042, kVarchar = 1043, kNumeric = 1700;

// An integer as the server writes it: an optional '-', then digits (read up
// to the first other character, as std::from_chars reads it). A loop of its
// own: the library's general conversion costs several times more per cell,
// and a whole target has hundreds of thousands of them.
int64_t serverInteger(const char* s, int length) {
  const char* end = s + length;
  const bool negative = s != end && *s == '-';
  if (negative) ++s;
  if (s == end || end - s > 18) {
    int64_t v = 0;  // empty, or long enough to overflow: the careful way
    std::from_chars(negative ? s - 1 : s, end, v);
    return v;
  }
  uint64_t v = 0;
  for (; s != end; ++s) {
    const auto digit = static_cast<unsigned>(*s - '0');
    if (digit > 9) break;
    v = v * 10 + digit;
  }
  return negative ? -static_cast<int64_t>(v) : static_cast<int64_t>(v);
}

bool isIntegerType(Oid type) { return type == kInt2 || type == kInt4 || type == kInt8 || type == kOid; }

// A result field as a Value: fieldValue(), with integers read faster.
Value cellValue(const PGresult* r, int row, int column) {
  if (!isIntegerType(PQftype(r, column))) return fieldValue(r, row, column);
  if (PQgetisnull(r, row, column)) return Value();
  return Value(serverInteger(PQgetvalue(r, row, column), PQgetlength(r, row, column)));
}

FieldNames namesOf(const PGresult* r, std::string_view sql, int count) {
  FieldNames names;
  for (int i = 0; i < count; ++i) names.add(displayName(PQfname(r, i), sql));
  return names;
}

class ForwardRecordset final : public Recordset {
 public:
  ForwardRecordset(std::shared_ptr<Database> db, Result r, std::string_view sql, RowOrder order)
      : db_(std::move(db)),
        result_(std::move(r)),
        names_(namesOf(result_.get(), sql, order.visible < 0 ? PQnfields(result_.get()) : order.visible)),
        order_(std::move(order.rows)) {
    rows_ = PQntuples(result_.get());
    row_.resize(static_cast<size_t>(names_.size()));
    loaded_.resize(static_cast<size_t>(names_.size()));
    load();
  }

  bool eof() override {
    checkOpen();
    return pos_ >= rows_;
  }

  void moveNext() override {
    checkOpen();
    db_->checkOpen();  // rows are all here, but the connection must still be open, as on a file
    if (pos_ >= rows_) throwNoCurrentRow();
    ++pos_;
    load();
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
    if (pos_ >= rows_) throwNoCurrentRow();
    return cell(index);
  }

  const Value& field(std::string_view name) override {
    checkOpen();
    int index = names_.require(name);
    if (pos_ >= rows_) throwNoCurrentRow();
    return cell(index);
  }

  void close() override {
    closed_ = true;
    result_.reset();
  }

 private:
  void checkOpen() const {
    if (closed_) throwClosed();
  }

  // A row's values are read when asked for, each once: a reading loop
  // rarely wants every field, and a read field costs a conversion.
  void load() {
    if (pos_ >= rows_) return;
    rowIndex_ = order_.empty() ? pos_ : order_[static_cast<size_t>(pos_)];
    std::fill(loaded_.begin(), loaded_.end(), 0);
  }

  const Value& cell(int index) {
    const auto i = static_cast<size_t>(index);
    if (!loaded_[i]) {
      row_[i] = cellValue(result_.get(), rowIndex_, index);
      loaded_[i] = 1;
    }
    return row_[i];
  }

  std::shared_ptr<Database> db_;
  Result result_;
  FieldNames names_;
  std::vector<int> order_;
  std::vector<Value> row_;
  std::vector<char> loaded_;  // which of row_ hold the current row's value
  int rowIndex_ = 0;         // the current row in the result
  int rows_ = 0;
  int pos_ = 0;
  bool closed_ = false;
};

// --- updatable ---------------------------------------------------------------------

constexpr const char* kCtidName = "kavrel ctid";

struct Row {
  std::string ctid;  // empty for a row held by batched writes, until found
  std::vector<Value> values;
  bool deleted = false;
  // A row added by batched writes: where it is held, and the columns and
  // values that find it again once written.
  HeldRow held;
  std::vector<std::string> heldColumns;
  std::vector<Param> heldValues;
};

class UpdatableRecordsetImpl final : public UpdatableRecordset {
 public:
  UpdatableRecordsetImpl(std::shared_ptr<Database> db, std::string_view sql) : db_(std::move(db)), shownSql_(sql) {
    std::string adapted = db_->adapt(sql);
    size_t from = findTopLevelFrom(adapted);
    if (from == std::string::npos) notUpdatable("no FROM clause");
    if (!readsOneTable(adapted)) notUpdatable("it is not a SELECT on one table");
    const SelectShape& shape = db_->shapeOf(adapted, sql);
    if (shape.tableOid == 0) notUpdatable("it is not a SELECT on one table");
    table_ = &db_->tableInfo(shape.tableOid);
    // The position comes last so that positional ORDER BY terms keep meaning.
    select_ = adapted;
    select_.insert(from, ", ctid AS " + quoteIdentifier(kCtidName) + " ");
    for (size_t i = 0; i < shape.fieldNames.size(); ++i) names_.add(displayName(shape.fieldNames[i], sql));
    columns_ = shape.columns;
    pendingValues_.resize(columns_.size());
    pendingSet_.assign(columns_.size(), 0);
  }

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
  }

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
      throwRecordsetError(memory::kErrBadArguments, "addNew: " + std::to_string(fields.size()) + " fields but " +
                                                        std::to_string(values.size()) + " values");
    }
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
      currentRow();
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
    if (mode_ == Mode::Adding) {
      cancelUpdate();
      return;
    }
    cancelUpdate();
    if (onAdded_ && db_->dropHeld(added_.held)) {
      added_.deleted = true;
      return;
    }
    Row& row = writtenRow();
    db_->runPrepared("DELETE FROM " + quoteIdentifier(table_->name) + " WHERE ctid = $1::tid", {row.ctid});
    row.deleted = true;
  }

 private:
  enum class Mode { None, Adding, Editing };

  [[noreturn]] void notUpdatable(const std::string& why) {
    std::string m = "The query cannot be opened for update: " + why;
    db_->fail(DbError(memory::kErrNotSupported, kSource, m + "; statement: " + shownSql_, memory::kErrNotSupported, m));
  }

  void checkOpen() const {
    if (closed_) throwClosed();
  }

  int writableField(std::string_view name) {
    int index = names_.require(name);
    if (columns_[static_cast<size_t>(index)].empty()) {
      throwRecordsetError(memory::kErrNotSupported,
                          "The field '" + std::string(name) + "' is not a column and cannot be set");
    }
    return index;
  }

  void setPending(size_t index, Value value) {
    pendingValues_[index] = std::move(value);
    pendingSet_[index] = 1;
  }

  void load() {
    if (loaded_) return;
    db_->checkBatch();
    if (db_->batching()) db_->flushBatches();
    Result r = db_->run(select_, {}, shownSql_);
    const int n = PQntuples(r.get());
    const int fields = static_cast<int>(columns_.size());
    rows_.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
      Row row;
      row.values.reserve(columns_.size());
      for (int f = 0; f < fields; ++f) row.values.push_back(fieldValue(r.get(), i, f));
      row.ctid = PQgetvalue(r.get(), i, fields);
      rows_.push_back(std::move(row));
    }
    loaded_ = true;
    pos_ = 0;
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
    return currentRow().values[index];
  }

  // The current row, written: a row held by batched writes is written
  // (with everything held) and found again.
  Row& writtenRow() {
    Row& row = currentRow();
    db_->checkBatch();
    if (db_->batching()) db_->flushBatches();
    if (!row.ctid.empty()) return row;
    std::string sql = "SELECT ctid FROM " + quoteIdentifier(table_->name) + " WHERE ";
    std::vector<Param> params;
    for (size_t c = 0; c < row.heldColumns.size(); ++c) {
      params.push_back(row.heldValues[c]);
      sql += (c ? " AND " : "") + quoteIdentifier(row.heldColumns[c]) + " IS NOT DISTINCT FROM $" +
             std::to_string(c + 1);
    }
    sql += " LIMIT 1";
    Result r = db_->runPrepared(sql, params);
    if (PQntuples(r.get()) != 1) throwNoCurrentRow();
    row.ctid = PQgetvalue(r.get(), 0, 0);
    row.heldColumns.clear();
    row.heldValues.clear();
    return row;
  }

  // Whether new rows can be held rather than written: no column this set
  // reads back is filled by a default of the database other than the
  // autonumber (whose value is set aside).
  bool canHold() {
    if (!db_->batching()) return false;
    if (holdable_ == 0) {
      holdable_ = 1;
      for (const auto& [number, column] : table_->columns) {
        (void)number;
        if (column.hasDefault && column.name != table_->identityColumn &&
            std::find(columns_.begin(), columns_.end(), column.name) != columns_.end()) {
          holdable_ = -1;
        }
      }
    }
    return holdable_ > 0;
  }

  void holdPending(std::vector<std::string>& columns, std::vector<Param>& values) {
    const std::string& identity = table_->identityColumn;
    auto idField = std::find(columns_.begin(), columns_.end(), identity);
    const bool readsId = !identity.empty() && idField != columns_.end();
    const bool idGiven = readsId && std::find(columns.begin(), columns.end(), identity) != columns.end();
    if (readsId && !idGiven) {
      const int64_t id = db_->reserveAutonumber(*table_);
      columns.push_back(identity);
      values.push_back(std::to_string(id));
      for (size_t i = 0; i < columns_.size(); ++i) {
        if (columns_[i] == identity) pendingValues_[i] = Value(id);
      }
    }
    if (readsId) {
      // Found again by its autonumber alone.
      auto at = std::find(columns.begin(), columns.end(), identity) - columns.begin();
      added_.heldColumns = {identity};
      added_.heldValues = {values[static_cast<size_t>(at)]};
      added_.held = db_->holdRow(table_->name, columns, std::move(values));
    } else {
      added_.held = db_->holdRow(table_->name, columns, values);
      added_.heldColumns = std::move(columns);
      added_.heldValues = std::move(values);
    }
    if (idGiven) db_->autonumberGiven(table_->name);
    added_.values.swap(pendingValues_);
    added_.deleted = false;
    added_.ctid.clear();
    pendingValues_.assign(columns_.size(), Value());
    onAdded_ = true;
    mode_ = Mode::None;
  }

  void insertPending() {
    db_->checkBatch();
    std::vector<std::string> columns;
    std::vector<Param> values;
    for (size_t i = 0; i < columns_.size(); ++i) {
      if (!pendingSet_[i]) continue;
      if (std::find(columns.begin(), columns.end(), columns_[i]) != columns.end()) continue;
      columns.push_back(columns_[i]);
      values.push_back(toParam(pendingValues_[i]));
    }
    if (canHold()) {
      holdPending(columns, values);
      return;
    }
    // Written at once: the rows it may refer to go first.
    if (db_->batching()) db_->flushBatches();
    added_.held = HeldRow();
    added_.heldColumns.clear();
    added_.heldValues.clear();
    added_.values.swap(pendingValues_);
    added_.deleted = false;
    added_.ctid.clear();
    const std::string& identity = table_->identityColumn;
    const bool idGiven = !identity.empty() && std::find(columns.begin(), columns.end(), identity) != columns.end();
    std::string sql = "INSERT INTO " + quoteIdentifier(table_->name);
    if (columns.empty()) {
      sql += " DEFAULT VALUES";
    } else {
      std::string marks;
      sql += " (";
      for (size_t c = 0; c < columns.size(); ++c) {
        sql += (c ? ", " : "") + quoteIdentifier(columns[c]);
        marks += (c ? ", $" : "$") + std::to_string(c + 1);
      }
      sql += ") VALUES (" + marks + ")";
    }
    sql += " RETURNING ctid";
    for (const std::string& c : columns_) sql += ", " + (c.empty() ? std::string("NULL") : quoteIdentifier(c));
    Result r;
    try {
      r = db_->runPrepared(sql, values);
    } catch (...) {
      // The pending row stays for the caller.
      pendingValues_.swap(added_.values);
      throw;
    }
    added_.ctid = PQgetvalue(r.get(), 0, 0);
    if (idGiven) db_->autonumberGiven(table_->name);
    for (size_t i = 0; i < columns_.size(); ++i) {
      if (!columns_[i].empty()) added_.values[i] = fieldValue(r.get(), 0, static_cast<int>(i) + 1);
    }
    pendingValues_.assign(columns_.size(), Value());
    onAdded_ = true;
    mode_ = Mode::None;
  }

  // An edit of the row just added while it is still held changes it there.
  bool editHeldRow() {
    if (!onAdded_ || added_.held.serial == 0) return false;
    db_->checkBatch();
    std::vector<std::string> done;
    for (size_t i = 0; i < columns_.size(); ++i) {
      if (!pendingSet_[i] || std::find(done.begin(), done.end(), columns_[i]) != done.end()) continue;
      if (columns_[i] == table_->identityColumn) return false;  // found again by it: written first
    }
    for (size_t i = 0; i < columns_.size(); ++i) {
      if (!pendingSet_[i] || std::find(done.begin(), done.end(), columns_[i]) != done.end()) continue;
      done.push_back(columns_[i]);
      Param p = toParam(pendingValues_[i]);
      if (!db_->editHeld(added_.held, columns_[i], p)) return false;
      auto key = std::find(added_.heldColumns.begin(), added_.heldColumns.end(), columns_[i]);
      if (table_->identityColumn.empty()) {
        if (key != added_.heldColumns.end()) {
          added_.heldValues[static_cast<size_t>(key - added_.heldColumns.begin())] = p;
        } else {
          added_.heldColumns.push_back(columns_[i]);
          added_.heldValues.push_back(p);
        }
      }
    }
    for (size_t i = 0; i < columns_.size(); ++i) {
      if (pendingSet_[i]) added_.values[i] = std::move(pendingValues_[i]);
    }
    cancelUpdate();
    return true;
  }

  void updatePending() {
    if (editHeldRow()) return;
    Row& row = writtenRow();
    if (std::find(pendingSet_.begin(), pendingSet_.end(), 1) != pendingSet_.end()) {
      std::string sql = "UPDATE " + quoteIdentifier(table_->name) + " SET ";
      std::vector<Param> params;
      std::vector<std::string> done;
      for (size_t i = 0; i < columns_.size(); ++i) {
        if (!pendingSet_[i] || std::find(done.begin(), done.end(), columns_[i]) != done.end()) continue;
        done.push_back(columns_[i]);
        params.push_back(toParam(pendingValues_[i]));
        sql += (params.size() > 1 ? ", " : "") + quoteIdentifier(columns_[i]) + " = $" +
               std::to_string(params.size());
      }
      params.push_back(row.ctid);
      sql += " WHERE ctid = $" + std::to_string(params.size()) + "::tid RETURNING ctid";
      Result r = db_->runPrepared(sql, params);
      if (PQntuples(r.get()) == 1) row.ctid = PQgetvalue(r.get(), 0, 0);
      for (size_t i = 0; i < columns_.size(); ++i) {
        if (pendingSet_[i]) row.values[i] = std::move(pendingValues_[i]);
      }
    }
    cancelUpdate();
  }

  std::shared_ptr<Database> db_;
  std::string shownSql_;
  std::string select_;
  const TableInfo* table_ = nullptr;
  FieldNames names_;
  std::vector<std::string> columns_;

  bool loaded_ = false;
  std::vector<Row> rows_;
  size_t pos_ = 0;
  bool pastEnd_ = false;
  Row added_;
  bool onAdded_ = false;

  int holdable_ = 0;  // 0 not yet known, 1 new rows may be held, -1 not
  Mode mode_ = Mode::None;
  std::vector<Value> pendingValues_;
  std::vector<char> pendingSet_;
  bool closed_ = false;
};

// One sort term's values, read once: the name rule's keys, or numbers.
struct TermColumn {
  ClientSortTerm term;
  bool integer = false;
  std::vector<char> nulls;
  // The name rule's keys of every row, end to end in one text (no
  // allocation per row): row r's key is keys.substr(spans[r]).
  std::string keys;
  std::vector<std::pair<uint32_t, uint32_t>> spans;
  std::vector<int64_t> integers;
  std::vector<double> reals;

  // <0, 0, >0 with nulls before every value (the embedded engine's order),
  // then the direction applied.
  int compare(int a, int b) const {
    int c = 0;
    const auto ua = static_cast<size_t>(a), ub = static_cast<size_t>(b);
    if (nulls[ua] || nulls[ub]) {
      c = nulls[ub] - nulls[ua];
    } else if (term.name) {
      const std::string_view all(keys);
      c = names::compareKeys(all.substr(spans[ua].first, spans[ua].second),
                             all.substr(spans[ub].first, spans[ub].second));
    } else if (integer) {
      c = (integers[ua] > integers[ub]) - (integers[ua] < integers[ub]);
    } else {
      // NaN after every other number, as the server sorts it.
      const double x = reals[ua], y = reals[ub];
      c = std::isnan(x) || std::isnan(y) ? std::isnan(x) - std::isnan(y) : (x > y) - (x < y);
    }
    return term.descending ? -c : c;
  }
};

// The cells of a client-side result set: the server's result itself, kept
// and read a cell at a time (a whole target's rows are never copied whole).
class ResultCells final : public memory::CellSource {
 public:
  ResultCells(Result r, std::vector<int> order) : result_(std::move(r)), order_(std::move(order)) {}

  size_t rowCount() const override { return static_cast<size_t>(PQntuples(result_.get())); }

  void read(size_t row, int column, Value& out) const override {
    out = cellValue(result_.get(), order_.empty() ? static_cast<int>(row) : order_[row], column);
  }

  // The types fieldValue() reads as integers (a boolean as -1 or 0).
  bool integerColumn(int column) const override {
    const Oid type = PQftype(result_.get(), column);
    return isIntegerType(type) || type == kBool;
  }

  bool integerAt(size_t row, int column, int64_t& out) const override {
    const PGresult* r = result_.get();
    const int at = order_.empty() ? static_cast<int>(row) : order_[row];
    if (PQgetisnull(r, at, column)) return false;
    const char* s = PQgetvalue(r, at, column);
    if (PQftype(r, column) == kBool) {
      out = s[0] == 't' ? -1 : 0;
    } else {
      out = serverInteger(s, PQgetlength(r, at, column));
    }
    return true;
  }

 private:
  Result result_;
  std::vector<int> order_;  // empty: the result's own order
};

// Sorts `order` (the rows in the result's order) by one numeric term, as
// TermColumn::compare orders them, on (value, row) pairs side by side: no
// lookup through the row number per comparison.
template <class Number>
void sortPairs(const TermColumn& c, const std::vector<Number>& values, std::vector<int>& order) {
  struct Entry {
    Number value;
    int row;
    bool null;
  };
  std::vector<Entry> entries(order.size());
  for (size_t i = 0; i < order.size(); ++i) {
    entries[i] = {c.nulls[i] ? Number() : values[i], static_cast<int>(i), c.nulls[i] != 0};
  }
  auto ascending = [](const Entry& a, const Entry& b) {
    if (a.null || b.null) return a.null && !b.null;  // nulls first
    if constexpr (std::is_floating_point_v<Number>) {
      if (std::isnan(a.value) || std::isnan(b.value)) return !std::isnan(a.value) && std::isnan(b.value);
    }
    return a.value < b.value;
  };
  if (c.term.descending) {
    std::stable_sort(entries.begin(), entries.end(), [&](const Entry& a, const Entry& b) { return ascending(b, a); });
  } else {
    std::stable_sort(entries.begin(), entries.end(), ascending);
  }
  for (size_t i = 0; i < entries.size(); ++i) order[i] = entries[i].row;
}

void sortByNumber(const TermColumn& c, std::vector<int>& order) {
  if (c.integer) {
    sortPairs(c, c.integers, order);
  } else {
    sortPairs(c, c.reals, order);
  }
}

// The field holding the values of the sort term whose trailing field is
// `hidden`: that field itself, or the selected field its label names
// (adaptSelect: "kavrel sort K field N", "kavrel sort K column NAME", for a
// term that is a selected column). -1 when the named field is not there,
// or not once.
int sourceField(const PGresult* r, int visible, int hidden) {
  const std::string_view label = PQfname(r, hidden);
  constexpr std::string_view kPrefix = "kavrel sort ";
  if (label.substr(0, kPrefix.size()) != kPrefix) return hidden;
  const size_t space = label.find(' ', kPrefix.size());
  if (space == std::string_view::npos) return hidden;
  const std::string_view how = label.substr(space + 1);
  if (how.substr(0, 6) == "field ") {
    int field = -1;
    const std::string_view digits = how.substr(6);
    auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), field);
    if (ec != std::errc() || end != digits.data() + digits.size() || field < 0 || field >= visible) return -1;
    return field;
  }
  if (how.substr(0, 7) == "column ") {
    const std::string_view name = how.substr(7);
    int found = -1;
    for (int f = 0; f < visible; ++f) {
      if (name != PQfname(r, f)) continue;
      if (found >= 0) return -1;
      found = f;
    }
    return found;
  }
  return hidden;
}

}  // namespace

std::optional<std::vector<int>> clientOrder(const PGresult* r, const std::vector<ClientSortTerm>& terms) {
  const int rows = PQntuples(r);
  const int first = PQnfields(r) - static_cast<int>(terms.size());
  std::vector<TermColumn> columns(terms.size());
  for (size_t k = 0; k < terms.size(); ++k) {
    TermColumn& c = columns[k];
    c.term = terms[k];
    const int f = sourceField(r, first, first + static_cast<int>(k));
    if (f < 0) return std::nullopt;
    const Oid type = PQftype(r, f);
    const bool text = type == kText || type == kVarchar || type == kBpchar;
    c.integer = type == kInt2 || type == kInt4 || type == kInt8 || type == kOid || type == kBool;
    const bool real = type == kFloat4 || type == kFloat8 || type == kNumeric;
    // A name column that is not text, or any other text, sorts on the server.
    if (c.term.name ? !text : !(c.integer || real)) return std::nullopt;
    c.nulls.resize(static_cast<size_t>(rows));
    if (c.term.name) c.spans.resize(static_cast<size_t>(rows));
    if (c.integer) c.integers.resize(static_cast<size_t>(rows));
    if (real) c.reals.resize(static_cast<size_t>(rows));
    for (int row = 0; row < rows; ++row) {
      const auto at = static_cast<size_t>(row);
      if ((c.nulls[at] = static_cast<char>(PQgetisnull(r, row, f))) != 0) continue;
      const char* v = PQgetvalue(r, row, f);
      if (c.term.name) {
        const std::string_view name(v, static_cast<size_t>(PQgetlength(r, row, f)));
        const size_t start = c.keys.size();
        if (std::all_of(name.begin(), name.end(), [](char ch) { return static_cast<unsigned char>(ch) < 0x80; })) {
          // An ASCII name's key is the name with A-Z lowered.
          for (char ch : name) c.keys += ch >= 'A' && ch <= 'Z' ? static_cast<char>(ch - 'A' + 'a') : ch;
        } else {
          c.keys += names::key(name);
        }
        c.spans[at] = {static_cast<uint32_t>(start), static_cast<uint32_t>(c.keys.size() - start)};
      } else if (type == kBool) {
        c.integers[at] = v[0] == 't' ? 1 : 0;
      } else if (c.integer) {
        c.integers[at] = serverInteger(v, PQgetlength(r, row, f));
      } else {
        // Exact decimals beyond a double's precision are not in the schema.
        c.reals[at] = std::strtod(v, nullptr);
      }
    }
  }
  auto compareRows = [&](int a, int b) {
    for (const TermColumn& c : columns) {
      if (int d = c.compare(a, b)) return d;
    }
    return 0;
  };
  std::vector<int> order(static_cast<size_t>(rows));
  for (int row = 0; row < rows; ++row) order[static_cast<size_t>(row)] = row;
  // Rows are often stored in the order asked for already (written so):
  // one pass tells, and sorting is then spared.
  bool sorted = true;
  for (int row = 1; row < rows && sorted; ++row) sorted = compareRows(row - 1, row) <= 0;
  if (sorted) return order;
  // By the first term, then each run of rows it leaves tied by the others:
  // fewer comparisons of several terms, and a numeric first term sorts on
  // side-by-side pairs. Both sorts are stable, so ties keep the server's order.
  const TermColumn& lead = columns[0];
  if (lead.term.name) {
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return lead.compare(a, b) < 0; });
  } else {
    sortByNumber(lead, order);
  }
  if (columns.size() == 1) return order;
  auto compareRest = [&](int a, int b) {
    for (size_t k = 1; k < columns.size(); ++k) {
      if (int d = columns[k].compare(a, b)) return d < 0;
    }
    return false;
  };
  for (size_t begin = 0; begin < order.size();) {
    size_t end = begin + 1;
    while (end < order.size() && lead.compare(order[begin], order[end]) == 0) ++end;
    if (end - begin > 1) {
      std::stable_sort(order.begin() + static_cast<long>(begin), order.begin() + static_cast<long>(end), compareRest);
    }
    begin = end;
  }
  return order;
}

std::unique_ptr<Recordset> makeForwardRecordset(std::shared_ptr<Database> db, Result r, std::string_view sql,
                                                RowOrder order) {
  return std::make_unique<ForwardRecordset>(std::move(db), std::move(r), sql, std::move(order));
}

std::unique_ptr<ClientRecordset> makeClientRecordset(std::shared_ptr<Database>, Result r, std::string_view sql,
                                                     RowOrder order) {
  const int fields = order.visible < 0 ? PQnfields(r.get()) : order.visible;
  FieldNames names = namesOf(r.get(), sql, fields);
  auto cells = std::make_unique<ResultCells>(std::move(r), std::move(order.rows));
  return memory::makeClientRecordset(std::move(names), std::move(cells));
}

std::unique_ptr<UpdatableRecordset> makeUpdatableRecordset(std::shared_ptr<Database> db, std::string_view sql) {
  return std::make_unique<UpdatableRecordsetImpl>(std::move(db), sql);
}

}  // namespace kavrel::db::postgres
