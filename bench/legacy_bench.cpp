// The legacy Access phase: the fixture large-v2000.mdb (the synthetic target
// of size M, 102,549 rows) opened ready to read, and converted into a new
// SQLite database, each beside one floor measured in the same run: the
// mdbtools library alone reading every row of every table, each value
// converted to its text as the library gives it, nothing stored. (The same
// walk without converting any value is printed too, for reference.)
// Writing 102,549 rows into a new SQLite file is work the reading floor
// does not do; so convert is also shown beside a second floor: the reading
// floor plus SQLite alone inserting the same rows into a new definitions
// database (one prepared statement per table, one transaction).
// It also checks that exporting "Synthetic M" from the file gives the same
// bytes as exporting it from an SQLite database into which the benchmark
// stored the same target.
#include <glib.h>
#include <mdbtools.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <kavrel/kavrel.h>

#include "synthetic_target.h"

namespace fs = std::filesystem;

namespace kavrel::bench {

namespace {

using Clock = std::chrono::steady_clock;

template <class F>
double timed(F&& f) {
  auto t0 = Clock::now();
  f();
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

// Every row of every user table through the library alone; with `convert`
// each column is bound, so each value is turned into its text.
long readEveryRow(const std::string& path, bool convert) {
  MdbHandle* mdb = mdb_open(path.c_str(), MDB_NOFLAGS);
  if (!mdb) return -1;
  long rows = 0;
  mdb_read_catalog(mdb, MDB_TABLE);
  for (unsigned i = 0; i < mdb->num_catalog; ++i) {
    auto* entry = static_cast<MdbCatalogEntry*>(g_ptr_array_index(mdb->catalog, i));
    if (entry->object_type != MDB_TABLE || mdb_is_system_table(entry)) continue;
    MdbTableDef* table = mdb_read_table(entry);
    mdb_read_columns(table);
    std::vector<std::vector<char>> values;
    if (convert) {
      values.resize(table->num_cols, std::vector<char>(MDB_BIND_SIZE));
      for (unsigned c = 0; c < table->num_cols; ++c) mdb_bind_column(table, static_cast<int>(c) + 1, values[c].data(), nullptr);
    }
    mdb_rewind_table(table);
    while (mdb_fetch_row(table)) ++rows;
    mdb_free_tabledef(table);
  }
  mdb_close(mdb);
  return rows;
}

// Every row of every table of `from`, kept as SQLite values.
struct Table {
  std::string name;
  int columns = 0;
  std::vector<sqlite3_value*> values;
};

std::vector<Table> readAll(const std::string& from) {
  sqlite3* db = nullptr;
  sqlite3_open(from.c_str(), &db);
  std::vector<Table> tables;
  for (const std::string& name : db::schemaTables()) {
    Table t;
    t.name = name;
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, ("SELECT * FROM \"" + name + "\"").c_str(), -1, &s, nullptr);
    t.columns = sqlite3_column_count(s);
    while (sqlite3_step(s) == SQLITE_ROW)
      for (int c = 0; c < t.columns; ++c) t.values.push_back(sqlite3_value_dup(sqlite3_column_value(s, c)));
    sqlite3_finalize(s);
    tables.push_back(std::move(t));
  }
  sqlite3_close(db);
  return tables;
}

void insertAll(const std::string& into, const std::vector<Table>& tables) {
  sqlite3* db = nullptr;
  sqlite3_open(into.c_str(), &db);
  sqlite3_exec(db, "PRAGMA foreign_keys=ON; BEGIN; DELETE FROM system", nullptr, nullptr, nullptr);
  for (const Table& t : tables) {
    std::string sql = "INSERT INTO \"" + t.name + "\" VALUES (";
    for (int c = 0; c < t.columns; ++c) sql += c ? ",?" : "?";
    sql += ")";
    sqlite3_stmt* s = nullptr;
    sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr);
    for (size_t at = 0; at < t.values.size(); at += static_cast<size_t>(t.columns)) {
      for (int c = 0; c < t.columns; ++c) sqlite3_bind_value(s, c + 1, t.values[at + static_cast<size_t>(c)]);
      sqlite3_step(s);
      sqlite3_reset(s);
    }
    sqlite3_finalize(s);
  }
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
}

std::string bytesOf(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace

int runLegacy(const fs::path& work, int repeat, bool markdown) {
  const std::string mdb = std::string(KAVREL_SOURCE_DIR) + "/../shared/fixtures/legacy/large-v2000.mdb";
  const std::string parameters = std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml";
  if (!fs::exists(mdb)) {
    std::fprintf(stderr, "%s not found\n", mdb.c_str());
    return 3;
  }
  fs::create_directories(work);
  double floor = 1e300, bare = 1e300, open = 1e300, convert = 1e300, insert = 1e300;
  long rows = 0;
  for (int run = 0; run < repeat; ++run) {
    floor = std::min(floor, timed([&] { rows = readEveryRow(mdb, true); }));
    bare = std::min(bare, timed([&] { readEveryRow(mdb, false); }));
    open = std::min(open, timed([&] {
                      auto s = KavrelDatabase::create();
                      s->DbOpen(mdb);
                      s->DbClose();
                    }));
    const fs::path out = work / "legacy_converted.db";
    fs::remove(out);
    convert = std::min(convert, timed([&] { convertDatabase(mdb, out.string()); }));
    auto stored = readAll(out.string());
    const fs::path copy = work / "legacy_insert_floor.db";
    fs::remove(copy);
    db::createDatabase(copy.string());
    insert = std::min(insert, timed([&] { insertAll(copy.string(), stored); }));
    for (auto& t : stored)
      for (auto* v : t.values) sqlite3_value_free(v);
  }

  // The same target stored by the benchmark into an SQLite database.
  const fs::path stored = work / "legacy_stored.db";
  fs::remove(stored);
  KavrelDatabase::createDatabase(stored.string());
  {
    auto s = KavrelDatabase::create();
    s->DbOpen(stored.string());
    s->importParametersFromXml(parameters);
    s->DbRead();
    // The file holds size M as it was generated before targets had screens.
    SyntheticSize m = scaled(sizeS(), 10, "M");
    m.categories = m.screens = m.labels = m.buttons = m.steps = m.displays = m.thresholds = 0;
    auto t = buildSyntheticTarget(*s, m, s->functions()->Item(1)->Address());
    t->dbInsertTargetAll(*s->DbConnection());
    s->DbClose();
  }
  const std::string fromMdb = (work / "legacy_from_mdb.xml").string(), fromDb = (work / "legacy_from_db.xml").string();
  fs::remove(fromMdb);
  fs::remove(fromDb);
  KavrelDatabase::create()->ExportNamedUceToXml(mdb, "Synthetic M", fromMdb);
  KavrelDatabase::create()->ExportNamedUceToXml(stored.string(), "Synthetic M", fromDb);
  const bool same = bytesOf(fromMdb) == bytesOf(fromDb) && !bytesOf(fromDb).empty();

  if (markdown) {
    std::printf("| phase | rows | time ms | floor ms | ratio |\n|---|---:|---:|---:|---:|\n");
    std::printf("| mdb open | %ld | %.1f | %.1f | %.2f |\n", rows, open, floor, open / floor);
    std::printf("| mdb convert | %ld | %.1f | %.1f | %.2f |\n", rows, convert, floor, convert / floor);
    std::printf("| mdb convert (floor: read + SQLite insert) | %ld | %.1f | %.1f | %.2f |\n", rows, convert,
                floor + insert, convert / (floor + insert));
  } else {
    std::printf("%-13s %8s %10s %10s %7s\n", "phase", "rows", "time ms", "floor ms", "ratio");
    std::printf("%-13s %8ld %10.1f %10.1f %7.2f\n", "mdb-open", rows, open, floor, open / floor);
    std::printf("%-13s %8ld %10.1f %10.1f %7.2f\n", "mdb-convert", rows, convert, floor, convert / floor);
    std::printf("%-13s %8ld %10.1f %10.1f %7.2f   (floor: read + SQLite insert)\n", "mdb-convert", rows, convert,
                floor + insert, convert / (floor + insert));
  }
  std::printf("\nfloor without converting the values: %.1f ms\n", bare);
  std::printf("export of \"Synthetic M\" from the file %s the export from the SQLite database\n",
              same ? "equals" : "DIFFERS FROM");
  return same ? 0 : 1;
}

}  // namespace kavrel::bench
