// Automatic identification entries of a target (table Identification): the
// diagnostic version number, supplier code, software and version by which a
// tester recognises the ECU. An entry has no id of its own: it is found by
// the whole tuple.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class AutoIdentItem {
 public:
  int32_t DiagNumber() const { return DiagNumber_; }
  void setDiagNumber(int32_t v) { DiagNumber_ = v; }
  const std::string& SupplierCode() const { return SupplierCode_; }
  void setSupplierCode(std::string v) { SupplierCode_ = std::move(v); }
  const std::string& Soft() const { return Soft_; }
  void setSoft(std::string v) { Soft_ = std::move(v); }
  const std::string& Version() const { return Version_; }
  void setVersion(std::string v) { Version_ = std::move(v); }
  std::shared_ptr<TargetItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<TargetItem>& p) { parent_ = p; }

  void createXMLnode(xml::Document& odoc, xml::Node element) const;
  void loadXml(xml::Document& odoc, xml::Node element);
  // The arguments are the entry's values as they stand in the database.
  void dbUpdate(db::Connection& conn, int32_t DiagNumber, const std::string& SupplierCode, const std::string& Soft,
                const std::string& Version);
  void dbInsert(db::Connection& conn);
  void dbDelete(db::Connection& conn);
  void clear();

 private:
  int32_t DiagNumber_ = 0;
  std::string SupplierCode_;
  std::string Soft_;
  std::string Version_;
  std::weak_ptr<TargetItem> parent_;
};

class AutoIdentItems : public KeyedCollection<AutoIdentItem> {
 public:
  // The only Add that sets the element's parent.
  Ptr Add(int32_t DiagNumber, std::string SupplierCode, std::string Soft, std::string Version,
          const std::shared_ptr<TargetItem>& parent, std::string_view sKey = {});
  // Position (1-based) of the entry in the list.
  int32_t FindItem(const Ptr& AutoIdent) const;
  void createXMLnode(xml::Document& odoc, xml::Node parent) const;
  void loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<TargetItem>& target);
  void dbDelete(db::Connection& conn, const Ptr& AutoIdent);
  bool dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& target);
};

}  // namespace kavrel
