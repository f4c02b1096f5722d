// Value lists: the labels of the values of a listed numeric data item
// (table Listes; rows identified by [Data Id], Valeur, Numérique, Liste).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class DataListeItem {
 public:
  // Writing Valeur, libelle or Info sets ValueChanged, equal value or not.
  int32_t Valeur() const { return Valeur_; }
  void setValeur(int32_t v) {
    Valeur_ = v;
    ValueChanged_ = true;
  }
  const std::string& libelle() const { return libelle_; }
  void setLibelle(std::string v) {
    libelle_ = std::move(v);
    ValueChanged_ = true;
  }
  const std::string& Info() const { return Info_; }
  void setInfo(std::string v) {
    Info_ = std::move(v);
    ValueChanged_ = true;
  }
  bool ValueChanged() const { return ValueChanged_; }
  void setValueChanged(bool v) { ValueChanged_ = v; }
  std::shared_ptr<DataItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<DataItem>& p) { parent_ = p; }

  void clear() { parent_.reset(); }
  void dbInsert(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbDelete(db::Connection& conn);
  void createXMLnode(xml::Document& odoc, xml::Node reqNode) const;
  void loadXml(xml::Document& odoc, xml::Node parNode);

 private:
  int32_t Valeur_ = 0;
  std::string libelle_;
  std::string Info_;
  bool ValueChanged_ = true;
  std::weak_ptr<DataItem> parent_;
};

class DataListeItems : public KeyedCollection<DataListeItem> {
 public:
  Ptr Add(int32_t Valeur, std::string_view sKey = {});
  Ptr ItemValue(int32_t value) const;
  // Exact, case-sensitive label match.
  Ptr ItemLabel(std::string_view text) const;
  void RemoveItem(const Ptr& Item);
  int32_t ValueMax() const;
  bool ValueChanged() const;
  void setValueChanged(bool v);

  void DbRead(db::Connection& conn, const std::shared_ptr<DataItem>& Data);
  void dbReadKVR(db::Connection& conn, const std::shared_ptr<DataItem>& Data);
  void dbUpdateAll(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void dbDeleteAll(db::Connection& conn, const std::shared_ptr<DataItem>& Data);
  void createXMLnode(xml::Document& odoc, xml::Node parent) const;
  void loadXml(xml::Document& odoc, xml::Node parNode, const std::shared_ptr<DataItem>& pdata);
};

}  // namespace kavrel
