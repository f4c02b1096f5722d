// Fixed texts of a screen (table Titres, "Label" elements): text, geometry,
// font, colours and alignment.
//
// Ownership: a screen holds its LabelItems; a label's parent is a weak link.
// Texts spliced into SQL become Null when empty, else are quoted with their
// quotes doubled. FontSize is a float (8.25 survives the database and XML).
// Errors: database operations need the chain label -> screen -> category ->
// target, else 100 "Parent not defined"; database failures are thrown.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/collections/keyed_collection.h"
#include "kavrel/fwd.h"
#include "kavrel/platform/xml.h"

namespace kavrel {

class LabelItem {
 public:
  std::shared_ptr<ScreenItem> parent() const { return parent_.lock(); }
  void setParent(const std::shared_ptr<ScreenItem>& p) { parent_ = p; }
  int32_t Alignment() const { return Alignment_; }
  void setAlignment(int32_t v) { Alignment_ = v; }
  int32_t LabelColor() const { return LabelColor_; }
  void setLabelColor(int32_t v) { LabelColor_ = v; }
  int32_t FontColor() const { return FontColor_; }
  void setFontColor(int32_t v) { FontColor_ = v; }
  bool FontItalic() const { return FontItalic_; }
  void setFontItalic(bool v) { FontItalic_ = v; }
  bool FontBold() const { return FontBold_; }
  void setFontBold(bool v) { FontBold_ = v; }
  float FontSize() const { return FontSize_; }
  void setFontSize(float v) { FontSize_ = v; }
  const std::string& FontName() const { return FontName_; }
  void setFontName(std::string v) { FontName_ = std::move(v); }
  int32_t LabelWidth() const { return LabelWidth_; }
  void setLabelWidth(int32_t v) { LabelWidth_ = v; }
  int32_t LabelHeight() const { return LabelHeight_; }
  void setLabelHeight(int32_t v) { LabelHeight_ = v; }
  int32_t LabelTop() const { return LabelTop_; }
  void setLabelTop(int32_t v) { LabelTop_ = v; }
  int32_t LabelLeft() const { return LabelLeft_; }
  void setLabelLeft(int32_t v) { LabelLeft_ = v; }
  const std::string& LabelText() const { return LabelText_; }
  void setLabelText(std::string v) { LabelText_ = std::move(v); }
  int32_t LabelId() const { return LabelId_; }
  void setLabelId(int32_t v) { LabelId_ = v; }

  void clear() { parent_.reset(); }
  void createXMLnode(xml::Document& odoc, xml::Node labelNode);
  void loadXml(xml::Document& odoc, xml::Node labelNode);
  void dbInsert(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  void dbUpdate(db::Connection& conn);
  void dbUpdateAll(db::Connection& conn);
  void dbDelete(db::Connection& conn);

 private:
  std::weak_ptr<ScreenItem> parent_;
  int32_t Alignment_ = 0;
  int32_t LabelColor_ = 0;
  int32_t FontColor_ = 0;
  bool FontItalic_ = false;
  bool FontBold_ = false;
  float FontSize_ = 0.0F;
  std::string FontName_;
  int32_t LabelWidth_ = 0;
  int32_t LabelHeight_ = 0;
  int32_t LabelTop_ = 0;
  int32_t LabelLeft_ = 0;
  std::string LabelText_;
  int32_t LabelId_ = 0;
};

class LabelItems : public KeyedCollection<LabelItem> {
 public:
  Ptr Add(int32_t LabelId, std::string_view sKey = {});
  // A line feed and a "Label" element per label under the screen element.
  void createXMLnode(xml::Document& odoc, xml::Node screenNode);
  void loadXml(xml::Document& odoc, xml::Node screenNode, const std::shared_ptr<ScreenItem>& Pscreen);
  // The screen's labels in text order.
  void DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<ScreenItem>& Pscreen);
  void dbUpdateAll(db::Connection& conn);
  void DbInsertAll(db::Connection& conn);
  // Deletes and removes the first label with the LabelId of `Item`; nothing when none.
  void dbDeleteItem(db::Connection& conn, const std::shared_ptr<LabelItem>& Item);
};

}  // namespace kavrel
