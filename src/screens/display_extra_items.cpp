// The request links of request displays (table Extra_Aff).

#include "kavrel/screens/display_extra_items.h"

#include <functional>
#include <string>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/screens/display_items.h"
#include "requests/position_support.h"
#include "screens/display_support.h"

namespace kavrel {

namespace {

constexpr const char* kReadParentError = "DisplayExtraItems.dbRead error : parent not defined";
constexpr const char* kOlderParentError = "DisplayExtraItems.dbReadKVR error : parent not defined";

// Runs `row` on each link row of the display and type in [Request Name]
// order until it returns false.
void forEachLinkRow(db::Connection& conn, const DisplayItem& d, const detail::DisplayOwners& o, int32_t typeAff,
                    const std::function<bool(db::Recordset&)>& row) {
  if (auto* batch = detail::DisplayReadBatch::activeFor(conn, o.targetid)) {
    db::ClientRecordset& rs = batch->extraLinksOfDisplay(d.id());
    for (; !rs.eof(); rs.moveNext()) {
      if (detail::intOr(rs.field("Screen Id"), 0) != o.screenId || detail::intOr(rs.field("Type Affich"), 0) != typeAff)
        continue;
      if (!row(rs)) return;
    }
    return;
  }
  auto rs = conn.execute(
      "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Request Name], "
      "[LgVariable], [Param] From  Extra_Aff WHERE [Target Id] = " +
      std::to_string(o.targetid) + " AND [Screen Id] = " + std::to_string(o.screenId) +
      " AND [Display Id]=" + std::to_string(d.id()) + " AND [Type Affich]=" + std::to_string(typeAff) +
      " ORDER BY [Request Name]");
  for (; !rs->eof(); rs->moveNext())
    if (!row(*rs)) break;
  rs->close();
}

// Takes the row's name and flag (fields by name, or by position in a join,
// whose columns the engine may rename); an unknown request leaves `request`
// null.
void readRow(DisplayExtraItem& item, db::Recordset& rs, const detail::DisplayOwners& o,
             const std::shared_ptr<DisplayItem>& Pdisplay, bool joined = false) {
  item.setParam(detail::boolOr(joined ? rs.field(6) : rs.field("Param"), false));
  item.setRequestName((joined ? rs.field(4) : rs.field("Request Name")).toText());
  item.setRequest(nullptr);
  trap([&] {
    if (auto requests = detail::requestsOf(o)) item.setRequest(requests->ItemName(item.requestName()));
  });
  item.setParent(Pdisplay);
}

std::string olderLayoutJoin(const detail::DisplayOwners& o, const DisplayItem& d) {
  return "SELECT Affichages.[Target Id], Affichages.[Screen Id], Affichages.[Display Id], Affichages.[Data Name], "
         " Requêtes.[Request Name],Requêtes.[LgVariable],Affichages.[Param], Affichages.Address, Affichages.[Ecu Id] "
         "FROM Requêtes INNER JOIN (Données INNER JOIN Affichages ON (Données.Param = Affichages.Param) AND "
         "(Données.[Data Name] = Affichages.[Data Name]) AND (Données.[Target Id] = Affichages.[Ecu Id]) AND "
         "(Données.Address = Affichages.Address)) ON (Requêtes.[Request Id] = Données.[Request Id]) AND "
         "(Requêtes.[Target Id] = Données.[Target Id]) AND (Requêtes.Address = Données.Address) WHERE "
         "Affichages.[Target Id]=" +
         std::to_string(o.targetid) + " AND Affichages.[Screen Id]=" + std::to_string(o.screenId) +
         " AND Affichages.[Display Id]=" + std::to_string(d.id()) + " AND Données.[Length]=0 ";
}

}  // namespace

// ---------------------------------------------------------------- DisplayExtraItem

void DisplayExtraItem::clear() {
  request_.reset();
  parent_.reset();
}

bool DisplayExtraItem::DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay, int32_t typeAff) {
  if (!Pdisplay) raise(100, "", kReadParentError);
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*Pdisplay, kReadParentError);
  bool found = false;
  forEachLinkRow(conn, *Pdisplay, o, typeAff, [&](db::Recordset& rs) {
    readRow(*this, rs, o, Pdisplay);
    found = true;
    return false;  // the first row only
  });
  return found;
}

bool DisplayExtraItem::dbReadKVR(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay) {
  if (!Pdisplay) raise(100, "", kOlderParentError);
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*Pdisplay, kOlderParentError);
  auto rs = conn.execute(olderLayoutJoin(o, *Pdisplay));
  const bool found = !rs->eof();
  if (found) readRow(*this, *rs, o, Pdisplay, true);
  rs->close();
  return found;
}

void DisplayExtraItem::dbInsert(db::Connection& conn) {
  auto d = parent();
  if (!d) raise(100, "", "Parent not defined");
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*d, "Parent not defined");
  auto request = detail::linkedRequest(*this);
  auto rs = conn.openUpdatable(detail::kExtraLinkColumns);
  rs->addNew();
  detail::setExtraLinkRow(*rs, *request, param_, *d, o);
  detail::updateOrCancel(*rs);
  rs->close();
}

void DisplayExtraItem::DbInsertAll(db::Connection& conn) {
  try {
    dbInsert(conn);
  } catch (const Error& e) {
    host().logEvent(EventType::Error, "DisplayExtraItem.DbInsertAll : " + e.description());
  } catch (const std::exception& e) {
    host().logEvent(EventType::Error, std::string("DisplayExtraItem.DbInsertAll : ") + e.what());
  }
}

void DisplayExtraItem::createXMLnode(xml::Document&, xml::Node) {
  host().messageBox("DisplayExtraItem.createXMLnode obsolete function", "", MessageIcon::None);
}

void DisplayExtraItem::loadXml(xml::Document&, xml::Node) {
  host().messageBox("DisplayExtraItem.loadXml obsolete function", "", MessageIcon::None);
}

// ---------------------------------------------------------------- DisplayExtraItems

DisplayExtraItems::Ptr DisplayExtraItems::Add(std::string_view sKey) {
  return addNew(sKey, [](DisplayExtraItem&) {});
}

void DisplayExtraItems::DbRead(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay, int32_t typeAff) {
  if (!Pdisplay) raise(100, "", kReadParentError);
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*Pdisplay, kReadParentError);
  forEachLinkRow(conn, *Pdisplay, o, typeAff, [&](db::Recordset& rs) {
    readRow(*Add(), rs, o, Pdisplay);
    return true;
  });
}

int32_t DisplayExtraItems::dbReadKVR(db::Connection& conn, const std::shared_ptr<DisplayItem>& Pdisplay) {
  if (!Pdisplay) raise(100, "", kOlderParentError);
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*Pdisplay, kOlderParentError);
  auto rs = conn.execute(olderLayoutJoin(o, *Pdisplay));
  int32_t added = 0;
  for (; !rs->eof(); rs->moveNext(), ++added) readRow(*Add(), *rs, o, Pdisplay, true);
  rs->close();
  return added;
}

void DisplayExtraItems::DbInsertAll(db::Connection& conn) {
  for (const auto& item : *this) item->DbInsertAll(conn);
}

void DisplayExtraItems::createXMLnode(xml::Document&, xml::Node) {
  host().messageBox("DisplayExtraItems.createXMLnode obsolete function", "", MessageIcon::None);
}

void DisplayExtraItems::loadXml(xml::Document&, xml::Node) {
  host().messageBox("DisplayExtraItems.loadXml obsolete function", "", MessageIcon::None);
}

}  // namespace kavrel
