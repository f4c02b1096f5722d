// The data links of data displays (table Données_Aff).

#include "kavrel/screens/display_data_items.h"

#include <functional>
#include <string>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_position_items.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/screens/display_items.h"
#include "requests/position_support.h"
#include "screens/display_support.h"

namespace kavrel {

namespace {

constexpr const char* kReadParentError = "DisplayDataItems.dbReadKVR error : parent not defined";

// Runs `row` on each link row of the display and type in [Data Name] order
// until it returns false.
void forEachLinkRow(db::Connection& conn, const DisplayItem& d, const detail::DisplayOwners& o, int32_t typeAff,
                    const std::function<bool(db::Recordset&)>& row) {
  if (auto* batch = detail::DisplayReadBatch::activeFor(conn, o.targetid)) {
    // The batch holds the target's rows by display; screen and type are
    // checked here.
    db::ClientRecordset& rs = batch->dataLinksOfDisplay(d.id());
    for (; !rs.eof(); rs.moveNext()) {
      if (detail::intOr(rs.field("Screen Id"), 0) != o.screenId || detail::intOr(rs.field("Type Affich"), 0) != typeAff)
        continue;
      if (!row(rs)) return;
    }
    return;
  }
  auto rs = conn.execute(
      "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Data Name], "
      "[Request Name] From Données_Aff WHERE [Target Id] = " +
      std::to_string(o.targetid) + " AND [Screen Id] = " + std::to_string(o.screenId) +
      " AND [Display Id]=" + std::to_string(d.id()) + " AND [Type Affich]=" + std::to_string(typeAff) +
      " ORDER BY [Data Name]");
  for (; !rs->eof(); rs->moveNext())
    if (!row(*rs)) break;
  rs->close();
}

void readLinkRow(DisplayDataItem& item, db::Recordset& rs, const detail::DisplayOwners& o,
                 const std::shared_ptr<DisplayItem>& Pdisplay) {
  item.setDataname(rs.field("Data Name").toText());
  item.setRequestName(rs.field("Request Name").toText());
  auto requests = detail::requestsOf(o);
  item.setDataPosition(requests ? requests->ItemDataPositionName(item.requestName(), item.dataname()) : nullptr);
  item.setParent(Pdisplay);
}

std::string olderLayoutJoin(const detail::DisplayOwners& o, const DisplayItem& d) {
  return "SELECT Affichages.[Target Id], Affichages.[Screen Id], Affichages.[Display Id], Affichages.[Data Name], "
         " Requêtes.[Request Name], Affichages.Address, Affichages.[Ecu Id], Données.[Param] FROM Requêtes INNER JOIN "
         "(Données INNER JOIN Affichages ON (Données.Param = Affichages.Param) AND "
         "(Données.[Data Name] = Affichages.[Data Name]) AND (Données.[Target Id] = Affichages.[Ecu Id]) AND "
         "(Données.Address = Affichages.Address)) ON (Requêtes.[Request Id] = Données.[Request Id]) AND "
         "(Requêtes.[Target Id] = Données.[Target Id]) AND (Requêtes.Address = Données.Address) WHERE "
         "Affichages.[Target Id]=" +
         std::to_string(o.targetid) + " AND Affichages.[Screen Id]=" + std::to_string(o.screenId) +
         " AND Affichages.[Display Id]=" + std::to_string(d.id()) +
         " AND Données.[Length]<>0  ORDER BY Affichages.[Data Name], Données.[Param] DESC";
}

// Older layout: the position of a joined row. Written (input) data was
// stored under "<lower-cased name> - ecriture"; the plain name is the
// fallback. A position not found shows `message` + the name.
// Fields by position: the engine may rename the columns of a join.
void readOlderRow(DisplayDataItem& item, db::Recordset& rs, const detail::DisplayOwners& o,
                  const std::shared_ptr<DisplayItem>& Pdisplay, const char* message) {
  item.setDataname(rs.field(3).toText());
  item.setRequestName(rs.field(4).toText());
  const bool written = detail::boolOr(rs.field(7), false);
  std::shared_ptr<DataPositionItem> pos;
  if (auto requests = detail::requestsOf(o)) {
    if (written) pos = requests->ItemDataPositionName(item.requestName(), text::lower(item.dataname()) + " - ecriture");
    if (!pos) pos = requests->ItemDataPositionName(item.requestName(), item.dataname());
  }
  if (!pos) host().messageBox(message + item.dataname(), "", MessageIcon::None);
  item.setDataPosition(pos);
  item.setParent(Pdisplay);
}

}  // namespace

// ---------------------------------------------------------------- DisplayDataItem

void DisplayDataItem::clear() {
  DataPosition_.reset();
  parent_.reset();
}

bool DisplayDataItem::DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay, int32_t typeAff) {
  if (!Pdisplay) raise(100, "", kReadParentError);
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*Pdisplay, kReadParentError);
  bool found = false;
  forEachLinkRow(conn, *Pdisplay, o, typeAff, [&](db::Recordset& rs) {
    readLinkRow(*this, rs, o, Pdisplay);
    found = true;
    return false;  // the first row only
  });
  return found;
}

bool DisplayDataItem::dbReadKVR(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay) {
  constexpr const char* kParent = "DisplayDataItem.dbReadKVR error : parent not defined";
  if (!Pdisplay) raise(100, "", kParent);
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*Pdisplay, kParent);
  auto rs = conn.execute(olderLayoutJoin(o, *Pdisplay));
  const bool found = !rs->eof();
  // The class name is misspelt in this message; clients match the text.
  if (found) readOlderRow(*this, *rs, o, Pdisplay, "DisplayDatatem.dbReadKVR error : Data position non trouvée : ");
  rs->close();
  return found;
}

void DisplayDataItem::dbInsert(db::Connection& conn) {
  auto d = parent();
  if (!d) raise(100, "", "Parent not defined");
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*d, "Parent not defined");
  auto pos = detail::linkedPosition(*this);
  auto rs = conn.openUpdatable(detail::kDataLinkColumns);
  rs->addNew();
  detail::setDataLinkRow(*rs, *pos, *d, o);
  detail::updateOrCancel(*rs);
  rs->close();
}

void DisplayDataItem::DbInsertAll(db::Connection& conn) {
  try {
    dbInsert(conn);
  } catch (const Error& e) {
    host().logEvent(EventType::Error, "DisplayDataItem.DbInsertAll : " + e.description());
  } catch (const std::exception& e) {
    host().logEvent(EventType::Error, std::string("DisplayDataItem.DbInsertAll : ") + e.what());
  }
}

void DisplayDataItem::createXMLnode(xml::Document&, xml::Node) {
  host().messageBox("DisplayDataItem.createXMLnode obsolete function", "", MessageIcon::None);
}

void DisplayDataItem::loadXml(xml::Document&, xml::Node) {
  host().messageBox("DisplayDataItem.loadXml obsolete function", "", MessageIcon::None);
}

// ---------------------------------------------------------------- DisplayDataItems

DisplayDataItems::Ptr DisplayDataItems::Add(std::string_view sKey) {
  return addNew(sKey, [](DisplayDataItem&) {});
}

void DisplayDataItems::DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay, int32_t typeAff) {
  if (!Pdisplay) raise(100, "", kReadParentError);
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*Pdisplay, kReadParentError);
  forEachLinkRow(conn, *Pdisplay, o, typeAff, [&](db::Recordset& rs) {
    readLinkRow(*Add(), rs, o, Pdisplay);
    return true;
  });
}

int32_t DisplayDataItems::dbReadKVR(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay) {
  constexpr const char* kParent = "DisplayDataItems.dbReadKVR error : parent not defined";
  if (!Pdisplay) raise(100, "", kParent);
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*Pdisplay, kParent);
  auto rs = conn.execute(olderLayoutJoin(o, *Pdisplay));
  int32_t added = 0;
  for (; !rs->eof(); rs->moveNext(), ++added)
    readOlderRow(*Add(), *rs, o, Pdisplay, "DisplayDatatems.dbReadKVR error : Data position non trouvée : ");
  rs->close();
  return added;
}

void DisplayDataItems::DbInsertAll(db::Connection& conn) {
  for (const auto& item : *this) item->DbInsertAll(conn);
}

void DisplayDataItems::createXMLnode(xml::Document&, xml::Node) {
  host().messageBox("DisplayDataItems.createXMLnode obsolete function", "", MessageIcon::None);
}

void DisplayDataItems::loadXml(xml::Document&, xml::Node) {
  host().messageBox("DisplayDataItems.loadXml obsolete function", "", MessageIcon::None);
}

}  // namespace kavrel
