// Buttons of a screen: rows of Boutons, "Button" elements.

#include "kavrel/screens/button_items.h"

#include <string>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/screens/screen_items.h"
#include "screens/screen_support.h"

namespace kavrel {

using screens::bit;
using screens::num;

namespace {

struct ButtonChain {
  std::shared_ptr<ScreenItem> screen;
  std::shared_ptr<TargetItem> target;
};

ButtonChain requireChain(const ButtonItem& b) {
  auto screen = screens::requireScreen(b.parent());
  return {screen, screens::requireTarget(screen)};
}

}  // namespace

// ---------------------------------------------------------------- ButtonItem

ButtonItem::ButtonItem() = default;
ButtonItem::~ButtonItem() = default;

std::shared_ptr<ScenarioItems> ButtonItem::ScenarioItems() {
  if (!ScenarioItems_) ScenarioItems_ = std::make_shared<kavrel::ScenarioItems>();
  return ScenarioItems_;
}

void ButtonItem::clear() {
  if (ScenarioItems_) ScenarioItems_->clear();
  ScenarioItems_.reset();
  parent_.reset();
}

void ButtonItem::createXMLnode(xml::Document& odoc, xml::Node buttonNode) {
  buttonNode.setAttribute("Text", Caption_);
  if (InitButton_) buttonNode.setAttribute("InitButton", "1");
  buttonNode.appendText("\n");
  xml::Node rect = buttonNode.appendElement("Rectangle");
  rect.setAttribute("Left", num(ButtonLeft_));
  rect.setAttribute("Top", num(ButtonTop_));
  rect.setAttribute("Height", num(ButtonHeight_));
  rect.setAttribute("Width", num(ButtonWidth_));
  buttonNode.appendText("\n");
  xml::Node font = buttonNode.appendElement("Font");
  font.setAttribute("Name", FontName_);
  font.setAttribute("Size", screens::sizeText(FontSize_));
  font.setAttribute("Bold", bit(FontBold_));
  font.setAttribute("Italic", bit(FontItalic_));
  buttonNode.appendText("\n");
  buttonNode.appendElement("Message").setAttribute("Text", Message_);
  if (ScenarioItems_) {
    buttonNode.appendText("\n");
    ScenarioItems_->createXMLnode(odoc, buttonNode);
  }
}

void ButtonItem::loadXml(xml::Document& odoc, xml::Node buttonNode) {
  // A missing or unreadable attribute keeps the current value.
  screens::attrText(buttonNode, "Text", Caption_);
  screens::attrBool(buttonNode, "InitButton", InitButton_);
  if (xml::Node rect = buttonNode.child("Rectangle"); !rect.isNull()) {
    screens::attrInt(rect, "Left", ButtonLeft_);
    screens::attrInt(rect, "Top", ButtonTop_);
    screens::attrInt(rect, "Height", ButtonHeight_);
    screens::attrInt(rect, "Width", ButtonWidth_);
  }
  if (xml::Node font = buttonNode.child("Font"); !font.isNull()) {
    screens::attrText(font, "Name", FontName_);
    screens::attrSize(font, "Size", FontSize_);
    screens::attrBool(font, "Bold", FontBold_);
    screens::attrBool(font, "Italic", FontItalic_);
  }
  if (xml::Node message = buttonNode.child("Message"); !message.isNull()) screens::attrText(message, "Text", Message_);
  // A button not held by a shared pointer loads its steps without a parent
  // (so without their requests).
  ScenarioItems()->loadXml(odoc, buttonNode, weak_from_this().lock());
}

void ButtonItem::dbInsert(db::Connection& conn) {
  auto chain = requireChain(*this);
  auto rs = conn.openUpdatable("SELECT [Target Id], [Button Id], [Screen Id] FROM Boutons");
  rs->addNew();
  rs->setField("Target Id", chain.target->targetid());
  rs->setField("Screen Id", chain.screen->screenId());
  rs->update();
  buttonId_ = rs->field("Button Id").toInt32();
  rs->close();
  dbUpdate(conn);
  if (InitButton_) chain.screen->DbUpdateInitButton(conn, buttonId_);
}

void ButtonItem::DbInsertAll(db::Connection& conn) {
  dbInsert(conn);
  if (ScenarioItems_) ScenarioItems_->DbInsertAll(conn);
}

void ButtonItem::dbUpdate(db::Connection& conn) {
  auto chain = requireChain(*this);
  conn.execute("UPDATE Boutons SET Caption='" + db::sql::doubleQuotes(Caption_) + "',[Left]=" + num(ButtonLeft_) +
               ", [Top]=" + num(ButtonTop_) + ", [Height]=" + num(ButtonHeight_) + ", [Width]=" + num(ButtonWidth_) +
               ", [FontName]=" + db::sql::quoteOrNull(FontName_) + ", [FontSize]=" + screens::sizeText(FontSize_) +
               ", [FontBold]=" + bit(FontBold_) + ", [FontItalic]=" + bit(FontItalic_) + ", [Message]='" +
               db::sql::doubleQuotes(Message_) + "' WHERE [Target Id]=" + num(chain.target->targetid()) +
               " AND [Button Id]=" + num(buttonId_) + " AND [Screen Id]=" + num(chain.screen->screenId()));
}

void ButtonItem::dbUpdateAll(db::Connection& conn) {
  dbUpdate(conn);
  if (ScenarioItems_) ScenarioItems_->dbUpdateAll(conn);
}

void ButtonItem::dbDelete(db::Connection& conn) {
  auto chain = requireChain(*this);
  conn.execute(std::string("DELETE * FROM Boutons ") + " WHERE [Target Id]=" + num(chain.target->targetid()) +
               " AND [Button Id]=" + num(buttonId_) + " AND [Screen Id]=" + num(chain.screen->screenId()));
}

// --------------------------------------------------------------- ButtonItems

ButtonItems::Ptr ButtonItems::Add(int32_t buttonId, std::string_view sKey) {
  return addNew(sKey, [&](ButtonItem& b) { b.setButtonId(buttonId); });
}

void ButtonItems::createXMLnode(xml::Document& odoc, xml::Node screenNode) {
  // The initial button is written too (marked InitButton="1"), so that its
  // caption, place and font survive an export and import.
  for (const auto& b : *this) {
    screenNode.appendText("\n");
    b->createXMLnode(odoc, screenNode.appendElement("Button"));
  }
}

void ButtonItems::loadXml(xml::Document& odoc, xml::Node screenNode, const std::shared_ptr<ScreenItem>& Pscreen) {
  screens::KeepPendingError keep;
  for (const auto& n : screenNode.selectNodes("Button")) {
    auto b = std::make_shared<ButtonItem>();
    b->setParent(Pscreen);
    b->loadXml(odoc, n);
    AddData(b);
  }
}

void ButtonItems::DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& Pscreen) {
  auto screen = screens::requireScreen(Pscreen);
  std::vector<Ptr> added;
  {
    auto rs = conn.execute(
        std::string("SELECT [Button Id], [Caption], [Left], [Top], [Height], [Width], [FontName], [FontSize], "
                    "[FontBold], [FontItalic], [Message]") +
        " From Boutons" + " WHERE [Target Id]=" + num(targetid) + " AND [Screen Id]=" + num(screen->screenId()) +
        " ORDER BY [Caption]");
    for (; !rs->eof(); rs->moveNext()) {
      auto b = Add(rs->field(0).toInt32());
      detail::readButtonRow(*rs, *b);
      detail::linkInitButton(*screen, b);
      b->setParent(screen);
      added.push_back(b);
    }
    rs->close();
  }
  // The steps are read once the button query is closed.
  for (const auto& b : added) b->ScenarioItems()->DbRead(conn, targetid, b);
}

void ButtonItems::dbUpdateAll(db::Connection& conn) {
  for (const auto& b : *this) b->dbUpdateAll(conn);
}

void ButtonItems::DbInsertAll(db::Connection& conn) {
  for (const auto& b : *this) b->DbInsertAll(conn);
}

void ButtonItems::dbDeleteItem(db::Connection& conn, const std::shared_ptr<ButtonItem>& Item) {
  if (!Item) return;
  for (int32_t i = 1; i <= Count(); ++i) {
    auto b = this->Item(i);
    if (b->buttonId() == Item->buttonId()) {
      b->dbDelete(conn);
      Remove(i);
      return;
    }
  }
}

namespace detail {

void readButtonRow(db::Recordset& rs, ButtonItem& b) {
  std::string s;
  screens::fieldText(rs, 1, s);
  b.setCaption(std::move(s));
  int32_t v = 0;
  screens::fieldInt(rs, 2, v);
  b.setButtonLeft(v);
  v = 0;
  screens::fieldInt(rs, 3, v);
  b.setButtonTop(v);
  v = 0;
  screens::fieldInt(rs, 4, v);
  b.setButtonHeight(v);
  v = 0;
  screens::fieldInt(rs, 5, v);
  b.setButtonWidth(v);
  std::string font = b.FontName();
  screens::fieldText(rs, 6, font);
  b.setFontName(std::move(font));
  float size = b.FontSize();
  screens::fieldFloat(rs, 7, size);
  b.setFontSize(size);
  bool flag = false;
  screens::fieldBool(rs, 8, flag);
  b.setFontBold(flag);
  flag = false;
  screens::fieldBool(rs, 9, flag);
  b.setFontItalic(flag);
  std::string message;
  screens::fieldText(rs, 10, message);
  b.setMessage(std::move(message));
}

void linkInitButton(ScreenItem& screen, const std::shared_ptr<ButtonItem>& button) {
  if (button->buttonId() != screen.InitId() || screen.ButtonInit()) return;
  screen.setButtonInit(button);
  button->setInitButton(true);
}

}  // namespace detail

}  // namespace kavrel
