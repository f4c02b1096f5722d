#include "commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
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

// One line of a report: control characters shown as blanks.
std::string oneLine(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (c == '\r' || c == '\n' || c == '\t') c = ' ';
  return out;
}

std::string describeReport(const ImportReport& report) {
  std::string counts;
  for (auto kind : {ImportEventKind::TruncatedName, ImportEventKind::DroppedLink, ImportEventKind::UnknownRequest,
                    ImportEventKind::RefusedRow, ImportEventKind::Other}) {
    const size_t n = report.count(kind);
    if (n == 0) continue;
    if (!counts.empty()) counts += ", ";
    counts += std::to_string(n) + " " + importEventKindName(kind) + (n == 1 ? "" : "s");
  }
  return counts;
}

// What a lenient import skipped or changed: counts by kind, then the first
// few of each kind with the element they concern.
void printReport(const ImportReport& report, const std::string& file) {
  if (report.empty()) return;
  std::cerr << "import report for " << file << ": " << describeReport(report) << '\n';
  for (const auto& e : report.kept()) {
    std::cerr << "  " << importEventKindName(e.kind);
    if (!e.path.empty()) std::cerr << " at " << e.path;
    std::cerr << ": " << oneLine(e.text) << '\n';
  }
}

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

bool stdoutClosed = false;

[[noreturn]] void failWrite(std::string_view command, const std::string& what, int err) {
  fail(kErrFile, command, "cannot write " + what + ": " + std::strerror(err));
}

// Everything the tool prints on standard output goes through here, so that
// a full disk, a closed descriptor or a reader gone away (SIGPIPE is
// ignored) is reported instead of lost.
void writeStdout(std::string_view data, std::string_view command) {
  if (stdoutClosed) failWrite(command, "to standard output", EBADF);
  while (!data.empty()) {
    const ssize_t n = ::write(STDOUT_FILENO, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      failWrite(command, "to standard output", errno);
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
}

// The temporary file being written, if any, for the handler of an
// interruption (Ctrl-C, kill) to remove before the process ends.
char pendingTemporary[4096] = {};

void removePendingTemporary(int signal) {
  if (pendingTemporary[0]) ::unlink(pendingTemporary);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void notePendingTemporary(const std::string& path) {
  if (path.size() >= sizeof pendingTemporary) return;
  std::memcpy(pendingTemporary, path.c_str(), path.size() + 1);
}

// A new, empty file of our own in `dir` (exclusively made, so nobody
// else's), named after `stem`.
std::string makeTemporary(const fs::path& dir, const std::string& stem, std::string_view command) {
  std::string pattern = (dir / ("." + stem + ".kavrel-XXXXXX")).string();
  const int fd = ::mkstemp(pattern.data());
  if (fd < 0) fail(kErrFile, command, "cannot create a temporary file in '" + dir.string() + "': " + std::strerror(errno));
  notePendingTemporary(pattern);
  // mkstemp gives 0600; a document is as readable as any new file.
  const mode_t mask = ::umask(0);
  ::umask(mask);
  ::fchmod(fd, 0666 & ~mask);
  ::close(fd);
  return pattern;
}

struct RemoveFile {
  std::string path;
  ~RemoveFile() {
    pendingTemporary[0] = '\0';
    if (path.empty()) return;
    std::error_code ec;
    fs::remove(path, ec);
  }
};

bool sameFile(const std::string& a, const std::string& b) {
  struct stat sa {}, sb {};
  return ::stat(a.c_str(), &sa) == 0 && ::stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

void syncFile(const std::string& path, std::string_view command) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0 || ::fsync(fd) != 0) {
    const int err = errno;
    if (fd >= 0) ::close(fd);
    failWrite(command, "'" + path + "'", err);
  }
  ::close(fd);
}

// Copies a finished document to standard output. The file is unlinked at
// once: whatever happens next, nothing is left behind.
void copyToStdout(const std::string& path, std::string_view command) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail(kErrFile, command, "cannot read '" + path + "': " + std::strerror(errno));
  ::unlink(path.c_str());
  pendingTemporary[0] = '\0';
  struct Close {
    int fd;
    ~Close() { ::close(fd); }
  } closer{fd};
  std::string buffer(1 << 16, '\0');
  for (;;) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      fail(kErrFile, command, "cannot read '" + path + "': " + std::strerror(errno));
    }
    if (n == 0) break;
    writeStdout(std::string_view(buffer.data(), static_cast<size_t>(n)), command);
  }
}

// Exports through `write(path)` to `output`, or to standard output when
// `output` is empty. A file is written beside its destination under a
// temporary name and renamed into place only once complete, so a failed
// export leaves the destination as it was; a destination that is no
// regular file (a device, a pipe) is written directly. The database being
// read is never a destination, under any name.
template <class Write>
void writeDocument(const std::string& database, const std::string& output, std::string_view command, Write write) {
  if (output.empty()) {
    RemoveFile tmp{makeTemporary(fs::temp_directory_path(), "kavrel-stdout", command)};
    write(tmp.path);
    copyToStdout(tmp.path, command);
    return;
  }
  for (const std::string& file : kavrel::db::localFilesOf(database))
    if (sameFile(output, file))
      fail(2, command, "'" + output + "' is the database '" + file + "' itself; choose another output file");
  std::error_code ec;
  const auto status = fs::status(fs::u8path(output), ec);
  if (fs::exists(status) && !fs::is_regular_file(status)) {
    if (fs::is_directory(status)) fail(kErrFile, command, "'" + output + "' is a folder");
    write(output);
    return;
  }
  // Through a symbolic link the file it names is replaced, not the link;
  // a replaced file keeps its permissions.
  fs::path destination = fs::u8path(output);
  if (fs::is_symlink(fs::symlink_status(destination, ec))) destination = fs::weakly_canonical(destination, ec);
  fs::path dir = destination.parent_path();
  if (dir.empty()) dir = ".";
  RemoveFile tmp{makeTemporary(dir, destination.filename().string(), command)};
  struct stat old {};
  if (::stat(destination.c_str(), &old) == 0) ::chmod(tmp.path.c_str(), old.st_mode & 07777);
  write(tmp.path);
  syncFile(tmp.path, command);
  if (std::rename(tmp.path.c_str(), destination.c_str()) != 0)
    fail(kErrFile, command, "cannot write '" + output + "': " + std::strerror(errno));
  pendingTemporary[0] = '\0';
  tmp.path.clear();
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
  int64_t screens = 0, labels = 0, buttons = 0, steps = 0;
  if (t.Categories())
    for (const auto& c : *t.Categories()) {
      if (!c->Screens()) continue;
      for (const auto& s : *c->Screens()) {
        ++screens;
        labels += countIn(s->LabelItems());
        buttons += countIn(s->ButtonItems());
        if (s->ButtonItems())
          for (const auto& b : *s->ButtonItems())
            if (b->hasScenarioItems()) steps += b->ScenarioItems()->Count();
      }
    }
  const Check checks[] = {
      {"requests", "Requêtes", countIn(t.Requests())},
      {"data items", "Données", countIn(t.datas())},
      {"data positions", "[Emplacement Donnée]", positions},
      {"devices", "Organes", countIn(t.Organes())},
      {"identification entries", "Identification", countIn(t.AutoIdents())},
      {"screen categories", "Catégories", countIn(t.Categories())},
      {"screens", "Ecrans", screens},
      {"labels", "Titres", labels},
      {"buttons", "Boutons", buttons},
      {"scenario steps", "Scenarios", steps},
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
  // Made exclusively: when another process made the file first, this fails
  // here and removes nothing.
  KavrelDatabase::createDatabase(database);
  std::string created;
  try {
    auto session = newSession();
    session->DbOpen(database);
    if (!parameters.empty()) session->importParametersFromXml(parameters);
    clearLastError();
    session->DbRead();
    throwIfPending();
    created = "created " + database + " (schema version 4): " + std::to_string(countIn(session->functions())) +
              " functions, " + std::to_string(countIn(session->protocols())) + " protocols, " +
              std::to_string(countIn(session->Pannes())) + " failure types, " +
              std::to_string(countIn(session->typeOrganes())) + " device types\n";
    session->DbClose();
  } catch (...) {
    // A half-made database is of no use, and this one is ours: leave
    // nothing behind (a file with its journals, or a server's new tables).
    try {
      db::removeDatabase(database);
    } catch (...) {
      // The first failure is the one to report.
    }
    std::error_code ec;
    for (const char* suffix : {"-wal", "-shm"}) fs::remove(fs::u8path(database + suffix), ec);
    throw;
  }
  writeStdout(created, "init");
  return 0;
}

int runCheck(const std::string& database) {
  auto session = newSession();
  session->DbOpen(database);
  clearLastError();
  if (!session->IsKavrelDatabase()) throwIfPending();
  const std::string line = database + ": definitions database, schema version " + session->dbVersion() + "\n";
  session->DbClose();
  writeStdout(line, "check");
  return 0;
}

// Targets as text fields: the default lines as they always were; "tsv"
// escapes what would break a line or a field (backslash, TAB, LF, CR) as
// \\ \t \n \r and starts with a header line; "json" is one array of
// objects.
std::string tsvField(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\t': out += "\\t"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      default: out += c;
    }
  }
  return out;
}

std::string jsonString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      default:
        if (u < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", u);
          out += buf;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

int runTargets(const std::string& database, const std::string& format) {
  if (format != "text" && format != "tsv" && format != "json")
    fail(2, "targets", "unknown format '" + format + "' (text, tsv or json)");
  auto session = openSession(database, false);
  db::Connection& conn = *session->DbConnection();
  struct Row {
    std::string name;
    int32_t address;
    int32_t id;
    int64_t requests, datas, devices, screens;
  };
  std::vector<Row> rows;
  {
    // The list and every count from one snapshot.
    db::Transaction snapshot(conn, db::Transaction::Kind::Read);
    auto rs = conn.execute("SELECT [Target Name],Address,[Target Id] FROM Cibles ORDER BY [Target Name],[Target Id]");
    for (; !rs->eof(); rs->moveNext())
      rows.push_back({rs->field(0).toText(), rs->field(1).isNull() ? 0 : rs->field(1).toInt32(),
                      rs->field(2).toInt32(), 0, 0, 0, 0});
    rs->close();
    for (auto& r : rows) {
      r.requests = countOf(conn, "Requêtes", r.id);
      r.datas = countOf(conn, "Données", r.id);
      r.devices = countOf(conn, "Organes", r.id);
      r.screens = countOf(conn, "Ecrans", r.id);
    }
    snapshot.commit();
  }
  session->DbClose();
  std::string out;
  auto numbers = [](const Row& r) {
    return std::to_string(r.address) + '\t' + std::to_string(r.id) + '\t' + std::to_string(r.requests) + '\t' +
           std::to_string(r.datas) + '\t' + std::to_string(r.devices) + '\t' + std::to_string(r.screens) + '\n';
  };
  if (format == "json") {
    out = "[";
    for (size_t i = 0; i < rows.size(); ++i) {
      const Row& r = rows[i];
      out += (i ? ",\n " : "\n ");
      out += "{\"name\": " + jsonString(r.name) + ", \"address\": " + std::to_string(r.address) +
             ", \"id\": " + std::to_string(r.id) + ", \"requests\": " + std::to_string(r.requests) +
             ", \"dataItems\": " + std::to_string(r.datas) + ", \"devices\": " + std::to_string(r.devices) +
             ", \"screens\": " + std::to_string(r.screens) + "}";
    }
    out += rows.empty() ? "]\n" : "\n]\n";
  } else {
    if (format == "tsv") out = "name\taddress\tid\trequests\tdata items\tdevices\tscreens\n";
    for (const auto& r : rows) out += (format == "tsv" ? tsvField(r.name) : r.name) + '\t' + numbers(r);
  }
  writeStdout(out, "targets");
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
  // The library reads the target from one snapshot of the database.
  writeDocument(o.database, o.output, "export", [&](const std::string& path) {
    clearLastError();
    session->ExportNamedUceToXml(o.database, o.target, path);
    throwIfPending();
  });
  if (!o.output.empty()) writeStdout("exported '" + o.target + "' to " + o.output + "\n", "export");
  return 0;
}

namespace {

// Where the document cannot be read, say where (the library names only the
// missing root).
void explainUnreadable(const std::string& file) {
  xml::Document probe;
  if (!probe.load(file)) {
    const auto& pe = probe.parseError();
    std::cerr << file << ": line " << pe.line << ", column " << pe.column << ": " << pe.reason << '\n';
  }
}

void setLockTimeout(const std::optional<double>& seconds) {
  if (seconds) ::setenv("KAVREL_LOCK_TIMEOUT", std::to_string(*seconds).c_str(), 1);
}

}  // namespace

int runImport(const ImportOptions& o) {
  const std::string& database = o.database;
  const std::string& file = o.file;
  if (!fs::is_regular_file(fs::u8path(file))) fail(1, "import", "'" + file + "' not found");
  setLockTimeout(o.lockTimeout);
  auto session = openSession(database, false);
  const std::shared_ptr<db::Connection> connection = session->DbConnection();
  db::Connection& conn = *connection;
  // What the import skips or changes is collected, not printed as it comes.
  auto report = std::make_shared<ImportReport>();
  ScopedHost collecting(report);

  std::shared_ptr<TargetItem> target;
  bool exists = false;
  std::optional<ErrorRecord> pending;
  // Each attempt starts from the catalogues as stored and the document as
  // read: one that another writer's conflict failed (a deadlock on a server)
  // left nothing behind and runs again whole (db::retryOnConflict).
  db::retryOnConflict(conn, [&] {
    report->clear();
    {
      db::Transaction snapshot(conn, db::Transaction::Kind::Read);
      clearLastError();
      session->DbRead();
      throwIfPending();
      snapshot.commit();
    }

    // The document is read before the write lock is taken, so that several
    // imports at once wait only for each other's writes, not their parsing.
    // Without its connection the session writes nothing meanwhile; the CAN
    // identifiers the document gives a function are written below, under
    // the lock.
    std::map<const FunctionItem*, std::pair<int32_t, int32_t>> canBefore;
    if (auto functions = session->functions())
      for (const auto& f : *functions) canBefore[f.get()] = {f->CanXId(), f->CanRId()};
    session->setDbConnection(nullptr);
    try {
      session->ImportUceFromXml(file);
    } catch (const Error&) {
      session->setDbConnection(connection);
      explainUnreadable(file);
      std::cerr << file << ": the target cannot be read; nothing was imported\n";
      throw;
    }
    session->setDbConnection(connection);
    target = session->ActiveTarget();
    if (target->name().empty())
      fail(1, "import", "'" + file + "' holds a target without a name; nothing was imported");

    // One transaction: the function's CAN identifiers, the old target's
    // deletion and the insertion stand or fall together. Taking it waits for
    // another writer up to the lock timeout.
    db::Transaction tx(conn);
    if (auto functions = session->functions())
      for (const auto& f : *functions) {
        auto was = canBefore.find(f.get());
        if (was != canBefore.end() && was->second != std::make_pair(f->CanXId(), f->CanRId())) f->dbUpdate(conn);
      }
    // Another writer importing the same name waits here until this import
    // ends, then finds the target stored.
    conn.lockKey("target " + names::key(target->name()));

    int32_t address = 0;
    int32_t targetid = 0;
    exists = session->DbFindUceByName(target->name(), address, targetid);
    if (exists && !o.replace)
      fail(2, "import",
           "Target '" + target->name() + "' already exists in " + database + " (use --replace to replace it)");
    if (exists) deleteStoredTarget(*session, address, targetid);

    clearLastError();
    target->dbInsertTargetAll(conn);  // an engine failure (disk full, ...) throws here, once
    pending.reset();
    if (lastError().pending()) pending = lastError();
    clearLastError();
    try {
      verifyStored(conn, *target);
      if (o.strict && !report->empty()) {
        const auto first = report->kept().front();
        fail(1, "import",
             "strict import of '" + file + "': " + describeReport(*report) + " (first: " +
                 (first.path.empty() ? "" : first.path + ": ") + oneLine(first.text) + "); nothing was imported");
      }
    } catch (const DbError&) {
      throw;
    } catch (const Error&) {
      printReport(*report, file);
      throw;
    }
    tx.commit();
  });
  printReport(*report, file);
  if (pending) std::cerr << "warning (" << pending->reportedSource() << "): " << oneLine(pending->description) << '\n';
  const std::string line = std::string(exists ? "replaced '" : "imported '") + target->name() + "' (address " +
                           std::to_string(target->Address()) + ", id " + std::to_string(target->targetid()) +
                           ") into " + database + "\n";
  session->DbClose();
  writeStdout(line, "import");
  return 0;
}

int runExportParameters(const std::string& database, const std::string& output,
                        const std::optional<std::string>& encoding) {
  auto session = openSession(database, false);
  {
    db::Transaction snapshot(*session->DbConnection(), db::Transaction::Kind::Read);
    clearLastError();
    session->DbRead();
    throwIfPending();
    snapshot.commit();
  }
  writeDocument(database, output, "export-parameters", [&](const std::string& path) {
    clearLastError();
    session->ExportParametersToXml(path, encoding);
    throwIfPending();
  });
  session->DbClose();
  if (!output.empty()) writeStdout("exported the parameters to " + output + "\n", "export-parameters");
  return 0;
}

int runDelete(const std::string& database, const std::string& target, const std::optional<double>& lockTimeout) {
  setLockTimeout(lockTimeout);
  auto session = openSession(database, false);
  db::Connection& conn = *session->DbConnection();
  // Found and deleted under the write lock: nobody replaces it in between.
  // Lost to another writer's conflict, it runs again (db::retryOnConflict).
  int32_t address = 0;
  int32_t targetid = 0;
  db::retryOnConflict(conn, [&] {
    db::Transaction tx(conn);
    if (!session->DbFindUceByName(target, address, targetid))
      fail(1, "delete", "Target '" + target + "' not found in " + database);
    deleteStoredTarget(*session, address, targetid);
    tx.commit();
  });
  session->DbClose();
  writeStdout("deleted '" + target + "' (address " + std::to_string(address) + ", id " + std::to_string(targetid) +
                  ") from " + database + "\n",
              "delete");
  return 0;
}

void removeTemporaryFilesOnInterrupt() {
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) std::signal(signal, removePendingTemporary);
}

void noteClosedStandardStreams() {
  // A descriptor left closed by the caller would be handed to the next file
  // opened (a database, a document) and output would land there: hold the
  // place with /dev/null, and report writes to a closed standard output.
  for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) != -1 || errno != EBADF) continue;
    const int null = ::open("/dev/null", fd == STDIN_FILENO ? O_RDONLY : O_WRONLY);
    if (null >= 0 && null != fd) {
      ::dup2(null, fd);
      ::close(null);
    }
    if (fd == STDOUT_FILENO) stdoutClosed = true;
  }
}

}  // namespace kavrel::cli
