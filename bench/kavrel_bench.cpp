// Times the library's bulk phases on synthetic targets of three sizes, each
// beside its floor measured in the same run on the same data:
//   import  (ImportUceFromXml)           vs pugixml parsing the same file
//   insert  (dbInsertTargetAll)          vs SQLite inserting the same rows, one
//                                           prepared statement per table, one transaction
//   read    (dbReadTargetAll)            vs SQLite selecting those rows
//   export  (ExportUceToXml)             vs pugixml saving the same document
//   export-named (open, read, write XML) — reported against the sum of the
//                                           read and export floors
// Each size runs in its own process so that its peak memory is its own; the
// synthetic document is written by a child process beforehand, so that the
// import and its floor both start on memory the process has not touched.
//
// Usage: kavrel_bench [S|M|L|all|legacy|postgres] [--work DIR] [--repeat N] [--markdown] [--server URI]
//        kavrel_bench big [--mb N] [--work DIR]
//   big          imports and stores (as `kavrel import` does) two documents
//                of about N MB (default 200) and a quarter of that, each in
//                a fresh process: a synthetic target, and a target padded
//                with empty elements; prints time, peak memory and peak
//                memory per byte of document (the bound is 4 plus a
//                constant), and the time growth from N/4 to N (4 is linear)
//   legacy       the legacy Access file phase (legacy_bench.cpp) alone
//   postgres     insert and read on the PostgreSQL engine (postgres_bench.cpp)
//   all          every size, then the table (ratios, growth, peak memory)
//   --repeat N   (with all) runs each size N times, each in a fresh process,
//                and keeps the best time of each phase and of each floor:
//                a shared machine's noise only ever adds time
//   --markdown   (with all) prints the table as Markdown
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <pugixml.hpp>
#include <string>
#include <vector>

#include <kavrel/kavrel.h>
#include <kavrel/platform/names.h>

#include "synthetic_target.h"

namespace fs = std::filesystem;
namespace kavrel::bench {
int runLegacy(const fs::path& work, int repeat, bool markdown);  // legacy_bench.cpp
int runPostgres(const fs::path& work, int repeat, bool markdown, std::string server);  // postgres_bench.cpp
}
using Clock = std::chrono::steady_clock;

namespace {

double msSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

double timeIt(const std::function<void()>& f) {
  auto t0 = Clock::now();
  f();
  return msSince(t0);
}

void check(int rc, sqlite3* db, const char* what) {
  if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW) {
    std::fprintf(stderr, "sqlite error in %s: %s\n", what, sqlite3_errmsg(db));
    std::exit(3);
  }
}

// Tables that hold target rows, in the schema's creation order (parents first).
std::vector<std::string> targetTables(sqlite3* db) {
  static const char* catalogues[] = {"system", "Fonctions", "Protocoles", "Type Organe", "Type Panne"};
  std::vector<std::string> out;
  sqlite3_stmt* st = nullptr;
  check(sqlite3_prepare_v2(db, "SELECT name FROM sqlite_master WHERE type='table' AND name NOT LIKE 'sqlite_%' ORDER BY rowid",
                           -1, &st, nullptr),
        db, "tables");
  while (sqlite3_step(st) == SQLITE_ROW) {
    std::string name = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
    bool cat = false;
    for (auto* c : catalogues) cat = cat || name == c;
    if (!cat) out.push_back(name);
  }
  sqlite3_finalize(st);
  return out;
}

struct TableRows {
  std::string name;
  int columns = 0;
  std::vector<std::vector<std::string>> textRows;  // values as text, with a null marker
  std::vector<std::vector<int>> types;
};

std::string q(const std::string& ident) { return "\"" + ident + "\""; }

// Reads every row of every target table (the select floor when timed).
std::vector<TableRows> selectAll(sqlite3* db, const std::vector<std::string>& tables, size_t* cells) {
  std::vector<TableRows> out;
  for (const auto& t : tables) {
    TableRows tr;
    tr.name = t;
    sqlite3_stmt* st = nullptr;
    check(sqlite3_prepare_v2(db, ("SELECT * FROM " + q(t)).c_str(), -1, &st, nullptr), db, "select");
    tr.columns = sqlite3_column_count(st);
    while (sqlite3_step(st) == SQLITE_ROW) {
      std::vector<std::string> row(tr.columns);
      std::vector<int> ty(tr.columns);
      for (int c = 0; c < tr.columns; ++c) {
        ty[c] = sqlite3_column_type(st, c);
        if (ty[c] != SQLITE_NULL) row[c] = reinterpret_cast<const char*>(sqlite3_column_text(st, c));
        ++*cells;
      }
      tr.textRows.push_back(std::move(row));
      tr.types.push_back(std::move(ty));
    }
    sqlite3_finalize(st);
    out.push_back(std::move(tr));
  }
  return out;
}

void insertAll(sqlite3* db, const std::vector<TableRows>& rows) {
  check(sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), db, "begin");
  for (const auto& tr : rows) {
    if (tr.textRows.empty()) continue;
    std::string sql = "INSERT INTO " + q(tr.name) + " VALUES (";
    for (int c = 0; c < tr.columns; ++c) sql += c ? ",?" : "?";
    sql += ")";
    sqlite3_stmt* st = nullptr;
    check(sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr), db, "prepare insert");
    for (size_t r = 0; r < tr.textRows.size(); ++r) {
      for (int c = 0; c < tr.columns; ++c) {
        const auto& v = tr.textRows[r][c];
        switch (tr.types[r][c]) {
          case SQLITE_NULL: sqlite3_bind_null(st, c + 1); break;
          case SQLITE_INTEGER: sqlite3_bind_int64(st, c + 1, std::stoll(v)); break;
          case SQLITE_FLOAT: sqlite3_bind_double(st, c + 1, std::stod(v)); break;
          default: sqlite3_bind_text(st, c + 1, v.data(), static_cast<int>(v.size()), SQLITE_STATIC);
        }
      }
      check(sqlite3_step(st), db, "insert");
      sqlite3_reset(st);
    }
    sqlite3_finalize(st);
  }
  check(sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr), db, "commit");
}

sqlite3* openRaw(const std::string& path) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) std::exit(3);
  sqlite3_exec(db, "PRAGMA foreign_keys=ON", nullptr, nullptr, nullptr);
  // The name columns' collation, as the library registers it.
  sqlite3_create_collation_v2(
      db, kavrel::names::kSqliteCollation, SQLITE_UTF8, nullptr,
      [](void*, int la, const void* a, int lb, const void* b) {
        return kavrel::names::compare({static_cast<const char*>(a), static_cast<size_t>(la)},
                                      {static_cast<const char*>(b), static_cast<size_t>(lb)});
      },
      nullptr);
  return db;
}

std::string freshDatabase(const fs::path& dir, const std::string& name, const std::string& parameters) {
  fs::path p = dir / name;
  fs::remove(p);
  kavrel::KavrelDatabase::createDatabase(p.string());
  auto s = kavrel::KavrelDatabase::create();
  s->DbOpen(p.string());
  s->importParametersFromXml(parameters);
  s->DbClose();
  return p.string();
}

long peakKiB() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

// One size, in this process. Prints "phase time floor" lines on stdout.
int runSize(const kavrel::bench::SyntheticSize& size, const fs::path& work) {
  const std::string parameters = std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml";
  fs::create_directories(work);
  const std::string xmlFile = (work / ("target_" + size.label + ".xml")).string();
  const std::string xmlOut = (work / ("target_" + size.label + "_out.xml")).string();
  const std::string xmlNamed = (work / ("target_" + size.label + "_named.xml")).string();

  // Set-up (not timed): the synthetic target written to a file, in a child
  // process, so that the phases below start on memory this process has not
  // touched (as a command-line import or export does) and the peak memory is
  // that of the phases alone.
  pid_t generator = fork();
  if (generator == 0) {
    std::string dbGen = freshDatabase(work, "gen_" + size.label + ".db", parameters);
    auto s = kavrel::KavrelDatabase::create();
    s->DbOpen(dbGen);
    s->DbRead();
    kavrel::bench::buildSyntheticTarget(*s, size, s->functions()->Item(1)->Address());
    s->ExportUceToXml(xmlFile);
    s->DbClose();
    std::fflush(stdout);
    _exit(0);
  }
  int generated = -1;
  if (generator < 0 || waitpid(generator, &generated, 0) != generator || !WIFEXITED(generated) ||
      WEXITSTATUS(generated) != 0) {
    std::fprintf(stderr, "generating the %s target failed\n", size.label.c_str());
    return 3;
  }

  std::map<std::string, std::pair<double, double>> phases;
  std::string db = freshDatabase(work, "lib_" + size.label + ".db", parameters);
  std::string targetName;
  int32_t targetAddress = 0, targetId = 0;
  {
    auto s = kavrel::KavrelDatabase::create();
    s->DbOpen(db);
    s->DbRead();
    const unsigned parseFlags = pugi::parse_default | pugi::parse_declaration | pugi::parse_pi | pugi::parse_comments;
    double fImport = 0;
    {
      // The floor runs first, on memory the process has not touched yet, as
      // the import then does: a parse into pages freed by an earlier parse
      // is about three times as fast (no page faults), so running the floor
      // second would compare a warm parse with a cold one. Its document is
      // dropped at once (its pages go back to the system), so that the peak
      // memory is the library's.
      pugi::xml_document doc;
      fImport = timeIt([&] { doc.load_file(xmlFile.c_str(), parseFlags); });
    }
    double tImport = timeIt([&] { s->ImportUceFromXml(xmlFile); });
    phases["1 import"] = {tImport, fImport};

    auto target = s->ActiveTarget();
    double tInsert = timeIt([&] { target->dbInsertTargetAll(*s->DbConnection()); });
    targetName = target->name();
    targetAddress = target->Address();
    targetId = target->targetid();

    // Insert floor: the same rows into a fresh database of the same schema.
    sqlite3* raw = openRaw(db);
    auto tables = targetTables(raw);
    size_t cells = 0;
    auto rows = selectAll(raw, tables, &cells);
    sqlite3_close(raw);
    std::string dbFloor = freshDatabase(work, "floor_" + size.label + ".db", parameters);
    sqlite3* rawFloor = openRaw(dbFloor);
    double fInsert = timeIt([&] { insertAll(rawFloor, rows); });
    sqlite3_close(rawFloor);
    rows = {};
    phases["2 insert"] = {tInsert, fInsert};

    s->ClearTarget();
    auto t2 = s->NewTarget();
    double tRead = timeIt([&] { t2->dbReadTargetAll(*s->DbConnection(), targetAddress, targetId); });
    raw = openRaw(db);
    size_t cells2 = 0;
    double fRead = timeIt([&] { selectAll(raw, tables, &cells2); });
    sqlite3_close(raw);
    phases["3 read"] = {tRead, fRead};

    double tExport = timeIt([&] { s->ExportUceToXml(xmlOut); });
    double fExport = 0;
    {
      pugi::xml_document doc;  // loaded untimed: the floor is the save
      doc.load_file(xmlFile.c_str(), parseFlags);
      fExport = timeIt([&] { doc.save_file(xmlOut.c_str(), "", pugi::format_raw); });
    }
    phases["4 export"] = {tExport, fExport};
    s->DbClose();
    phases["5 export-named"] = {0, fRead + fExport};
  }
  {
    auto s = kavrel::KavrelDatabase::create();
    double tNamed = timeIt([&] { s->ExportNamedUceToXml(db, targetName, xmlNamed); });
    phases["5 export-named"].first = tNamed;
  }
  for (const auto& [phase, tf] : phases)
    std::printf("%s %s %.3f %.3f\n", size.label.c_str(), phase.c_str() + 2, tf.first, tf.second);
  std::printf("%s peak-KiB %ld 0\n", size.label.c_str(), peakKiB());
  return 0;
}

struct Line {
  double t = 0, f = 0;
};

// ---- big documents: memory and time of a whole import against the size

// Writes the synthetic target scaled to about `bytes` of document.
void writeSyntheticDocument(const fs::path& work, const std::string& file, size_t bytes) {
  const std::string parameters = std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml";
  const std::string probe = (work / "big_probe.xml").string();
  auto make = [&](const kavrel::bench::SyntheticSize& size, const std::string& out) {
    std::string dbGen = freshDatabase(work, "big_gen.db", parameters);
    auto s = kavrel::KavrelDatabase::create();
    s->DbOpen(dbGen);
    s->DbRead();
    kavrel::bench::buildSyntheticTarget(*s, size, s->functions()->Item(1)->Address());
    s->ExportUceToXml(out);
    s->DbClose();
  };
  make(kavrel::bench::sizeS(), probe);
  const auto perS = static_cast<double>(fs::file_size(probe));
  const int factor = std::max(1, static_cast<int>(static_cast<double>(bytes) / perS + 0.5));
  make(kavrel::bench::scaled(kavrel::bench::sizeS(), factor, "Big"), file);
  fs::remove(probe);
}

// The example target with `bytes` of empty elements among its children.
void writePaddedDocument(const std::string& file, size_t bytes) {
  std::FILE* in = std::fopen((std::string(KAVREL_SOURCE_DIR) + "/examples/can_target.xml").c_str(), "rb");
  std::string text;
  char buffer[65536];
  size_t got;
  while (in != nullptr && (got = std::fread(buffer, 1, sizeof buffer, in)) > 0) text.append(buffer, got);
  if (in != nullptr) std::fclose(in);
  const size_t at = text.find("<Datas>");
  std::FILE* out = std::fopen(file.c_str(), "wb");
  if (out == nullptr || at == std::string::npos) std::exit(3);
  std::fwrite(text.data(), 1, at, out);
  const std::string block = [] {
    std::string b;
    for (int i = 0; i < 16384; ++i) b += "<e/>";
    return b;
  }();
  for (size_t written = 0; written < bytes; written += block.size()) std::fwrite(block.data(), 1, block.size(), out);
  std::fwrite(text.data() + at, 1, text.size() - at, out);
  std::fclose(out);
}

struct ChildCost {
  double seconds = 0;     // wall time
  double cpuSeconds = 0;  // user and system time: steadier on a shared machine
  long peakKiB = 0;
};

// Runs `f` in a child process and measures it.
ChildCost measuredChild(const std::function<int()>& f) {
  std::fflush(stdout);
  const auto t0 = Clock::now();
  const pid_t pid = fork();
  if (pid == 0) _exit(f());
  int status = 0;
  rusage ru{};
  if (pid < 0 || wait4(pid, &status, 0, &ru) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    std::fprintf(stderr, "the measured import failed\n");
    std::exit(1);
  }
  const auto secondsOf = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return {msSince(t0) / 1000.0, secondsOf(ru.ru_utime) + secondsOf(ru.ru_stime), ru.ru_maxrss};
}

int runBig(const fs::path& work, size_t megabytes) {
  fs::create_directories(work);
  const std::string parameters = std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml";
  std::printf("%-10s %8s %9s %9s %9s %11s\n", "document", "MB", "time s", "cpu s", "peak MiB", "peak/size");
  std::map<std::string, double> times[2];
  int round = 0;
  for (const size_t mb : {megabytes / 4, megabytes}) {
    for (const char* kind : {"synthetic", "padded"}) {
      const std::string file = (work / (std::string("big_") + kind + ".xml")).string();
      // Written by a child, so that the measured process starts clean.
      measuredChild([&] {
        if (std::string(kind) == "synthetic")
          writeSyntheticDocument(work, file, mb << 20);
        else
          writePaddedDocument(file, mb << 20);
        return 0;
      });
      const std::string db = freshDatabase(work, "big.db", parameters);
      long importPeak = 0;
      const ChildCost cost = measuredChild([&] {
        auto s = kavrel::KavrelDatabase::create();
        s->DbOpen(db);
        s->DbRead();
        try {
          s->ImportUceFromXml(file);
          importPeak = peakKiB();
          kavrel::db::Transaction tx(*s->DbConnection());
          s->ActiveTarget()->dbInsertTargetAll(*s->DbConnection());
          tx.commit();
        } catch (const kavrel::Error& e) {
          std::fprintf(stderr, "%s\n", e.what());
          return 1;
        }
        s->DbClose();
        std::fprintf(stderr, "  (%s: peak after parsing and reading alone %.1f MiB)\n", kind, importPeak / 1024.0);
        return 0;
      });
      const double size = static_cast<double>(fs::file_size(file));
      std::printf("%-10s %8.1f %9.2f %9.2f %9.1f %11.2f\n", kind, size / 1048576.0, cost.seconds, cost.cpuSeconds,
                  cost.peakKiB / 1024.0, cost.peakKiB * 1024.0 / size);
      times[round][kind] = cost.cpuSeconds;
      fs::remove(file);
      fs::remove(db);
    }
    ++round;
  }
  std::printf("cpu time growth from a quarter of the size (4 is linear): synthetic %.2f, padded %.2f\n",
              times[1]["synthetic"] / times[0]["synthetic"], times[1]["padded"] / times[0]["padded"]);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::string which = "all";
  fs::path work = fs::temp_directory_path() / "kavrel_bench";
  int repeat = 1;
  bool markdown = false;
  size_t bigMegabytes = 200;
  std::string server;  // postgres: the server's URI
  for (int i = 1; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--work" && i + 1 < argc) work = argv[++i];
    else if (a == "--mb" && i + 1 < argc) bigMegabytes = static_cast<size_t>(std::max(4, std::atoi(argv[++i])));
    else if (a == "big") which = a;
    else if (a == "--repeat" && i + 1 < argc) repeat = std::max(1, std::atoi(argv[++i]));
    else if (a == "--markdown") markdown = true;
    else if (a == "--server" && i + 1 < argc) server = argv[++i];
    else if (a == "S" || a == "M" || a == "L" || a == "all" || a == "legacy" || a == "postgres") which = a;
    else {
      std::fprintf(stderr, "usage: kavrel_bench [S|M|L|all|legacy|postgres] [--work DIR] [--repeat N] [--markdown] [--server URI]\n"
                           "       kavrel_bench big [--mb N] [--work DIR]\n");
      return 2;
    }
  }
  if (which == "big") return runBig(work, bigMegabytes);
  const auto s = kavrel::bench::sizeS();
  std::map<std::string, kavrel::bench::SyntheticSize> sizes = {
      {"S", s}, {"M", kavrel::bench::scaled(s, 10, "M")}, {"L", kavrel::bench::scaled(s, 30, "L")}};
  if (which == "legacy") return kavrel::bench::runLegacy(work, repeat, markdown);
  if (which == "postgres") return kavrel::bench::runPostgres(work, repeat, markdown, server);
  if (which != "all") return runSize(sizes[which], work);

  // Each size in its own process; collect its lines.
  std::map<std::string, std::map<std::string, Line>> results;
  std::vector<const char*> runs;  // S, M, L, then again for each repeat
  for (int run = 0; run < repeat; ++run)
    for (const char* label : {"S", "M", "L"}) runs.push_back(label);
  for (const char* label : runs) {
    int fds[2];
    if (pipe(fds) != 0) return 3;
    pid_t pid = fork();
    if (pid == 0) {
      close(fds[0]);
      dup2(fds[1], STDOUT_FILENO);
      int rc = runSize(sizes[label], work);
      std::fflush(stdout);
      _exit(rc);
    }
    close(fds[1]);
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      std::fprintf(stderr, "size %s failed\n", label);
      return 1;
    }
    char lab[8], phase[64];
    double t, f;
    const char* p = out.c_str();
    int used = 0;
    while (std::sscanf(p, "%7s %63s %lf %lf\n%n", lab, phase, &t, &f, &used) == 4) {
      auto [it, first] = results[label].try_emplace(phase, Line{t, f});
      if (!first) {
        // Best of the runs; the peak memory is the largest one seen.
        Line& l = it->second;
        l = std::string(phase) == "peak-KiB" ? Line{std::max(l.t, t), 0} : Line{std::min(l.t, t), std::min(l.f, f)};
      }
      p += used;
    }
  }

  const char* phases[] = {"import", "insert", "read", "export", "export-named"};
  const char* labels[] = {"S", "M", "L"};
  auto ratio = [](const Line& l) { return l.f > 0 ? l.t / l.f : 0.0; };
  auto growth = [&](const char* phase) {
    const double sT = results["S"][phase].t, lT = results["L"][phase].t;
    return sT > 0 ? lT / sT : 0.0;
  };
  auto mib = [&](const char* label) { return results[label]["peak-KiB"].t / 1024; };
  if (markdown) {
    std::printf("| phase | size | time ms | floor ms | ratio |\n|---|---|---:|---:|---:|\n");
    for (const char* phase : phases)
      for (const char* label : labels) {
        const Line& l = results[label][phase];
        std::printf("| %s | %s | %.1f | %.1f | %.2f |\n", phase, label, l.t, l.f, ratio(l));
      }
    std::printf("\n| growth L/S (30 is linear) | import | insert | read | export | export-named |\n"
                "|---|---:|---:|---:|---:|---:|\n| | %.1f | %.1f | %.1f | %.1f | %.1f |\n",
                growth("import"), growth("insert"), growth("read"), growth("export"), growth("export-named"));
    std::printf("\n| peak memory | S | M | L |\n|---|---:|---:|---:|\n| MiB | %.1f | %.1f | %.1f |\n", mib("S"),
                mib("M"), mib("L"));
    return 0;
  }
  std::printf("%-13s %5s %10s %10s %7s\n", "phase", "size", "time ms", "floor ms", "ratio");
  for (const char* phase : phases)
    for (const char* label : labels) {
      const Line& l = results[label][phase];
      std::printf("%-13s %5s %10.1f %10.1f %7.2f\n", phase, label, l.t, l.f, ratio(l));
    }
  std::printf("\ngrowth (time L / time S; 30 is linear):\n");
  for (const char* phase : phases) std::printf("  %-13s %6.1f\n", phase, growth(phase));
  std::printf("\npeak memory (MiB): S %.1f  M %.1f  L %.1f\n", mib("S"), mib("M"), mib("L"));
  return 0;
}
