// The failure-type and device-type catalogues are one design (an id and a
// label per entry); only the table, id column, element name and messages
// differ. This is that design, once.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "catalogues/catalogue_support.h"
#include "kavrel/platform/names.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/xml.h"

namespace kavrel::catalogue {

struct IdLabelTable {
  const char* selectAll;      // the table's two columns, for inserts
  const char* selectOrdered;  // the catalogue read
  const char* idColumn;
  const char* element;        // XML entry element
  const char* where;          // "<Class>.loadXml", for messages
  const char* nameMissing;
  const char* idMissing;
  const char* tableMissing;
};

template <class Item>
void insertIdLabelRow(db::UpdatableRecordset& rs, const IdLabelTable& table, const Item& t) {
  rs.addNew({table.idColumn, "Libelle"}, {db::Value(t.id()), db::Value(t.libelle())});
}

template <class Item>
void writeIdLabel(const Item& t, xml::Node reqNode) {
  reqNode.setAttribute("Name", t.libelle());
  reqNode.setAttribute("Id", std::to_string(t.id()));
}

template <class Item>
void loadIdLabel(Item& t, const IdLabelTable& table, const xml::Node& parNode) {
  clearLastError();
  t.setLibelle({});
  t.setId(0);
  std::optional<std::string> name;
  trap([&] { name = parNode.selectString("@Name"); });
  if (name) {
    t.setLibelle(*name);
  } else {
    // Reported and dropped at once: the entry keeps its default.
    recordError(1, "", table.nameMissing);
    clearLastError();
  }
  int32_t id = 0;
  if (readInt(parNode, "@Id", id, table.where) == AttrRead::Missing) {
    recordError(1, "", table.idMissing);
    clearLastError();
  }
  t.setId(id);
}

template <class Item>
void insertIdLabel(db::Connection& conn, const IdLabelTable& table, const Item& t) {
  auto rs = conn.openUpdatable(table.selectAll);
  insertIdLabelRow(*rs, table, t);
  rs->close();
}

template <class Collection>
typename Collection::Ptr findByLabel(const Collection& c, std::string_view nom) {
  for (const auto& t : c)
    if (names::equal(t->libelle(), nom)) return t;
  return nullptr;
}

template <class Collection>
typename Collection::Ptr findById(const Collection& c, int32_t id) {
  for (const auto& t : c)
    if (t->id() == id) return t;
  return nullptr;
}

template <class Collection>
void insertAllIdLabel(db::Connection& conn, const IdLabelTable& table, const Collection& c) {
  db::Transaction tx(conn);
  auto rs = conn.openUpdatable(table.selectAll);
  for (const auto& t : c) insertIdLabelRow(*rs, table, *t);
  rs->close();
  tx.commit();
}

}  // namespace kavrel::catalogue
