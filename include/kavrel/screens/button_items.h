// Push buttons of a screen (table Boutons, "Button" elements); their
// request scenarios are in scenario_items.h.
//
// Ownership: a screen holds its ButtonItems; a button holds its
// ScenarioItems (made on first access); parents are weak links. A step
// shares its request with the target's requests.
//
// Texts spliced into SQL: Caption, Message and a step's request name are
// always quoted (an empty one is stored as an empty text); FontName becomes
// Null when empty. Quotes inside are doubled, so any text stores and reads
// back exactly.
//
// Errors:
//  - Database operations need the chain button -> screen -> category ->
//    target: without it they throw 100 "Parent not defined". Database
//    failures are thrown as they come.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"
#include "kavrel/screens/scenario_items.h"

namespace kavrel {

class ButtonItem : public std::enable_shared_from_this<ButtonItem> {
 public:
  ButtonItem();
  ~ButtonItem();

  std::shared_ptr<ScreenItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<ScreenItem>& p) { parent_ = p; }
  // Made empty on first access.
  std::shared_ptr<kavrel::ScenarioItems> ScenarioItems();
  void setScenarioItems(std::shared_ptr<kavrel::ScenarioItems> v) { ScenarioItems_ = std::move(v); }
  // Whether the scenario collection exists (without making it).
  bool hasScenarioItems() const { return ScenarioItems_ != nullptr; }
  const std::string& Message() const { return Message_; }
  void setMessage(std::string v) { Message_ = std::move(v); }
  int32_t ButtonWidth() const { return ButtonWidth_; }
  void setButtonWidth(int32_t v) { ButtonWidth_ = v; }
  int32_t ButtonHeight() const { return ButtonHeight_; }
  void setButtonHeight(int32_t v) { ButtonHeight_ = v; }
  int32_t ButtonTop() const { return ButtonTop_; }
  void setButtonTop(int32_t v) { ButtonTop_ = v; }
  int32_t ButtonLeft() const { return ButtonLeft_; }
  void setButtonLeft(int32_t v) { ButtonLeft_ = v; }
  const std::string& Caption() const { return Caption_; }
  void setCaption(std::string v) { Caption_ = std::move(v); }
  int32_t buttonId() const { return buttonId_; }
  void setButtonId(int32_t v) { buttonId_ = v; }
  const std::string& FontName() const { return FontName_; }
  void setFontName(std::string v) { FontName_ = std::move(v); }
  float FontSize() const { return FontSize_; }
  void setFontSize(float v) { FontSize_ = v; }
  bool FontItalic() const { return FontItalic_; }
  void setFontItalic(bool v) { FontItalic_ = v; }
  bool FontBold() const { return FontBold_; }
  void setFontBold(bool v) { FontBold_ = v; }
  bool InitButton() const { return InitButton_; }
  void setInitButton(bool v) { InitButton_ = v; }

  void clear();
  void createXMLnode(xml::Document& odoc, xml::Node buttonNode);
  void loadXml(xml::Document& odoc, xml::Node buttonNode);
  // Adds the row, takes the new id, writes the other columns; an initial
  // button is then recorded as its screen's [Init Id].
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbUpdateAll(db::Connection& conn);
  // Deletes the row; the database's relations take the steps with it.
  void dbDelete(db::Connection& conn);

 private:
  std::weak_ptr<ScreenItem> parent_;
  std::shared_ptr<kavrel::ScenarioItems> ScenarioItems_;
  std::string Message_;
  int32_t ButtonWidth_ = 0;
  int32_t ButtonHeight_ = 0;
  int32_t ButtonTop_ = 0;
  int32_t ButtonLeft_ = 0;
  std::string Caption_;
  int32_t buttonId_ = -1;
  std::string FontName_;
  float FontSize_ = 12.0F;
  bool FontItalic_ = false;
  bool FontBold_ = false;
  bool InitButton_ = false;
};

class ButtonItems : public KeyedCollection<ButtonItem> {
 public:
  Ptr Add(int32_t buttonId, std::string_view sKey = {});
  // A line feed and a "Button" element per button, the initial one included.
  void createXMLnode(xml::Document& odoc, xml::Node screenNode);
  void loadXml(xml::Document& odoc, xml::Node screenNode, const std::shared_ptr<ScreenItem>& Pscreen);
  // The screen's buttons in caption order, with their steps; sets the
  // screen's ButtonInit (first button whose id equals its InitId).
  void DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& Pscreen);
  void dbUpdateAll(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  // Deletes and removes the first button with the buttonId of `Item`; nothing when none.
  void dbDeleteItem(db::Connection& conn, const std::shared_ptr<ButtonItem>& Item);
};

}  // namespace kavrel
