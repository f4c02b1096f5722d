// Device data: the data items that belong to an organ, each with a failure
// flag (table Lien_Données_ds_Organe; "DeviceData" in XML).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class DeviceDataItem {
 public:
  // Reading gives the linked data's name; writing links Data to the data of
  // that name in the organ's target.
  std::string dataname() const;
  void setDataname(std::string v);
  std::shared_ptr<DataItem> Data() const { return Data_; }
  void setData(std::shared_ptr<DataItem> v) { Data_ = std::move(v); }
  bool FlagPanne() const { return FlagPanne_; }
  void setFlagPanne(bool v) { FlagPanne_ = v; }
  std::shared_ptr<OrganeItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<OrganeItem>& p) { parent_ = p; }

  void clear();
  void dbInsert(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbDelete(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node reqNode) const;
  void loadXml(xml::Document& odoc, xml::Node parNode);

 private:
  std::string dataname_;  // kept when no data of that name exists
  std::shared_ptr<DataItem> Data_;
  bool FlagPanne_ = false;
  std::weak_ptr<OrganeItem> parent_;
};

class DeviceDataItems : public KeyedCollection<DeviceDataItem> {
 public:
  Ptr Add(std::string_view sKey = {});
  // First entry of that name by the name rule (kavrel/platform/names.h: letter
  // case ignored, accents kept); null when none.
  Ptr ItemName(std::string_view name) const;
  void DbRead(db::Connection& conn, const std::shared_ptr<OrganeItem>& Porgane);
  void DbInsertAll(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node parent) const;
  void loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<OrganeItem>& Porgane);
};

}  // namespace kavrel
