#include "kavrel/platform/names.h"
#include "kavrel/catalogues/function_items.h"

#include <string>

#include "catalogues/catalogue_support.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"

namespace kavrel {

namespace {

constexpr const char* kSelectAll = "SELECT [Address],[Function Name],[XId],[RId] FROM [Fonctions]";
constexpr const char* kInsertError = " DbInsert Function Error : ";

// Bits 29..31 of a CAN identifier: bit 31 flags an extended identifier.
constexpr uint32_t kCanIdMask = 0x1FFFFFFFu;
constexpr uint32_t kExtendedFlag = 0x80000000u;

db::Value canIdValue(int32_t id) { return id == -1 ? db::Value() : db::Value(id); }

int32_t canIdOf(const db::Value& v) { return v.isNull() ? -1 : v.toInt32(); }

void writeCanId(xml::Node functionNode, const char* childName, int32_t id) {
  functionNode.appendText("\n");
  xml::Node child = functionNode.appendElement(childName);
  child.appendText("\n");
  xml::Node can = child.appendElement("CANId");
  if (id >= 0) {
    can.setAttribute("Value", std::to_string(id));
  } else {
    can.setAttribute("Value", std::to_string(static_cast<uint32_t>(id) & kCanIdMask));
    can.setAttribute("Extended", "1");
  }
  child.appendText("\n");
}

// Reads "<child>/CANId/@Value" (and "@Extended"); a missing child leaves -1.
void readCanId(const xml::Node& functionNode, const std::string& child, int32_t& out) {
  int32_t value = -1;
  if (catalogue::readInt(functionNode, child + "/CANId/@Value", value, "FunctionItem.loadXml") !=
      catalogue::AttrRead::Read)
    return;
  bool extended = false;
  catalogue::readBool(functionNode, child + "/CANId/@Extended", extended, "FunctionItem.loadXml");
  if (extended) value = static_cast<int32_t>(static_cast<uint32_t>(value) | kExtendedFlag);
  out = value;
}

void insertRow(db::UpdatableRecordset& rs, const FunctionItem& f) {
  rs.addNew({"Address", "Function Name", "XId", "RId"},
            {db::Value(f.Address()), db::Value(f.functionName()), canIdValue(f.CanXId()), canIdValue(f.CanRId())});
}

}  // namespace

// ---- FunctionItem

void FunctionItem::createXMLnode(xml::Document& /*odoc*/, xml::Node reqNode) const {
  reqNode.setAttribute("Name", functionName_);
  reqNode.setAttribute("Address", std::to_string(Address_));
  if (CanXId_ != -1) writeCanId(reqNode, "SendId", CanXId_);
  if (CanRId_ != -1) writeCanId(reqNode, "ReceiveId", CanRId_);
}

void FunctionItem::loadXml(xml::Document& /*odoc*/, xml::Node parNode) {
  clearLastError();
  functionName_.clear();
  Address_ = 0;
  CanXId_ = -1;
  CanRId_ = -1;

  std::optional<std::string> name;
  trap([&] { name = parNode.selectString("@Name"); });
  if (name) {
    functionName_ = *name;
  } else {
    // Reported and dropped at once: the entry keeps its default name.
    recordError(1, "", "FunctionItem.loadXml : Function Name not found");
    clearLastError();
  }
  if (catalogue::readInt(parNode, "@Address", Address_, "FunctionItem.loadXml") == catalogue::AttrRead::Missing) {
    recordError(1, "", "FunctionItem.loadXml : Address not found");
    clearLastError();
  }
  readCanId(parNode, "SendId", CanXId_);
  readCanId(parNode, "ReceiveId", CanRId_);
}

void FunctionItem::dbInsert(db::Connection& conn) {
  catalogue::withErrorPrefix(kInsertError, [&] {
    auto rs = conn.openUpdatable(kSelectAll);
    insertRow(*rs, *this);
    rs->close();
  });
}

void FunctionItem::dbUpdate(db::Connection& conn) {
  catalogue::withErrorPrefix(kInsertError, [&] {
    auto rs = conn.openUpdatable(std::string(kSelectAll) + " WHERE [Address]=" + std::to_string(Address_));
    // No row for this address: nothing to rewrite (the target's insert adds
    // the row later when it is missing).
    if (!rs->eof()) {
      rs->setField("Function Name", db::Value(functionName_));
      rs->setField("XId", canIdValue(CanXId_));
      rs->setField("RId", canIdValue(CanRId_));
      rs->update();
    }
    rs->close();
  });
}

// ---- FunctionItems

FunctionItems::Ptr FunctionItems::Add(int32_t Address, std::string functionName, std::string_view sKey) {
  return addNew(sKey, [&](FunctionItem& f) {
    f.setAddress(Address);
    f.setFunctionName(std::move(functionName));
  });
}

FunctionItems::Ptr FunctionItems::ItemAddress(int32_t functionAddress) const {
  for (const auto& f : *this)
    if (f->Address() == functionAddress) return f;
  return nullptr;
}

FunctionItems::Ptr FunctionItems::ItemName(std::string_view functionName) const {
  for (const auto& f : *this)
    if (names::equal(f->functionName(), functionName)) return f;
  return nullptr;
}

void FunctionItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  catalogue::writeEntries(*this, odoc, parent, "Function");
}

void FunctionItems::loadXml(xml::Document& odoc, xml::Node parNode) {
  catalogue::loadEntries(*this, odoc, parNode, "Function");
}

bool FunctionItems::DbRead(db::Connection& conn) {
  auto rs = conn.execute("SELECT [Address],[Function Name],[XId],[RId] FROM [Fonctions] ORDER BY [Function Name]");
  for (; !rs->eof(); rs->moveNext()) {
    auto f = Add(rs->field("Address").toInt32(), rs->field("Function Name").toText());
    f->setCanXId(canIdOf(rs->field("XId")));
    f->setCanRId(canIdOf(rs->field("RId")));
  }
  rs->close();
  return true;
}

bool FunctionItems::dbReadKVR(db::Connection& conn) {
  auto rs = conn.execute("SELECT [Address],[Function Name] FROM [Fonctions] ORDER BY [Function Name]");
  for (; !rs->eof(); rs->moveNext()) Add(rs->field("Address").toInt32(), rs->field("Function Name").toText());
  rs->close();
  return true;
}

void FunctionItems::dbInsertAll(db::Connection& conn) {
  db::Transaction tx(conn);
  catalogue::withErrorPrefix(kInsertError, [&] {
    auto rs = conn.openUpdatable(kSelectAll);
    for (const auto& f : *this) insertRow(*rs, *f);
    rs->close();
  });
  tx.commit();
}

}  // namespace kavrel
