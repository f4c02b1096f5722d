// Organs (vehicle components a target diagnoses): name, mnemonic, organ
// type, DTC and OBD codes, freeze-frame request, and their device data.
// Tables Organes, [Lien_DTC_ReqContext], Lien_Données_ds_Organe; "Device" in XML.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class OrganeItem : public std::enable_shared_from_this<OrganeItem> {
 public:
  OrganeItem();
  ~OrganeItem();

  int32_t id() const { return id_; }
  void setId(int32_t v) { id_ = v; }
  const std::string& organeName() const { return organeName_; }
  void setOrganeName(std::string v);
  const std::string& Mnemonique() const { return Mnemonique_; }
  void setMnemonique(std::string v) { Mnemonique_ = std::move(v); }
  int32_t OrganeTypeId() const { return OrganeTypeId_; }
  void setOrganeTypeId(int32_t v) { OrganeTypeId_ = v; }
  const std::string& OrganeTypeName() const { return OrganeTypeName_; }
  void setOrganeTypeName(std::string v) { OrganeTypeName_ = std::move(v); }
  int32_t OrganeDTC() const { return OrganeDTC_; }
  void setOrganeDTC(int32_t v) { OrganeDTC_ = v; }
  int32_t OrganeOBD() const { return OrganeOBD_; }
  void setOrganeOBD(int32_t v) { OrganeOBD_ = v; }
  const std::string& requestName() const { return requestName_; }
  void setRequestName(std::string v) { requestName_ = std::move(v); }
  std::shared_ptr<RequestItem> request() const { return request_; }
  void setRequest(std::shared_ptr<RequestItem> v) { request_ = std::move(v); }
  std::shared_ptr<DeviceDataItems> DeviceDatas() const { return DeviceDatas_; }
  void setDeviceDatas(std::shared_ptr<DeviceDataItems> v) { DeviceDatas_ = std::move(v); }
  std::shared_ptr<TargetItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<TargetItem>& p) { parent_ = p; }

  void clear();
  void createXMLnode(xml::Document& odoc, xml::Node reqNode);
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void dbInsert(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbDelete(db::Connection& conn);
  void dbRename(db::Connection& conn, const std::string& newName);
  void dbInsertRequest(db::Connection& conn);
  void dbUpdateRequest(db::Connection& conn);
  void dbReadRequest(db::Connection& conn);

 private:
  int32_t id_ = 0;
  std::string organeName_;
  std::string Mnemonique_;
  int32_t OrganeTypeId_ = 1;
  std::string OrganeTypeName_ = "Entrée";
  int32_t OrganeDTC_ = 0;
  int32_t OrganeOBD_ = 0;
  std::string requestName_;
  std::shared_ptr<RequestItem> request_;
  std::shared_ptr<DeviceDataItems> DeviceDatas_;
  std::weak_ptr<TargetItem> parent_;
};

class OrganeItems : public KeyedCollection<OrganeItem> {
 public:
  Ptr Add(int32_t id, std::string organeName, std::string Mnemonique, int32_t OrganeDTC, int32_t OrganeOBD,
          std::string_view sKey = {});
  // First entry of that name by the name rule (kavrel/platform/names.h: letter
  // case ignored, accents kept); null when none.
  Ptr ItemName(std::string_view name) const;
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<TargetItem>& Ptarget);
  // Both readers throw error 100 "Parent not defined" for a null target.
  void dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  void DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
  void DbInsertAll(db::Connection& conn, int32_t Address, int32_t targetid);
};

}  // namespace kavrel
