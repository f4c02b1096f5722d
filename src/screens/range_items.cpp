// Thresholds of a display (table Seuils).

#include "kavrel/screens/range_items.h"

#include <string>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/screens/display_items.h"
#include "requests/position_support.h"
#include "screens/display_support.h"

namespace kavrel {

namespace {

// The display whose id names the range's row.
std::shared_ptr<DisplayItem> displayOrRaise(const RangeItem& r) {
  auto d = r.parent();
  if (!d) raise(100, "", "Parent not defined");
  return d;
}

std::string rowWhere(const DisplayItem& d, double seuil) {
  return " WHERE [Display Id]=" + std::to_string(d.id()) + " AND [Seuil]=" + detail::thresholdText(seuil);
}

}  // namespace

// ---------------------------------------------------------------- RangeItem

void RangeItem::createXMLnode(xml::Document&, xml::Node thresholdNode) {
  thresholdNode.setAttribute("Value", detail::thresholdText(Seuil_));
  thresholdNode.setAttribute("Color", std::to_string(Couleur_));
  if (SonFlag_) {
    thresholdNode.appendText("\n");
    thresholdNode.appendElement("Sound").setAttribute("Name", std::to_string(Son_));
  }
}

void RangeItem::loadXml(xml::Document&, xml::Node thresholdNode) {
  const xml::Attributes attributes = thresholdNode.attributes();
  // Read up to the first character that is not part of a number: a decimal
  // comma cuts the fraction.
  if (auto v = attributes.get("Value")) Seuil_ = text::val(*v);
  // A colour that is no number is skipped, as a missing one is.
  try {
    if (auto v = attributes.get("Color")) Couleur_ = text::toInt(*v);
  } catch (const Error&) {
  }
  // The sound number is written as "Name" but taken from the element's own
  // value, which an element does not have: it reads back as 0.
  SonFlag_ = !thresholdNode.child("Sound").isNull();
  Son_ = 0;
}

void RangeItem::dbInsert(db::Connection& conn) {
  auto d = displayOrRaise(*this);
  auto rs = conn.openUpdatable(detail::kRangeColumns);
  try {
    rs->addNew();
    detail::setRangeRow(*rs, *this, d->id());
    rs->update();
  } catch (const Error& e) {
    trap([&] { rs->cancelUpdate(); });
    recordError(e.number(), e.rawSource(), " DBInsert Range Error : " + e.description());
  }
  trap([&] { rs->close(); });
}

void RangeItem::dbUpdate(db::Connection& conn) {
  auto d = displayOrRaise(*this);
  conn.execute("UPDATE Seuils SET [SonFlag]=" + std::string(SonFlag_ ? "1" : "0") +
               ", [Couleur]=" + std::to_string(Couleur_) + ", [Son]=" + std::to_string(Son_) + rowWhere(*d, Seuil_));
}

void RangeItem::dbUpdateRange(db::Connection& conn, double newRange) {
  auto d = displayOrRaise(*this);
  trap([&] { conn.execute("UPDATE Seuils SET [Seuil]=" + detail::thresholdText(newRange) + rowWhere(*d, Seuil_)); });
}

void RangeItem::dbDelete(db::Connection& conn) {
  auto d = displayOrRaise(*this);
  conn.execute("DELETE * FROM Seuils" + rowWhere(*d, Seuil_) + " AND [Couleur]=" + std::to_string(Couleur_));
}

// ---------------------------------------------------------------- RangeItems

RangeItems::Ptr RangeItems::Add(double Seuil, std::string_view sKey) {
  return addNew(sKey, [&](RangeItem& r) { r.setSeuil(Seuil); });
}

void RangeItems::createXMLnode(xml::Document& odoc, xml::Node displayNode) {
  for (const auto& r : *this) r->createXMLnode(odoc, displayNode.appendElement("Threshold"));
}

void RangeItems::loadXml(xml::Document& odoc, xml::Node displayNode, const std::shared_ptr<DisplayItem>& Pdisplay) {
  std::vector<xml::Node> nodes;
  if (!trap([&] { nodes = displayNode.selectNodes("Threshold"); })) return;
  for (const auto& n : nodes) {
    auto r = std::make_shared<RangeItem>();
    r->setParent(Pdisplay);
    trap([&] { r->loadXml(odoc, n); });
    if (!lastError().pending()) trap([&] { AddData(r); });
    clearLastError();
  }
}

void RangeItems::DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay) {
  if (!Pdisplay) raise(100, "", "Parent not defined");
  auto add = [&](db::Recordset& rs) {
    // Null columns keep the defaults (0, no sound).
    const db::Value& seuil = rs.field("Seuil");
    auto r = Add(seuil.isNull() ? 0.0 : seuil.toDouble());
    r->setCouleur(detail::intOr(rs.field("Couleur"), 0));
    const db::Value& flag = rs.field("SonFlag");
    r->setSonFlag(!flag.isNull() && flag.toDouble() != 0.0);
    r->setSon(detail::intOr(rs.field("Son"), 0));
    r->setParent(Pdisplay);
  };
  if (auto* batch = detail::DisplayReadBatch::activeFor(conn, detail::displayOwners(*Pdisplay).targetid)) {
    db::ClientRecordset& rs = batch->rangesOfDisplay(Pdisplay->id());
    for (; !rs.eof(); rs.moveNext()) add(rs);
    return;
  }
  auto rs = conn.execute("SELECT [Seuil], [Couleur], [SonFlag], [Son] From Seuils WHERE [Display Id]=" +
                         std::to_string(Pdisplay->id()) + " ORDER BY [Seuil]");
  for (; !rs->eof(); rs->moveNext()) add(*rs);
  rs->close();
}

void RangeItems::DbInsertAll(db::Connection& conn) {
  for (const auto& r : *this) r->dbInsert(conn);
}

void RangeItems::dbUpdateAll(db::Connection& conn) {
  for (const auto& r : *this) r->dbUpdate(conn);
}

void RangeItems::DbDeleteRange(db::Connection& conn, const std::shared_ptr<RangeItem>& range) {
  if (!range) return;
  for (int32_t i = 1; i <= Count(); ++i) {
    Ptr stored = Item(i);
    if (stored->Seuil() != range->Seuil() || stored->Couleur() != range->Couleur()) continue;
    stored->dbDelete(conn);
    Remove(i);
    return;
  }
}

}  // namespace kavrel
