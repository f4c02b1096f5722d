// The PostgreSQL engine: insert and read of the synthetic targets, each
// beside its floor measured in the same run on the same rows:
//   insert (dbInsertTargetAll)  vs COPY of the same rows into a fresh database
//   read   (dbReadTargetAll)    vs a plain SELECT of those rows
// The server: --server URI, else KAVREL_BENCH_POSTGRES, else a throwaway one
// started for the run (tests/support/pg_server.sh) and stopped at its end.
#include <libpq-fe.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "synthetic_target.h"

namespace kavrel::bench {

namespace {

namespace fs = std::filesystem;

template <class F>
double millis(F&& f) {
  auto t0 = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "postgres bench: %s\n", what.c_str());
  std::exit(3);
}

PGconn* connect(const std::string& uri) {
  PGconn* c = PQconnectdb(uri.c_str());
  if (PQstatus(c) != CONNECTION_OK) die(PQerrorMessage(c));
  PQsetClientEncoding(c, "UTF8");
  PQsetNoticeProcessor(c, [](void*, const char*) {}, nullptr);  // "does not exist, skipping"
  return c;
}

void exec(PGconn* c, const std::string& sql) {
  PGresult* r = PQexec(c, sql.c_str());
  ExecStatusType s = PQresultStatus(r);
  if (s != PGRES_COMMAND_OK && s != PGRES_TUPLES_OK) die(sql + ": " + PQresultErrorMessage(r));
  PQclear(r);
}

std::string withDatabase(const std::string& uri, const std::string& name) {
  size_t path = uri.find('/', uri.find("://") + 3);
  size_t query = uri.find('?');
  return uri.substr(0, path) + "/" + name + (query == std::string::npos ? "" : uri.substr(query));
}

// A new database holding the schema and the example catalogues.
std::string freshDatabase(PGconn* admin, const std::string& uri, const std::string& name) {
  exec(admin, "DROP DATABASE IF EXISTS " + name + " WITH (FORCE)");
  exec(admin, "CREATE DATABASE " + name);
  std::string db = withDatabase(uri, name);
  KavrelDatabase::createDatabase(db);
  auto s = KavrelDatabase::create();
  s->DbOpen(db);
  s->importParametersFromXml(std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml");
  s->DbClose();
  return db;
}

// The tables holding a target's rows (all but the catalogues), parents first;
// the screens' tables too, since the synthetic targets have screens.
const char* const kTargetTables[] = {
    "cibles", "appartenance cible", "paramètres uce", "identification", "requêtes", "données", "fiches diag",
    "listes", "emplacement donnée", "donnée_ref", "organes", "lien_dtc_reqcontext", "lien_données_ds_organe",
    // the screens, which the synthetic targets hold too
    "catégories", "ecrans", "titres", "boutons", "scenarios", "affichages", "données_aff", "extra_aff", "seuils"};

std::string q(const std::string& name) { return "\"" + name + "\""; }

// Every row of the target tables in COPY's text form (the read floor).
std::vector<std::pair<std::string, std::string>> copyOut(PGconn* c) {
  std::vector<std::pair<std::string, std::string>> out;
  for (const char* t : kTargetTables) {
    PGresult* r = PQexec(c, ("COPY " + q(t) + " TO STDOUT").c_str());
    if (PQresultStatus(r) != PGRES_COPY_OUT) die(PQresultErrorMessage(r));
    PQclear(r);
    std::string data;
    char* buf = nullptr;
    int n;
    while ((n = PQgetCopyData(c, &buf, 0)) > 0) {
      data.append(buf, static_cast<size_t>(n));
      PQfreemem(buf);
    }
    PQclear(PQgetResult(c));
    out.emplace_back(t, std::move(data));
  }
  return out;
}

void copyIn(PGconn* c, const std::vector<std::pair<std::string, std::string>>& tables) {
  exec(c, "BEGIN");
  for (const auto& [t, data] : tables) {
    PGresult* r = PQexec(c, ("COPY " + q(t) + " FROM STDIN").c_str());
    if (PQresultStatus(r) != PGRES_COPY_IN) die(PQresultErrorMessage(r));
    PQclear(r);
    if (PQputCopyData(c, data.data(), static_cast<int>(data.size())) != 1 || PQputCopyEnd(c, nullptr) != 1) {
      die(PQerrorMessage(c));
    }
    r = PQgetResult(c);
    if (PQresultStatus(r) != PGRES_COMMAND_OK) die(PQresultErrorMessage(r));
    PQclear(r);
  }
  exec(c, "COMMIT");
}

// A plain SELECT of the target's rows, every value touched.
size_t selectAll(PGconn* c) {
  size_t cells = 0;
  for (const char* t : kTargetTables) {
    PGresult* r = PQexec(c, ("SELECT * FROM " + q(t)).c_str());
    if (PQresultStatus(r) != PGRES_TUPLES_OK) die(PQresultErrorMessage(r));
    for (int row = 0; row < PQntuples(r); ++row)
      for (int f = 0; f < PQnfields(r); ++f) cells += PQgetlength(r, row, f) + (PQgetisnull(r, row, f) ? 0u : 1u);
    PQclear(r);
  }
  return cells;
}

struct Times {
  double insert = 0, copy = 0, read = 0, select = 0;
};

Times runOnce(const std::string& uri, PGconn* admin, const SyntheticSize& size, const fs::path& work) {
  const std::string lib = freshDatabase(admin, uri, "kavrel_bench_lib");
  const std::string xml = (work / ("pg_target_" + size.label + ".xml")).string();
  Times t;
  int32_t address = 0, id = 0;
  {
    auto s = KavrelDatabase::create();
    s->DbOpen(lib);
    s->DbRead();
    buildSyntheticTarget(*s, size, s->functions()->Item(1)->Address());
    s->ExportUceToXml(xml);
    s->ClearTarget();
    s->ImportUceFromXml(xml);
    auto target = s->ActiveTarget();
    t.insert = millis([&] { target->dbInsertTargetAll(*s->DbConnection()); });
    address = target->Address();
    id = target->targetid();
    // Both reads run on settled tables, as autovacuum leaves them shortly
    // after a write: statistics gathered, and the first reader no longer
    // pays for marking every new row as committed.
    PGconn* settle = connect(lib);
    exec(settle, "VACUUM ANALYZE");
    PQfinish(settle);
    s->ClearTarget();
    auto again = s->NewTarget();
    t.read = millis([&] { again->dbReadTargetAll(*s->DbConnection(), address, id); });
    s->DbClose();
  }
  PGconn* c = connect(lib);
  auto rows = copyOut(c);
  t.select = millis([&] { selectAll(c); });
  PQfinish(c);
  const std::string floor = freshDatabase(admin, uri, "kavrel_bench_floor");
  c = connect(floor);
  t.copy = millis([&] { copyIn(c, rows); });
  PQfinish(c);
  return t;
}

}  // namespace

int runPostgres(const fs::path& work, int repeat, bool markdown, std::string server) {
  if (server.empty()) {
    const char* env = std::getenv("KAVREL_BENCH_POSTGRES");
    server = env ? env : "";
  }
  std::string started;
  if (server.empty()) {
    started = (fs::temp_directory_path() / ("kavrel-bench-pg-" + std::to_string(getpid()) + ".uri")).string();
    std::string cmd = std::string(KAVREL_SOURCE_DIR) + "/tests/support/pg_server.sh start " + started;
    if (std::system(cmd.c_str()) != 0) die("no server (give --server URI)");
    FILE* f = std::fopen(started.c_str(), "r");
    char line[512] = {};
    if (!f || !std::fgets(line, sizeof line, f)) die("no server URI");
    std::fclose(f);
    server = line;
    while (!server.empty() && (server.back() == '\n' || server.back() == ' ')) server.pop_back();
  }
  fs::create_directories(work);
  PGconn* admin = connect(server);
  const auto s = sizeS();
  std::map<std::string, Times> best;
  for (int r = 0; r < repeat; ++r) {
    for (const auto& size : {s, scaled(s, 10, "M"), scaled(s, 30, "L")}) {
      Times t = runOnce(server, admin, size, work);
      auto [it, first] = best.try_emplace(size.label, t);
      if (!first) {
        it->second.insert = std::min(it->second.insert, t.insert);
        it->second.copy = std::min(it->second.copy, t.copy);
        it->second.read = std::min(it->second.read, t.read);
        it->second.select = std::min(it->second.select, t.select);
      }
      if (!markdown) {
        std::printf("%s insert %.1f copy %.1f read %.1f select %.1f\n", size.label.c_str(), t.insert, t.copy, t.read,
                    t.select);
        std::fflush(stdout);
      }
    }
  }
  if (!std::getenv("KAVREL_BENCH_KEEP")) {
    exec(admin, "DROP DATABASE IF EXISTS kavrel_bench_lib WITH (FORCE)");
    exec(admin, "DROP DATABASE IF EXISTS kavrel_bench_floor WITH (FORCE)");
  }
  PQfinish(admin);
  if (!started.empty()) {
    std::string cmd = std::string(KAVREL_SOURCE_DIR) + "/tests/support/pg_server.sh stop " + started;
    if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "the bench's server may still run (%s)\n", started.c_str());
  }
  std::printf("| phase | size | time ms | floor ms | ratio |\n|---|---|---:|---:|---:|\n");
  for (const char* phase : {"insert", "read"}) {
    for (const char* label : {"S", "M", "L"}) {
      const Times& t = best[label];
      const bool ins = std::string(phase) == "insert";
      const double time = ins ? t.insert : t.read, floor = ins ? t.copy : t.select;
      std::printf("| %s (PostgreSQL) | %s | %.1f | %.1f | %.2f |\n", phase, label, time, floor, time / floor);
    }
  }
  std::printf("\n| growth L/S (30 is linear) | insert | read |\n|---|---:|---:|\n| | %.1f | %.1f |\n",
              best["L"].insert / best["S"].insert, best["L"].read / best["S"].read);
  return 0;
}

}  // namespace kavrel::bench
