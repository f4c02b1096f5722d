// Displays of a screen (table Affichages), the shared helpers of the display
// classes, and the displays' part of the whole-target screen insert.

#include "kavrel/screens/display_items.h"

#include <cmath>
#include <string>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_position_items.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/screens/category_items.h"
#include "kavrel/screens/screen_items.h"
#include "kavrel/target/target_item.h"
#include "requests/position_support.h"
#include "screens/display_support.h"
#include "screens/screen_bulk.h"
#include "target/target_read.h"

namespace kavrel {

namespace detail {

// ---------------------------------------------------------------- helpers

const char* const kDisplayColumns =
    "SELECT [Target Id], [Display Id], [Screen Id],  [Type Affich], [Left], [Top], [Height], "
    "[Width], [CaptionWidth], [FontName], [FontSize], [FontBold], [FontItalic], [FontColor], [Color] "
    "FROM Affichages";
const char* const kDataLinkColumns =
    "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Data Name], "
    "[Request Name] FROM [Données_Aff]";
const char* const kExtraLinkColumns =
    "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Request Name], "
    "[LgVariable], [Param] FROM [Extra_Aff]";
const char* const kRangeColumns = "SELECT [Display Id], [Seuil], [Couleur], [SonFlag], [Son] FROM Seuils";

DisplayOwners displayOwners(const DisplayItem& d) {
  DisplayOwners o;
  o.screen = d.parent();
  if (!o.screen) return o;
  o.screenId = o.screen->screenId();
  if (auto category = o.screen->parent()) o.target = category->parent();
  if (o.target) {
    o.targetid = o.target->targetid();
    o.address = o.target->Address();
  }
  return o;
}

DisplayOwners displayOwnersOrRaise(const DisplayItem& d, const char* description) {
  DisplayOwners o = displayOwners(d);
  if (!o.screen || !o.target) raise(100, "", description);
  return o;
}

std::shared_ptr<RequestItems> requestsOf(const DisplayOwners& o) { return o.target ? o.target->Requests() : nullptr; }

std::string thresholdText(double v) {
  // Not text::numberToText: that one writes a value that is exactly a
  // single-precision float with the float's digits (font sizes), which would
  // no longer equal the stored double in a WHERE clause.
  if (std::isfinite(v) && !std::signbit(v)) return " " + text::decimalText(v);
  return text::decimalText(v);
}

void updateOrCancel(db::UpdatableRecordset& rs) {
  try {
    rs.update();
  } catch (...) {
    trap([&] { rs.cancelUpdate(); });
    throw;
  }
}

namespace {
int32_t flag(bool b) { return b ? 1 : 0; }
}  // namespace

void setDisplayRow(db::UpdatableRecordset& rs, const DisplayItem& d, int32_t targetid, int32_t screenId) {
  rs.setField("Target Id", targetid);
  rs.setField("Screen Id", screenId);
  rs.setField("CaptionWidth", d.CaptionWidth());
  rs.setField("Left", d.DisplayLeft());
  rs.setField("Top", d.DisplayTop());
  rs.setField("Height", d.DisplayHeight());
  rs.setField("Width", d.DisplayWidth());
  rs.setField("FontName", d.FontName());
  rs.setField("FontSize", d.FontSize());
  rs.setField("FontBold", flag(d.FontBold()));
  rs.setField("FontItalic", flag(d.FontItalic()));
  rs.setField("FontColor", d.FontColor());
  rs.setField("Color", d.DisplayColor());
  rs.setField("Type Affich", d.TypeDisplay());
}

std::shared_ptr<DataPositionItem> linkedPosition(const DisplayDataItem& link) {
  auto pos = link.DataPosition();
  if (!pos) raise(91, "", "DisplayDataItem.dbInsert : the display shows no data position");
  return pos;
}

std::shared_ptr<RequestItem> linkedRequest(const DisplayExtraItem& link) {
  auto request = link.request();
  if (!request)
    raise(1, "", "DisplayExtraItem.dbInsert : impossible to insert extraData because the request doesn't exist");
  return request;
}

void setDataLinkRow(db::UpdatableRecordset& rs, const DataPositionItem& pos, const DisplayItem& d,
                    const DisplayOwners& o) {
  // The names of the linked objects, so that a rename is carried.
  auto request = pos.parent();
  rs.setField("Target Id", o.targetid);
  rs.setField("Screen Id", o.screenId);
  rs.setField("Display Id", d.id());
  rs.setField("Type Affich", d.TypeDisplay());
  rs.setField("Ecu Address", o.address);
  rs.setField("Ecu Id", o.targetid);
  rs.setField("Data Name", pos.dataname());
  rs.setField("Request Name", request ? request->requestName() : pos.requestName());
}

void setExtraLinkRow(db::UpdatableRecordset& rs, const RequestItem& request, bool param, const DisplayItem& d,
                     const DisplayOwners& o) {
  rs.setField("Target Id", o.targetid);
  rs.setField("Screen Id", o.screenId);
  rs.setField("Display Id", d.id());
  rs.setField("Type Affich", d.TypeDisplay());
  rs.setField("Ecu Address", o.address);
  rs.setField("Ecu Id", o.targetid);
  rs.setField("Request Name", request.requestName());
  rs.setField("LgVariable", request.LgVariable());
  rs.setField("Param", param);
}

void setRangeRow(db::UpdatableRecordset& rs, const RangeItem& r, int32_t displayId) {
  rs.setField("Display Id", displayId);
  rs.setField("Seuil", r.Seuil());
  rs.setField("Couleur", r.Couleur());
  rs.setField("SonFlag", flag(r.SonFlag()));
  rs.setField("Son", r.Son());
}

// ---------------------------------------------------------------- DisplayReadBatch

namespace {
thread_local DisplayReadBatch* activeBatch = nullptr;
}  // namespace

DisplayReadBatch::DisplayReadBatch(db::Connection& conn, int32_t targetid, int32_t screenId)
    : conn_(conn), targetid_(targetid), screenId_(screenId), previous_(activeBatch) {
  activeBatch = this;
}

DisplayReadBatch::~DisplayReadBatch() {
  if (activeBatch == this) activeBatch = previous_;
}

DisplayReadBatch* DisplayReadBatch::activeFor(const db::Connection& conn, int32_t targetid) noexcept {
  for (DisplayReadBatch* b = activeBatch; b; b = b->previous_)
    if (&b->conn_ == &conn && b->targetid_ == targetid) return b;
  return nullptr;
}

namespace {

std::string onScreen(const char* table, int32_t screenId) {
  return screenId < 0 ? std::string() : std::string(" AND ") + table + "[Screen Id]=" + std::to_string(screenId);
}

}  // namespace

// Each statement is filtered per owner afterwards: sorted by the owner first,
// so that an owner's rows lie together (in the same order among themselves),
// which a client-side sort finds already in order and reads in one run.
std::string displaysOfTargetSql(int32_t targetid, int32_t screenId) {
  return "SELECT [Display Id], [Screen Id], [Type Affich], [Left], [Top], [Height], [Width], [CaptionWidth], "
         "[FontName], [FontSize], [FontBold], [FontItalic], [FontColor], [Color] FROM Affichages WHERE "
         "[Target Id]=" +
         std::to_string(targetid) + onScreen("", screenId) +
         " ORDER BY [Screen Id], [Left], [Top], [Height], [Width], [Display Id]";
}

std::string rangesOfTargetSql(int32_t targetid, int32_t screenId) {
  if (screenId < 0) {
    // As the list entries of data items (dataListsSql): a range of display
    // ids rather than a join, other targets' rows in between never asked for.
    const std::string ofTarget = " FROM Affichages WHERE [Target Id]=" + std::to_string(targetid) + ")";
    return "SELECT [Display Id], [Seuil], [Couleur], [SonFlag], [Son] FROM Seuils WHERE [Display Id] BETWEEN "
           "(SELECT min([Display Id])" +
           ofTarget + " AND (SELECT max([Display Id])" + ofTarget + " ORDER BY [Display Id], [Seuil]";
  }
  return "SELECT Seuils.[Display Id], Seuils.[Seuil], Seuils.[Couleur], Seuils.[SonFlag], Seuils.[Son] FROM "
         "Seuils INNER JOIN Affichages ON Seuils.[Display Id] = Affichages.[Display Id] WHERE "
         "Affichages.[Target Id]=" +
         std::to_string(targetid) + onScreen("Affichages.", screenId) + " ORDER BY Seuils.[Display Id], Seuils.[Seuil]";
}

std::string dataLinksOfTargetSql(int32_t targetid, int32_t screenId) {
  return "SELECT [Screen Id], [Display Id], [Type Affich], [Data Name], [Request Name] FROM Données_Aff "
         "WHERE [Target Id]=" +
         std::to_string(targetid) + onScreen("", screenId) + " ORDER BY [Display Id], [Data Name]";
}

std::string extraLinksOfTargetSql(int32_t targetid, int32_t screenId) {
  return "SELECT [Screen Id], [Display Id], [Type Affich], [Request Name], [LgVariable], [Param] FROM "
         "Extra_Aff WHERE [Target Id]=" +
         std::to_string(targetid) + onScreen("", screenId) + " ORDER BY [Display Id], [Request Name]";
}

db::ClientRecordset& DisplayReadBatch::filtered(std::unique_ptr<db::ClientRecordset>& rs, StatementOf sql,
                                                const char* column, int32_t value) {
  if (!rs) rs = conn_.openClient(sql(targetid_, screenId_));
  rs->filter(std::string("[") + column + "]=" + std::to_string(value));
  return *rs;
}

db::ClientRecordset& DisplayReadBatch::displaysOfScreen(int32_t screenId) {
  return filtered(displays_, displaysOfTargetSql, "Screen Id", screenId);
}

db::ClientRecordset& DisplayReadBatch::rangesOfDisplay(int32_t displayId) {
  return filtered(ranges_, rangesOfTargetSql, "Display Id", displayId);
}

db::ClientRecordset& DisplayReadBatch::dataLinksOfDisplay(int32_t displayId) {
  return filtered(dataLinks_, dataLinksOfTargetSql, "Display Id", displayId);
}

db::ClientRecordset& DisplayReadBatch::extraLinksOfDisplay(int32_t displayId) {
  return filtered(extraLinks_, extraLinksOfTargetSql, "Display Id", displayId);
}

}  // namespace detail

namespace {

constexpr size_t kMaxDataName = 70;
constexpr const char* kParentNotDefined = "Parent not defined";

const char* kDisplayOrder = " ORDER BY [Left], [Top], [Height], [Width], [Display Id]";

std::string rowWhere(const detail::DisplayOwners& o, int32_t id) {
  return " WHERE [Target Id]=" + std::to_string(o.targetid) + " AND [Display Id]=" + std::to_string(id) +
         " AND [Screen Id]=" + std::to_string(o.screenId);
}

// A failing column leaves its property as it is (the read goes on).
template <class F>
void column(F&& f) {
  trap(std::forward<F>(f));
}

// The row's geometry, colours and font (both layouts).
void readDisplayColumns(DisplayItem& d, db::Recordset& rs) {
  column([&] { d.setCaptionWidth(detail::intOr(rs.field("CaptionWidth"), d.CaptionWidth())); });
  column([&] { d.setDisplayLeft(detail::intOr(rs.field("Left"), d.DisplayLeft())); });
  column([&] { d.setDisplayTop(detail::intOr(rs.field("Top"), d.DisplayTop())); });
  column([&] { d.setDisplayHeight(detail::intOr(rs.field("Height"), d.DisplayHeight())); });
  column([&] { d.setDisplayWidth(detail::intOr(rs.field("Width"), d.DisplayWidth())); });
  column([&] { d.setDisplayColor(detail::intOr(rs.field("Color"), d.DisplayColor())); });
  column([&] {
    const db::Value& name = rs.field("FontName");
    if (!name.isNull()) d.setFontName(name.toText());
  });
  column([&] { d.setFontSize(detail::intOr(rs.field("FontSize"), d.FontSize())); });
  column([&] { d.setFontColor(detail::intOr(rs.field("FontColor"), d.FontColor())); });
  column([&] { d.setFontBold(detail::boolOr(rs.field("FontBold"), d.FontBold())); });
  column([&] { d.setFontItalic(detail::boolOr(rs.field("FontItalic"), d.FontItalic())); });
}

// A new threshold list read for the display, dropped when empty.
void readRanges(db::Connection& conn, const std::shared_ptr<DisplayItem>& d) {
  auto ranges = std::make_shared<RangeItems>();
  d->setRangeItems(ranges);
  ranges->DbRead(conn, d);
  if (ranges->empty()) d->setRangeItems(nullptr);
}

std::string baseName(const std::string& name) {
  const auto colon = name.find(':');
  return colon == std::string::npos ? name : name.substr(colon + 1);
}

void logEvent(const std::string& text) { host().logEvent(EventType::Error, text); }

// The name of the request a position lies in (its own copy when detached).
std::string positionRequestName(const DataPositionItem& pos) {
  auto request = pos.parent();
  return request ? request->requestName() : pos.requestName();
}

}  // namespace

// ---------------------------------------------------------------- DisplayItem

DisplayItem::DisplayItem()
    : DisplayExtraItem_(std::make_shared<kavrel::DisplayExtraItem>()),
      DisplayDataItem_(std::make_shared<kavrel::DisplayDataItem>()),
      RangeItems_(std::make_shared<kavrel::RangeItems>()) {}

DisplayItem::~DisplayItem() = default;

void DisplayItem::clear() {
  if (DisplayExtraItem_) {
    DisplayExtraItem_->clear();
    DisplayExtraItem_.reset();
  }
  if (DisplayDataItem_) {
    DisplayDataItem_->clear();
    DisplayDataItem_.reset();
  }
  if (RangeItems_) {
    RangeItems_->clear();
    RangeItems_.reset();
  }
  parent_.reset();
}

void DisplayItem::createXMLnode(xml::Document& odoc, xml::Node parent) {
  // The element's name and link attributes; nothing is written for a display
  // without the link its type needs. A data link whose position is unknown
  // (an import that could not resolve it) writes its own names, so that
  // nothing read is lost on the way back out.
  const char* name = "Display";
  std::shared_ptr<DataPositionItem> pos = DisplayDataItem_ ? DisplayDataItem_->DataPosition() : nullptr;
  if (TypeDisplay_ == 1) {
    if (!DisplayExtraItem_) return;
    if (DisplayExtraItem_->param()) name = "Input";
  } else {
    if (!DisplayDataItem_) return;
    if (TypeDisplay_ == 3 && pos && pos->param()) name = "Input";
  }
  const std::string dataName = pos ? pos->dataname() : (DisplayDataItem_ ? DisplayDataItem_->dataname() : "");

  xml::Node el = parent.appendElement(name);
  el.setAttribute("Width", std::to_string(CaptionWidth_));
  el.setAttribute("Color", std::to_string(DisplayColor_));
  // Set before the children: a document may be written as it is built.
  if (TypeDisplay_ == 1) {
    el.setAttribute("RequestName", DisplayExtraItem_->requestName());
  } else if (TypeDisplay_ == 3) {
    el.setAttribute("DataName", dataName);
    el.setAttribute("RequestName", pos ? positionRequestName(*pos) : DisplayDataItem_->requestName());
  } else {
    el.setAttribute("DataName", dataName);
  }

  el.appendText("\n");
  xml::Node rect = el.appendElement("Rectangle");
  rect.setAttribute("Left", std::to_string(DisplayLeft_));
  rect.setAttribute("Top", std::to_string(DisplayTop_));
  rect.setAttribute("Height", std::to_string(DisplayHeight_));
  rect.setAttribute("Width", std::to_string(DisplayWidth_));
  el.appendText("\n");
  xml::Node font = el.appendElement("Font");
  font.setAttribute("Name", FontName_);
  font.setAttribute("Size", text::numberToText(FontSize_));
  font.setAttribute("Bold", FontBold_ ? "1" : "0");
  font.setAttribute("Italic", FontItalic_ ? "1" : "0");
  font.setAttribute("Color", std::to_string(FontColor_));

  if (RangeItems_) RangeItems_->createXMLnode(odoc, el);
}

void DisplayItem::loadXml(xml::Document& odoc, xml::Node element) {
  const bool input = baseName(element.name()) == "Input";
  const xml::Attributes attributes = element.attributes();
  auto readInt = [&](const xml::Attributes& a, const char* attr, auto setter) {
    trap([&] {
      if (auto v = a.get(attr)) (this->*setter)(text::toInt(*v));
    });
  };
  readInt(attributes, "Width", &DisplayItem::setCaptionWidth);
  readInt(attributes, "Color", &DisplayItem::setDisplayColor);
  if (xml::Node rect = element.child("Rectangle")) {
    const xml::Attributes r = rect.attributes();
    readInt(r, "Left", &DisplayItem::setDisplayLeft);
    readInt(r, "Top", &DisplayItem::setDisplayTop);
    readInt(r, "Height", &DisplayItem::setDisplayHeight);
    readInt(r, "Width", &DisplayItem::setDisplayWidth);
  }
  if (xml::Node font = element.child("Font")) {
    const xml::Attributes f = font.attributes();
    if (auto v = f.get("Name")) FontName_ = std::string(*v);
    // "10,6" loads like "10.6": rounded half to even.
    trap([&] {
      if (auto v = f.get("Size")) FontSize_ = text::toRoundedInt(*v);
    });
    trap([&] {
      if (auto v = f.get("Bold")) FontBold_ = text::toBool(*v);
    });
    trap([&] {
      if (auto v = f.get("Italic")) FontItalic_ = text::toBool(*v);
    });
    readInt(f, "Color", &DisplayItem::setFontColor);
  }
  clearLastError();

  auto self = weak_from_this().lock();
  const detail::DisplayOwners owners = detail::displayOwners(*this);
  auto requests = detail::requestsOf(owners);
  std::string requestName(attributes.get("RequestName").value_or(""));
  auto dataAttr = attributes.get("DataName");
  // A broken link is reported (event log, pending error) and the display is
  // kept: one broken display must not stop the import of a screen.
  trap([&] {
    if (!dataAttr) {
      TypeDisplay_ = 1;
      if (requestName.empty()) {
        logEvent("DisplayItem.loadXml : requestName missing");
        raise(1, "DisplayItem.loadXml", "requestName missing");
      }
      if (!DisplayExtraItem_) DisplayExtraItem_ = std::make_shared<kavrel::DisplayExtraItem>();
      DisplayExtraItem_->setParent(self);
      DisplayExtraItem_->setParam(input);
      DisplayExtraItem_->setRequestName(requestName);
      DisplayExtraItem_->setRequest(requests ? requests->ItemName(requestName) : nullptr);
      if (!DisplayExtraItem_->request()) {
        logEvent("DisplayItem.loadXml : request missing (" + requestName + ")");
        raise(1, "DisplayItem.loadXml", "request missing");
      }
      return;
    }
    TypeDisplay_ = 3;
    std::string dataName(*dataAttr);
    if (text::length(dataName) > kMaxDataName) {
      host().messageBox("Data name '" + dataName + "' too long , MDB database max length = 70 characters\r\n" +
                            "name is truncated to 70 car",
                        "Builder importation", MessageIcon::Exclamation);
      dataName = text::left(dataName, kMaxDataName);
    }
    if (requestName.empty() || dataName.empty()) {
      logEvent("DisplayItem.loadXml : dataName or requestName missing");
      raise(1, "DisplayItem.loadXml", "requestName/dataName missing");
    }
    if (!DisplayDataItem_) DisplayDataItem_ = std::make_shared<kavrel::DisplayDataItem>();
    DisplayDataItem_->setParent(self);
    DisplayDataItem_->setDataname(dataName);
    DisplayDataItem_->setRequestName(requestName);
    DisplayDataItem_->setDataPosition(requests ? requests->ItemDataPositionName(requestName, dataName) : nullptr);
    if (!DisplayDataItem_->DataPosition()) {
      logEvent("DisplayItem.loadXml : request/data missing (" + requestName + "/" + dataName + ")");
      raise(1, "DisplayItem.loadXml", "request/data missing");
    }
  });
  clearLastError();
  if (!RangeItems_) RangeItems_ = std::make_shared<kavrel::RangeItems>();
  RangeItems_->loadXml(odoc, element, self);
}

void DisplayItem::dbInsert(db::Connection& conn) {
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*this, kParentNotDefined);
  auto rs = conn.openUpdatable(detail::kDisplayColumns);
  rs->addNew();
  detail::setDisplayRow(*rs, *this, o.targetid, o.screenId);
  detail::updateOrCancel(*rs);
  id_ = rs->field("Display Id").toInt32();
  rs->close();
}

void DisplayItem::DbInsertAll(db::Connection& conn) {
  try {
    dbInsert(conn);
  } catch (const std::exception& e) {
    const auto* err = dynamic_cast<const Error*>(&e);
    logEvent("DisplayItem.DbInsertAll : " + (err ? err->description() : std::string(e.what())));
    clearLastError();
    return;
  }
  // The dependants name the display through their parent link.
  auto self = weak_from_this().lock();
  clearLastError();
  if (RangeItems_)
    for (const auto& r : *RangeItems_) {
      if (!r->parent()) r->setParent(self);
      trap([&] { r->dbInsert(conn); });
    }
  clearLastError();
  if (DisplayDataItem_) {
    if (!DisplayDataItem_->parent()) DisplayDataItem_->setParent(self);
    DisplayDataItem_->DbInsertAll(conn);
  }
  clearLastError();
  if (DisplayExtraItem_) {
    if (!DisplayExtraItem_->parent()) DisplayExtraItem_->setParent(self);
    DisplayExtraItem_->DbInsertAll(conn);
  }
  clearLastError();
}

void DisplayItem::dbUpdate(db::Connection& conn) {
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*this, kParentNotDefined);
  // The type is not written: it is set only by inserting the display.
  conn.execute("UPDATE Affichages SET [CaptionWidth]=" + std::to_string(CaptionWidth_) +
               ", [Left]=" + std::to_string(DisplayLeft_) + ", [Top]=" + std::to_string(DisplayTop_) +
               ", [Height]=" + std::to_string(DisplayHeight_) + ", [Width]=" + std::to_string(DisplayWidth_) +
               ", [FontName]=" + db::sql::quoteOrNull(FontName_) + ", [FontSize]=" + text::numberToText(FontSize_) +
               ", [FontBold]=" + (FontBold_ ? "1" : "0") + ", [FontItalic]=" + (FontItalic_ ? "1" : "0") +
               ", [FontColor]=" + std::to_string(FontColor_) + ", [Color]=" + std::to_string(DisplayColor_) +
               rowWhere(o, id_));
}

void DisplayItem::dbDelete(db::Connection& conn) {
  const detail::DisplayOwners o = detail::displayOwnersOrRaise(*this, kParentNotDefined);
  // Links and thresholds go with the row (the database's relations).
  conn.execute("DELETE * FROM Affichages " + rowWhere(o, id_));
}

// ---------------------------------------------------------------- DisplayItems

DisplayItems::Ptr DisplayItems::Add(int32_t id, std::string_view sKey) {
  return addNew(sKey, [&](DisplayItem& d) { d.setId(id); });
}

void DisplayItems::createXMLnode(xml::Document& odoc, xml::Node parent) {
  for (const auto& d : *this) {
    parent.appendText("\n");
    d->createXMLnode(odoc, parent);
  }
}

void DisplayItems::loadXml(xml::Document& odoc, xml::Node screenNode, const std::shared_ptr<ScreenItem>& Pscreen) {
  std::vector<xml::Node> nodes;
  if (!trap([&] { nodes = screenNode.selectNodes("Display | Input"); })) return;
  reserve(static_cast<size_t>(Count()) + nodes.size());
  for (const auto& n : nodes) {
    auto d = std::make_shared<DisplayItem>();
    d->setParent(Pscreen);
    trap([&] { d->loadXml(odoc, n); });
    if (!lastError().pending()) trap([&] { AddData(d); });
    clearLastError();
  }
}

namespace {

// One screen's rows, from the active batch or from the screen's own query,
// until `row` returns false.
template <class Row>
void forEachDisplayRow(db::Connection& conn, int32_t targetid, int32_t screenId, const char* columns, Row&& row) {
  if (auto* batch = detail::DisplayReadBatch::activeFor(conn, targetid)) {
    db::ClientRecordset& rs = batch->displaysOfScreen(screenId);
    for (; !rs.eof(); rs.moveNext())
      if (!row(rs)) return;
    return;
  }
  auto rs = conn.execute(std::string(columns) + "FROM Affichages WHERE [Target Id]=" + std::to_string(targetid) +
                         " AND [Screen Id]=" + std::to_string(screenId) + kDisplayOrder);
  for (; !rs->eof(); rs->moveNext())
    if (!row(*rs)) break;
  rs->close();
}

}  // namespace

void DisplayItems::DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& Pscreen) {
  // The whole read runs with errors suppressed: the call never fails.
  trap([&] {
    if (!Pscreen) raise(100, "", kParentNotDefined);
    // Without a whole-target batch, the screen's displays, links and
    // thresholds are still fetched by one query per table.
    std::unique_ptr<detail::DisplayReadBatch> own;
    if (!detail::DisplayReadBatch::activeFor(conn, targetid))
      own = std::make_unique<detail::DisplayReadBatch>(conn, targetid, Pscreen->screenId());
    forEachDisplayRow(
        conn, targetid, Pscreen->screenId(),
        "SELECT [Display Id], [Type Affich], [Left], [Top], [Height], [Width], [CaptionWidth], [FontName], "
        "[FontSize], [FontBold], [FontItalic], [FontColor], [Color] ",
        [&](db::Recordset& rs) {
          auto d = Add(rs.field("Display Id").toInt32());
          column([&] { d->setTypeDisplay(detail::intOr(rs.field("Type Affich"), d->TypeDisplay())); });
          readDisplayColumns(*d, rs);
          clearLastError();
          d->setParent(Pscreen);
          trap([&] { readRanges(conn, d); });
          if (d->TypeDisplay() == 3) {
            auto link = std::make_shared<kavrel::DisplayDataItem>();
            d->setDisplayDataItem(link);
            bool found = false;
            trap([&] { found = link->DbRead(conn, d, 3); });
            if (!found) d->setDisplayDataItem(nullptr);
          } else if (d->TypeDisplay() == 1) {
            auto link = std::make_shared<kavrel::DisplayExtraItem>();
            d->setDisplayExtraItem(link);
            bool found = false;
            trap([&] { found = link->DbRead(conn, d, 1); });
            if (!found) d->setDisplayExtraItem(nullptr);
          }
          // A failed link read stops the read; the error stays pending.
          return !lastError().pending();
        });
  });
}

void DisplayItems::dbReadKVR(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& Pscreen) {
  if (!Pscreen) raise(100, "", kParentNotDefined);
  auto rs = conn.execute(
      "SELECT [Display Id], [Left], [Top], [Height], [Width], [CaptionWidth], [FontName], [FontSize], [FontBold], "
      "[FontItalic], [FontColor], [Color] FROM Affichages WHERE [Target Id]=" +
      std::to_string(targetid) + " AND [Screen Id]=" + std::to_string(Pscreen->screenId()) + kDisplayOrder);
  for (; !rs->eof(); rs->moveNext()) {
    auto d = Add(rs->field("Display Id").toInt32());
    readDisplayColumns(*d, *rs);
    clearLastError();
    d->setParent(Pscreen);
    readRanges(conn, d);
    // The type follows from the data joined to the row: a data of non-zero
    // length is shown as data, one of zero length stands for its request.
    // With neither, the type stays 3 and nothing is linked.
    auto data = std::make_shared<kavrel::DisplayDataItem>();
    d->setDisplayDataItem(data);
    if (data->dbReadKVR(conn, d)) {
      d->setTypeDisplay(3);
      continue;
    }
    d->setDisplayDataItem(nullptr);
    auto extra = std::make_shared<kavrel::DisplayExtraItem>();
    d->setDisplayExtraItem(extra);
    if (extra->dbReadKVR(conn, d))
      d->setTypeDisplay(1);
    else
      d->setDisplayExtraItem(nullptr);
  }
  rs->close();
}

void DisplayItems::dbUpdateAll(db::Connection& conn) {
  for (const auto& d : *this) d->dbUpdate(conn);
}

void DisplayItems::DbInsertAll(db::Connection& conn) {
  for (const auto& d : *this) trap([&] { d->DbInsertAll(conn); });
}

void DisplayItems::dbDeleteItem(db::Connection& conn, const Ptr& Item) {
  if (!Item) return;
  for (int32_t i = 1; i <= Count(); ++i) {
    if (this->Item(i)->id() != Item->id()) continue;
    Ptr stored = this->Item(i);
    stored->dbDelete(conn);
    Remove(i);
    return;
  }
}

// ---------------------------------------------------------------- bulk insert

void insertDisplaysBulk(ScreenItem& screen, int32_t targetId, ScreenBulkSets& sets) {
  auto list = screen.DisplayItems();
  if (!list || list->empty()) return;
  detail::DisplayOwners o;
  o.targetid = targetId;
  o.screenId = screen.screenId();
  if (auto target = screen.target()) o.address = target->Address();

  // Refusals go to the event log with the texts of the display classes'
  // own inserts; the other rows are still written. A link that cannot form
  // its row touches no record set; when it is the link of the other kind
  // (the empty object a display holds besides its own link) it is skipped
  // without an entry, as there is nothing of it to store: a whole-target
  // insert reports only what was lost.
  // Called while a failure is handled: a fault of the engine or the disk
  // (or running out of memory) is no refused row and ends the whole insert.
  auto refused = [](const char* who, const std::exception& e) {
    const auto* err = dynamic_cast<const Error*>(&e);
    if (err == nullptr || !db::isRowRefusal(*err)) throw;
    logEvent(std::string(who) + " : " + (err ? err->description() : std::string(e.what())));
  };
  auto write = [](db::UpdatableRecordset& rs, const auto& fill) {
    rs.addNew();
    try {
      fill();
    } catch (...) {
      trap([&] { rs.cancelUpdate(); });
      throw;
    }
    detail::updateOrCancel(rs);
  };
  for (const auto& d : *list) {
    try {
      write(*sets.Affichages, [&] { detail::setDisplayRow(*sets.Affichages, *d, o.targetid, o.screenId); });
      // The new id, before the rows that refer to it.
      d->setId(sets.Affichages->field("Display Id").toInt32());
    } catch (const std::exception& e) {
      refused("DisplayItem.DbInsertAll", e);
      continue;
    }
    if (auto ranges = d->RangeItems())
      for (const auto& r : *ranges) {
        // As a threshold's own insert: the refusal stays with the range.
        try {
          write(*sets.Seuils, [&] { detail::setRangeRow(*sets.Seuils, *r, d->id()); });
        } catch (const Error& e) {
          if (!db::isRowRefusal(e)) throw;
        }
      }
    if (auto link = d->DisplayDataItem(); link && (link->DataPosition() || d->TypeDisplay() == 3)) {
      try {
        auto pos = detail::linkedPosition(*link);
        write(*sets.DonneesAff, [&] { detail::setDataLinkRow(*sets.DonneesAff, *pos, *d, o); });
      } catch (const std::exception& e) {
        refused("DisplayDataItem.DbInsertAll", e);
      }
    }
    if (auto link = d->DisplayExtraItem(); link && (link->request() || d->TypeDisplay() == 1)) {
      try {
        auto request = detail::linkedRequest(*link);
        write(*sets.ExtraAff, [&] { detail::setExtraLinkRow(*sets.ExtraAff, *request, link->param(), *d, o); });
      } catch (const std::exception& e) {
        refused("DisplayExtraItem.DbInsertAll", e);
      }
    }
  }
}

}  // namespace kavrel
