// The data link of a data display: the request and data names of the data
// position a display shows (table Données_Aff, one row per data display),
// resolved to the DataPositionItem through the target's requests.
//
// A display (DisplayItem) owns one DisplayDataItem directly; the collection
// DisplayDataItems reads every link row of one display at once.
//
// Contract:
//  - Readers take the display whose link they read (`Pdisplay`); a null one
//    throws error 100 with the text of each reader (below). The row is found
//    by target, screen, display and display type; the first row in data-name
//    order is the one taken. A row whose position no longer exists leaves
//    DataPosition null; the item is still reported as found.
//  - dbInsert writes the names of the linked data item and of the request
//    that owns the position (not the item's own name strings), so that a
//    rename of either is carried into the row. A link without a position
//    throws error 91 and writes nothing.
//  - DbInsertAll never throws: a refused row becomes one error entry in the
//    host event log ("DisplayDataItem.DbInsertAll : " + description).
//  - The XML operations are obsolete: each shows its message box and does
//    nothing else (the display writes and reads its own link attributes).
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

class DisplayDataItem {
 public:
  std::shared_ptr<DisplayItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<DisplayItem>& p) { parent_ = p; }
  std::shared_ptr<DataPositionItem> DataPosition() const { return DataPosition_; }
  void setDataPosition(std::shared_ptr<DataPositionItem> v) { DataPosition_ = std::move(v); }
  const std::string& dataname() const { return dataname_; }
  void setDataname(std::string v) { dataname_ = std::move(v); }
  const std::string& requestName() const { return requestName_; }
  void setRequestName(std::string v) { requestName_ = std::move(v); }

  // Drops the position and the parent link; the names stay.
  void clear();

  // Reads the display's link row of type `typeAff`; true when one exists.
  // Null Pdisplay: error 100 "DisplayDataItems.dbReadKVR error : parent not
  // defined" (the text the collection's older reader uses, kept as it is).
  bool DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay, int32_t typeAff);
  // Older layout: the display row carries its data name; the position is
  // looked up in the data's request, for written (input) data first under
  // "<lower-cased name> - ecriture". A position not found shows a message
  // box and leaves DataPosition null; the result is still true. False when
  // the display shows no data of non-zero length. Null Pdisplay: error 100
  // "DisplayDataItem.dbReadKVR error : parent not defined".
  bool dbReadKVR(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay);
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node parNode);

 private:
  std::weak_ptr<DisplayItem> parent_;
  std::shared_ptr<DataPositionItem> DataPosition_;
  std::string dataname_;
  std::string requestName_;
};

class DisplayDataItems : public KeyedCollection<DisplayDataItem> {
 public:
  Ptr Add(std::string_view sKey = {});

  // One item per link row of the display and type, in data-name order.
  // Null Pdisplay: error 100 "DisplayDataItems.dbReadKVR error : parent not
  // defined".
  void DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay, int32_t typeAff);
  // Older layout, one item per joined row; returns the number of items
  // added. Message box text and parent error name the collection.
  int32_t dbReadKVR(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay);
  void DbInsertAll(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node parNode);
};

}  // namespace kavrel
