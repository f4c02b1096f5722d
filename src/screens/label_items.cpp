// Labels of a screen: rows of Titres, "Label" elements.

#include "kavrel/screens/label_items.h"

#include <string>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "screens/screen_support.h"

namespace kavrel {

using screens::bit;
using screens::num;

namespace {

const char* const kLabelColumns =
    "SELECT [Label Id], [Target Id], [Screen Id], [Text], [Left], [Top], [Height], [Width], [FontName], [FontSize], "
    "[FontBold], [FontItalic], [FontColor], [Color], [Alignment]";

std::string labelWhere(const LabelItem& l, int32_t targetid, int32_t screenId) {
  return " WHERE [Target Id]=" + num(targetid) + " AND [Label Id]=" + num(l.LabelId()) +
         " AND [Screen Id]=" + num(screenId);
}

}  // namespace

// ----------------------------------------------------------------- LabelItem

void LabelItem::createXMLnode(xml::Document&, xml::Node labelNode) {
  labelNode.setAttribute("Text", LabelText_);
  labelNode.setAttribute("Color", num(LabelColor_));
  labelNode.setAttribute("Alignment", num(Alignment_));
  labelNode.appendText("\n");
  xml::Node rect = labelNode.appendElement("Rectangle");
  rect.setAttribute("Left", num(LabelLeft_));
  rect.setAttribute("Top", num(LabelTop_));
  rect.setAttribute("Height", num(LabelHeight_));
  rect.setAttribute("Width", num(LabelWidth_));
  labelNode.appendText("\n");
  xml::Node font = labelNode.appendElement("Font");
  font.setAttribute("Name", FontName_);
  font.setAttribute("Size", screens::sizeText(FontSize_));
  font.setAttribute("Bold", bit(FontBold_));
  font.setAttribute("Italic", bit(FontItalic_));
  font.setAttribute("Color", num(FontColor_));
}

void LabelItem::loadXml(xml::Document&, xml::Node labelNode) {
  // A missing or unreadable attribute keeps the current value.
  screens::attrText(labelNode, "Text", LabelText_);
  screens::attrInt(labelNode, "Color", LabelColor_);
  screens::attrInt(labelNode, "Alignment", Alignment_);
  if (xml::Node rect = labelNode.child("Rectangle"); !rect.isNull()) {
    screens::attrInt(rect, "Left", LabelLeft_);
    screens::attrInt(rect, "Top", LabelTop_);
    screens::attrInt(rect, "Height", LabelHeight_);
    screens::attrInt(rect, "Width", LabelWidth_);
  }
  if (xml::Node font = labelNode.child("Font"); !font.isNull()) {
    screens::attrText(font, "Name", FontName_);
    screens::attrSize(font, "Size", FontSize_);
    screens::attrBool(font, "Bold", FontBold_);
    screens::attrBool(font, "Italic", FontItalic_);
    screens::attrInt(font, "Color", FontColor_);
  }
}

void LabelItem::dbInsert(db::Connection& conn) {
  auto screen = screens::requireScreen(parent());
  auto target = screens::requireTarget(screen);
  auto rs = conn.openUpdatable(std::string(kLabelColumns) + " FROM Titres");
  rs->addNew();
  rs->setField("Target Id", target->targetid());
  rs->setField("Screen Id", screen->screenId());
  rs->setField("Text", screens::textOrNull(LabelText_));
  rs->setField("Left", LabelLeft_);
  rs->setField("Top", LabelTop_);
  rs->setField("Height", LabelHeight_);
  rs->setField("Width", LabelWidth_);
  rs->setField("FontName", screens::textOrNull(FontName_));
  rs->setField("FontSize", static_cast<double>(FontSize_));
  rs->setField("FontBold", screens::flag(FontBold_));
  rs->setField("FontItalic", screens::flag(FontItalic_));
  rs->setField("FontColor", FontColor_);
  rs->setField("Color", LabelColor_);
  rs->setField("Alignment", Alignment_);
  rs->update();
  LabelId_ = rs->field("Label Id").toInt32();
  rs->close();
}

void LabelItem::DbInsertAll(db::Connection& conn) { dbInsert(conn); }

void LabelItem::dbUpdate(db::Connection& conn) {
  auto screen = screens::requireScreen(parent());
  auto target = screens::requireTarget(screen);
  conn.execute("UPDATE Titres SET [Text]=" + db::sql::quoteOrNull(LabelText_) + " , [Left]=" + num(LabelLeft_) +
               ", [Top]=" + num(LabelTop_) + ", [Height]=" + num(LabelHeight_) + ", [Width]=" + num(LabelWidth_) +
               ", [FontName]=" + db::sql::quoteOrNull(FontName_) + ", [FontSize]=" + screens::sizeText(FontSize_) +
               ", [FontBold]=" + bit(FontBold_) + ", [FontItalic]=" + bit(FontItalic_) +
               ", [FontColor]=" + num(FontColor_) + ", [Color]=" + num(LabelColor_) +
               ", [Alignment]=" + num(Alignment_) + labelWhere(*this, target->targetid(), screen->screenId()));
}

void LabelItem::dbUpdateAll(db::Connection& conn) { dbUpdate(conn); }

void LabelItem::dbDelete(db::Connection& conn) {
  auto screen = screens::requireScreen(parent());
  auto target = screens::requireTarget(screen);
  conn.execute("DELETE * FROM Titres " + labelWhere(*this, target->targetid(), screen->screenId()));
}

// ---------------------------------------------------------------- LabelItems

LabelItems::Ptr LabelItems::Add(int32_t LabelId, std::string_view sKey) {
  return addNew(sKey, [&](LabelItem& l) { l.setLabelId(LabelId); });
}

void LabelItems::createXMLnode(xml::Document& odoc, xml::Node screenNode) {
  for (const auto& l : *this) {
    screenNode.appendText("\n");
    l->createXMLnode(odoc, screenNode.appendElement("Label"));
  }
}

void LabelItems::loadXml(xml::Document& odoc, xml::Node screenNode, const std::shared_ptr<ScreenItem>& Pscreen) {
  // An attribute that does not convert keeps its value; that is all it costs.
  screens::KeepPendingError keep;
  for (const auto& n : screenNode.selectNodes("Label")) {
    auto l = std::make_shared<LabelItem>();
    l->setParent(Pscreen);
    l->loadXml(odoc, n);
    AddData(l);
  }
}

void LabelItems::DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& Pscreen) {
  auto screen = screens::requireScreen(Pscreen);
  auto rs = conn.execute(std::string(kLabelColumns) + " From Titres" + " WHERE [Target Id]=" + num(targetid) +
                         " AND [Screen Id]=" + num(screen->screenId()) + " ORDER BY [Text]");
  for (; !rs->eof(); rs->moveNext()) {
    auto l = Add(rs->field(0).toInt32());
    detail::readLabelRow(*rs, *l);
    l->setParent(Pscreen);
  }
  rs->close();
}

void LabelItems::dbUpdateAll(db::Connection& conn) {
  for (const auto& l : *this) l->dbUpdateAll(conn);
}

void LabelItems::DbInsertAll(db::Connection& conn) {
  for (const auto& l : *this) l->DbInsertAll(conn);
}

void LabelItems::dbDeleteItem(db::Connection& conn, const std::shared_ptr<LabelItem>& Item) {
  if (!Item) return;
  for (int32_t i = 1; i <= Count(); ++i) {
    auto l = this->Item(i);
    if (l->LabelId() == Item->LabelId()) {
      l->dbDelete(conn);
      Remove(i);
      return;
    }
  }
}

namespace detail {

void readLabelRow(db::Recordset& rs, LabelItem& l) {
  // Columns in the order of the label SELECT; Null keeps the default.
  std::string s;
  screens::fieldText(rs, 3, s);
  l.setLabelText(std::move(s));
  auto intAt = [&](int i, void (LabelItem::*set)(int32_t)) {
    int32_t x = 0;
    screens::fieldInt(rs, i, x);
    (l.*set)(x);
  };
  intAt(4, &LabelItem::setLabelLeft);
  intAt(5, &LabelItem::setLabelTop);
  intAt(6, &LabelItem::setLabelHeight);
  intAt(7, &LabelItem::setLabelWidth);
  std::string font;
  screens::fieldText(rs, 8, font);
  l.setFontName(std::move(font));
  float size = 0;
  screens::fieldFloat(rs, 9, size);
  l.setFontSize(size);
  bool b = false;
  screens::fieldBool(rs, 10, b);
  l.setFontBold(b);
  b = false;
  screens::fieldBool(rs, 11, b);
  l.setFontItalic(b);
  intAt(12, &LabelItem::setFontColor);
  intAt(13, &LabelItem::setLabelColor);
  intAt(14, &LabelItem::setAlignment);
}

}  // namespace detail

}  // namespace kavrel
