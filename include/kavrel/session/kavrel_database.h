// The session and root object: one instance is one session on one
// definitions database. It owns the connection, the four shared catalogues,
// at most one active target, and the settings of the XML documents it writes.
//
// Create it with KavrelDatabase::create(), the only way to make one (targets
// keep a non-owning link back to their session, which needs the session to
// be shared-owned; a session that could not be linked to would give its
// targets no parent, and exports would silently lose the function name,
// failure label and CAN identifiers).
//
// Behaviours a C++ user may not expect, kept from the legacy interface:
//  - setDbVersion() accepts a value and discards it; dbVersion() only
//    changes through IsKavrelDatabase() / CheckDatabaseVersion().
//  - ImportUceFromXml() replaces the active target by a new, empty one
//    before reading, so a failed import still leaves that new target active
//    (the previous one is cleared).
//  - A save failure of ExportParametersToXml() is reported through
//    WarningInfo with the class name "ExportParametersToXml" (a method name)
//    and recorded in lastError(), not thrown.
//  - The catalogue and connection accessors return shared pointers that are
//    null until DbOpen()/DbRead() and again after DbClose(); use
//    connection() for a reference that throws instead.
// Where this library keeps data safer than the legacy sequence:
//  - DbDeleteUce() and TargetItem's whole-target insert run in one
//    transaction: a failure leaves the database as it was;
//  - DbDeleteUce() and importParametersFromXml(), called outside a
//    transaction, run again when another writer's conflict (a deadlock on a
//    server) fails their transaction (db::retryOnConflict);
//  - a failed DbOpen() leaves the session closed (no half-open connection).
//
// Error modes follow each method's documentation: "throws" means a
// kavrel::Error reaches the caller; "records" means the failure is left in
// kavrel::lastError() and the call returns normally.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kavrel/error.h"
#include "kavrel/event.h"
#include "kavrel/fwd.h"

namespace kavrel {

class KavrelDatabase : public std::enable_shared_from_this<KavrelDatabase> {
 public:
  static std::shared_ptr<KavrelDatabase> create();
  // Only create() can supply the token; the constructor is public for
  // std::make_shared.
  class CreateToken {
    friend class KavrelDatabase;
    CreateToken() = default;
  };
  explicit KavrelDatabase(CreateToken);
  // Releases the catalogues, clears the target, closes the connection quietly.
  ~KavrelDatabase();
  KavrelDatabase(const KavrelDatabase&) = delete;
  KavrelDatabase& operator=(const KavrelDatabase&) = delete;

  // ---- properties
  // Null while the session is closed (before DbOpen, after DbClose or a
  // failed DbOpen).
  std::shared_ptr<db::Connection> DbConnection() const { return DbConnection_; }
  // The open connection; throws error 2 "Error database not defined" when
  // the session is closed, so `session->connection()` never dereferences
  // a null connection.
  db::Connection& connection() const;
  void setDbConnection(std::shared_ptr<db::Connection> c) { DbConnection_ = std::move(c); }
  std::shared_ptr<TargetItem> ActiveTarget() const { return ActiveTarget_; }
  // Stores the reference as given (does not set the target's parent).
  void setActiveTarget(std::shared_ptr<TargetItem> t) { ActiveTarget_ = std::move(t); }
  const std::string& fileName() const { return fileName_; }
  // Closes the database first (DbClose), then stores the name.
  void setFileName(std::string v);
  // The four catalogues: null before the first DbRead()/dbReadKVR() and after
  // DbClose(). A read that records an error leaves the catalogues it did not
  // reach as they were, or empty if they were never read (never null).
  std::shared_ptr<FunctionItems> functions() const { return functions_; }
  void setFunctions(std::shared_ptr<FunctionItems> v) { functions_ = std::move(v); }
  std::shared_ptr<ProtocolItems> protocols() const { return protocols_; }
  void setProtocols(std::shared_ptr<ProtocolItems> v) { protocols_ = std::move(v); }
  std::shared_ptr<TypeOrganeItems> typeOrganes() const { return typeOrganes_; }
  void setTypeOrganes(std::shared_ptr<TypeOrganeItems> v) { typeOrganes_ = std::move(v); }
  std::shared_ptr<PanneItems> Pannes() const { return Pannes_; }
  void setPannes(std::shared_ptr<PanneItems> v) { Pannes_ = std::move(v); }
  // xmlns and xmlEcuSchema are two names of one field.
  const std::string& xmlns() const { return xmlns_; }
  void setXmlns(std::string v) { xmlns_ = std::move(v); }
  const std::string& xmlEcuSchema() const { return xmlns_; }
  void setXmlEcuSchema(std::string v) { xmlns_ = std::move(v); }
  const std::string& xmlScreenSchema() const { return xmlScreenSchema_; }
  void setXmlScreenSchema(std::string v) { xmlScreenSchema_ = std::move(v); }
  const std::string& xmlStyleSheet() const { return xmlStyleSheet_; }
  void setXmlStyleSheet(std::string v) { xmlStyleSheet_ = std::move(v); }
  const std::string& xmlEncoding() const { return xmlEncoding_; }
  void setXmlEncoding(std::string v) { xmlEncoding_ = std::move(v); }
  // Read-only in effect: the setter accepts a value and discards it.
  const std::string& dbVersion() const { return dbVersion_; }
  void setDbVersion(const std::string&) {}

  // ---- target
  void ClearTarget();
  std::shared_ptr<TargetItem> NewTarget();

  // ---- XML documents
  void ExportParametersToXml(const std::string& fileName, const std::optional<std::string>& xmlEncoding = std::nullopt);
  // Opens dataBaseName, reads the catalogues and the target named uceName,
  // writes it to xmlFileName and closes the connection again; an error
  // zone: failures are recorded, not thrown. When the target is exported, or
  // not found (recorded error 1 "Target '...' not found", no file written),
  // the catalogues stay loaded; any other failure closes the session with
  // DbClose, which releases them. The catalogues and the target come from one
  // snapshot of the database (one read transaction): a target another
  // process replaces meanwhile is written whole, as it was before or after.
  void ExportNamedUceToXml(const std::string& dataBaseName, const std::string& uceName, const std::string& xmlFileName);
  void ExportUceToXml(const std::string& fileName);
  // What the import skips or changes on the way (names cut to their column,
  // links to a request or data the target does not define) is reported to
  // host().importEvent with the element concerned; an ImportReport collects
  // it (see kavrel/platform/host.h).
  void ImportUceFromXml(const std::string& fileName);

  // ---- database
  void DbOpen(const std::string& fileName = {});
  bool IsKavrelDatabase();
  void CheckDatabaseVersion();
  void DbClose();
  void DbRead();
  void dbReadKVR();
  void DbDeleteUce();
  bool DbFindUceByName(const std::string& name, int32_t& Address, int32_t& targetid);

  // ---- beyond the legacy interface (users need them)
  // Creates a new, empty definitions database file (schema version "4").
  static void createDatabase(const std::string& path);
  // Reads a parameters document ("Functions", "Protocols", "Failures",
  // "DeviceTypes") and inserts every entry into the open database, in one
  // transaction. Throws on failure (nothing is written then).
  void importParametersFromXml(const std::string& fileName);

  // ---- events
  // WarningInfo(LibClass, warningMsg): warnings to the client.
  Event<const std::string&, const std::string&> WarningInfo;

  // The calling thread's pending-error record (number 0 = none).
  static const ErrorRecord& LastError() { return lastError(); }
  static void ClearLastError() { clearLastError(); }

 private:
  friend void raiseWarning(KavrelDatabase& session, const std::string& LibClass, const std::string& warningMsg);
  void RaiseWarning(const std::string& LibClass, const std::string& warningMsg);

  std::shared_ptr<db::Connection> DbConnection_;
  std::shared_ptr<TargetItem> ActiveTarget_;
  std::string fileName_;
  std::shared_ptr<FunctionItems> functions_;
  std::shared_ptr<ProtocolItems> protocols_;
  std::shared_ptr<TypeOrganeItems> typeOrganes_;
  std::shared_ptr<PanneItems> Pannes_;
  std::string xmlns_;
  std::string xmlScreenSchema_;
  std::string xmlStyleSheet_;
  std::string xmlEncoding_;
  std::string dbVersion_;
};

// Library-internal: lets the library's own classes raise WarningInfo on a
// session (clients use the event, not this).
void raiseWarning(KavrelDatabase& session, const std::string& LibClass, const std::string& warningMsg);

}  // namespace kavrel
