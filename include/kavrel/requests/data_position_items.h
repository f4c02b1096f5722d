// Data positions: where a data item lies in the frame of a request (byte,
// bit offset, byte order, parameter or reply side), optionally marked as the
// data's reference position (table Donnée_Ref). A position is shared by its
// request's and its data item's collections.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class DataPositionItem {
 public:
  int32_t StartOctet() const { return StartOctet_; }
  void setStartOctet(int32_t v) { StartOctet_ = v; }
  int32_t StartBit() const { return StartBit_; }
  void setStartBit(int32_t v) { StartBit_ = v; }
  bool LittleEndian() const { return LittleEndian_; }
  void setLittleEndian(bool v) { LittleEndian_ = v; }
  bool param() const { return param_; }
  void setParam(bool v) { param_ = v; }
  bool reference() const { return reference_; }
  void setReference(bool v) { reference_ = v; }
  // Reading gives the linked data's name; writing links Data to the data of
  // that name in the parent request's target.
  std::string dataname() const;
  void setDataname(std::string v);
  const std::string& requestName() const { return requestName_; }
  void setRequestName(std::string v) { requestName_ = std::move(v); }
  std::shared_ptr<DataItem> Data() const { return Data_; }
  // The same without taking a reference (null when none): for bulk loops.
  DataItem* dataPtr() const noexcept { return Data_.get(); }
  void setData(std::shared_ptr<DataItem> v) { Data_ = std::move(v); }
  std::shared_ptr<DisplayDataItems> DisplayDatas() const { return DisplayDatas_; }
  void setDisplayDatas(std::shared_ptr<DisplayDataItems> v) { DisplayDatas_ = std::move(v); }
  std::shared_ptr<RequestItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<RequestItem>& p) { parent_ = p; }

  void clear();
  void createXMLnode(xml::Document& odoc, xml::Node reqNode);
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void dbIsReference(db::Connection& conn);
  void dbInsertReference(db::Connection& conn);
  void dbDeleteReference(db::Connection& conn);
  void dbInsert(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbDelete(db::Connection& conn);

 private:
  int32_t StartOctet_ = 1;
  int32_t StartBit_ = 0;
  bool LittleEndian_ = false;
  bool param_ = false;
  bool reference_ = false;
  std::string dataname_;  // kept when no data of that name exists
  std::string requestName_;
  std::shared_ptr<DataItem> Data_;
  std::shared_ptr<DisplayDataItems> DisplayDatas_;
  std::weak_ptr<RequestItem> parent_;
};

class DataPositionItems : public KeyedCollection<DataPositionItem> {
 public:
  Ptr Add(std::string_view sKey = {});
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void createXMLnodeType(xml::Document& odoc, xml::Node parent, bool param);
  void loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<RequestItem>& Prequest);
  void loadXmlType(xml::Document& odoc, xml::Node node, const std::shared_ptr<RequestItem>& Prequest, bool param);
  void DbRead(db::Connection& conn, const std::shared_ptr<RequestItem>& Prequest);
  void DbInsertAll(db::Connection& conn);
  bool dbReadKVR(db::Connection& conn, const std::shared_ptr<RequestItem>& Prequest);
};

}  // namespace kavrel
