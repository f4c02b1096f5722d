// Value fields of a screen (table Affichages). Placeholder: only what the
// screen tree needs to hold and forward to its displays exists yet; every
// database and XML operation does nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class DisplayItem : public std::enable_shared_from_this<DisplayItem> {
 public:
  int32_t id() const { return id_; }
  void setId(int32_t v) { id_ = v; }
  std::shared_ptr<ScreenItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<ScreenItem>& p) { parent_ = p; }
  void clear() { parent_.reset(); }

 private:
  int32_t id_ = 0;
  std::weak_ptr<ScreenItem> parent_;
};

class DisplayItems : public KeyedCollection<DisplayItem> {
 public:
  Ptr Add(int32_t id, std::string_view sKey = {});
  void DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& screen);
  void dbReadKVR(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& screen);
  void dbUpdateAll(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node screenNode, const std::shared_ptr<ScreenItem>& Pscreen);
};

}  // namespace kavrel
