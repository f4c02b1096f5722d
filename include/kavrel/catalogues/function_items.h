// Catalogue of diagnostic functions, shared by all targets of a database
// (table [Fonctions], keyed by [Address]).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class FunctionItem {
 public:
  const std::string& functionName() const { return functionName_; }
  void setFunctionName(std::string v) { functionName_ = std::move(v); }
  int32_t Address() const { return Address_; }
  void setAddress(int32_t v) { Address_ = v; }
  // CAN identifiers: -1 = none; bit 31 set = extended 29-bit identifier.
  int32_t CanXId() const { return CanXId_; }
  void setCanXId(int32_t v) { CanXId_ = v; }
  int32_t CanRId() const { return CanRId_; }
  void setCanRId(int32_t v) { CanRId_ = v; }

  void createXMLnode(xml::Document& odoc, xml::Node reqNode) const;
  // Errors recorded, never thrown: a missing attribute keeps the default.
  void loadXml(xml::Document& odoc, xml::Node parNode);
  // Writes [Address], [Function Name], [XId], [RId] (-1 stored as Null).
  // Failures throw with " DbInsert Function Error : " before the description.
  void dbInsert(db::Connection& conn);
  // Rewrites the row of this address.
  void dbUpdate(db::Connection& conn);

 private:
  std::string functionName_;
  int32_t Address_ = 0;
  int32_t CanXId_ = -1;
  int32_t CanRId_ = -1;
};

class FunctionItems : public KeyedCollection<FunctionItem> {
 public:
  void clear() = delete;  // catalogues have no clear

  Ptr Add(int32_t Address, std::string functionName, std::string_view sKey = {});
  // First entry with that address / that name (by the name rule of
  // kavrel/platform/names.h: letter case ignored, accents kept); null when none.
  Ptr ItemAddress(int32_t functionAddress) const;
  Ptr ItemName(std::string_view functionName) const;

  void createXMLnode(xml::Document& odoc, xml::Node parent) const;
  void loadXml(xml::Document& odoc, xml::Node parNode);
  // Database errors reach the caller.
  bool DbRead(db::Connection& conn);
  bool dbReadKVR(db::Connection& conn);
  // Inserts every entry (seeding a new database).
  void dbInsertAll(db::Connection& conn);
};

}  // namespace kavrel
