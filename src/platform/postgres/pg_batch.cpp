// Batched writes: rows added through updatable result sets are held, one
// batch per table and set of columns, and written with one COPY each when
// something else needs the database (a read, a statement, an edit, the end
// of the scope). Batches are written in the schema's order of tables, a table
// after the tables it refers to, so that relations hold at each COPY and are
// checked there as they are row by row (deferring them to the end of the
// scope costs about as much again as the writing itself).
//
// Autonumbers are set aside in blocks (nextval over a series) and written
// explicitly, so a new row's id reads back at once. Ids set aside and not
// used are lost, as those of a rolled-back insert are: autonumbers have gaps.
//
// A batch that fails leaves the transaction unusable until the level the
// scope began in is rolled back: every operation but rollback throws the
// failure again, so no half-written batch can be committed.
#include <algorithm>
#include <cstdlib>

#include "platform/postgres/pg_internal.h"

namespace kavrel::db::postgres {

namespace {

// What is held is written once one batch holds about this much.
constexpr size_t kFlushBytes = 8u << 20;
// Autonumbers set aside at once: the first block, then twice what was used,
// up to the last.
constexpr int64_t kFirstBlock = 32;
constexpr int64_t kLargestBlock = 8192;

void appendCopyField(std::string& out, const Param& p) {
  if (!p) {
    out += "\\N";
    return;
  }
  for (char c : *p) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
}

// Where the table comes in the schema (a table after those it refers to);
// tables of no schema come last.
size_t tableRank(const std::string& stored) {
  static const std::unordered_map<std::string, size_t> ranks = [] {
    std::unordered_map<std::string, size_t> m;
    const std::vector<std::string> tables = schemaTables();
    for (size_t i = 0; i < tables.size(); ++i) m.emplace(memory::foldName(tables[i]), i);
    return m;
  }();
  auto it = ranks.find(stored);
  return it == ranks.end() ? ranks.size() : it->second;
}

}  // namespace

void Database::checkBatch() const {
  if (batchFailure_) throw *batchFailure_;
}

void Database::dropRows() {
  for (Batch& b : batches_) {
    b.rows.clear();
    b.serials.clear();
    b.bytes = 0;
  }
}

void Database::failBatch(DbError e) {
  batchFailure_ = e;
  failureLevel_ = batchLevel_;
  dropRows();
  fail(std::move(e));
}

void Database::beginBatch() {
  checkBatch();
  if (batchDepth_++ > 0) return;
  batchLevel_ = transactionDepth;  // 0: outside a transaction each row is written at once
}

void Database::endBatch() {
  if (batchDepth_ == 0) return;
  if (--batchDepth_ > 0) return;
  const int level = batchLevel_;
  struct Clear {
    Database& d;
    ~Clear() {
      d.batchLevel_ = 0;
      d.batches_.clear();
      d.batchIndex_.clear();
      d.reserves_.clear();
      d.levelMarks_.clear();
    }
  } clear{*this};
  if (level == 0 || transactionDepth < level) return;
  checkBatch();
  flushBatches();
}

void Database::flushBatches() {
  checkBatch();
  std::vector<size_t> order(batches_.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return batches_[a].rank < batches_[b].rank; });
  std::string data;
  for (size_t at : order) {
    Batch& b = batches_[at];
    data.clear();
    for (size_t i = 0; i < b.rows.size(); ++i) {
      if (b.serials[i] == 0) continue;
      const std::vector<Param>& row = b.rows[i];
      for (size_t c = 0; c < row.size(); ++c) {
        if (c) data += '\t';
        appendCopyField(data, row[c]);
      }
      data += '\n';
    }
    b.rows.clear();
    b.serials.clear();
    b.bytes = 0;
    if (data.empty()) continue;
    PGconn* c = handle();
    Result start(PQexec(c, b.copySql.c_str()));
    if (statusOf(start) != PGRES_COPY_IN) failBatch(errorOf(start, b.copySql));
    bool sent = PQputCopyData(c, data.data(), static_cast<int>(data.size())) == 1 && PQputCopyEnd(c, nullptr) == 1;
    Result done(PQgetResult(c));
    while (PGresult* extra = PQgetResult(c)) PQclear(extra);
    if (!sent || !succeeded(done)) {
      DbError cause = errorOf(done, b.copySql);
      // Without the server's own reason (a connection lost mid-way) it is a fault.
      if (!sent || sqlState(done).empty() || !isRowRefusal(cause)) failBatch(cause);
      failBatch(DbError(kErrBatchRefused, kSource, "A row of the batch was refused: " + cause.description(),
                        cause.backendCode(), cause.backendMessage()));
    }
  }
  // What was held is on the server now: its savepoints undo it.
  for (auto& marks : levelMarks_) std::fill(marks.begin(), marks.end(), 0);
}

HeldRow Database::holdRow(const std::string& table, const std::vector<std::string>& columns, std::vector<Param> values) {
  checkBatch();
  std::string key = table;
  for (const std::string& c : columns) key += '\x1f' + c;
  auto it = batchIndex_.find(key);
  if (it == batchIndex_.end()) {
    Batch b;
    b.table = table;
    b.rank = tableRank(table);
    b.columns = columns;
    b.copySql = "COPY " + quoteIdentifier(table) + " (";
    for (size_t i = 0; i < columns.size(); ++i) b.copySql += (i ? ", " : "") + quoteIdentifier(columns[i]);
    b.copySql += ") FROM STDIN";
    batches_.push_back(std::move(b));
    it = batchIndex_.emplace(std::move(key), batches_.size() - 1).first;
  }
  Batch& b = batches_[it->second];
  HeldRow held{it->second, b.rows.size(), ++nextSerial_};
  for (const Param& p : values) b.bytes += (p ? p->size() : 0) + 8;
  b.rows.push_back(std::move(values));
  b.serials.push_back(held.serial);
  if (b.bytes >= kFlushBytes) {
    flushBatches();
    held.serial = 0;
  }
  return held;
}

bool Database::isHeld(const HeldRow& row) const {
  if (row.serial == 0 || row.batch >= batches_.size()) return false;
  const Batch& b = batches_[row.batch];
  return row.index < b.serials.size() && b.serials[row.index] == row.serial;
}

bool Database::editHeld(HeldRow& row, const std::string& column, Param value) {
  if (!isHeld(row)) return false;
  Batch& b = batches_[row.batch];
  auto at = std::find(b.columns.begin(), b.columns.end(), column);
  if (at != b.columns.end()) {
    b.rows[row.index][static_cast<size_t>(at - b.columns.begin())] = std::move(value);
    return true;
  }
  // A column the row was not added with: it moves to the batch that has it.
  std::vector<std::string> columns = b.columns;
  std::vector<Param> values = std::move(b.rows[row.index]);
  b.serials[row.index] = 0;
  columns.push_back(column);
  values.push_back(std::move(value));
  const std::string table = b.table;
  row = holdRow(table, columns, std::move(values));
  return true;
}

bool Database::dropHeld(const HeldRow& row) {
  if (!isHeld(row)) return false;
  batches_[row.batch].serials[row.index] = 0;
  return true;
}

int64_t Database::reserveAutonumber(const TableInfo& table) {
  Reserve& r = reserves_[table.name];
  if (r.next >= r.ids.size()) {
    r.block = std::min(kLargestBlock, r.block == 0 ? kFirstBlock : r.block * 2);
    Result res = run("SELECT nextval($1::regclass) FROM generate_series(1, $2::integer)",
                     {table.identitySequence, std::to_string(r.block)});
    r.ids.clear();
    r.next = 0;
    for (int i = 0; i < PQntuples(res.get()); ++i) r.ids.push_back(std::atoll(PQgetvalue(res.get(), i, 0)));
    if (r.ids.empty()) fail(DbError(1, kSource, "No autonumber could be set aside for " + table.name, 1, ""));
  }
  return r.ids[r.next++];
}

void Database::levelBegun() {
  if (!batching()) return;
  std::vector<size_t> marks;
  marks.reserve(batches_.size());
  for (const Batch& b : batches_) marks.push_back(b.rows.size());
  levelMarks_.push_back(std::move(marks));
}

void Database::levelCommitted() {
  if (batchLevel_ == 0 || levelMarks_.empty()) return;
  if (transactionDepth >= batchLevel_) levelMarks_.pop_back();
}

void Database::levelRolledBack() {
  if (batchFailure_ && transactionDepth < failureLevel_) {
    // The level the failed scope began in is gone, and the failure with it.
    batchFailure_.reset();
    failureLevel_ = 0;
  }
  if (batchLevel_ == 0) return;
  if (transactionDepth < batchLevel_) {
    // The scope's own level is gone, and with it whatever was held.
    dropRows();
    levelMarks_.clear();
    return;
  }
  if (levelMarks_.empty()) return;
  const std::vector<size_t>& marks = levelMarks_.back();
  for (size_t i = 0; i < batches_.size(); ++i) {
    Batch& b = batches_[i];
    const size_t keep = i < marks.size() ? marks[i] : 0;
    if (keep < b.rows.size()) {
      b.rows.resize(keep);
      b.serials.resize(keep);
    }
  }
  levelMarks_.pop_back();
}
}  // namespace kavrel::db::postgres
