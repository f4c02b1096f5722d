#include "kavrel/platform/names.h"
#include "kavrel/catalogues/protocol_items.h"

#include <string>

#include "catalogues/catalogue_support.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"

namespace kavrel {

namespace {

constexpr const char* kSelectAll = "SELECT [Protocol Name],[Init mode],[Multipoint] FROM [Protocoles]";

void insertRow(db::UpdatableRecordset& rs, const ProtocolItem& p) {
  rs.addNew({"Protocol Name", "Init mode", "Multipoint"},
            {db::Value(p.protocolName()), db::Value(p.initMode()), db::Value(p.multiPoint())});
}

}  // namespace

// ---- ProtocolItem

void ProtocolItem::createXMLnode(xml::Document& /*odoc*/, xml::Node reqNode) const {
  reqNode.setAttribute("Name", protocolName_);
  reqNode.setAttribute("multiPoint", multiPoint_ ? "1" : "0");
  reqNode.setAttribute("initMode", std::to_string(initMode_));
}

void ProtocolItem::loadXml(xml::Document& /*odoc*/, xml::Node parNode) {
  clearLastError();
  protocolName_.clear();
  multiPoint_ = false;
  initMode_ = 0;

  std::optional<std::string> name;
  trap([&] { name = parNode.selectString("@Name"); });
  if (name) {
    protocolName_ = *name;
  } else {
    recordError(1, "", "ProtocolItem.loadXml : Protocol Name not found");
    clearLastError();
  }
  // A missing mode or flag keeps its default without a message.
  catalogue::readBool(parNode, "@multiPoint", multiPoint_, "ProtocolItem.loadXml");
  catalogue::readInt(parNode, "@initMode", initMode_, "ProtocolItem.loadXml");
}

void ProtocolItem::dbInsert(db::Connection& conn) {
  auto rs = conn.openUpdatable(kSelectAll);
  insertRow(*rs, *this);
  rs->close();
}

// ---- ProtocolItems

ProtocolItems::Ptr ProtocolItems::Add(int32_t initMode, bool multiPoint, std::string protocolName,
                                      std::string_view sKey) {
  return addNew(sKey, [&](ProtocolItem& p) {
    p.setInitMode(initMode);
    p.setMultiPoint(multiPoint);
    p.setProtocolName(std::move(protocolName));
  });
}

ProtocolItems::Ptr ProtocolItems::ItemName(std::string_view protocolName) const {
  for (const auto& p : *this)
    if (names::equal(p->protocolName(), protocolName)) return p;
  return nullptr;
}

ProtocolItems::Ptr ProtocolItems::ItemId(int32_t initMode, bool multiPoint) const {
  for (const auto& p : *this)
    if (p->initMode() == initMode && p->multiPoint() == multiPoint) return p;
  return nullptr;
}

bool ProtocolItems::DbRead(db::Connection& conn) {
  auto rs = conn.execute("SELECT [Init mode],[Multipoint],[Protocol Name] FROM [Protocoles] ORDER BY [Protocol Name]");
  for (; !rs->eof(); rs->moveNext()) {
    // Null columns keep the entry's defaults.
    const db::Value mode = rs->field("Init mode");
    const db::Value multi = rs->field("Multipoint");
    Add(mode.isNull() ? 0 : mode.toInt32(), multi.isNull() ? false : multi.toBool(),
        rs->field("Protocol Name").toText());
  }
  rs->close();
  return true;
}

void ProtocolItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  catalogue::writeEntries(*this, odoc, parent, "Protocol");
}

void ProtocolItems::loadXml(xml::Document& odoc, xml::Node parNode) {
  catalogue::loadEntries(*this, odoc, parNode, "Protocol");
}

void ProtocolItems::dbInsertAll(db::Connection& conn) {
  db::Transaction tx(conn);
  auto rs = conn.openUpdatable(kSelectAll);
  for (const auto& p : *this) insertRow(*rs, *p);
  rs->close();
  tx.commit();
}

}  // namespace kavrel
