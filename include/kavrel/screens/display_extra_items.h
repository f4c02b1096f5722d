// The request link of a request display: the request whose outcome a
// display shows, and whether the display is an input field (table Extra_Aff,
// one row per request display).
//
// A display (DisplayItem) owns one DisplayExtraItem directly; the collection
// DisplayExtraItems reads every link row of one display at once.
//
// Contract:
//  - Readers take the display whose link they read; a null one throws error
//    100 with the reader's text (below). The first row in request-name order
//    is taken; a request that no longer exists leaves `request` null and the
//    item is still reported as found.
//  - dbInsert refuses a link without a request: error 1 "DisplayExtraItem.
//    dbInsert : impossible to insert extraData because the request doesn't
//    exist", nothing written. The stored name is the request's own.
//  - DbInsertAll never throws: a refused row becomes one error entry in the
//    host event log ("DisplayExtraItem.DbInsertAll : " + description).
//  - The XML operations are obsolete: each shows its message box and does
//    nothing else.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class DisplayItem;

class DisplayExtraItem {
 public:
  std::shared_ptr<DisplayItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<DisplayItem>& p) { parent_ = p; }
  bool param() const { return param_; }
  void setParam(bool v) { param_ = v; }
  std::shared_ptr<RequestItem> request() const { return request_; }
  void setRequest(std::shared_ptr<RequestItem> v) { request_ = std::move(v); }
  const std::string& requestName() const { return requestName_; }
  void setRequestName(std::string v) { requestName_ = std::move(v); }

  // Drops the request and the parent link; the name and flag stay.
  void clear();

  // Null Pdisplay: error 100 "DisplayExtraItems.dbRead error : parent not
  // defined".
  bool DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay, int32_t typeAff);
  // Older layout: a display whose data has zero length shows its request.
  // Null Pdisplay: error 100 "DisplayExtraItems.dbReadKVR error : parent not
  // defined".
  bool dbReadKVR(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay);
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node parNode);

 private:
  std::weak_ptr<DisplayItem> parent_;
  bool param_ = false;
  std::shared_ptr<RequestItem> request_;
  std::string requestName_;
};

class DisplayExtraItems : public KeyedCollection<DisplayExtraItem> {
 public:
  Ptr Add(std::string_view sKey = {});

  // One item per link row of the display and type, in request-name order.
  void DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay, int32_t typeAff);
  // Older layout, one item per joined row; returns the number added.
  int32_t dbReadKVR(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay);
  void DbInsertAll(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node parNode);
};

}  // namespace kavrel
