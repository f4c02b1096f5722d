// Catalogue of protocols (table [Protocoles]).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class ProtocolItem {
 public:
  const std::string& protocolName() const { return protocolName_; }
  void setProtocolName(std::string v) { protocolName_ = std::move(v); }
  bool multiPoint() const { return multiPoint_; }
  void setMultiPoint(bool v) { multiPoint_ = v; }
  int32_t initMode() const { return initMode_; }
  void setInitMode(int32_t v) { initMode_ = v; }

  void createXMLnode(xml::Document& odoc, xml::Node reqNode) const;
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void dbInsert(db::Connection& conn);

 private:
  std::string protocolName_;
  bool multiPoint_ = false;
  int32_t initMode_ = 0;
};

class ProtocolItems : public KeyedCollection<ProtocolItem> {
 public:
  void clear() = delete;

  Ptr Add(int32_t initMode, bool multiPoint, std::string protocolName, std::string_view sKey = {});
  // First entry of that name by the name rule (kavrel/platform/names.h: letter
  // case ignored, accents kept); null when none.
  Ptr ItemName(std::string_view protocolName) const;
  // First protocol whose initMode and multiPoint both equal the arguments.
  Ptr ItemId(int32_t initMode, bool multiPoint) const;

  bool DbRead(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node parent) const;
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void dbInsertAll(db::Connection& conn);
};

}  // namespace kavrel
