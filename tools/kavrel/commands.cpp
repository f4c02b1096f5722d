#include "commands.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "kavrel/kavrel.h"
#include "kavrel/platform/names.h"

namespace kavrel::cli {

namespace {

namespace fs = std::filesystem;

// Failures of the tool itself (not of the library) carry this source.
std::string toolSource(std::string_view command) { return "kavrel " + std::string(command); }

[[noreturn]] void fail(int32_t number, std::string_view command, std::string description) {
  throw Error(number, toolSource(command), std::move(description));
}

// A failure the library left as the pending error becomes a thrown one.
void throwIfPending() {
  if (lastError().pending()) {
    ErrorRecord e = lastError();
    clearLastError();
    throw Error(e.number, e.source, e.description);
  }
}

class ConsoleHost : public HostServices {
 public:
  void messageBox(std::string_view text, std::string_view title, MessageIcon icon) override {
    const char* kind = icon == MessageIcon::Critical      ? "error"
                       : icon == MessageIcon::Exclamation ? "warning"
                                                          : "message";
    std::cerr << kind << " (" << title << "): " << text << '\n';
  }
  void logEvent(EventType type, std::string_view text) override {
    const char* kind = type == EventType::Error ? "error" : type == EventType::Warning ? "warning" : "information";
    std::cerr << "event log, " << kind << ": " << text << '\n';
  }
};

std::shared_ptr<KavrelDatabase> newSession() {
  auto session = KavrelDatabase::create();
  session->WarningInfo.subscribe([](const std::string& libClass, const std::string& message) {
    std::cerr << "warning (" << libClass << "): " << message << '\n';
  });
  return session;
}

// Opens an existing definitions database and checks that it is one; with
// `readCatalogues` the shared catalogues are loaded as well.
std::shared_ptr<KavrelDatabase> openSession(const std::string& database, bool readCatalogues) {
  auto session = newSession();
  session->DbOpen(database);
  clearLastError();
  if (!session->IsKavrelDatabase()) throwIfPending();
  clearLastError();
  if (readCatalogues) {
    session->DbRead();
    throwIfPending();
  }
  return session;
}

int64_t countRows(db::Connection& conn, const std::string& sql) {
  auto rs = conn.execute(sql);
  int64_t n = rs->eof() ? 0 : rs->field(0).toInt64();
  rs->close();
  return n;
}

int64_t countOf(db::Connection& conn, std::string_view table, int32_t targetid) {
  return countRows(conn, "SELECT count(*) FROM " + std::string(table) + " WHERE [Target Id]=" + std::to_string(targetid));
}

// A file name of our own for output that goes to standard output.
std::string temporaryFile(std::string_view stem) {
  static std::atomic<int> counter{0};
  fs::path p = fs::temp_directory_path() /
               ("kavrel-" + std::string(stem) + "-" + std::to_string(::getpid()) + "-" + std::to_string(++counter) + ".xml");
  return p.string();
}

void copyToStdout(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::cout << in.rdbuf();
  std::cout.flush();
}

// Exports through `write(path)` to `output`, or to standard output through a
// temporary file when `output` is empty.
template <class Write>
void writeDocument(const std::string& output, std::string_view stem, Write write) {
  if (!output.empty()) {
    write(output);
    return;
  }
  const std::string tmp = temporaryFile(stem);
  struct Remove {
    std::string path;
    ~Remove() {
      std::error_code ec;
      fs::remove(path, ec);
    }
  } remove{tmp};
  write(tmp);
  copyToStdout(tmp);
}

// Deletes the stored target (address, id) through the session, inside the
// caller's transaction.
void deleteStoredTarget(KavrelDatabase& session, int32_t address, int32_t targetid) {
  auto old = TargetItem::create();
  old->setParent(session.shared_from_this());
  old->DbRead(*session.DbConnection(), address, targetid);
  old->setTargetid(targetid);
  auto keep = session.ActiveTarget();
  session.setActiveTarget(old);
  session.DbDeleteUce();  // clears `old` and the active target
  session.setActiveTarget(keep);
}

template <class Collection>
int64_t countIn(const std::shared_ptr<Collection>& c) {
  return c ? c->Count() : 0;
}

// What was written for the target must be what it holds in memory: a row
// refused by the database inside the bulk insert is not reported there.
void verifyStored(db::Connection& conn, const TargetItem& t) {
  struct Check {
    const char* what;
    const char* table;
    int64_t expected;
  };
  int64_t positions = 0;
  if (t.Requests())
    for (const auto& r : *t.Requests()) positions += countIn(r->DataPositions());
  const Check checks[] = {
      {"requests", "Requêtes", countIn(t.Requests())},
      {"data items", "Données", countIn(t.datas())},
      {"data positions", "[Emplacement Donnée]", positions},
      {"devices", "Organes", countIn(t.Organes())},
      {"identification entries", "Identification", countIn(t.AutoIdents())},
  };
  for (const auto& c : checks) {
    const int64_t stored = countOf(conn, c.table, t.targetid());
    if (stored != c.expected)
      fail(1, "import",
           "Target '" + t.name() + "' not stored: " + std::to_string(stored) + " of " + std::to_string(c.expected) +
               " " + c.what + " written; nothing was imported");
  }
}

}  // namespace

void installConsoleHost() { setHost(std::make_shared<ConsoleHost>()); }

int runInit(const std::string& database, const std::string& parameters) {
  if (fs::exists(fs::u8path(database))) fail(2, "init", "'" + database + "' already exists");
  if (!parameters.empty() && !fs::is_regular_file(fs::u8path(parameters)))
    fail(1, "init", "'" + parameters + "' not found");
  KavrelDatabase::createDatabase(database);
  try {
    auto session = newSession();
    session->DbOpen(database);
    if (!parameters.empty()) session->importParametersFromXml(parameters);
    clearLastError();
    session->DbRead();
    throwIfPending();
    std::cout << "created " << database << " (schema version 4): " << countIn(session->functions()) << " functions, "
              << countIn(session->protocols()) << " protocols, " << countIn(session->Pannes()) << " failure types, "
              << countIn(session->typeOrganes()) << " device types\n";
    session->DbClose();
  } catch (...) {
    // A half-made database is of no use: leave nothing behind.
    try {
      db::removeDatabase(database);
    } catch (...) {
      // The first failure is the one to report.
    }
    throw;
  }
  return 0;
}

int runCheck(const std::string& database) {
  auto session = newSession();
  session->DbOpen(database);
  clearLastError();
  if (!session->IsKavrelDatabase()) throwIfPending();
  std::cout << database << ": definitions database, schema version " << session->dbVersion() << '\n';
  session->DbClose();
  return 0;
}

int runTargets(const std::string& database) {
  auto session = openSession(database, false);
  db::Connection& conn = *session->DbConnection();
  struct Row {
    std::string name;
    int32_t address;
    int32_t id;
  };
  std::vector<Row> rows;
  auto rs = conn.execute("SELECT [Target Name],Address,[Target Id] FROM Cibles ORDER BY [Target Name],[Target Id]");
  for (; !rs->eof(); rs->moveNext())
    rows.push_back({rs->field(0).toText(), rs->field(1).isNull() ? 0 : rs->field(1).toInt32(), rs->field(2).toInt32()});
  rs->close();
  for (const auto& r : rows) {
    std::cout << r.name << '\t' << r.address << '\t' << r.id << '\t' << countOf(conn, "Requêtes", r.id) << '\t'
              << countOf(conn, "Données", r.id) << '\t' << countOf(conn, "Organes", r.id) << '\t'
              << countOf(conn, "Ecrans", r.id) << '\n';
  }
  session->DbClose();
  return 0;
}

int runExport(const ExportOptions& o) {
  auto session = newSession();
  if (o.encoding) session->setXmlEncoding(*o.encoding);
  if (o.styleSheet) session->setXmlStyleSheet(*o.styleSheet);
  if (o.noStyleSheet) session->setXmlStyleSheet("");
  if (o.noNamespace) {
    session->setXmlns("");
    session->setXmlScreenSchema("");
  }
  writeDocument(o.output, "target", [&](const std::string& path) {
    clearLastError();
    session->ExportNamedUceToXml(o.database, o.target, path);
    throwIfPending();
  });
  if (!o.output.empty()) std::cout << "exported '" << o.target << "' to " << o.output << '\n';
  return 0;
}

int runImport(const std::string& database, const std::string& file, bool replace) {
  if (!fs::is_regular_file(fs::u8path(file))) fail(1, "import", "'" + file + "' not found");
  auto session = openSession(database, true);
  {
    // The library refuses an unreadable file for its missing root; say why.
    xml::Document probe;
    if (!probe.load(file)) {
      const auto& pe = probe.parseError();
      std::cerr << file << ": line " << pe.line << ", column " << pe.column << ": " << pe.reason << '\n';
    }
  }
  db::Connection& conn = *session->DbConnection();
  // One transaction: the import (which may update a function's CAN
  // identifiers), the old target's deletion and the insertion stand or fall
  // together.
  db::Transaction tx(conn);
  try {
    session->ImportUceFromXml(file);
  } catch (const Error&) {
    std::cerr << file << ": the target cannot be read; nothing was imported\n";
    throw;
  }
  auto target = session->ActiveTarget();
  if (target->name().empty()) fail(1, "import", "'" + file + "' holds a target without a name; nothing was imported");

  // Another writer importing the same name waits here until this import
  // ends, then finds the target stored.
  conn.lockKey("target " + names::key(target->name()));
  int32_t address = 0;
  int32_t targetid = 0;
  const bool exists = session->DbFindUceByName(target->name(), address, targetid);
  if (exists && !replace)
    fail(2, "import",
         "Target '" + target->name() + "' already exists in " + database + " (use --replace to replace it)");
  if (exists) deleteStoredTarget(*session, address, targetid);

  clearLastError();
  target->dbInsertTargetAll(conn);
  if (lastError().pending()) {
    const ErrorRecord& e = lastError();
    std::cerr << "warning (" << e.reportedSource() << "): " << e.description << '\n';
    clearLastError();
  }
  verifyStored(conn, *target);
  tx.commit();
  std::cout << (exists ? "replaced '" : "imported '") << target->name() << "' (address " << target->Address()
            << ", id " << target->targetid() << ") into " << database << '\n';
  session->DbClose();
  return 0;
}

int runExportParameters(const std::string& database, const std::string& output,
                        const std::optional<std::string>& encoding) {
  auto session = openSession(database, true);
  writeDocument(output, "parameters", [&](const std::string& path) {
    clearLastError();
    session->ExportParametersToXml(path, encoding);
    throwIfPending();
  });
  session->DbClose();
  if (!output.empty()) std::cout << "exported the parameters to " << output << '\n';
  return 0;
}

int runDelete(const std::string& database, const std::string& target) {
  auto session = openSession(database, false);
  int32_t address = 0;
  int32_t targetid = 0;
  if (!session->DbFindUceByName(target, address, targetid))
    fail(1, "delete", "Target '" + target + "' not found in " + database);
  db::Connection& conn = *session->DbConnection();
  db::Transaction tx(conn);
  deleteStoredTarget(*session, address, targetid);
  tx.commit();
  std::cout << "deleted '" << target << "' (address " << address << ", id " << targetid << ") from " << database
            << '\n';
  session->DbClose();
  return 0;
}

}  // namespace kavrel::cli
