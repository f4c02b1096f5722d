// One target (ECU definition): a row of Cibles identified by (Address,
// targetid), with its function, language, reference flag, communication
// parameters and the collections of its diagnostic content. Its bulk read,
// insert and XML methods drive the sub-collections in a fixed order.
//
// Create targets with TargetItem::create() (or the session's NewTarget): the
// parameters object keeps a non-owning link back to its target.
// clear() (also run on destruction) breaks the parent/child links.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class TargetItem : public std::enable_shared_from_this<TargetItem> {
  struct Passkey {};

 public:
  static std::shared_ptr<TargetItem> create();
  explicit TargetItem(Passkey);
  ~TargetItem();
  TargetItem(const TargetItem&) = delete;
  TargetItem& operator=(const TargetItem&) = delete;

  // Assigning parent, AutoIdents or Categories leaves ValueChanged alone;
  // assigning any other property sets it.
  std::shared_ptr<KavrelDatabase> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<KavrelDatabase>& p) { parent_ = p; }
  std::shared_ptr<AutoIdentItems> AutoIdents() const { return AutoIdents_; }
  void setAutoIdents(std::shared_ptr<AutoIdentItems> v) { AutoIdents_ = std::move(v); }
  std::shared_ptr<CategoryItems> Categories() const { return Categories_; }
  void setCategories(std::shared_ptr<CategoryItems> v) { Categories_ = std::move(v); }
  std::shared_ptr<DataItems> datas() const { return datas_; }
  void setDatas(std::shared_ptr<DataItems> v);
  std::shared_ptr<DataItems> datasRef() const { return datasRef_; }
  void setDatasRef(std::shared_ptr<DataItems> v);
  std::shared_ptr<RequestItems> Requests() const { return Requests_; }
  void setRequests(std::shared_ptr<RequestItems> v);
  std::shared_ptr<OrganeItems> Organes() const { return Organes_; }
  void setOrganes(std::shared_ptr<OrganeItems> v);
  std::shared_ptr<TargetParamItem> Parametres() const { return Parametres_; }
  void setParametres(std::shared_ptr<TargetParamItem> v);
  bool ValueChanged() const { return ValueChanged_; }
  void setValueChanged(bool v) { ValueChanged_ = v; }
  int32_t targetid() const { return targetid_; }
  void setTargetid(int32_t v);
  int32_t Address() const { return Address_; }
  void setAddress(int32_t v);
  const std::string& name() const { return name_; }
  void setName(std::string v);
  const std::string& Langue() const { return Langue_; }
  void setLangue(std::string v);
  bool reference() const { return reference_; }
  void setReference(bool v);

  void clear();
  // Appends "kvr:Target" to `parent` (or makes it the document's root when
  // `parent` is null) and returns it.
  xml::Node createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node node);

  bool DbRead(db::Connection& conn, int32_t address, int32_t targetid);
  // Reads the target and everything under it inside one read transaction,
  // so that all its tables come from one snapshot of the database.
  bool dbReadTargetAll(db::Connection& conn, int32_t address, int32_t targetid);
  void dbUpdateTargetAll(db::Connection& conn, int32_t address, int32_t targetid);
  void dbRename(db::Connection& conn, const std::string& newName);
  void dbInsert(db::Connection& conn);
  void dbInsertAppartenance(db::Connection& conn);
  // Writes the whole tree in one transaction. Rows the database refuses by
  // its rules inside the collections are dropped (logged, the last failure
  // left pending) and the rest is stored; a fault of the engine or the disk
  // (db::isRowRefusal false) at any step rolls everything back and is
  // thrown: the database is then as before and the target still unsaved.
  //
  // On an engine that writes rows in batches (db::Connection::batchesWrites)
  // the tree is first written with batched writes in a nested transaction,
  // with what it sends to the host services held back. If a batch is
  // refused, that attempt is rolled back, the objects are put back as they
  // were (ids, changed flags, names shortened, the pending error) and the
  // tree is written again row by row, which reports each refused row as
  // above; only then are the host entries of the second run passed on. A
  // target with a refused row is thus written twice (the first time undone)
  // and costs more; the outcome is the same as row by row.
  void dbInsertTargetAll(db::Connection& conn);
  void dbReadTargetAllKVR(db::Connection& conn, int32_t address, int32_t targetid);
  bool dbReadKVR(db::Connection& conn, int32_t address, int32_t targetid);

 private:
  // The whole-tree insert, one row at a time (or held, inside batched
  // writes), refusals dropped and reported as they come.
  void insertTree(db::Connection& conn);

  std::weak_ptr<KavrelDatabase> parent_;
  std::shared_ptr<AutoIdentItems> AutoIdents_;
  std::shared_ptr<CategoryItems> Categories_;
  std::shared_ptr<DataItems> datas_;
  std::shared_ptr<DataItems> datasRef_;
  std::shared_ptr<RequestItems> Requests_;
  std::shared_ptr<OrganeItems> Organes_;
  std::shared_ptr<TargetParamItem> Parametres_;
  bool ValueChanged_ = true;
  int32_t targetid_ = 0;
  int32_t Address_ = 0;
  std::string name_;
  std::string Langue_ = "Français";
  bool reference_ = true;
  std::string functionName_;  // from [Fonctions], no public accessor
};

}  // namespace kavrel
