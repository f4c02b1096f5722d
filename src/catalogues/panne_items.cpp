#include "kavrel/catalogues/panne_items.h"

#include <string>

#include "catalogues/catalogue_support.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"

namespace kavrel {

namespace {

constexpr const char* kSelectAll = "SELECT [Type Panne Id],[Libelle] FROM [Type Panne]";

void insertRow(db::UpdatableRecordset& rs, const PanneItem& t) {
  rs.addNew({"Type Panne Id", "Libelle"}, {db::Value(t.id()), db::Value(t.libelle())});
}

}  // namespace

// ---- PanneItem

void PanneItem::createXMLnode(xml::Document& /*odoc*/, xml::Node reqNode) const {
  reqNode.setAttribute("Name", libelle_);
  reqNode.setAttribute("Id", std::to_string(id_));
}

void PanneItem::loadXml(xml::Document& /*odoc*/, xml::Node parNode) {
  clearLastError();
  libelle_.clear();
  id_ = 0;

  std::optional<std::string> name;
  trap([&] { name = parNode.selectString("@Name"); });
  if (name) {
    libelle_ = *name;
  } else {
    // Reported and dropped at once: the entry keeps its default.
    recordError(1, "", "PanneItem.loadXml : Failure Name not found");
    clearLastError();
  }
  if (catalogue::readInt(parNode, "@Id", id_, "PanneItem.loadXml") == catalogue::AttrRead::Missing) {
    recordError(1, "", "PanneItem.loadXml : Id not found");
    clearLastError();
  }
}

void PanneItem::dbInsert(db::Connection& conn) {
  auto rs = conn.openUpdatable(kSelectAll);
  insertRow(*rs, *this);
  rs->close();
}

// ---- PanneItems

PanneItems::Ptr PanneItems::Add(int32_t id, std::string libelle, std::string_view sKey) {
  return addNew(sKey, [&](PanneItem& t) {
    t.setId(id);
    t.setLibelle(std::move(libelle));
  });
}

PanneItems::Ptr PanneItems::ItemName(std::string_view nom) const {
  for (const auto& t : *this)
    if (t->libelle() == nom) return t;
  return nullptr;
}

PanneItems::Ptr PanneItems::ItemId(int32_t id) const {
  for (const auto& t : *this)
    if (t->id() == id) return t;
  return nullptr;
}

bool PanneItems::DbRead(db::Connection& conn) {
  return catalogue::readIdLabelRows(*this, conn, "SELECT [Type Panne Id],[Libelle] FROM [Type Panne] ORDER BY [Libelle]",
                                    "Type Panne Id", "Table 'Type Panne' doesn't exist in the database");
}

void PanneItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  catalogue::writeEntries(*this, odoc, parent, "Failure");
}

void PanneItems::loadXml(xml::Document& odoc, xml::Node parNode) {
  catalogue::loadEntries(*this, odoc, parNode, "Failure");
}

void PanneItems::dbInsertAll(db::Connection& conn) {
  db::Transaction tx(conn);
  auto rs = conn.openUpdatable(kSelectAll);
  for (const auto& t : *this) insertRow(*rs, *t);
  rs->close();
  tx.commit();
}

}  // namespace kavrel
