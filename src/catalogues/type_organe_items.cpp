#include "kavrel/catalogues/type_organe_items.h"

#include "catalogues/id_label_catalogue.h"

namespace kavrel {

namespace {
const catalogue::IdLabelTable kTable = {
    "SELECT [Type Organe Id],[Libelle] FROM [Type Organe]",
    "SELECT [Type Organe Id],[Libelle] FROM [Type Organe] ORDER BY [Libelle]",
    "Type Organe Id",
    "DeviceType",
    "TypeOrganeItem.loadXml",
    "TypeOrganeItem.loadXml : Device type Name not found",
    "TypeOrganeItem.loadXml : Id not found",
    "Table 'Type Organe' doesn't exist in the database",
};
}  // namespace

void TypeOrganeItem::createXMLnode(xml::Document& /*odoc*/, xml::Node reqNode) const { catalogue::writeIdLabel(*this, reqNode); }
void TypeOrganeItem::loadXml(xml::Document& /*odoc*/, xml::Node parNode) { catalogue::loadIdLabel(*this, kTable, parNode); }
void TypeOrganeItem::dbInsert(db::Connection& conn) { catalogue::insertIdLabel(conn, kTable, *this); }

TypeOrganeItems::Ptr TypeOrganeItems::Add(int32_t id, std::string libelle, std::string_view sKey) {
  return addNew(sKey, [&](TypeOrganeItem& t) {
    t.setId(id);
    t.setLibelle(std::move(libelle));
  });
}

TypeOrganeItems::Ptr TypeOrganeItems::ItemName(std::string_view nom) const { return catalogue::findByLabel(*this, nom); }
TypeOrganeItems::Ptr TypeOrganeItems::ItemId(int32_t id) const { return catalogue::findById(*this, id); }

bool TypeOrganeItems::DbRead(db::Connection& conn) {
  return catalogue::readIdLabelRows(*this, conn, kTable.selectOrdered, kTable.idColumn, kTable.tableMissing);
}

void TypeOrganeItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  catalogue::writeEntries(*this, odoc, parent, kTable.element);
}
void TypeOrganeItems::loadXml(xml::Document& odoc, xml::Node parNode) { catalogue::loadEntries(*this, odoc, parNode, kTable.element); }
void TypeOrganeItems::dbInsertAll(db::Connection& conn) { catalogue::insertAllIdLabel(conn, kTable, *this); }

}  // namespace kavrel
