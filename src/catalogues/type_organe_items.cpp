#include "kavrel/catalogues/type_organe_items.h"

#include <string>

#include "catalogues/catalogue_support.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"

namespace kavrel {

namespace {

constexpr const char* kSelectAll = "SELECT [Type Organe Id],[Libelle] FROM [Type Organe]";

void insertRow(db::UpdatableRecordset& rs, const TypeOrganeItem& t) {
  rs.addNew({"Type Organe Id", "Libelle"}, {db::Value(t.id()), db::Value(t.libelle())});
}

}  // namespace

// ---- TypeOrganeItem

void TypeOrganeItem::createXMLnode(xml::Document& /*odoc*/, xml::Node reqNode) const {
  reqNode.setAttribute("Name", libelle_);
  reqNode.setAttribute("Id", std::to_string(id_));
}

void TypeOrganeItem::loadXml(xml::Document& /*odoc*/, xml::Node parNode) {
  clearLastError();
  libelle_.clear();
  id_ = 0;

  std::optional<std::string> name;
  trap([&] { name = parNode.selectString("@Name"); });
  if (name) {
    libelle_ = *name;
  } else {
    // Reported and dropped at once: the entry keeps its default.
    recordError(1, "", "TypeOrganeItem.loadXml : Device type Name not found");
    clearLastError();
  }
  if (catalogue::readInt(parNode, "@Id", id_, "TypeOrganeItem.loadXml") == catalogue::AttrRead::Missing) {
    recordError(1, "", "TypeOrganeItem.loadXml : Id not found");
    clearLastError();
  }
}

void TypeOrganeItem::dbInsert(db::Connection& conn) {
  auto rs = conn.openUpdatable(kSelectAll);
  insertRow(*rs, *this);
  rs->close();
}

// ---- TypeOrganeItems

TypeOrganeItems::Ptr TypeOrganeItems::Add(int32_t id, std::string libelle, std::string_view sKey) {
  return addNew(sKey, [&](TypeOrganeItem& t) {
    t.setId(id);
    t.setLibelle(std::move(libelle));
  });
}

TypeOrganeItems::Ptr TypeOrganeItems::ItemName(std::string_view nom) const {
  for (const auto& t : *this)
    if (t->libelle() == nom) return t;
  return nullptr;
}

TypeOrganeItems::Ptr TypeOrganeItems::ItemId(int32_t id) const {
  for (const auto& t : *this)
    if (t->id() == id) return t;
  return nullptr;
}

bool TypeOrganeItems::DbRead(db::Connection& conn) {
  return catalogue::readIdLabelRows(*this, conn, "SELECT [Type Organe Id],[Libelle] FROM [Type Organe] ORDER BY [Libelle]",
                                    "Type Organe Id", "Table 'Type Organe' doesn't exist in the database");
}

void TypeOrganeItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  catalogue::writeEntries(*this, odoc, parent, "DeviceType");
}

void TypeOrganeItems::loadXml(xml::Document& odoc, xml::Node parNode) {
  catalogue::loadEntries(*this, odoc, parNode, "DeviceType");
}

void TypeOrganeItems::dbInsertAll(db::Connection& conn) {
  db::Transaction tx(conn);
  auto rs = conn.openUpdatable(kSelectAll);
  for (const auto& t : *this) insertRow(*rs, *t);
  rs->close();
  tx.commit();
}

}  // namespace kavrel
