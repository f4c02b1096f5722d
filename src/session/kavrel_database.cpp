// The session: connection, database identity and version, catalogues and the
// active target. The XML document methods live in xml_documents.cpp.
#include "kavrel/session/kavrel_database.h"

#include <string>
#include <utility>

#include "kavrel/catalogues/function_items.h"
#include "kavrel/catalogues/panne_items.h"
#include "kavrel/catalogues/protocol_items.h"
#include "kavrel/catalogues/type_organe_items.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/platform/xml.h"
#include "kavrel/target/target_item.h"

namespace kavrel {

namespace {

// The schema version this library reads and writes.
constexpr const char* kSupportedVersion = "4";
constexpr const char* kVersionQuery = "SELECT [value] FROM [system] WHERE [parameter]='version'";
constexpr const char* kIsKavrelSource = "KavrelDatabase.IsKavrelDatabase";
constexpr const char* kImportSource = "KavrelDatabase.importParametersFromXml";

// Deployment defaults of the documents' namespaces and preview stylesheet.
constexpr const char* kDefaultEcuNamespace = "http://diagnostics.kavrel.example/2002/ECU";
constexpr const char* kDefaultScreenNamespace = "http://diagnostics.kavrel.example/2002/screens";
constexpr const char* kDefaultStyleSheet = "http://intranet.diagnostics.kavrel.example/Kavrel/KVRECUPreview.xsl";

// The connection string DbOpen uses for a database name.
std::string connectionStringFor(const std::string& name) {
  const std::string ext = text::right(name, 4);
  if (ext == ".mdb") return "Provider=Microsoft.Jet.OLEDB.4.0;Mode=ReadWrite;Data source=" + name;
  if (ext == ".udl") return "File name=" + name;
  return name;
}

}  // namespace

std::shared_ptr<KavrelDatabase> KavrelDatabase::create() { return std::make_shared<KavrelDatabase>(CreateToken()); }

KavrelDatabase::KavrelDatabase(CreateToken)
    : xmlns_(kDefaultEcuNamespace),
      xmlScreenSchema_(kDefaultScreenNamespace),
      xmlStyleSheet_(kDefaultStyleSheet),
      xmlEncoding_("UTF-8") {}

KavrelDatabase::~KavrelDatabase() {
  functions_.reset();
  Pannes_.reset();
  typeOrganes_.reset();
  protocols_.reset();
  try {
    ClearTarget();
  } catch (...) {
  }
  try {
    if (DbConnection_) DbConnection_->close();
  } catch (...) {
  }
  clearLastError();
  DbConnection_.reset();
}

db::Connection& KavrelDatabase::connection() const {
  if (!DbConnection_) raise(2, "", "Error database not defined");
  return *DbConnection_;
}

void KavrelDatabase::setFileName(std::string v) {
  DbClose();
  fileName_ = std::move(v);
}

// ---- target

void KavrelDatabase::ClearTarget() {
  if (!ActiveTarget_) return;
  ActiveTarget_->clear();
  ActiveTarget_.reset();
}

std::shared_ptr<TargetItem> KavrelDatabase::NewTarget() {
  ClearTarget();
  auto target = TargetItem::create();
  target->setParent(shared_from_this());
  ActiveTarget_ = target;
  return target;
}

// ---- database

void KavrelDatabase::DbOpen(const std::string& fileName) {
  if (DbConnection_) raise(1, "KavrelDatabase.DbOpen", "Database already open");
  if (!fileName.empty())
    fileName_ = fileName;
  else if (fileName_.empty())
    raise(2, "KavrelDatabase", "Error database name not defined");
  // Open failures reach the caller and leave the session without a
  // connection (the factory hands out no unopened connection object).
  DbConnection_ = db::openConnection(connectionStringFor(fileName_));
}

bool KavrelDatabase::IsKavrelDatabase() {
  clearLastError();
  std::unique_ptr<db::Recordset> rs;
  const bool queried = trap([&] {
    if (!DbConnection_) raise(2, "", "Error database not defined");
    rs = DbConnection_->execute(kVersionQuery);
  });
  if (!queried) {
    clearLastError();
    dbVersion_ = "-1";
    recordError(3, kIsKavrelSource, "system table missing, database is not a Kavrel database");
    return false;
  }
  bool empty = true;
  trap([&] { empty = rs->eof(); });
  if (empty) {
    trap([&] { rs->close(); });
    dbVersion_ = "-1";
    recordError(4, kIsKavrelSource, "version undefined, database is not a Kavrel database");
    return false;
  }
  trap([&] { dbVersion_ = rs->field("value").toText(); });
  trap([&] { rs->close(); });
  if (dbVersion_ != kSupportedVersion) {
    recordError(5, kIsKavrelSource, "Bad version, use builder to convert database to lastest version");
    return false;
  }
  return true;
}

void KavrelDatabase::CheckDatabaseVersion() {
  clearLastError();
  std::unique_ptr<db::Recordset> rs;
  const bool queried = trap([&] {
    if (!DbConnection_) raise(2, "", "Error database not defined");
    rs = DbConnection_->execute(kVersionQuery);
  });
  if (!queried) {
    clearLastError();
    dbVersion_ = "-1";
    recordError(3, "", "system table missing, database is not a Kavrel database");
    return;
  }
  bool empty = true;
  trap([&] { empty = rs->eof(); });
  if (empty) {
    trap([&] { rs->close(); });
    dbVersion_ = "-1";
    recordError(4, "", "version undefined, bad Kavrel database");
    return;
  }
  trap([&] { dbVersion_ = rs->field("value").toText(); });
  trap([&] { rs->close(); });
  if (dbVersion_ != kSupportedVersion)
    recordError(5, "",
                "bad database version, database version = " + dbVersion_ + "  supported=" + kSupportedVersion +
                    ", contact hotline");
  // A mismatch leaves only dbVersion as its trace.
  clearLastError();
}

void KavrelDatabase::DbClose() {
  if (!DbConnection_) return;
  auto conn = std::move(DbConnection_);
  DbConnection_.reset();
  // The session forgets its data even when closing fails; the failure then
  // still reaches the caller.
  struct Forget {
    KavrelDatabase& s;
    ~Forget() {
      try {
        s.ClearTarget();
      } catch (...) {
      }
      s.functions_.reset();
      s.Pannes_.reset();
      s.typeOrganes_.reset();
      s.protocols_.reset();
    }
  } forget{*this};
  conn->close();
}

namespace {

enum class FunctionLayout { Current, Older };

}  // namespace

// DbRead and dbReadKVR differ only in how the functions are read.
static void readCatalogues(KavrelDatabase& s, FunctionLayout layout) {
  if (!s.DbConnection()) {
    if (s.fileName().empty()) raise(2, "", "Error database not defined");
    s.DbOpen();
  }
  db::Connection& conn = *s.DbConnection();
  clearLastError();

  // Whatever step fails, no catalogue is left null: one the read does not
  // reach keeps what it held, or is empty if it was never read.
  if (!s.protocols()) s.setProtocols(std::make_shared<ProtocolItems>());
  if (!s.typeOrganes()) s.setTypeOrganes(std::make_shared<TypeOrganeItems>());
  if (!s.Pannes()) s.setPannes(std::make_shared<PanneItems>());
  s.setFunctions(nullptr);
  s.setFunctions(std::make_shared<FunctionItems>());
  trap([&] {
    if (layout == FunctionLayout::Current)
      s.functions()->DbRead(conn);
    else
      s.functions()->dbReadKVR(conn);
  });
  if (lastError().pending()) {
    clearLastError();
    recordError(1, "", "No function defined in database, bad database");
    return;
  }

  s.setProtocols(nullptr);
  s.setProtocols(std::make_shared<ProtocolItems>());
  trap([&] { s.protocols()->DbRead(conn); });
  if (lastError().pending()) {
    clearLastError();
    recordError(1, "", "No protocol defined in database, bad database");
    return;
  }

  // Databases without device types or failure types still load, with one
  // default entry each.
  s.setTypeOrganes(nullptr);
  s.setTypeOrganes(std::make_shared<TypeOrganeItems>());
  trap([&] { s.typeOrganes()->DbRead(conn); });
  if (lastError().pending()) {
    clearLastError();
    s.typeOrganes()->Add(1, "Entrée");
  }

  s.setPannes(nullptr);
  s.setPannes(std::make_shared<PanneItems>());
  trap([&] { s.Pannes()->DbRead(conn); });
  if (lastError().pending()) {
    clearLastError();
    s.Pannes()->Add(0, "Ne contient pas de pannes");
  }
}

void KavrelDatabase::DbRead() { readCatalogues(*this, FunctionLayout::Current); }

void KavrelDatabase::dbReadKVR() { readCatalogues(*this, FunctionLayout::Older); }

void KavrelDatabase::DbDeleteUce() {
  if (!ActiveTarget_) return;
  if (!DbConnection_) raise(2, "", "Error database not defined");
  db::Connection& conn = *DbConnection_;
  const std::string id = std::to_string(ActiveTarget_->targetid());
  // All or nothing; relations are checked at the end so that categories
  // can go before the screens that the target's own row takes with it. Lost
  // to another writer's conflict, it runs again.
  db::retryOnConflict(conn, [&] {
    db::Transaction tx(conn);
    conn.deferConstraintChecks();
    conn.execute("DELETE * FROM Catégories WHERE [Target Id]=" + id);
    conn.execute("DELETE * FROM Organes WHERE [Target Id]=" + id);
    conn.execute("DELETE * FROM Cibles WHERE [Target Id]=" + id);
    tx.commit();
  });
  ClearTarget();
}

bool KavrelDatabase::DbFindUceByName(const std::string& name, int32_t& Address, int32_t& targetid) {
  if (!DbConnection_) raise(2, "", "Error database not defined");
  auto rs = DbConnection_->execute("SELECT Address,[Target Id] FROM Cibles WHERE [Target Name]='" +
                                   db::sql::doubleQuotes(name) + "'");
  bool found = false;
  if (!rs->eof()) {
    const int32_t address = rs->field(0).toInt32();
    const int32_t id = rs->field(1).toInt32();
    Address = address;
    targetid = id;
    found = true;
  }
  rs->close();
  return found;
}

// ---- beyond the legacy interface

void KavrelDatabase::createDatabase(const std::string& path) { db::createDatabase(path); }

void KavrelDatabase::importParametersFromXml(const std::string& fileName) {
  if (!DbConnection_) raise(2, "", "Error database not defined");
  db::Connection& conn = *DbConnection_;

  xml::Document doc;
  if (!doc.load(fileName)) {
    const xml::ParseError& pe = doc.parseError();
    std::string where;
    if (pe.line > 0) where = " (line " + std::to_string(pe.line) + ", column " + std::to_string(pe.column) + ")";
    raise(1, kImportSource, "Cannot load the parameters file \"" + fileName + "\": " + pe.reason + where);
  }
  const xml::Node root = doc.root().child("xml");
  if (root.isNull()) raise(1, kImportSource, "Bad xml file, RootNode \"xml\" not found");

  // An entry that cannot be read would be left out: refuse the document
  // instead, before anything is written.
  auto load = [&](auto& catalogue, const char* section) {
    clearLastError();
    catalogue.loadXml(doc, root.child(section));
    if (lastError().pending()) {
      ErrorRecord e = lastError();
      clearLastError();
      raise(e.number, e.source.empty() ? kImportSource : e.source,
            "Bad entry in \"" + std::string(section) + "\" of \"" + fileName + "\": " + e.description);
    }
  };
  // A transaction lost to another writer's conflict runs again, with lists
  // loaded afresh (the failed attempt gave their entries ids).
  db::retryOnConflict(conn, [&] {
    FunctionItems functionList;
    ProtocolItems protocolList;
    PanneItems failureList;
    TypeOrganeItems deviceTypeList;
    load(functionList, "Functions");
    load(protocolList, "Protocols");
    load(failureList, "Failures");
    load(deviceTypeList, "DeviceTypes");

    db::Transaction tx(conn);
    functionList.dbInsertAll(conn);
    protocolList.dbInsertAll(conn);
    failureList.dbInsertAll(conn);
    deviceTypeList.dbInsertAll(conn);
    tx.commit();
  });
}

// ---- warnings

void KavrelDatabase::RaiseWarning(const std::string& LibClass, const std::string& warningMsg) {
  WarningInfo.raise(LibClass, warningMsg);
}

void raiseWarning(KavrelDatabase& session, const std::string& LibClass, const std::string& warningMsg) {
  session.RaiseWarning(LibClass, warningMsg);
}

}  // namespace kavrel
