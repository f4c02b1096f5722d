// Catalogue of failure types (table [Type Panne]).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class PanneItem {
 public:
  const std::string& libelle() const { return libelle_; }
  void setLibelle(std::string v) { libelle_ = std::move(v); }
  int32_t id() const { return id_; }
  void setId(int32_t v) { id_ = v; }

  void createXMLnode(xml::Document& odoc, xml::Node reqNode) const;
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void dbInsert(db::Connection& conn);

 private:
  std::string libelle_;
  int32_t id_ = 0;
};

class PanneItems : public KeyedCollection<PanneItem> {
 public:
  void clear() = delete;

  Ptr Add(int32_t id, std::string libelle, std::string_view sKey = {});
  // First entry of that name by the name rule (kavrel/platform/names.h: letter
  // case ignored, accents kept); null when none.
  Ptr ItemName(std::string_view nom) const;
  Ptr ItemId(int32_t id) const;

  // Errors suppressed: a missing table records error 1 and returns false
  // with the catalogue empty (the error stays pending for the caller).
  bool DbRead(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node parent) const;
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void dbInsertAll(db::Connection& conn);
};

}  // namespace kavrel
