#include "kavrel/requests/data_liste_items.h"

#include <string>
#include <utility>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_items.h"

namespace kavrel {
namespace {

// Flags are stored as the database's booleans, so filters splice -1 / 0.
const char* flagText(bool v) { return v ? "-1" : "0"; }

std::shared_ptr<DataItem> requireParent(const DataListeItem& entry) {
  auto p = entry.parent();
  if (!p) raise(100, "", "Parent not defined");
  return p;
}

// The WHERE clause naming one entry's row: data, value and both flags.
std::string rowFilter(const DataItem& data, int32_t valeur) {
  return " WHERE [Data Id]=" + std::to_string(data.id()) + " AND Valeur=" + std::to_string(valeur) +
         " AND Numérique=" + flagText(data.numerique()) + " AND Liste=" + flagText(data.liste());
}

db::Value textOrNull(const std::string& s) { return s.empty() ? db::Value() : db::Value(s); }

}  // namespace

// ---------------------------------------------------------------- DataListeItem

void DataListeItem::dbInsert(db::Connection& conn) {
  auto data = requireParent(*this);
  auto rs = conn.openUpdatable("SELECT [Data Id],Valeur, Numérique, Liste, Libellé, Info From Listes");
  rs->addNew();
  rs->setField("Data Id", db::Value(data->id()));
  rs->setField("Numérique", db::Value(data->numerique()));
  rs->setField("Liste", db::Value(data->liste()));
  rs->setField("Valeur", db::Value(Valeur_));
  rs->setField("Libellé", libelle_.empty() ? db::Value() : db::Value(text::left(libelle_, 80)));
  rs->setField("Info", textOrNull(Info_));
  rs->update();
  rs->close();
  ValueChanged_ = false;
}

void DataListeItem::dbUpdate(db::Connection& conn) {
  if (!ValueChanged_) return;
  auto data = requireParent(*this);
  auto rs = conn.openUpdatable("SELECT Valeur, Libellé, Info From Listes" + rowFilter(*data, Valeur_));
  if (rs->eof()) {
    rs->close();
    dbInsert(conn);
    return;
  }
  rs->setField("Valeur", db::Value(Valeur_));
  rs->setField("Libellé", db::Value(libelle_));
  rs->setField("Info", db::Value(Info_));
  rs->update();
  rs->close();
  ValueChanged_ = false;
}

void DataListeItem::dbDelete(db::Connection& conn) {
  auto data = requireParent(*this);
  auto rs = conn.openUpdatable("SELECT Valeur From Listes" + rowFilter(*data, Valeur_));
  if (!rs->eof()) rs->deleteCurrent();
  rs->close();
  ValueChanged_ = false;
}

void DataListeItem::createXMLnode(xml::Document&, xml::Node reqNode) const {
  reqNode.setAttribute("Value", std::to_string(Valeur_));
  reqNode.setAttribute("Text", libelle_);
  if (!Info_.empty()) reqNode.appendCData(Info_);
}

void DataListeItem::loadXml(xml::Document&, xml::Node parNode) {
  // A missing attribute reads as Null, which a text or a number cannot take.
  const xml::Attributes attributes = parNode.attributes();
  auto attributeOrNull = [&](const char* name) {
    auto v = attributes.get(name);
    if (!v) raise(kErrInvalidUseOfNull, "", "Invalid use of Null");
    return *v;
  };
  try {
    libelle_ = std::string(attributeOrNull("Text"));
  } catch (const Error& e) {
    recordError(1, "", e.description());
  }
  try {
    Valeur_ = text::toInt(attributeOrNull("Value"));
  } catch (const Error& e) {
    recordError(1, "", e.description());
  }
  trap([&] { Info_ = text::trim(parNode.text()); });
  ValueChanged_ = true;
}

// --------------------------------------------------------------- DataListeItems

DataListeItems::Ptr DataListeItems::Add(int32_t Valeur, std::string_view sKey) {
  return addNew(sKey, [&](DataListeItem& e) { e.setValeur(Valeur); });
}

DataListeItems::Ptr DataListeItems::ItemValue(int32_t value) const {
  for (const auto& e : *this)
    if (e->Valeur() == value) return e;
  return nullptr;
}

DataListeItems::Ptr DataListeItems::ItemLabel(std::string_view text) const {
  for (const auto& e : *this)
    if (e->libelle() == text) return e;
  return nullptr;
}

void DataListeItems::RemoveItem(const Ptr& Item) {
  if (!Item) return;
  for (int32_t i = 1; i <= Count(); ++i) {
    if (this->Item(i)->Valeur() == Item->Valeur()) {
      Remove(i);
      return;
    }
  }
}

int32_t DataListeItems::ValueMax() const {
  int32_t m = 0;
  for (const auto& e : *this)
    if (e->Valeur() > m) m = e->Valeur();
  return m;
}

bool DataListeItems::ValueChanged() const {
  for (const auto& e : *this)
    if (e->ValueChanged()) return true;
  return false;
}

void DataListeItems::setValueChanged(bool v) {
  for (const auto& e : *this) e->setValueChanged(v);
}

void DataListeItems::DbRead(db::Connection& conn, const std::shared_ptr<DataItem>& Data) {
  if (!Data) raise(100, "", "Parent not defined");
  auto rs = conn.execute(std::string("SELECT Valeur, Numérique, Liste, Libellé, Info") + " From Listes" +
                         " WHERE [Data Id]=" + std::to_string(Data->id()) + " AND Numérique=" +
                         flagText(Data->numerique()) + " AND Liste=" + flagText(Data->liste()) + " ORDER BY Valeur");
  for (; !rs->eof(); rs->moveNext()) {
    auto e = Add(rs->field("Valeur").toInt32());
    e->setParent(Data);
    e->setLibelle(rs->field("Libellé").toText());
    e->setInfo(rs->field("Info").toText());
    e->setValueChanged(false);
  }
  rs->close();
}

void DataListeItems::dbReadKVR(db::Connection& conn, const std::shared_ptr<DataItem>& Data) { DbRead(conn, Data); }

void DataListeItems::dbUpdateAll(db::Connection& conn) {
  for (const auto& e : *this) e->dbUpdate(conn);
}

void DataListeItems::DbInsertAll(db::Connection& conn) {
  for (const auto& e : *this) e->dbInsert(conn);
}

void DataListeItems::dbDeleteAll(db::Connection& conn, const std::shared_ptr<DataItem>& Data) {
  if (!Data) raise(100, "", "Parent not defined");
  conn.execute("DELETE *  From Listes WHERE [Data Id]=" + std::to_string(Data->id()));
}

void DataListeItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  for (const auto& e : *this) {
    parent.appendText("\n");
    auto node = parent.appendElement("Item");
    e->createXMLnode(odoc, node);
  }
}

void DataListeItems::loadXml(xml::Document& odoc, xml::Node parNode, const std::shared_ptr<DataItem>& pdata) {
  std::vector<xml::Node> nodes;
  if (!trap([&] { nodes = parNode.selectNodes("Item"); })) return;
  reserve(static_cast<size_t>(Count()) + nodes.size());
  for (const auto& node : nodes) {
    auto e = std::make_shared<DataListeItem>();
    e->setParent(pdata);
    e->loadXml(odoc, node);
    // The complement of the pending number is non-zero for every number but
    // -1: entries that reported an error are kept too.
    if (~lastError().number) trap([&] { AddData(e); });
  }
}

}  // namespace kavrel
