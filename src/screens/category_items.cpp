// Screen categories of a target: rows of Catégories, "Category" elements,
// and the whole-tree read of a target's screens.

#include "kavrel/screens/category_items.h"

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/names.h"
#include "kavrel/screens/button_items.h"
#include "kavrel/screens/display_items.h"
#include "kavrel/screens/label_items.h"
#include "kavrel/screens/scenario_items.h"
#include "kavrel/screens/screen_items.h"
#include "screens/display_support.h"
#include "screens/screen_support.h"
#include "target/target_read.h"

namespace kavrel {

using screens::num;

namespace {

std::shared_ptr<TargetItem> requireTarget(const CategoryItem& c) {
  auto t = c.parent();
  if (!t) raise(100, "", "Parent not defined");
  return t;
}

}  // namespace

std::string detail::categoriesSql(int32_t targetid) {
  return std::string("SELECT [Category Id], [Category Name]") + " From Catégories" + " WHERE [Target Id]=" +
         num(targetid) + " ORDER BY [Category Name]";
}

std::string detail::screensOfTargetSql(int32_t targetid) {
  return std::string("SELECT [Screen Id], [Screen Name], [Init Id], [WindowState], [Height], [Width], [ScreenColor], ") +
         "[Category Id] From Ecrans WHERE [Target Id]=" + num(targetid) + " ORDER BY [Category Id], [Screen Name]";
}

std::string detail::labelsOfTargetSql(int32_t targetid) {
  return std::string(
             "SELECT [Label Id], [Target Id], [Screen Id], [Text], [Left], [Top], [Height], [Width], "
             "[FontName], [FontSize], [FontBold], [FontItalic], [FontColor], [Color], [Alignment]") +
         " From Titres WHERE [Target Id]=" + num(targetid) + " ORDER BY [Screen Id], [Text]";
}

std::string detail::buttonsOfTargetSql(int32_t targetid) {
  return std::string(
             "SELECT [Button Id], [Caption], [Left], [Top], [Height], [Width], [FontName], [FontSize], "
             "[FontBold], [FontItalic], [Message], [Screen Id]") +
         " From Boutons WHERE [Target Id]=" + num(targetid) + " ORDER BY [Screen Id], [Caption]";
}

std::string detail::scenariosOfTargetSql(int32_t targetid) {
  return std::string("SELECT [Index], [Address], [Ecu Id], [Request Name], [Delay], [Button Id]") +
         " From Scenarios WHERE [Target Id]=" + num(targetid) + " ORDER BY [Button Id], [Index]";
}

// -------------------------------------------------------------- CategoryItem

CategoryItem::CategoryItem() : Screens_(std::make_shared<ScreenItems>()) {}
CategoryItem::~CategoryItem() = default;

void CategoryItem::clear() {
  parent_.reset();
  if (Screens_) Screens_->clear();
  Screens_.reset();
}

void CategoryItem::createXMLnode(xml::Document& odoc, xml::Node reqNode) {
  reqNode.setAttribute("Name", categoryName_);
  if (Screens_) Screens_->createXMLnode(odoc, reqNode);
}

void CategoryItem::loadXml(xml::Document& odoc, xml::Node parNode) {
  const std::optional<std::string> name = parNode.attribute("Name");
  if (name) categoryName_ = *name;
  if (Screens_) Screens_->clear();
  Screens_ = std::make_shared<ScreenItems>();
  Screens_->loadXml(odoc, parNode, weak_from_this().lock());
  if (!name) recordError(1, "CategoryItem.loadXml", "Name undefined, bad category");
}

void CategoryItem::dbRename(db::Connection& conn, const std::string& newName) {
  requireTarget(*this);
  std::unique_ptr<db::UpdatableRecordset> rs;
  bool empty = false;
  try {
    rs = conn.openUpdatable("SELECT [Category Name] FROM Catégories WHERE [Category Id]=" + num(categoryId_));
    empty = rs->eof();
  } catch (const Error&) {
    raise(101, "", "Enable to execute sql");
  }
  if (empty) {
    rs->close();
    raise(1, "", "Category not found");
  }
  try {
    rs->setField("Category Name", newName);
    rs->update();
  } catch (const Error&) {
    trap([&] { rs->cancelUpdate(); });
    trap([&] { rs->close(); });
    raise(2, "", "Duplicate name");
  }
  rs->close();
  categoryName_ = newName;
}

void CategoryItem::dbInsert(db::Connection& conn) {
  auto target = requireTarget(*this);
  auto rs = conn.openUpdatable("SELECT [Target Id], [Category Id], [Category Name] FROM Catégories");
  rs->addNew();
  rs->setField("Target Id", target->targetid());
  rs->setField("Category Name", categoryName_);
  rs->update();
  categoryId_ = rs->field("Category Id").toInt32();
  rs->close();
}

void CategoryItem::DbInsertAll(db::Connection& conn) {
  dbInsert(conn);
  if (Screens_) Screens_->DbInsertAll(conn);
}

void CategoryItem::dbDelete(db::Connection& conn) {
  conn.clearErrors();
  try {
    conn.execute("DELETE * from Catégories WHERE [Category Id]=" + num(categoryId_));
  } catch (const Error&) {
    raise(1, "", "Impossible to delete the category '" + categoryName_ + "'");
  }
}

// ------------------------------------------------------------- CategoryItems

CategoryItems::Ptr CategoryItems::Add(int32_t categoryId, std::string categoryName, std::string_view sKey) {
  return addNew(sKey, [&](CategoryItem& c) {
    c.setCategoryId(categoryId);
    c.setCategoryName(std::move(categoryName));
  });
}

CategoryItems::Ptr CategoryItems::ItemName(std::string_view name) const {
  for (const auto& c : *this)
    if (names::equal(c->categoryName(), name)) return c;
  return nullptr;
}

void CategoryItems::createXMLnode(xml::Document& odoc, xml::Node parent) {
  for (const auto& c : *this) {
    parent.appendText("\n");
    c->createXMLnode(odoc, parent.appendElement("Category"));
  }
}

void CategoryItems::loadXml(xml::Document& odoc, xml::Node parNode, const std::shared_ptr<TargetItem>& Ptarget) {
  screens::KeepPendingError keep;
  odoc.forEachChild(parNode, "Category", [&](const xml::Node& n) {
    clearLastError();
    auto c = std::make_shared<CategoryItem>();
    c->setParent(Ptarget);
    trap([&] { c->loadXml(odoc, n); });
    // Kept after any outcome but a pending error numbered -1: a category
    // without a name is kept (with an empty name).
    if (~lastError().number != 0) AddData(c);
  });
}

void CategoryItems::read(db::Connection& conn, const std::shared_ptr<TargetItem>& target, int depth) {
  if (!target) raise(100, "", "Parent not defined");
  const int32_t targetid = target->targetid();
  std::vector<Ptr> added;
  {
    auto rs = conn.execute(detail::categoriesSql(targetid));
    for (; !rs->eof(); rs->moveNext()) {
      auto c = Add(rs->field(0).toInt32(), rs->field(1).toText());
      c->setParent(target);
      added.push_back(c);
    }
    rs->close();
  }
  if (depth == 2)
    for (const auto& c : added) c->Screens()->dbReadKVR(conn, targetid, c);
}

void CategoryItems::DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& target) { read(conn, target, 0); }

void CategoryItems::dbReadKVR(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  read(conn, target, 2);
}

// The whole tree in one query per table instead of one per screen and per
// button: the rows come sorted by owner, then in each owner's own order
// (screens by name, labels by text, buttons by caption, steps by index), so
// the collections end up exactly as the per-owner reads would fill them.
void CategoryItems::dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  const size_t first = static_cast<size_t>(Count());
  read(conn, target, 1);
  const int32_t targetid = target->targetid();

  std::unordered_map<int32_t, std::shared_ptr<CategoryItem>> categories;
  for (size_t i = first; i < static_cast<size_t>(Count()); ++i) {
    auto c = Item(static_cast<int32_t>(i + 1));
    categories.emplace(c->categoryId(), c);
  }
  if (categories.empty()) return;

  std::vector<std::shared_ptr<ScreenItem>> screenList;
  std::unordered_map<int32_t, std::shared_ptr<ScreenItem>> screenById;
  {
    auto rs = conn.execute(detail::screensOfTargetSql(targetid));
    for (; !rs->eof(); rs->moveNext()) {
      auto c = categories.find(rs->field(7).toInt32());
      if (c == categories.end()) continue;
      auto s = c->second->Screens()->Add(rs->field(0).toInt32(), rs->field(1).toText());
      int32_t v = 0;
      screens::fieldInt(*rs, 2, v);
      s->setInitId(v);
      v = s->WindowState();
      screens::fieldInt(*rs, 3, v);
      s->setWindowState(v);
      v = s->ScreenHeight();
      screens::fieldInt(*rs, 4, v);
      s->setScreenHeight(v);
      v = s->ScreenWidth();
      screens::fieldInt(*rs, 5, v);
      s->setScreenWidth(v);
      v = s->ScreenColor();
      screens::fieldInt(*rs, 6, v);
      s->setScreenColor(v);
      s->setParent(c->second);
      screenList.push_back(s);
      screenById.emplace(s->screenId(), s);
    }
    rs->close();
  }
  if (screenList.empty()) return;

  {
    auto rs = conn.execute(detail::labelsOfTargetSql(targetid));
    for (; !rs->eof(); rs->moveNext()) {
      auto s = screenById.find(rs->field(2).toInt32());
      if (s == screenById.end()) continue;
      auto l = s->second->LabelItems()->Add(rs->field(0).toInt32());
      detail::readLabelRow(*rs, *l);
      l->setParent(s->second);
    }
    rs->close();
  }

  std::unordered_map<int32_t, std::shared_ptr<ButtonItem>> buttonById;
  {
    auto rs = conn.execute(detail::buttonsOfTargetSql(targetid));
    for (; !rs->eof(); rs->moveNext()) {
      auto s = screenById.find(rs->field(11).toInt32());
      if (s == screenById.end()) continue;
      auto b = s->second->ButtonItems()->Add(rs->field(0).toInt32());
      detail::readButtonRow(*rs, *b);
      detail::linkInitButton(*s->second, b);
      b->setParent(s->second);
      b->ScenarioItems();  // every button read has its (maybe empty) scenario
      buttonById.emplace(b->buttonId(), b);
    }
    rs->close();
  }

  if (!buttonById.empty()) {
    auto rs = conn.execute(detail::scenariosOfTargetSql(targetid));
    for (; !rs->eof(); rs->moveNext()) {
      auto b = buttonById.find(rs->field(5).toInt32());
      if (b == buttonById.end()) continue;
      detail::readScenarioRow(*rs, b->second, target);
    }
    rs->close();
  }

  // The displays read per screen, in the screens' order; their rows are
  // fetched once for the whole target.
  detail::DisplayReadBatch displays(conn, targetid);
  for (size_t i = first; i < static_cast<size_t>(Count()); ++i) {
    auto c = Item(static_cast<int32_t>(i + 1));
    for (const auto& s : *c->Screens()) s->DisplayItems()->DbRead(conn, targetid, s);
  }
}

void CategoryItems::DbInsertAll(db::Connection& conn) {
  for (const auto& c : *this) {
    // One category refused (its name taken) does not stop the others.
    try {
      c->DbInsertAll(conn);
    } catch (const Error& e) {
      if (!db::isRowRefusal(e)) throw;  // an engine or disk fault ends the whole insert
      host().logEvent(EventType::Error, "CategoryItems.DbInsertAll : category '" + c->categoryName() +
                                            "' not inserted : " + e.description());
      recordError(e);
    }
  }
}

}  // namespace kavrel
