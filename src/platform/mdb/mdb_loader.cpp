// Reads an .mdb file's tables into a database held in memory (see
// mdb_backend.h for the design and the type mapping).
#include "platform/mdb/mdb_internal.h"

// The Debian header of the reader library uses glib types without including
// glib itself.
#include <glib.h>
#include <mdbtools.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <vector>

#include "kavrel/platform/text.h"
#include "platform/sqlite/sqlite_backend.h"
#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::mdb {

namespace {

namespace sq = kavrel::db::sqlite;

// Row-offset flags of a data page.
constexpr int kRowOffsetMask = 0x1fff;
constexpr int kRowDeleted = 0x4000;
// A Memo value's first 32 bits: flags in the two high bits, then the length.
constexpr uint32_t kMemoLengthMask = 0x3fffffff;
constexpr size_t kMemoOverhead = MDB_MEMO_OVERHEAD;

[[noreturn]] void unrecognized(const std::string& path, const std::string& reason) {
  std::string d = "Cannot open the database '" + path + "': " + reason;
  throw DbError(kErrUnrecognized, kSource, d, 0, reason);
}

// Owns the reader library's handle and table definitions.
struct MdbFile {
  MdbHandle* mdb = nullptr;
  ~MdbFile() {
    if (mdb) mdb_close(mdb);
  }
};
struct TableDef {
  MdbTableDef* t = nullptr;
  ~TableDef() {
    if (t) mdb_free_tabledef(t);
  }
};

// The destination column of one column of the file (-1: not loaded).
struct ColumnMap {
  MdbColumn* col = nullptr;
  int param = -1;  // 1-based column of the insert
};

// One value read from the file, kept until its batch of rows is inserted.
struct Cell {
  enum Type { Null, Integer, Real, Text, Blob } type = Null;
  int64_t i = 0;
  double d = 0;
  std::string s;
};

// Rows per insert statement (fewer when the engine's limit of parameters
// in one statement asks for it).
constexpr size_t kRowsPerBatch = 64;

std::string declaredType(int mdbType) {
  switch (mdbType) {
    case MDB_BOOL:
    case MDB_BYTE:
    case MDB_INT:
    case MDB_LONGINT:
    case MDB_COMPLEX: return "INTEGER";
    case MDB_FLOAT:
    case MDB_DOUBLE:
    case MDB_MONEY: return "REAL";
    case MDB_BINARY:
    case MDB_OLE: return "BLOB";
    default: return "TEXT";
  }
}

// Runs each statement of `script` whose text `pick` accepts; returns the
// statements it left out, in order.
std::vector<std::string> runScript(sq::Database& db, std::string_view script,
                                   bool (*pick)(std::string_view statement)) {
  std::vector<std::string> left;
  sqlite3* h = db.handle();
  const char* p = script.data();
  const char* end = p + script.size();
  while (p < end) {
    sqlite3_stmt* stmt = nullptr;
    const char* tail = nullptr;
    // Splitting needs the text only: a statement that would fail to prepare
    // (an index on a table not made) is kept aside too.
    const char* begin = p;
    int rc = sqlite3_prepare_v2(h, p, static_cast<int>(end - p), &stmt, &tail);
    std::string_view text(begin, static_cast<size_t>((tail ? tail : end) - begin));
    if (!stmt && rc == SQLITE_OK) break;  // only blanks and comments left
    bool run = pick(text);
    if (run && rc != SQLITE_OK) db.fail(rc, text);
    if (run) {
      rc = sqlite3_step(stmt);
      sqlite3_finalize(stmt);
      if (rc != SQLITE_DONE) db.fail(rc, text);
    } else {
      if (stmt) sqlite3_finalize(stmt);
      left.emplace_back(text);
    }
    if (!tail || tail == p) break;
    p = tail;
  }
  return left;
}

// The statement without leading blanks and "--" comments, upper-cased
// ASCII prefix test.
bool isCreateIndex(std::string_view s) {
  size_t i = 0;
  for (;;) {
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r' || s[i] == '\n' || s[i] == ';')) ++i;
    if (s.compare(i, 2, "--") == 0) {
      size_t nl = s.find('\n', i);
      if (nl == std::string_view::npos) return false;
      i = nl + 1;
      continue;
    }
    break;
  }
  std::string head;
  for (size_t k = i; k < s.size() && head.size() < 24; ++k) head += static_cast<char>(std::toupper(static_cast<unsigned char>(s[k])));
  return head.rfind("CREATE INDEX", 0) == 0 || head.rfind("CREATE UNIQUE INDEX", 0) == 0;
}

bool notIndex(std::string_view s) { return !isCreateIndex(s); }

class Loader {
 public:
  Loader(std::string path, sq::Database& db) : path_(std::move(path)), db_(db) {}

  void open() {
    // The library prints its own complaints about a file it cannot read; the
    // error below says what matters.
    file_.mdb = mdb_open(path_.c_str(), MDB_NOFLAGS);
    if (!file_.mdb) unrecognized(path_, "the file is not an Access database, or it is damaged");
    MdbHandle* mdb = file_.mdb;
    // Texts as UTF-8 whatever the environment asks for (older files keep
    // the code page the library finds in them).
    if (!IS_JET3(mdb)) {
      iconv_t utf8 = iconv_open("UTF-8", "UCS-2LE");
      if (utf8 != reinterpret_cast<iconv_t>(-1)) {
        if (mdb->iconv_in != reinterpret_cast<iconv_t>(-1)) iconv_close(mdb->iconv_in);
        mdb->iconv_in = utf8;
      }
    }
    mdb_set_date_fmt(mdb, "%Y-%m-%d %H:%M:%S");
    mdb_set_shortdate_fmt(mdb, "%Y-%m-%d");
    mdb_set_boolean_fmt_numbers(mdb);
    defaultBindSize_ = mdb->bind_size;
    if (!mdb_read_catalog(mdb, MDB_TABLE)) unrecognized(path_, "the file is not an Access database, or it is damaged (its list of tables cannot be read)");
  }

  void load() {
    MdbHandle* mdb = file_.mdb;
    // Loading runs once into a database of its own that nobody else sees:
    // a failure throws it all away, so nothing needs undoing (no journal),
    // and the file's rows already kept the relations and limits.
    db_.run("PRAGMA foreign_keys=OFF");
    db_.run("PRAGMA journal_mode=OFF");
    db_.run("PRAGMA ignore_check_constraints=ON");
    db_.run("BEGIN");
    // The schema's tables first, its indexes once the rows are in.
    std::vector<std::string> indexes = runScript(db_, schemaSql(), notIndex);
    std::set<std::string> schemaTables;
    {
      auto stmt = db_.prepare("SELECT name FROM sqlite_master WHERE type='table' AND name<>'sqlite_sequence'");
      sqlite3_stmt* s = stmt->get();
      while (sqlite3_step(s) == SQLITE_ROW) schemaTables.insert(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)));
    }
    std::map<std::string, std::string> folded;  // folded name -> schema name
    for (const auto& t : schemaTables) folded.emplace(sq::foldName(t), t);
    std::set<std::string> kept;

    for (unsigned i = 0; i < mdb->num_catalog; ++i) {
      auto* entry = static_cast<MdbCatalogEntry*>(g_ptr_array_index(mdb->catalog, i));
      if (entry->object_type != MDB_TABLE || mdb_is_system_table(entry)) continue;
      TableDef def;
      def.t = mdb_read_table(entry);
      if (!def.t) unrecognized(path_, "the table '" + std::string(entry->object_name) + "' cannot be read (damaged file)");
      if (!mdb_read_columns(def.t)) {
        unrecognized(path_, "the columns of the table '" + std::string(entry->object_name) + "' cannot be read");
      }
      auto it = folded.find(sq::foldName(entry->object_name));
      std::string name = it == folded.end() ? std::string(entry->object_name) : it->second;
      if (kept.count(name)) unrecognized(path_, "it holds two tables named '" + name + "'");
      bool fromSchema = it != folded.end() && prepareSchemaTable(name, def.t);
      if (!fromSchema) buildFromFile(name, def.t, it != folded.end());
      kept.insert(name);
      loadRows(name, def.t);
    }
    for (const auto& t : schemaTables) {
      if (!kept.count(t)) db_.run("DROP TABLE " + sq::quoteIdentifier(t));
    }
    // An index on a table that was not built from the schema does not
    // prepare; it is not wanted either.
    for (const auto& statement : indexes) {
      sqlite3_stmt* stmt = nullptr;
      if (sqlite3_prepare_v2(db_.handle(), statement.c_str(), static_cast<int>(statement.size()), &stmt, nullptr) !=
              SQLITE_OK ||
          !stmt) {
        sqlite3_finalize(stmt);
        continue;
      }
      int rc = sqlite3_step(stmt);
      sqlite3_finalize(stmt);
      if (rc != SQLITE_DONE) db_.fail(rc, statement);
    }
    db_.run("COMMIT");
    db_.run("PRAGMA ignore_check_constraints=OFF");
    db_.run("PRAGMA foreign_keys=ON");
  }

 private:
  // Columns of a table in the memory database.
  std::vector<std::string> columnsOf(const std::string& table) {
    std::vector<std::string> cols;
    auto stmt = db_.prepare("PRAGMA table_info(" + sq::quoteIdentifier(table) + ")");
    sqlite3_stmt* s = stmt->get();
    while (sqlite3_step(s) == SQLITE_ROW) cols.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(s, 1)));
    return cols;
  }

  // True when the file's table has every column of the schema's (its extra
  // columns are then added).
  bool prepareSchemaTable(const std::string& name, MdbTableDef* t) {
    std::set<std::string> schemaCols;
    for (const auto& c : columnsOf(name)) schemaCols.insert(sq::foldName(c));
    std::set<std::string> fileCols;
    for (unsigned i = 0; i < t->num_cols; ++i) {
      fileCols.insert(sq::foldName(static_cast<MdbColumn*>(g_ptr_array_index(t->columns, i))->name));
    }
    for (const auto& c : schemaCols) {
      if (!fileCols.count(c)) return false;
    }
    for (unsigned i = 0; i < t->num_cols; ++i) {
      auto* col = static_cast<MdbColumn*>(g_ptr_array_index(t->columns, i));
      if (!schemaCols.count(sq::foldName(col->name))) {
        db_.run("ALTER TABLE " + sq::quoteIdentifier(name) + " ADD COLUMN " + sq::quoteIdentifier(col->name) + " " +
                declaredType(col->col_type));
      }
    }
    return true;
  }

  void buildFromFile(const std::string& name, MdbTableDef* t, bool replacesSchemaTable) {
    if (replacesSchemaTable) db_.run("DROP TABLE " + sq::quoteIdentifier(name));
    std::string sql = "CREATE TABLE " + sq::quoteIdentifier(name) + " (";
    std::set<std::string> seen;
    for (unsigned i = 0; i < t->num_cols; ++i) {
      auto* col = static_cast<MdbColumn*>(g_ptr_array_index(t->columns, i));
      if (!seen.insert(sq::foldName(col->name)).second) continue;
      if (i) sql += ", ";
      sql += sq::quoteIdentifier(col->name) + " " + declaredType(col->col_type);
    }
    sql += ")";
    db_.run(sql);
  }

  void loadRows(const std::string& name, MdbTableDef* t) {
    MdbHandle* mdb = file_.mdb;
    std::vector<std::string> cols = columnsOf(name);
    std::vector<ColumnMap> map(t->num_cols);
    std::string insert = "INSERT INTO " + sq::quoteIdentifier(name) + " (";
    std::string oneRow = "(";
    int params = 0;
    std::set<std::string> used;
    for (unsigned i = 0; i < t->num_cols; ++i) {
      auto* col = static_cast<MdbColumn*>(g_ptr_array_index(t->columns, i));
      map[i].col = col;
      std::string f = sq::foldName(col->name);
      auto c = std::find_if(cols.begin(), cols.end(), [&](const std::string& x) { return sq::foldName(x) == f; });
      if (c == cols.end() || !used.insert(f).second) continue;
      map[i].param = ++params;
      if (params > 1) {
        insert += ", ";
        oneRow += ", ";
      }
      insert += sq::quoteIdentifier(*c);
      oneRow += "?";
    }
    if (params == 0) return;
    insert += ") VALUES ";
    oneRow += ")";
    // Rows go in batches, one statement each: the engine's cost per
    // statement is paid once per batch.
    const auto maxParameters = static_cast<size_t>(sqlite3_limit(db_.handle(), SQLITE_LIMIT_VARIABLE_NUMBER, -1));
    const size_t batch =
        std::max<size_t>(1, std::min<size_t>(kRowsPerBatch, maxParameters / static_cast<size_t>(params)));
    auto statementFor = [&](size_t rows) {
      std::string sql = insert;
      for (size_t r = 0; r < rows; ++r) sql += (r ? ", " : "") + oneRow;
      return db_.prepare(sql);
    };
    std::unique_ptr<sq::Statement> full;
    std::vector<Cell> cells(batch * static_cast<size_t>(params));
    size_t pending = 0;
    auto flush = [&] {
      if (pending == 0) return;
      std::unique_ptr<sq::Statement> partial;
      if (pending == batch && !full) full = statementFor(batch);
      sq::Statement& st = pending == batch ? *full : *(partial = statementFor(pending));
      sqlite3_stmt* s = st.get();
      for (size_t i = 0; i < pending * static_cast<size_t>(params); ++i) bindCell(s, static_cast<int>(i) + 1, cells[i]);
      int rc = sqlite3_step(s);
      sqlite3_reset(s);
      if (rc != SQLITE_DONE) {
        std::string msg = sqlite3_errmsg(db_.handle());
        unrecognized(path_, "a row of the table '" + name + "' does not fit the definitions schema: " + msg);
      }
      pending = 0;
    };

    std::vector<MdbField> fields(t->num_cols);
    unsigned long rows = 0;
    mdb_rewind_table(t);
    while (mdb_read_next_dpg(t)) {
      int onPage = mdb_get_int16(mdb->pg_buf, mdb->fmt->row_count_offset);
      for (int r = 0; r < onPage; ++r) {
        int start = 0;
        size_t size = 0;
        if (mdb_find_row(mdb, r, &start, &size) == -1 || size == 0) continue;
        if (start & kRowDeleted) continue;
        start &= kRowOffsetMask;
        int n = mdb_crack_row(t, start, size, fields.data());
        if (n < 0 || static_cast<unsigned>(n) < t->num_cols) {
          unrecognized(path_, "a row of the table '" + name + "' cannot be read (damaged file)");
        }
        Cell* row = &cells[pending * static_cast<size_t>(params)];
        for (int k = 0; k < params; ++k) row[k].type = Cell::Null;
        for (unsigned k = 0; k < t->num_cols; ++k) {
          const MdbField& f = fields[k];
          if (f.colnum < 0 || static_cast<unsigned>(f.colnum) >= t->num_cols) continue;
          const ColumnMap& m = map[static_cast<size_t>(f.colnum)];
          if (m.param > 0) readField(row[m.param - 1], m, f, name);
        }
        ++rows;
        if (++pending == batch) flush();
      }
    }
    flush();
    // A page that cannot be read ends the walk early: the rows the table's
    // definition counts tell.
    if (rows < t->num_rows) {
      unrecognized(path_, "the table '" + name + "' holds " + std::to_string(t->num_rows) + " rows but only " +
                              std::to_string(rows) + " can be read (the file is truncated or damaged)");
    }
  }

  static void bindCell(sqlite3_stmt* s, int p, const Cell& c) {
    switch (c.type) {
      case Cell::Null: sqlite3_bind_null(s, p); return;
      case Cell::Integer: sqlite3_bind_int64(s, p, c.i); return;
      case Cell::Real: sqlite3_bind_double(s, p, c.d); return;
      case Cell::Text: sqlite3_bind_text64(s, p, c.s.data(), c.s.size(), SQLITE_STATIC, SQLITE_UTF8); return;
      case Cell::Blob: sqlite3_bind_blob64(s, p, c.s.data(), c.s.size(), SQLITE_STATIC); return;
    }
  }

  void readField(Cell& c, const ColumnMap& m, const MdbField& f, const std::string& table) {
    MdbHandle* mdb = file_.mdb;
    const int type = m.col->col_type;
    // Yes/No lives in the null mask: set means Yes.
    if (type == MDB_BOOL) {
      c.type = Cell::Integer;
      c.i = f.is_null ? 0 : -1;
      return;
    }
    if (f.is_null) return;  // Null
    const unsigned char* v = mdb->pg_buf + f.start;
    auto integer = [&](int64_t i) {
      c.type = Cell::Integer;
      c.i = i;
    };
    auto real = [&](double d) {
      c.type = Cell::Real;
      c.d = d;
    };
    c.type = Cell::Text;
    switch (type) {
      case MDB_BYTE: integer(mdb_get_byte(mdb->pg_buf, f.start)); return;
      case MDB_INT: integer(static_cast<int16_t>(mdb_get_int16(mdb->pg_buf, f.start))); return;
      case MDB_LONGINT:
      case MDB_COMPLEX: integer(static_cast<int32_t>(mdb_get_int32(mdb->pg_buf, f.start))); return;
      case MDB_FLOAT: real(static_cast<double>(mdb_get_single(mdb->pg_buf, f.start))); return;
      case MDB_DOUBLE: real(mdb_get_double(mdb->pg_buf, f.start)); return;
      case MDB_MONEY: {
        int64_t units = 0;
        std::memcpy(&units, v, sizeof units);  // little-endian, like the file
        real(static_cast<double>(units) / 10000.0);
        return;
      }
      case MDB_DATETIME: {
        struct tm tm {};
        mdb_date_to_tm(mdb_get_double(mdb->pg_buf, f.start), &tm);
        char buf[64];
        std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                      tm.tm_hour, tm.tm_min, tm.tm_sec);
        c.s = buf;
        return;
      }
      case MDB_TEXT: {
        if (f.siz == 0) {
          c.s.clear();
          return;
        }
        c.s.resize(static_cast<size_t>(f.siz) * 2 + 16);
        int n = mdb_unicode2ascii(mdb, reinterpret_cast<const char*>(v), static_cast<size_t>(f.siz), c.s.data(),
                                  c.s.size());
        c.s.resize(static_cast<size_t>(std::max(n, 0)));
        return;
      }
      case MDB_MEMO: readMemo(c.s, f, table); return;
      case MDB_BINARY:
        c.type = Cell::Blob;
        c.s.assign(reinterpret_cast<const char*>(v), static_cast<size_t>(f.siz));
        return;
      case MDB_OLE: c.type = Cell::Null; return;
      case MDB_NUMERIC: {
        char* text = mdb_numeric_to_string(mdb, f.start, m.col->col_scale, m.col->col_prec);
        c.s = text ? text : "";
        g_free(text);
        return;
      }
      default: {
        char* text = mdb_col_to_string(mdb, mdb->pg_buf, f.start, type, f.siz);
        c.s = text ? text : "";
        g_free(text);
        return;
      }
    }
  }

  void readMemo(std::string& out, const MdbField& f, const std::string& table) {
    MdbHandle* mdb = file_.mdb;
    if (static_cast<size_t>(f.siz) < kMemoOverhead) {
      out.clear();
      return;
    }
    uint32_t length = static_cast<uint32_t>(mdb_get_int32(mdb->pg_buf, f.start)) & kMemoLengthMask;
    if (length == 0) {
      out.clear();
      return;
    }
    // The library writes a Memo's text into a buffer of its bind size: make
    // it large enough for this one (two UTF-8 bytes per stored byte at most).
    size_t needed = static_cast<size_t>(length) * 2 + 16;
    mdb_set_bind_size(mdb, std::max(needed, defaultBindSize_));
    char* text = mdb_col_to_string(mdb, mdb->pg_buf, f.start, MDB_MEMO, f.siz);
    mdb_set_bind_size(mdb, defaultBindSize_);
    out = text ? text : "";
    g_free(text);
    if (out.empty()) {
      unrecognized(path_, "a Memo text of the table '" + table + "' cannot be read (the file is truncated or damaged)");
    }
  }

  std::string path_;
  sq::Database& db_;
  MdbFile file_;
  size_t defaultBindSize_ = MDB_BIND_SIZE;
};

}  // namespace

std::shared_ptr<Connection> openDatabase(const std::string& path, const std::string& description) {
  std::error_code ec;
  auto status = std::filesystem::status(path, ec);
  if (!std::filesystem::exists(status)) {
    std::string reason = "the file does not exist";
    throw DbError(kErrFileNotFound, kSource, "Cannot open the database '" + path + "': " + reason, 0, reason);
  }
  if (std::filesystem::is_directory(status)) {
    std::string reason = "it is a folder, not a file";
    throw DbError(kErrFile, kSource, "Cannot open the database '" + path + "': " + reason, 0, reason);
  }
  {
    std::FILE* probe = std::fopen(path.c_str(), "rb");
    if (!probe) {
      std::string reason = "the file cannot be read";
      throw DbError(kErrFile, kSource, "Cannot open the database '" + path + "': " + reason, 0, reason);
    }
    std::fclose(probe);
  }
  auto memory = sq::openMemoryDatabase(description);
  auto db = sq::databaseOf(*memory);
  Loader loader(path, *db);
  try {
    loader.open();
    loader.load();
  } catch (const DbError& e) {
    memory->close();
    if (e.number() == kErrUnrecognized) throw;
    // A failure of the memory database while loading.
    unrecognized(path, e.description());
  }
  return makeReadOnly(std::move(memory), path);
}

}  // namespace kavrel::db::mdb
