// Diagnostic requests of a target (table Requêtes, keyed by [Request Id],
// unique by target and [Request Name]): the sent and expected byte frames,
// minimum reply length, access rights, and the data positions that place
// data items inside the exchange.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "kavrel/platform/names.h"
#include "kavrel/collections/keyed_collection.h"
#include "kavrel/collections/name_index.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class RequestItem : public std::enable_shared_from_this<RequestItem> {
 public:
  RequestItem();
  ~RequestItem();

  const std::string& requestName() const { return requestName_; }
  void setRequestName(std::string v);
  std::shared_ptr<ByteFrame> RequestBytes() const { return RequestBytes_; }
  void setRequestBytes(std::shared_ptr<ByteFrame> v) { RequestBytes_ = std::move(v); }
  std::shared_ptr<ByteFrame> ReplyBytes() const { return ReplyBytes_; }
  void setReplyBytes(std::shared_ptr<ByteFrame> v) { ReplyBytes_ = std::move(v); }
  int32_t LengthDatas() const { return LengthDatas_; }
  void setLengthDatas(int32_t v) { LengthDatas_ = v; }
  int32_t ShiftBytesCount() const { return ShiftBytesCount_; }
  void setShiftBytesCount(int32_t v) { ShiftBytesCount_ = v; }
  bool ManuelSend() const { return ManuelSend_; }
  void setManuelSend(bool v) { ManuelSend_ = v; }
  bool LgVariable() const { return LgVariable_; }
  void setLgVariable(bool v) { LgVariable_ = v; }
  bool AccesTous() const { return AccesTous_; }
  void setAccesTous(bool v) { AccesTous_ = v; }
  bool AccesUsine() const { return AccesUsine_; }
  void setAccesUsine(bool v) { AccesUsine_ = v; }
  bool AccesApresVente() const { return AccesApresVente_; }
  void setAccesApresVente(bool v) { AccesApresVente_ = v; }
  bool AccesEtudes() const { return AccesEtudes_; }
  void setAccesEtudes(bool v) { AccesEtudes_ = v; }
  bool AccesConstructeur() const { return AccesConstructeur_; }
  void setAccesConstructeur(bool v) { AccesConstructeur_ = v; }
  bool DossierMaintenabilite() const { return DossierMaintenabilite_; }
  void setDossierMaintenabilite(bool v) { DossierMaintenabilite_ = v; }
  const std::string& Commentaire() const { return Commentaire_; }
  void setCommentaire(std::string v) { Commentaire_ = std::move(v); }
  std::shared_ptr<DataPositionItems> DataPositions() const { return DataPositions_; }
  void setDataPositions(std::shared_ptr<DataPositionItems> v) { DataPositions_ = std::move(v); }
  std::shared_ptr<OrganeItems> Organes() const { return Organes_; }
  void setOrganes(std::shared_ptr<OrganeItems> v) { Organes_ = std::move(v); }
  std::shared_ptr<DisplayExtraItems> DisplayExtras() const { return DisplayExtras_; }
  void setDisplayExtras(std::shared_ptr<DisplayExtraItems> v) { DisplayExtras_ = std::move(v); }
  std::shared_ptr<TargetItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<TargetItem>& p) { parent_ = p; }
  // The database identifier (held privately by the legacy interface; exposed
  // read-only for callers and tests).
  int32_t requestId() const { return requestId_; }
  void setRequestId(int32_t v) { requestId_ = v; }

  void clear();
  void createXMLnode(xml::Document& odoc, xml::Node reqNode);
  void loadXml(xml::Document& odoc, xml::Node node);
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbRename(db::Connection& conn, const std::string& newName);
  void dbDelete(db::Connection& conn);

 private:
  std::string requestName_;
  std::shared_ptr<ByteFrame> RequestBytes_;
  std::shared_ptr<ByteFrame> ReplyBytes_;
  int32_t LengthDatas_ = 1;
  int32_t ShiftBytesCount_ = 0;
  bool ManuelSend_ = false;
  bool LgVariable_ = false;
  bool AccesTous_ = true;
  bool AccesUsine_ = true;
  bool AccesApresVente_ = true;
  bool AccesEtudes_ = true;
  bool AccesConstructeur_ = true;
  bool DossierMaintenabilite_ = false;
  std::string Commentaire_;
  std::shared_ptr<DataPositionItems> DataPositions_;
  std::shared_ptr<OrganeItems> Organes_;
  std::shared_ptr<DisplayExtraItems> DisplayExtras_;
  std::weak_ptr<TargetItem> parent_;
  int32_t requestId_ = 0;
};

class RequestItems : public KeyedCollection<RequestItem> {
 public:
  Ptr Add(int32_t RequestId, std::string_view sKey = {});
  // First request with that name by the name rule (kavrel/platform/names.h:
  // letter case ignored, accents kept); null when none.
  Ptr ItemName(std::string_view name) const;
  std::shared_ptr<DataPositionItem> ItemDataPositionName(std::string_view requestName, std::string_view dataname) const;

  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<TargetItem>& target);
  void DbInsertAll(db::Connection& conn, int32_t Address, int32_t targetid);
  void DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  void dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  void dbReadKVR(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  void dbDeleteItem(db::Connection& conn, const Ptr& Item);

 private:
  static std::string nameKey(const RequestItem& r) { return names::key(r.requestName()); }
  // First-match index by name key (organs find their freeze-frame request).
  mutable detail::NameIndex<RequestItem> nameIndex_{detail::requestNameJournal(), &RequestItems::nameKey};
};

}  // namespace kavrel
