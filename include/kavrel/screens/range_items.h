// Thresholds of a display (table Seuils; "Threshold" elements in XML): each
// value selects a colour and, optionally, a sound that the client shows or
// plays when the displayed value reaches it.
//
// Contract:
//  - A threshold row is named by its display's id and its value (deletes
//    also by colour): two thresholds of one display with the same value are
//    updated and moved together. Values are spliced into SQL with a leading
//    blank for a non-negative number and "." as decimal point whatever the
//    locale, in the shortest text that reads back as the same double.
//  - dbInsert never throws for a refused row: the error is left pending with
//    the description " DBInsert Range Error : " + the database's text.
//    dbUpdateRange records a failure the same way (its own text unchanged)
//    and does not change Seuil: the caller sets it afterwards. dbUpdate and
//    dbDelete throw. A range without a parent display throws error 100
//    "Parent not defined" before any statement.
//  - XML: "Value" is written with the same leading-blank text and read up to
//    the first character that is not part of a number ("12,5" reads 12); a
//    "Sound" child gives SonFlag true and Son 0 (its "Name" is not read back).
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class DisplayItem;

class RangeItem {
 public:
  std::shared_ptr<DisplayItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<DisplayItem>& p) { parent_ = p; }
  int32_t Son() const { return Son_; }
  void setSon(int32_t v) { Son_ = v; }
  bool SonFlag() const { return SonFlag_; }
  void setSonFlag(bool v) { SonFlag_ = v; }
  int32_t Couleur() const { return Couleur_; }
  void setCouleur(int32_t v) { Couleur_ = v; }
  double Seuil() const { return Seuil_; }
  void setSeuil(double v) { Seuil_ = v; }

  void clear() { parent_.reset(); }
  void createXMLnode(xml::Document& odoc, xml::Node thresholdNode);
  void loadXml(xml::Document& odoc, xml::Node thresholdNode);
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn) { dbInsert(conn); }
  void dbUpdate(db::Connection& conn);
  void dbUpdateRange(db::Connection& conn, double newRange);
  void dbDelete(db::Connection& conn);

 private:
  std::weak_ptr<DisplayItem> parent_;
  int32_t Son_ = 0;
  bool SonFlag_ = false;
  int32_t Couleur_ = 0;
  double Seuil_ = 0.0;
};

class RangeItems : public KeyedCollection<RangeItem> {
 public:
  Ptr Add(double Seuil, std::string_view sKey = {});

  // One "Threshold" child of the display element per range, in order.
  void createXMLnode(xml::Document& odoc, xml::Node displayNode);
  // Appends a range per "Threshold" child; never throws.
  void loadXml(xml::Document& odoc, xml::Node displayNode, const std::shared_ptr<DisplayItem>& Pdisplay);
  // Appends the display's stored thresholds in ascending value order.
  void DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay);
  void DbInsertAll(db::Connection& conn);
  void dbUpdateAll(db::Connection& conn);
  // Deletes (database and collection) the first range whose Seuil and
  // Couleur equal those of `range`; nothing when none does.
  void DbDeleteRange(db::Connection& conn, const std::shared_ptr<RangeItem>& range);
};

}  // namespace kavrel
