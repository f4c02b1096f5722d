// Displays: the value fields of a tester screen (table Affichages; "Display"
// and "Input" elements of a screen in XML). A display is a captioned box at
// a fixed place that shows, or lets the user enter, either a data item at its
// position in a request's reply (TypeDisplay 3, linked by its
// DisplayDataItem) or the outcome of a whole request (TypeDisplay 1, linked
// by its DisplayExtraItem), with colour/sound thresholds (RangeItems).
//
// Ownership: a screen owns its DisplayItems; a display owns its two link
// objects and its thresholds, each holding a weak parent link back to it.
// A new display has all three present and empty; clear() drops them (after
// clearing each) and the parent link. The display reaches its target through
// screen -> category -> target.
//
// Contract:
//  - DisplayItems::DbRead never throws. It reads the screen's rows in
//    [Left], [Top], [Height], [Width] order (then by id, so that displays at
//    the same place keep one order whichever way they are read); a Null font
//    name keeps "Arial"; Null numbers keep the defaults;
//    the link of the row's type is read (data link for 3, request link for
//    1, none otherwise) and set to null when its row is missing; RangeItems
//    is null when the display has no thresholds. An error while reading a
//    link stops the read: the displays read so far stay, and the error is
//    left pending in lastError().
//    Inside a whole-target read (ScreenItems/CategoryItems reading a target,
//    see detail::DisplayReadBatch) the rows of the four tables are fetched
//    with one query per table for the whole target and handed out per screen
//    and display, in the same orders.
//  - DisplayItems::dbReadKVR reads a database of the older layout, where a
//    display row carries its data name: the type is inferred from the data
//    joined to the row (non-zero length: data display 3; zero length:
//    request display 1; neither: type 3 with no link). Errors propagate.
//  - dbInsert takes the id the database gives; dbUpdate rewrites geometry,
//    colours and font but never the type; dbDelete deletes the row (its
//    links and thresholds go with it through the database's relations).
//    These throw on failure. DbInsertAll never throws: a refused display row
//    becomes an event-log entry "DisplayItem.DbInsertAll : " + description and
//    nothing under it is written; then thresholds, the data link and the
//    request link are offered in turn (an empty link of the other kind fails
//    and leaves its own event-log entry, as the link classes say).
//  - The whole-target screen insert (ScreenItems::DbInsertAll) writes the
//    same rows table by table, each display's new id read before its links
//    and thresholds, with the same event-log texts, except that the empty
//    link of the other kind is skipped without an entry.
//  - createXMLnode writes "Input" for an input field ("Display" otherwise),
//    nothing at all when the link its type needs is missing. loadXml never
//    throws: a broken link leaves an event-log entry and the display is kept.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"
#include "kavrel/screens/display_data_items.h"
#include "kavrel/screens/display_extra_items.h"
#include "kavrel/screens/range_items.h"

namespace kavrel {

class ScreenItem;

class DisplayItem : public std::enable_shared_from_this<DisplayItem> {
 public:
  DisplayItem();
  ~DisplayItem();
  DisplayItem(const DisplayItem&) = delete;
  DisplayItem& operator=(const DisplayItem&) = delete;

  std::shared_ptr<ScreenItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<ScreenItem>& p) { parent_ = p; }
  std::shared_ptr<kavrel::DisplayExtraItem> DisplayExtraItem() const { return DisplayExtraItem_; }
  void setDisplayExtraItem(std::shared_ptr<kavrel::DisplayExtraItem> v) { DisplayExtraItem_ = std::move(v); }
  std::shared_ptr<kavrel::DisplayDataItem> DisplayDataItem() const { return DisplayDataItem_; }
  void setDisplayDataItem(std::shared_ptr<kavrel::DisplayDataItem> v) { DisplayDataItem_ = std::move(v); }
  std::shared_ptr<kavrel::RangeItems> RangeItems() const { return RangeItems_; }
  void setRangeItems(std::shared_ptr<kavrel::RangeItems> v) { RangeItems_ = std::move(v); }
  int32_t id() const { return id_; }
  void setId(int32_t v) { id_ = v; }
  int32_t TypeDisplay() const { return TypeDisplay_; }
  void setTypeDisplay(int32_t v) { TypeDisplay_ = v; }
  int32_t DisplayLeft() const { return DisplayLeft_; }
  void setDisplayLeft(int32_t v) { DisplayLeft_ = v; }
  int32_t DisplayTop() const { return DisplayTop_; }
  void setDisplayTop(int32_t v) { DisplayTop_ = v; }
  int32_t DisplayHeight() const { return DisplayHeight_; }
  void setDisplayHeight(int32_t v) { DisplayHeight_ = v; }
  int32_t DisplayWidth() const { return DisplayWidth_; }
  void setDisplayWidth(int32_t v) { DisplayWidth_ = v; }
  int32_t CaptionWidth() const { return CaptionWidth_; }
  void setCaptionWidth(int32_t v) { CaptionWidth_ = v; }
  int32_t DisplayColor() const { return DisplayColor_; }
  void setDisplayColor(int32_t v) { DisplayColor_ = v; }
  int32_t FontSize() const { return FontSize_; }
  void setFontSize(int32_t v) { FontSize_ = v; }
  const std::string& FontName() const { return FontName_; }
  void setFontName(std::string v) { FontName_ = std::move(v); }
  bool FontItalic() const { return FontItalic_; }
  void setFontItalic(bool v) { FontItalic_ = v; }
  int32_t FontColor() const { return FontColor_; }
  void setFontColor(int32_t v) { FontColor_ = v; }
  bool FontBold() const { return FontBold_; }
  void setFontBold(bool v) { FontBold_ = v; }

  void clear();
  // Appends this display's element to `parent` (see the contract above).
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  void loadXml(xml::Document& odoc, xml::Node element);
  // Without a parent screen of a category of a target: error 100 "Parent
  // not defined".
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbUpdateAll(db::Connection& conn) { dbUpdate(conn); }
  void dbDelete(db::Connection& conn);

 private:
  std::weak_ptr<ScreenItem> parent_;
  std::shared_ptr<kavrel::DisplayExtraItem> DisplayExtraItem_;
  std::shared_ptr<kavrel::DisplayDataItem> DisplayDataItem_;
  std::shared_ptr<kavrel::RangeItems> RangeItems_;
  int32_t id_ = 0;
  int32_t TypeDisplay_ = 3;
  int32_t DisplayLeft_ = 0;
  int32_t DisplayTop_ = 0;
  int32_t DisplayHeight_ = 300;
  int32_t DisplayWidth_ = 4000;
  int32_t CaptionWidth_ = 2000;
  int32_t DisplayColor_ = 16777215;
  int32_t FontSize_ = 10;
  std::string FontName_ = "Arial";
  bool FontItalic_ = false;
  int32_t FontColor_ = 0;
  bool FontBold_ = false;
};

class DisplayItems : public KeyedCollection<DisplayItem> {
 public:
  Ptr Add(int32_t id, std::string_view sKey = {});

  // A line feed, then each display's element, for every display in order.
  void createXMLnode(xml::Document& odoc, xml::Node parent);
  // Every "Display" and "Input" child of the screen element, in document
  // order; never throws.
  void loadXml(xml::Document& odoc, xml::Node screenNode, const std::shared_ptr<ScreenItem>& Pscreen);
  void DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& Pscreen);
  void dbReadKVR(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& Pscreen);
  void dbUpdateAll(db::Connection& conn);
  // Never throws (each display's DbInsertAll logs its own failures).
  void DbInsertAll(db::Connection& conn);
  // Deletes (database and collection) the first display whose id equals
  // Item's; nothing when none does.
  void dbDeleteItem(db::Connection& conn, const Ptr& Item);
};

}  // namespace kavrel
