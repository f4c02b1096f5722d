#include "kavrel/catalogues/panne_items.h"

#include "catalogues/id_label_catalogue.h"

namespace kavrel {

namespace {
const catalogue::IdLabelTable kTable = {
    "SELECT [Type Panne Id],[Libelle] FROM [Type Panne]",
    "SELECT [Type Panne Id],[Libelle] FROM [Type Panne] ORDER BY [Libelle]",
    "Type Panne Id",
    "Failure",
    "PanneItem.loadXml",
    "PanneItem.loadXml : Failure Name not found",
    "PanneItem.loadXml : Id not found",
    "Table 'Type Panne' doesn't exist in the database",
};
}  // namespace

void PanneItem::createXMLnode(xml::Document& /*odoc*/, xml::Node reqNode) const { catalogue::writeIdLabel(*this, reqNode); }
void PanneItem::loadXml(xml::Document& /*odoc*/, xml::Node parNode) { catalogue::loadIdLabel(*this, kTable, parNode); }
void PanneItem::dbInsert(db::Connection& conn) { catalogue::insertIdLabel(conn, kTable, *this); }

PanneItems::Ptr PanneItems::Add(int32_t id, std::string libelle, std::string_view sKey) {
  return addNew(sKey, [&](PanneItem& t) {
    t.setId(id);
    t.setLibelle(std::move(libelle));
  });
}

PanneItems::Ptr PanneItems::ItemName(std::string_view nom) const { return catalogue::findByLabel(*this, nom); }
PanneItems::Ptr PanneItems::ItemId(int32_t id) const { return catalogue::findById(*this, id); }

bool PanneItems::DbRead(db::Connection& conn) {
  return catalogue::readIdLabelRows(*this, conn, kTable.selectOrdered, kTable.idColumn, kTable.tableMissing);
}

void PanneItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  catalogue::writeEntries(*this, odoc, parent, kTable.element);
}
void PanneItems::loadXml(xml::Document& odoc, xml::Node parNode) { catalogue::loadEntries(*this, odoc, parNode, kTable.element); }
void PanneItems::dbInsertAll(db::Connection& conn) { catalogue::insertAllIdLabel(conn, kTable, *this); }

}  // namespace kavrel
