#include "kavrel/target/auto_ident_items.h"

#include <string>
#include <utility>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/target/target_item.h"
#include "target/target_support.h"
#include "target/target_read.h"

namespace kavrel {

using target::num;

namespace {

constexpr const char* kColumns =
    "SELECT [Address], [Target Id], [Indice Diag], [code7700], [Code Fournisseur], [Logiciel], [Version], [Langue] "
    "FROM Identification";
constexpr const char* kDeleteError = "Impossible to delete Auto Identification. ";

std::shared_ptr<TargetItem> requireParent(const AutoIdentItem& item, const char* source) {
  auto p = item.parent();
  if (!p) raise(100, source, "Parent not defined");
  return p;
}

}  // namespace

// ---- AutoIdentItem

void AutoIdentItem::clear() { parent_.reset(); }

void AutoIdentItem::createXMLnode(xml::Document& /*odoc*/, xml::Node element) const {
  element.setAttribute("DiagVersion", num(DiagNumber_));
  element.setAttribute("Supplier", SupplierCode_);
  element.setAttribute("Soft", Soft_);
  element.setAttribute("Version", Version_);
}

void AutoIdentItem::loadXml(xml::Document& /*odoc*/, xml::Node element) {
  DiagNumber_ = 0;
  SupplierCode_.clear();
  Soft_.clear();
  Version_.clear();
  target::attrText(element, "Supplier", SupplierCode_);
  target::attrText(element, "Soft", Soft_);
  target::attrText(element, "Version", Version_);
  if (auto v = element.isNull() ? std::nullopt : element.attribute("DiagVersion")) DiagNumber_ = text::toInt(*v);
}

void AutoIdentItem::dbInsert(db::Connection& conn) {
  auto target = requireParent(*this, "AutoIdentItem.dbInsert");
  auto rs = conn.openUpdatable(kColumns);
  rs->addNew();
  rs->setField("Address", target->Address());
  rs->setField("Target Id", target->targetid());
  rs->setField("Indice Diag", DiagNumber_);
  // The entry has no value of its own for this column.
  rs->setField("code7700", db::Value());
  rs->setField("Code Fournisseur", target::textOrNull(SupplierCode_));
  rs->setField("Logiciel", target::textOrNull(Soft_));
  rs->setField("Version", target::textOrNull(Version_));
  rs->setField("Langue", target->Langue());
  rs->update();
  rs->close();
}

void AutoIdentItem::dbUpdate(db::Connection& conn, int32_t DiagNumber, const std::string& SupplierCode,
                             const std::string& Soft, const std::string& Version) {
  auto target = requireParent(*this, "AutoIdentItem.dbUpdate");
  // The texts are spliced as they are (not doubled): a quote fails the
  // statement rather than let it match other rows.
  auto rs = conn.openUpdatable(
      std::string("SELECT [Indice Diag], [code7700], [Code Fournisseur], [Logiciel], [Version] FROM Identification") +
      " WHERE Address=" + num(target->Address()) + " AND [Target Id]=" + num(target->targetid()) +
      " AND [Indice Diag]=" + num(DiagNumber) + " AND [Code Fournisseur]='" + db::sql::spliceUnquoted(SupplierCode) +
      "' AND [Logiciel]='" + db::sql::spliceUnquoted(Soft) + "' AND [Version]='" + db::sql::spliceUnquoted(Version) +
      "'");
  if (rs->eof()) {
    rs->close();
    return;
  }
  rs->setField("Indice Diag", DiagNumber_);
  rs->setField("Code Fournisseur", target::textOrNull(SupplierCode_));
  rs->setField("Logiciel", target::textOrNull(Soft_));
  rs->setField("Version", target::textOrNull(Version_));
  rs->update();
  rs->close();
}

void AutoIdentItem::dbDelete(db::Connection& conn) {
  try {
    auto target = requireParent(*this, "AutoIdentItem.dbDelete");
    std::string sql = "DELETE * FROM Identification WHERE Address=" + num(target->Address()) +
                      " AND [Target Id]=" + num(target->targetid()) + " AND [Indice Diag]=" + num(DiagNumber_) +
                      " AND [Code Fournisseur]='" + db::sql::spliceUnquoted(SupplierCode_) + "' AND [Logiciel]='" +
                      db::sql::spliceUnquoted(Soft_) + "' AND [Version]='" + db::sql::spliceUnquoted(Version_) + "'";
    conn.execute(sql);
  } catch (const Error& e) {
    raise(1, "", kDeleteError + e.description());
  }
}

// ---- AutoIdentItems

AutoIdentItems::Ptr AutoIdentItems::Add(int32_t DiagNumber, std::string SupplierCode, std::string Soft,
                                        std::string Version, const std::shared_ptr<TargetItem>& parent,
                                        std::string_view sKey) {
  return addNew(sKey, [&](AutoIdentItem& e) {
    e.setDiagNumber(DiagNumber);
    e.setSupplierCode(std::move(SupplierCode));
    e.setSoft(std::move(Soft));
    e.setVersion(std::move(Version));
    e.setParent(parent);
  });
}

int32_t AutoIdentItems::FindItem(const Ptr& AutoIdent) const {
  int32_t i = 0;
  for (const auto& e : *this) {
    ++i;
    if (e == AutoIdent) return i;
  }
  return 0;
}

void AutoIdentItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  for (const auto& e : *this) e->createXMLnode(odoc, target::addLine(parent, "AutoIdent"));
  if (!empty()) target::endLines(parent);
}

void AutoIdentItems::loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<TargetItem>& target) {
  if (node.isNull()) return;
  odoc.forEachChild(node, "AutoIdent", [&](const xml::Node& el) {
    auto e = std::make_shared<AutoIdentItem>();
    e->setParent(target);
    // A bad number leaves the entry's default and stays pending.
    trap([&] { e->loadXml(odoc, el); });
    AddData(e);
  });
}

void AutoIdentItems::dbDelete(db::Connection& conn, const Ptr& AutoIdent) {
  if (!AutoIdent) return;
  AutoIdent->dbDelete(conn);
  // The list follows the database once the row is gone.
  if (int32_t i = FindItem(AutoIdent); i > 0) Remove(i);
}

std::string detail::autoIdentsSql(int32_t address, int32_t targetid) {
  return std::string(kColumns) + " WHERE Address=" + num(address) + " AND [Target Id]=" + num(targetid);
}

bool AutoIdentItems::dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  if (!target) raise(100, "AutoIdentItems.dbReadAll", "Parent not defined");
  std::unique_ptr<db::Recordset> rs;
  try {
    rs = conn.execute(detail::autoIdentsSql(target->Address(), target->targetid()));
  } catch (const Error&) {
    // Databases of the older layout have no such table.
    raise(1, "", "Table 'Identification' doesn't exist in the database");
  }
  for (; !rs->eof(); rs->moveNext()) {
    int32_t diag = 0;
    trap([&] { target::fieldInt(*rs, "Indice Diag", diag); });
    std::string supplier, soft, version;
    trap([&] { supplier = rs->field("Code Fournisseur").toText(); });
    trap([&] { soft = rs->field("Logiciel").toText(); });
    trap([&] { version = rs->field("Version").toText(); });
    Add(diag, std::move(supplier), std::move(soft), std::move(version), target);
  }
  rs->close();
  return true;
}

}  // namespace kavrel
