// Data items: named quantities a target reads from an ECU (bit count,
// numeric or byte string, scaling coefficients and unit, value list, texts
// and data sheet). Stored in Données, sheets in [Fiches Diag], lists in
// Listes; one "Data" element in XML.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/collections/name_index.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class DataItem : public std::enable_shared_from_this<DataItem> {
 public:
  DataItem();
  ~DataItem();

  int32_t id() const { return id_; }
  void setId(int32_t v) { id_ = v; }
  const std::string& dataname() const { return dataname_; }
  void setDataname(std::string v);
  int32_t NumberBits() const { return NumberBits_; }
  void setNumberBits(int32_t v) { NumberBits_ = v; }
  bool numerique() const { return numerique_; }
  void setNumerique(bool v) { numerique_ = v; }
  bool liste() const { return liste_; }
  void setListe(bool v) { liste_ = v; }
  const std::string& Unite() const { return Unite_; }
  void setUnite(std::string v) { Unite_ = std::move(v); }
  bool Signe() const { return Signe_; }
  void setSigne(bool v) { Signe_ = v; }
  double CoeffA() const { return CoeffA_; }
  void setCoeffA(double v) { CoeffA_ = v; }
  double CoeffB() const { return CoeffB_; }
  void setCoeffB(double v) { CoeffB_ = v; }
  double CoeffC() const { return CoeffC_; }
  void setCoeffC(double v) { CoeffC_ = v; }
  const std::string& DataFormat() const { return DataFormat_; }
  void setDataFormat(std::string v) { DataFormat_ = std::move(v); }
  bool Ascii() const { return Ascii_; }
  void setAscii(bool v) { Ascii_ = v; }
  const std::string& Mnemo() const { return Mnemo_; }
  void setMnemo(std::string v) { Mnemo_ = std::move(v); }
  const std::string& Description() const { return Description_; }
  void setDescription(std::string v) { Description_ = std::move(v); }
  const std::string& Fiche() const { return Fiche_; }
  void setFiche(std::string v) { Fiche_ = std::move(v); }
  std::shared_ptr<DataListeItems> DataListes() const { return DataListes_; }
  void setDataListes(std::shared_ptr<DataListeItems> v) { DataListes_ = std::move(v); }
  std::shared_ptr<DataPositionItems> DataPositions() const { return DataPositions_; }
  // The same without taking a reference (null when none): for bulk loops.
  DataPositionItems* dataPositionsPtr() const noexcept { return DataPositions_.get(); }
  void setDataPositions(std::shared_ptr<DataPositionItems> v) { DataPositions_ = std::move(v); }
  std::shared_ptr<TargetItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<TargetItem>& p) { parent_ = p; }

  void clear();
  void createXMLnode(xml::Document& odoc, xml::Node reqNode);
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void dbInsert(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbUpdateAll(db::Connection& conn);
  void dbRename(db::Connection& conn, const std::string& newName);
  void DbInsertAll(db::Connection& conn);
  void dbDelete(db::Connection& conn);
  void dbInsertFiche(db::Connection& conn);
  void dbReadFiche(db::Connection& conn);
  void dbUpdateFiche(db::Connection& conn);
  void dbDeleteFiche(db::Connection& conn);
  void dbReReadAll(db::Connection& conn);

 private:
  int32_t id_ = 0;
  std::string dataname_;
  int32_t NumberBits_ = 8;
  bool numerique_ = true;
  bool liste_ = false;
  std::string Unite_;
  bool Signe_ = false;
  double CoeffA_ = 1.0;
  double CoeffB_ = 0.0;
  double CoeffC_ = 1.0;
  std::string DataFormat_;
  bool Ascii_ = false;
  std::string Mnemo_;
  std::string Description_;
  std::string Fiche_;
  std::shared_ptr<DataListeItems> DataListes_;
  std::shared_ptr<DataPositionItems> DataPositions_;
  std::weak_ptr<TargetItem> parent_;
};

class DataItems : public KeyedCollection<DataItem> {
 public:
  Ptr Add(int32_t id, std::string_view sKey = {});
  // First item whose name equals `name` by the name rule (kavrel/platform/names.h:
  // letter case ignored for every letter, accents kept); null when none.
  Ptr ItemName(std::string_view name) const;
  // ItemName for many names at once (bulk loaders): for each name, the
  // 1-based index of the first item of that name, or 0 when none.
  std::vector<int32_t> indexesOfNames(const std::vector<std::string>& names) const;
  // First item of the same name (by the name rule) and another id.
  Ptr ItemDuplicate(const Ptr& Item) const;

  void DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& Ptarget);
  void dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& Ptarget);
  void DbReadRef(db::Connection& conn, const std::shared_ptr<TargetItem>& Ptarget);
  void DbInsertAll(db::Connection& conn);
  void dbReadKVR(db::Connection& conn, const std::shared_ptr<TargetItem>& Ptarget);
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node parNode, const std::shared_ptr<TargetItem>& Ptarget);

 private:
  static std::string nameKey(const DataItem& d);
  // First-match index by name key (names::key): whole-target reads and imports
  // link thousands of positions by name.
  mutable detail::NameIndex<DataItem> nameIndex_{detail::dataNameJournal(), &DataItems::nameKey};
};

}  // namespace kavrel
