// Diagnostic screens (table Ecrans, "Screen" elements of a "Category"). A
// screen owns its labels, buttons and displays and may name one of its
// buttons as its initial button (ButtonInit, stored as [Init Id]).
//
// Ownership: a screen holds its three content collections; its category,
// and its initial button, are weak links (the button itself is owned by
// ButtonItems). clear() drops the parent and the initial button and clears
// each content collection.
//
// The initial button:
//  - On a database read, ButtonInit is the first button in caption order
//    whose id equals InitId; that button's InitButton is set.
//  - On export, every button is written as a "Button" element, the initial
//    one with InitButton="1" (so nothing of it is lost); the screen also
//    writes the initial button's message (a "Message" element with a "Text"
//    attribute, only when the message is not empty) and its scenario ("Send"
//    elements) as its own children, after the labels and before the buttons.
//  - On import, ButtonInit is the first "Button" marked InitButton="1". A
//    document with no such button but with a screen-level "Message" or
//    "Send" gets a new initial button holding that message and scenario
//    (added after the other buttons); otherwise the screen has none. Since
//    the screen-level copies are written from the initial button, export ->
//    import -> export gives the same bytes.
//  - A whole-target insert writes [Init Id] as the new id of ButtonInit when
//    set, else of the first button marked InitButton, else of the button
//    whose id before the insert equalled InitId, else 0 (none).
//
// Errors (all with the texts shown):
//  - DbRead: "Screen not found" (number 1, source "ScreenItem.DbRead"); a
//    failing query: "Database error <number> : <description>" with the
//    database's number. dbReadAll re-raises these unchanged.
//  - dbRename: 100 "Parent not defined", 101 "Enable to execute sql",
//    1 "Screen not found", 2 "Duplicate name" (the name stays unchanged).
//  - dbInsert: 100 "Parent not defined" without a category and target.
//  - DbInsertAll: the failure's description prefixed "ScreenItem.DbInsertAll : ".
//  - dbDelete: 1 "Impossible to delete the screen '<name>'".
//  - loadXml: no "Name" records 1 "Name undefined, bad screen" (source
//    "ScreenItem.loadXml"); ScreenItems.loadXml then drops the screen.
//  - ScreenItems.DbInsertAll writes the whole tree in one transaction: rows
//    the database refuses are logged to the host's event log and skipped
//    (with what depends on them); failing to open the tables throws and
//    writes nothing.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class ScreenItem : public std::enable_shared_from_this<ScreenItem> {
 public:
  ScreenItem();
  ~ScreenItem();

  int32_t screenId() const { return screenId_; }
  void setScreenId(int32_t v) { screenId_ = v; }
  const std::string& screenName() const { return screenName_; }
  void setScreenName(std::string v) { screenName_ = std::move(v); }
  int32_t InitId() const { return InitId_; }
  void setInitId(int32_t v) { InitId_ = v; }
  int32_t WindowState() const { return WindowState_; }
  void setWindowState(int32_t v) { WindowState_ = v; }
  int32_t ScreenWidth() const { return ScreenWidth_; }
  void setScreenWidth(int32_t v) { ScreenWidth_ = v; }
  int32_t ScreenHeight() const { return ScreenHeight_; }
  void setScreenHeight(int32_t v) { ScreenHeight_ = v; }
  int32_t ScreenColor() const { return ScreenColor_; }
  void setScreenColor(int32_t v) { ScreenColor_ = v; }
  std::shared_ptr<CategoryItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<CategoryItem>& p) { parent_ = p; }
  std::shared_ptr<ButtonItem> ButtonInit() const { return ButtonInit_.lock(); }
  void setButtonInit(const std::shared_ptr<ButtonItem>& b) { ButtonInit_ = b; }
  std::shared_ptr<kavrel::LabelItems> LabelItems() const { return LabelItems_; }
  void setLabelItems(std::shared_ptr<kavrel::LabelItems> v) { LabelItems_ = std::move(v); }
  std::shared_ptr<kavrel::ButtonItems> ButtonItems() const { return ButtonItems_; }
  void setButtonItems(std::shared_ptr<kavrel::ButtonItems> v) { ButtonItems_ = std::move(v); }
  std::shared_ptr<kavrel::DisplayItems> DisplayItems() const { return DisplayItems_; }
  void setDisplayItems(std::shared_ptr<kavrel::DisplayItems> v) { DisplayItems_ = std::move(v); }

  // The target through the category (null when a link is missing).
  std::shared_ptr<TargetItem> target() const;
  // Its targetid; throws 100 "Parent not defined" when there is none.
  int32_t requireTargetId() const;

  void clear();
  void createXMLnode(xml::Document& odoc, xml::Node reqNode);
  void loadXml(xml::Document& odoc, xml::Node parNode);
  void DbRead(db::Connection& conn, const std::shared_ptr<CategoryItem>& category, int32_t screenId);
  void dbReadAll(db::Connection& conn, const std::shared_ptr<CategoryItem>& category, int32_t screenId);
  void dbRename(db::Connection& conn, const std::string& newName);
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbUpdateAll(db::Connection& conn);
  void DbUpdateInitButton(db::Connection& conn, int32_t id);
  void dbDelete(db::Connection& conn);

 private:
  std::string whereClause() const;

  int32_t screenId_ = 0;
  std::string screenName_;
  int32_t InitId_ = 0;
  int32_t WindowState_ = 0;
  int32_t ScreenWidth_ = 600;
  int32_t ScreenHeight_ = 400;
  int32_t ScreenColor_ = 16777215;
  std::weak_ptr<CategoryItem> parent_;
  std::weak_ptr<ButtonItem> ButtonInit_;
  std::shared_ptr<kavrel::LabelItems> LabelItems_;
  std::shared_ptr<kavrel::ButtonItems> ButtonItems_;
  std::shared_ptr<kavrel::DisplayItems> DisplayItems_;
};

class ScreenItems : public KeyedCollection<ScreenItem> {
 public:
  Ptr Add(int32_t screenId, std::string screenName, std::string_view sKey = {});
  // The first screen whose name equals `name` exactly; null when none.
  Ptr ItemName(std::string_view name) const;

  void createXMLnode(xml::Document& odoc, xml::Node parent);
  // Adds a screen per "Screen" child of `parNode`; one without "Name" is dropped.
  void loadXml(xml::Document& odoc, xml::Node parNode, const std::shared_ptr<CategoryItem>& Pcategorie);
  // The category's screens in name order (rows only).
  void DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<CategoryItem>& category);
  // The same, each with its labels, buttons (and steps) and displays.
  void dbReadAll(db::Connection& conn, int32_t targetid, const std::shared_ptr<CategoryItem>& category);
  // The same from a database of the older layout.
  void dbReadKVR(db::Connection& conn, int32_t targetid, const std::shared_ptr<CategoryItem>& category);
  // Inserts every screen with its whole content in one pass per table (see
  // the header note); new ids are set on the objects.
  void DbInsertAll(db::Connection& conn);

 private:
  void read(db::Connection& conn, int32_t targetid, const std::shared_ptr<CategoryItem>& category, int depth);
};

}  // namespace kavrel
