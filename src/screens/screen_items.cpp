// Screens of a category: rows of Ecrans, "Screen" elements, and the bulk
// insert of a category's whole screen tree.

#include "kavrel/screens/screen_items.h"

#include <string>
#include <utility>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/names.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/screens/button_items.h"
#include "kavrel/screens/category_items.h"
#include "kavrel/screens/display_items.h"
#include "kavrel/screens/label_items.h"
#include "kavrel/screens/scenario_items.h"
#include "screens/screen_bulk.h"
#include "screens/screen_support.h"
#include "target/target_support.h"

namespace kavrel {

using screens::num;

namespace {

constexpr const char* kInsertAllPrefix = "ScreenItem.DbInsertAll : ";
constexpr const char* kBulkWho = "ScreenItems.DbInsertAll";

const char* const kScreenInsertColumns =
    "SELECT  [Target Id], [Screen Id], [Category Id], [Screen Name], [Init Id], [WindowState], [Height], [Width], "
    "[ScreenColor] FROM Ecrans";

// Columns 2.. of a screen row: [Init Id], [WindowState], [Height], [Width],
// [ScreenColor] (offset by `first`); Null keeps the default.
void readScreenColumns(db::Recordset& rs, int first, ScreenItem& s) {
  int32_t v = s.InitId();
  screens::fieldInt(rs, first, v);
  s.setInitId(v);
  v = s.WindowState();
  screens::fieldInt(rs, first + 1, v);
  s.setWindowState(v);
  v = s.ScreenHeight();
  screens::fieldInt(rs, first + 2, v);
  s.setScreenHeight(v);
  v = s.ScreenWidth();
  screens::fieldInt(rs, first + 3, v);
  s.setScreenWidth(v);
  v = s.ScreenColor();
  screens::fieldInt(rs, first + 4, v);
  s.setScreenColor(v);
}

// The button whose id is to be written as the screen's [Init Id]: the
// screen's ButtonInit, else the first button marked InitButton, else the
// button whose id (before any insert) equals InitId; null when none.
std::shared_ptr<ButtonItem> initialButton(const ScreenItem& s) {
  if (auto b = s.ButtonInit()) return b;
  auto buttons = s.ButtonItems();
  if (!buttons) return nullptr;
  for (const auto& b : *buttons)
    if (b->InitButton()) return b;
  for (const auto& b : *buttons)
    if (b->buttonId() == s.InitId()) return b;
  return nullptr;
}

template <class C>
void clearAndDrop(std::shared_ptr<C>& c) {
  if (c) {
    c->clear();
    c.reset();
  }
}

}  // namespace

// -------------------------------------------------------------- bulk sets

void ScreenBulkSets::open(db::Connection& conn) {
  Ecrans = conn.openUpdatable(kScreenInsertColumns);
  Affichages = conn.openUpdatable(
      std::string("SELECT [Target Id], [Display Id], [Screen Id],  [Type Affich], [Left], [Top], [Height], ") +
      "[Width], [CaptionWidth], [FontName], [FontSize], [FontBold], [FontItalic], [FontColor], [Color] " +
      "FROM Affichages");
  DonneesAff = conn.openUpdatable(
      "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Data Name], "
      "[Request Name] FROM [Données_Aff]");
  ExtraAff = conn.openUpdatable(
      "SELECT  [Target Id], [Screen Id], [Display Id], [Type Affich], [Ecu Address], [Ecu Id], [Request Name], "
      "[LgVariable], [Param] FROM [Extra_Aff]");
  Seuils = conn.openUpdatable("SELECT [Display Id], [Seuil], [Couleur], [SonFlag], [Son] FROM Seuils");
  Titres = conn.openUpdatable(
      "SELECT [Label Id], [Target Id], [Screen Id], [Text], [Left], [Top], [Height], [Width], [FontName], "
      "[FontSize], [FontBold], [FontItalic], [FontColor], [Color], [Alignment] FROM Titres");
  Boutons = conn.openUpdatable(
      "SELECT [Target Id], [Button Id], [Screen Id], [Caption], [Left], [Top], [Height], [Width], [FontName], "
      "[FontSize], [FontBold], [FontItalic], [Message] FROM Boutons");
  Scenarios = conn.openUpdatable(
      "SELECT [Target Id], [Button Id], [Index], [Address], [Ecu Id], [Request Name], [LgVariable], [Delay] FROM "
      "Scenarios");
}

void ScreenBulkSets::close() {
  for (auto* rs : {&Ecrans, &Affichages, &DonneesAff, &ExtraAff, &Seuils, &Titres, &Boutons, &Scenarios}) {
    if (*rs) (*rs)->close();
    rs->reset();
  }
}

// ---------------------------------------------------------------- ScreenItem

ScreenItem::ScreenItem()
    : LabelItems_(std::make_shared<kavrel::LabelItems>()),
      ButtonItems_(std::make_shared<kavrel::ButtonItems>()),
      DisplayItems_(std::make_shared<kavrel::DisplayItems>()) {}

ScreenItem::~ScreenItem() = default;

std::shared_ptr<TargetItem> ScreenItem::target() const {
  auto category = parent();
  return category ? category->parent() : nullptr;
}

int32_t ScreenItem::requireTargetId() const {
  auto t = target();
  if (!t) raise(100, "", "Parent not defined");
  return t->targetid();
}

std::string ScreenItem::whereClause() const {
  auto category = parent();
  if (!category) raise(100, "", "Parent not defined");
  return " WHERE [Target Id]=" + num(requireTargetId()) + " AND [Category Id]=" + num(category->categoryId()) +
         " AND [Screen Id]=" + num(screenId_);
}

void ScreenItem::clear() {
  parent_.reset();
  ButtonInit_.reset();
  if (LabelItems_) LabelItems_->clear();
  if (ButtonItems_) ButtonItems_->clear();
  if (DisplayItems_) DisplayItems_->clear();
}

void ScreenItem::createXMLnode(xml::Document& odoc, xml::Node reqNode) {
  reqNode.setAttribute("Name", screenName_);
  reqNode.setAttribute("Color", num(ScreenColor_));
  reqNode.setAttribute("WindowState", num(WindowState_));
  reqNode.setAttribute("Width", num(ScreenWidth_));
  reqNode.setAttribute("Height", num(ScreenHeight_));
  if (LabelItems_) LabelItems_->createXMLnode(odoc, reqNode);
  // The initial button as an import will see it again: ButtonInit, else the
  // first button marked InitButton.
  auto init = ButtonInit();
  if (!init && ButtonItems_)
    for (const auto& b : *ButtonItems_)
      if (b->InitButton()) {
        init = b;
        break;
      }
  if (init) {
    if (!init->Message().empty()) {
      reqNode.appendText("\n");
      reqNode.appendElement("Message").setAttribute("Text", init->Message());
    }
    if (init->hasScenarioItems() && !init->ScenarioItems()->empty()) {
      reqNode.appendText("\n");
      init->ScenarioItems()->createXMLnode(odoc, reqNode);
    }
  }
  if (ButtonItems_) ButtonItems_->createXMLnode(odoc, reqNode);
  if (DisplayItems_) DisplayItems_->createXMLnode(odoc, reqNode);
}

void ScreenItem::loadXml(xml::Document& odoc, xml::Node parNode) {
  auto self = weak_from_this().lock();
  const std::optional<std::string> name = parNode.attribute("Name");
  if (name) screenName_ = *name;
  screens::attrInt(parNode, "WindowState", WindowState_);
  screens::attrInt(parNode, "Width", ScreenWidth_);
  screens::attrInt(parNode, "Height", ScreenHeight_);
  screens::attrInt(parNode, "Color", ScreenColor_);
  if (!LabelItems_) LabelItems_ = std::make_shared<kavrel::LabelItems>();
  if (!ButtonItems_) ButtonItems_ = std::make_shared<kavrel::ButtonItems>();
  if (!DisplayItems_) DisplayItems_ = std::make_shared<kavrel::DisplayItems>();
  trap([&] { LabelItems_->loadXml(odoc, parNode, self); });
  trap([&] { ButtonItems_->loadXml(odoc, parNode, self); });
  trap([&] { DisplayItems_->loadXml(odoc, parNode, self); });

  // The initial button: the first one marked so. The screen's own "Message"
  // and "Send" children are copies of its message and scenario; they only
  // make a button of their own when no button is marked.
  ButtonInit_.reset();
  for (const auto& b : *ButtonItems_) {
    if (b->InitButton()) {
      ButtonInit_ = b;
      break;
    }
  }
  if (ButtonInit_.expired()) {
    xml::Node message = parNode.child("Message");
    if (!message.isNull() || !parNode.child("Send").isNull()) {
      auto b = std::make_shared<ButtonItem>();
      b->setParent(self);
      b->setInitButton(true);
      std::string text;
      screens::attrText(message, "Text", text);
      b->setMessage(std::move(text));
      trap([&] { b->ScenarioItems()->loadXml(odoc, parNode, b); });
      ButtonItems_->AddData(b);
      ButtonInit_ = b;
    }
  }
  clearLastError();
  if (!name) recordError(1, "ScreenItem.loadXml", "Name undefined, bad screen");
}

void ScreenItem::DbRead(db::Connection& conn, const std::shared_ptr<CategoryItem>& category, int32_t screenId) {
  if (!category || !category->parent()) raise(100, "", "Parent not defined");
  const int32_t targetid = category->parent()->targetid();
  std::unique_ptr<db::Recordset> rs;
  try {
    rs = conn.execute(std::string("SELECT [Screen Name], [Init Id], [WindowState], [Height], [Width], [ScreenColor]") +
                      " From Ecrans" + " WHERE [Target Id]=" + num(targetid) +
                      " AND [Category Id]=" + num(category->categoryId()) + " AND [Screen Id]=" + num(screenId));
    rs->eof();
  } catch (const Error& e) {
    raise(e.number(), "ScreenItem.DbRead", "Database error " + num(e.number()) + " : " + e.description());
  }
  if (rs->eof()) {
    rs->close();
    raise(1, "ScreenItem.DbRead", "Screen not found");
  }
  screenId_ = screenId;
  screenName_ = rs->field(0).toText();
  readScreenColumns(*rs, 1, *this);
  rs->close();
  parent_ = category;
  ButtonInit_.reset();
}

void ScreenItem::dbReadAll(db::Connection& conn, const std::shared_ptr<CategoryItem>& category, int32_t screenId) {
  DbRead(conn, category, screenId);
  auto self = weak_from_this().lock();
  const int32_t targetid = requireTargetId();
  // The contents are read afresh.
  clearAndDrop(LabelItems_);
  clearAndDrop(ButtonItems_);
  clearAndDrop(DisplayItems_);
  LabelItems_ = std::make_shared<kavrel::LabelItems>();
  ButtonItems_ = std::make_shared<kavrel::ButtonItems>();
  DisplayItems_ = std::make_shared<kavrel::DisplayItems>();
  LabelItems_->DbRead(conn, targetid, self);
  ButtonItems_->DbRead(conn, targetid, self);
  DisplayItems_->DbRead(conn, targetid, self);
}

void ScreenItem::dbRename(db::Connection& conn, const std::string& newName) {
  auto category = parent();
  auto t = target();
  if (!category || !t) raise(100, "", "Parent not defined");
  std::unique_ptr<db::UpdatableRecordset> rs;
  bool empty = false;
  try {
    rs = conn.openUpdatable("SELECT [Screen Name] FROM Ecrans WHERE [Category Id]=" + num(category->categoryId()) +
                            " AND [Screen Id]=" + num(screenId_) + " AND [Target Id]=" + num(t->targetid()));
    empty = rs->eof();
  } catch (const Error&) {
    raise(101, "", "Enable to execute sql");
  }
  if (empty) {
    rs->close();
    raise(1, "", "Screen not found");
  }
  try {
    rs->setField("Screen Name", newName);
    rs->update();
  } catch (const Error&) {
    trap([&] { rs->cancelUpdate(); });
    trap([&] { rs->close(); });
    raise(2, "", "Duplicate name");
  }
  rs->close();
  screenName_ = newName;
}

void ScreenItem::dbInsert(db::Connection& conn) {
  auto category = parent();
  auto t = target();
  if (!category || !t) raise(100, "", "Parent not defined");
  auto rs = conn.openUpdatable(kScreenInsertColumns);
  rs->addNew();
  rs->setField("Target Id", t->targetid());
  rs->setField("Category Id", category->categoryId());
  rs->setField("Screen Name", screenName_);
  rs->setField("Init Id", InitId_);
  rs->setField("WindowState", WindowState_);
  rs->setField("Height", ScreenHeight_);
  rs->setField("Width", ScreenWidth_);
  rs->setField("ScreenColor", ScreenColor_);
  rs->update();
  screenId_ = rs->field("Screen Id").toInt32();
  rs->close();
}

void ScreenItem::DbInsertAll(db::Connection& conn) {
  // All of the screen or nothing of it.
  db::Transaction tx(conn);
  try {
    const auto init = initialButton(*this);
    dbInsert(conn);
    if (LabelItems_) LabelItems_->DbInsertAll(conn);
    if (ButtonItems_) ButtonItems_->DbInsertAll(conn);
    if (DisplayItems_) DisplayItems_->DbInsertAll(conn);
    // [Init Id] names the initial button by its new id (0: none).
    const int32_t initId = init ? init->buttonId() : 0;
    if (initId != InitId_) DbUpdateInitButton(conn, initId);
    if (init) ButtonInit_ = init;
  } catch (const Error& e) {
    target::rethrowWithPrefix(e, kInsertAllPrefix);
  }
  tx.commit();
}

void ScreenItem::dbUpdate(db::Connection& conn) {
  conn.execute("UPDATE Ecrans SET WindowState=" + num(WindowState_) + ", Height=" + num(ScreenHeight_) +
               ", Width=" + num(ScreenWidth_) + ", ScreenColor=" + num(ScreenColor_) + whereClause());
}

void ScreenItem::dbUpdateAll(db::Connection& conn) {
  dbUpdate(conn);
  if (LabelItems_) LabelItems_->dbUpdateAll(conn);
  if (ButtonItems_) ButtonItems_->dbUpdateAll(conn);
  if (DisplayItems_) DisplayItems_->dbUpdateAll(conn);
}

void ScreenItem::DbUpdateInitButton(db::Connection& conn, int32_t id) {
  conn.execute("UPDATE Ecrans SET [Init Id]=" + num(id) + whereClause());
  InitId_ = id;
}

void ScreenItem::dbDelete(db::Connection& conn) {
  const int32_t targetid = requireTargetId();
  try {
    conn.execute("DELETE * from Ecrans WHERE [Screen Id]=" + num(screenId_) + " AND [Target Id]=" + num(targetid));
  } catch (const Error&) {
    raise(1, "", "Impossible to delete the screen '" + screenName_ + "'");
  }
}

// --------------------------------------------------------------- ScreenItems

ScreenItems::Ptr ScreenItems::Add(int32_t screenId, std::string screenName, std::string_view sKey) {
  return addNew(sKey, [&](ScreenItem& s) {
    s.setScreenId(screenId);
    s.setScreenName(std::move(screenName));
  });
}

ScreenItems::Ptr ScreenItems::ItemName(std::string_view name) const {
  for (const auto& s : *this)
    if (names::equal(s->screenName(), name)) return s;
  return nullptr;
}

void ScreenItems::createXMLnode(xml::Document& odoc, xml::Node parent) {
  for (const auto& s : *this) {
    parent.appendText("\n");
    s->createXMLnode(odoc, parent.appendElement("Screen"));
  }
}

void ScreenItems::loadXml(xml::Document& odoc, xml::Node parNode, const std::shared_ptr<CategoryItem>& Pcategorie) {
  screens::KeepPendingError keep;
  for (const auto& n : parNode.selectNodes("Screen")) {
    clearLastError();
    auto s = std::make_shared<ScreenItem>();
    s->setParent(Pcategorie);
    trap([&] { s->loadXml(odoc, n); });
    if (lastError().pending()) {
      // Dropped, as a screen without a name cannot be stored; say so.
      host().logEvent(EventType::Warning, "ScreenItem.loadXml : " + lastError().description);
      s->clear();
      continue;
    }
    AddData(s);
  }
}

void ScreenItems::read(db::Connection& conn, int32_t targetid, const std::shared_ptr<CategoryItem>& category,
                       int depth) {
  if (!category) raise(100, "", "Parent not defined");
  std::vector<Ptr> added;
  {
    auto rs = conn.execute(
        std::string("SELECT [Screen Id], [Screen Name], [Init Id], [WindowState], [Height], [Width], [ScreenColor]") +
        " From Ecrans" + " WHERE [Target Id]=" + num(targetid) + " AND [Category Id]=" + num(category->categoryId()) +
        " ORDER BY [Screen Name]");
    for (; !rs->eof(); rs->moveNext()) {
      auto s = Add(rs->field(0).toInt32(), rs->field(1).toText());
      readScreenColumns(*rs, 2, *s);
      s->setParent(category);
      added.push_back(s);
    }
    rs->close();
  }
  if (depth == 0) return;
  // The contents are read once the screen query is closed.
  for (const auto& s : added) {
    s->LabelItems()->DbRead(conn, targetid, s);
    s->ButtonItems()->DbRead(conn, targetid, s);
    if (depth == 1)
      s->DisplayItems()->DbRead(conn, targetid, s);
    else
      s->DisplayItems()->dbReadKVR(conn, targetid, s);
  }
}

void ScreenItems::DbRead(db::Connection& conn, int32_t targetid, const std::shared_ptr<CategoryItem>& category) {
  read(conn, targetid, category, 0);
}

void ScreenItems::dbReadAll(db::Connection& conn, int32_t targetid, const std::shared_ptr<CategoryItem>& category) {
  read(conn, targetid, category, 1);
}

void ScreenItems::dbReadKVR(db::Connection& conn, int32_t targetid, const std::shared_ptr<CategoryItem>& category) {
  read(conn, targetid, category, 2);
}

void ScreenItems::DbInsertAll(db::Connection& conn) {
  if (empty()) return;
  // Every screen needs its category and target before anything is written.
  for (const auto& s : *this)
    if (!s->parent() || !s->target()) raise(100, "", "Parent not defined");

  // One transaction and one record set per table for the whole tree. A row
  // the database refuses is logged and skipped with what depends on it;
  // failing to open the tables writes nothing.
  db::Transaction tx(conn);
  ScreenBulkSets sets;
  sets.open(conn);
  for (const auto& s : *this) {
    auto category = s->parent();
    auto target = s->target();
    const int32_t targetid = target->targetid();
    // The initial button is chosen by object before the buttons get their
    // new ids; its new id is then written as [Init Id].
    const auto init = initialButton(*s);
    const std::string screenWhat = "screen '" + s->screenName() + "'";

    auto& ecrans = *sets.Ecrans;
    ecrans.addNew();
    ecrans.setField("Target Id", targetid);
    ecrans.setField("Category Id", category->categoryId());
    ecrans.setField("Screen Name", s->screenName());
    ecrans.setField("Init Id", int32_t{0});
    ecrans.setField("WindowState", s->WindowState());
    ecrans.setField("Height", s->ScreenHeight());
    ecrans.setField("Width", s->ScreenWidth());
    ecrans.setField("ScreenColor", s->ScreenColor());
    if (!commitBulkRow(ecrans, kBulkWho, screenWhat)) continue;
    s->setScreenId(ecrans.field("Screen Id").toInt32());

    insertDisplaysBulk(*s, targetid, sets);

    if (auto labels = s->LabelItems()) {
      auto& titres = *sets.Titres;
      for (const auto& l : *labels) {
        titres.addNew();
        titres.setField("Target Id", targetid);
        titres.setField("Screen Id", s->screenId());
        titres.setField("Text", screens::textOrNull(l->LabelText()));
        titres.setField("Left", l->LabelLeft());
        titres.setField("Top", l->LabelTop());
        titres.setField("Height", l->LabelHeight());
        titres.setField("Width", l->LabelWidth());
        titres.setField("FontName", screens::textOrNull(l->FontName()));
        titres.setField("FontSize", static_cast<double>(l->FontSize()));
        titres.setField("FontBold", screens::flag(l->FontBold()));
        titres.setField("FontItalic", screens::flag(l->FontItalic()));
        titres.setField("FontColor", l->FontColor());
        titres.setField("Color", l->LabelColor());
        titres.setField("Alignment", l->Alignment());
        if (commitBulkRow(titres, kBulkWho, "label '" + l->LabelText() + "' of " + screenWhat))
          l->setLabelId(titres.field("Label Id").toInt32());
      }
    }

    bool initStored = false;
    if (auto buttons = s->ButtonItems()) {
      auto& boutons = *sets.Boutons;
      auto& scenarios = *sets.Scenarios;
      for (const auto& b : *buttons) {
        boutons.addNew();
        boutons.setField("Target Id", targetid);
        boutons.setField("Screen Id", s->screenId());
        boutons.setField("Caption", b->Caption());
        boutons.setField("Left", b->ButtonLeft());
        boutons.setField("Top", b->ButtonTop());
        boutons.setField("Height", b->ButtonHeight());
        boutons.setField("Width", b->ButtonWidth());
        boutons.setField("FontName", screens::textOrNull(b->FontName()));
        boutons.setField("FontSize", static_cast<double>(b->FontSize()));
        boutons.setField("FontBold", screens::flag(b->FontBold()));
        boutons.setField("FontItalic", screens::flag(b->FontItalic()));
        boutons.setField("Message", b->Message());
        const std::string buttonWhat = "button '" + b->Caption() + "' of " + screenWhat;
        if (!commitBulkRow(boutons, kBulkWho, buttonWhat)) continue;
        b->setButtonId(boutons.field("Button Id").toInt32());
        if (b == init) initStored = true;
        if (!b->hasScenarioItems()) continue;
        for (const auto& step : *b->ScenarioItems()) {
          auto request = step->request();
          const std::string requestName = request ? request->requestName() : step->requestName();
          scenarios.addNew();
          scenarios.setField("Target Id", targetid);
          scenarios.setField("Button Id", b->buttonId());
          scenarios.setField("Index", step->index());
          scenarios.setField("Address", target->Address());
          scenarios.setField("Ecu Id", targetid);
          scenarios.setField("Request Name", screens::textOrNull(requestName));
          scenarios.setField("LgVariable", screens::flag(request && request->LgVariable()));
          scenarios.setField("Delay", step->Delay());
          commitBulkRow(scenarios, kBulkWho,
                                 "step " + num(step->index()) + " (" + requestName + ") of " + buttonWhat);
        }
      }
    }

    // The screen's row is still the current one of its set: the initial
    // button's new id goes into it without another query.
    int32_t initId = 0;
    if (init && initStored) {
      try {
        ecrans.setField("Init Id", init->buttonId());
        ecrans.update();
        initId = init->buttonId();
      } catch (const Error& e) {
        if (!db::isRowRefusal(e)) throw;
        trap([&] { ecrans.cancelUpdate(); });
        host().logEvent(EventType::Error,
                        std::string(kBulkWho) + " : initial button of " + screenWhat + " not set : " + e.description());
      }
    }
    s->setInitId(initId);
    if (initId != 0) s->setButtonInit(init);
  }
  sets.close();
  tx.commit();
}

}  // namespace kavrel
