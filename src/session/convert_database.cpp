#include "kavrel/session/convert_database.h"

#include <charconv>
#include <filesystem>
#include <utility>

#include "kavrel/kavrel.h"

namespace kavrel {

namespace {

namespace fs = std::filesystem;

constexpr const char* kSource = "convertDatabase";
constexpr int32_t kErrFileExists = 58;
constexpr int32_t kErrConvert = 3001;

// "1", "2" or "3": the layout the older-layout readers read.
bool isOlderVersion(const std::string& v) {
  int n = 0;
  auto [p, ec] = std::from_chars(v.data(), v.data() + v.size(), n);
  return ec == std::errc() && p == v.data() + v.size() && n >= 1 && n < 4;
}

void throwIfPending(const std::string& prefix) {
  if (!lastError().pending()) return;
  ErrorRecord e = lastError();
  clearLastError();
  throw Error(e.number, e.source, prefix + e.description);
}

int64_t count(db::Connection& conn, const std::string& sql) {
  auto rs = conn.execute(sql);
  int64_t n = rs->eof() ? 0 : rs->field(0).toInt64();
  rs->close();
  return n;
}

// Rows of `table` in the source, or -1 when it has no such table.
int64_t sourceRows(db::Connection& conn, const std::string& table) {
  try {
    return count(conn, "SELECT count(*) FROM [" + table + "]");
  } catch (const Error&) {
    conn.clearErrors();
    return -1;
  }
}

template <class C>
int64_t countIn(const std::shared_ptr<C>& c) {
  return c ? c->Count() : 0;
}

void checkStored(db::Connection& dst, const TargetItem& t) {
  int64_t positions = 0, lists = 0;
  if (t.Requests())
    for (const auto& r : *t.Requests()) positions += countIn(r->DataPositions());
  if (t.datas())
    for (const auto& d : *t.datas()) lists += countIn(d->DataListes());
  const std::string id = std::to_string(t.targetid());
  const struct {
    const char* what;
    int64_t read;
    int64_t stored;
  } checks[] = {
      {"requests", countIn(t.Requests()), count(dst, "SELECT count(*) FROM Requêtes WHERE [Target Id]=" + id)},
      {"data items", countIn(t.datas()), count(dst, "SELECT count(*) FROM Données WHERE [Target Id]=" + id)},
      {"data positions", positions, count(dst, "SELECT count(*) FROM [Emplacement Donnée] WHERE [Target Id]=" + id)},
      {"list entries", lists,
       count(dst, "SELECT count(*) FROM Listes WHERE [Data Id] IN (SELECT [Data Id] FROM Données WHERE [Target Id]=" +
                      id + ")")},
  };
  for (const auto& c : checks) {
    if (c.read != c.stored) {
      raise(kErrConvert, kSource,
            "Target '" + t.name() + "': " + std::to_string(c.read) + " " + c.what + " read but " +
                std::to_string(c.stored) + " written");
    }
  }
}

std::vector<db::TableCopy> convertOlder(KavrelDatabase& src, db::Connection& dst,
                                        const std::function<void(const db::TableCopy&)>& progress) {
  db::Connection& in = *src.DbConnection();
  clearLastError();
  src.dbReadKVR();
  throwIfPending("Reading the catalogues: ");

  db::Transaction tx(dst);
  dst.deferConstraintChecks();
  src.functions()->dbInsertAll(dst);
  src.protocols()->dbInsertAll(dst);
  if (src.typeOrganes()) src.typeOrganes()->dbInsertAll(dst);
  if (src.Pannes()) src.Pannes()->dbInsertAll(dst);

  std::vector<std::pair<int32_t, int32_t>> targets;
  {
    auto rs = in.execute("SELECT Address,[Target Id] FROM Cibles ORDER BY [Target Id]");
    for (; !rs->eof(); rs->moveNext()) {
      targets.emplace_back(rs->field(0).isNull() ? 0 : rs->field(0).toInt32(), rs->field(1).toInt32());
    }
    rs->close();
  }
  for (const auto& [address, id] : targets) {
    auto t = src.NewTarget();
    try {
      t->dbReadTargetAllKVR(in, address, id);
    } catch (const Error& e) {
      throw Error(e.number(), e.rawSource(), "Reading target " + std::to_string(id) + ": " + e.description());
    }
    clearLastError();
    t->dbInsertTargetAll(dst);
    throwIfPending("Target '" + t->name() + "': ");
    checkStored(dst, *t);
  }
  src.ClearTarget();

  std::vector<db::TableCopy> result;
  for (const std::string& table : db::schemaTables()) {
    db::TableCopy c;
    c.table = table;
    c.rowsRead = sourceRows(in, table);
    c.rowsWritten = count(dst, "SELECT count(*) FROM [" + table + "]");
    // A target whose address has no function row gets one written for it.
    const bool oneToOne = table == "Protocoles" || table == "Cibles" || table == "Requêtes";
    const bool atLeast = table == "Fonctions";
    if ((oneToOne && c.rowsRead != c.rowsWritten) || (atLeast && c.rowsWritten < c.rowsRead)) {
      raise(kErrConvert, kSource,
            "Table " + table + ": " + std::to_string(c.rowsRead) + " rows read but " + std::to_string(c.rowsWritten) +
                " written");
    }
    result.push_back(c);
  }
  tx.commit();
  if (progress)
    for (const auto& c : result) progress(c);
  return result;
}

}  // namespace

std::vector<db::TableCopy> convertDatabase(const std::string& source, const std::string& destination,
                                           const std::function<void(const db::TableCopy&)>& progress) {
  std::error_code ec;
  if (fs::exists(fs::u8path(destination), ec)) {
    raise(kErrFileExists, kSource, "Cannot create the database '" + destination + "': the file already exists");
  }
  if (text::right(destination, 4) == ".mdb") {
    raise(kErrConvert, kSource,
          "Cannot create '" + destination + "': legacy Access files are only read; name an SQLite database");
  }
  auto src = KavrelDatabase::create();
  src->DbOpen(source);
  clearLastError();
  const bool current = src->IsKavrelDatabase();
  if (!current && !(lastError().number == 5 && isOlderVersion(src->dbVersion()))) {
    throwIfPending("");
  }
  clearLastError();

  db::createDatabase(destination);
  std::shared_ptr<db::Connection> dst;
  std::vector<db::TableCopy> result;
  try {
    dst = db::openConnection(destination);
    db::retryOnConflict(*dst, [&] {
      result = current ? db::copyDatabase(*src->DbConnection(), *dst, progress) : convertOlder(*src, *dst, progress);
    });
    dst->close();
  } catch (...) {
    // A half-made database is of no use: leave nothing behind.
    if (dst) {
      try {
        dst->close();
      } catch (...) {
      }
    }
    try {
      db::removeDatabase(destination);
    } catch (...) {
      // The first failure is the one to report.
    }
    throw;
  }
  src->DbClose();
  return result;
}

}  // namespace kavrel
