// Organs of a target: rows of Organes, their freeze-frame request link in
// [Lien_DTC_ReqContext] and their device data in Lien_Données_ds_Organe.

#include "kavrel/platform/names.h"
#include "kavrel/requests/organe_items.h"

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kavrel/catalogues/type_organe_items.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/device_data_items.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/session/kavrel_database.h"
#include "kavrel/target/target_item.h"
#include "target/target_read.h"

namespace kavrel {

namespace {

constexpr size_t kMaxOrganeName = 70;
constexpr size_t kMaxMnemonique = 50;
// The mnemonic is cut to kMaxMnemonique whatever its length, but the user is
// only told about it beyond this length (the editor's historical limit).
constexpr size_t kMnemoniqueWarnLength = 70;

const char* const kOrganeColumns =
    "SELECT [Organe Id], [Address], [Target Id], [Organe Name], [Mnemonique], [Type Organe Id], [DTC], [OBD] FROM "
    "Organes";
const char* const kRequestLinkColumns =
    "SELECT [Address], [Target Id], [Request Name],[Organe Name] FROM [Lien_DTC_ReqContext]";
const char* const kDeviceDataColumns =
    "SELECT [Address], [Target Id], [Data Name], [Organe Name], [Flag Panne] From Lien_Données_ds_Organe";

std::shared_ptr<TargetItem> requireTarget(const OrganeItem& organe) {
  auto target = organe.parent();
  if (!target) raise(100, "", "Parent not defined");
  return target;
}

int32_t intOr(const db::Value& v, int32_t fallback) { return v.isNull() ? fallback : v.toInt32(); }

// The organ type's name from the session's catalogue; `current` when the
// target has no session, the session no catalogue, or the catalogue no entry.
std::string typeNameFor(const std::shared_ptr<TargetItem>& target, int32_t typeId, const std::string& current) {
  if (!target) return current;
  auto session = target->parent();
  if (!session) return current;
  auto types = session->typeOrganes();
  if (!types) return current;
  auto entry = types->ItemId(typeId);
  return entry ? entry->libelle() : current;
}

std::shared_ptr<RequestItem> requestFor(const std::shared_ptr<TargetItem>& target, const std::string& name) {
  if (!target || name.empty()) return nullptr;
  auto requests = target->Requests();
  return requests ? requests->ItemName(name) : nullptr;
}

// One organ row of a SELECT whose columns carry the names of the reads.
void readOrganeRow(db::Recordset& rs, OrganeItem& o) {
  o.setMnemonique(rs.field("Mnemonique").toText());
  o.setOrganeTypeId(intOr(rs.field("Type Organe Id"), 1));
  o.setOrganeDTC(intOr(rs.field("DTC"), 0));
  o.setOrganeOBD(intOr(rs.field("OBD"), 0));
}

[[noreturn]] void raiseReadError(const Error& e, const char* prefix, const std::string& sql) {
  raise(e.number(), e.rawSource(), std::string(prefix) + e.description() + " Execute(" + sql + ")");
}

std::string linkWhere(const TargetItem& target, const std::string& organeName) {
  return " WHERE [Address]=" + std::to_string(target.Address()) + " AND [Target Id]=" +
         std::to_string(target.targetid()) + " AND [Organe Name]='" + db::sql::doubleQuotes(organeName) + "'";
}

}  // namespace

std::string detail::organesWithContextSql(int32_t address, int32_t targetid) {
  return std::string(
             "SELECT [Organe Id], Organes.[Organe Name], Mnemonique, [Type Organe Id], DTC, OBD,[Request "
             "Name]") +
         " FROM Organes LEFT JOIN [Lien_DTC_ReqContext] ON (Organes.[Target Id] = "
         "[Lien_DTC_ReqContext].[Target Id] AND Organes.[Organe Name] = [Lien_DTC_ReqContext].[Organe "
         "Name] )" +
         " WHERE Organes.Address=" + std::to_string(address) + " AND Organes.[Target Id]=" + std::to_string(targetid) +
         " ORDER BY Organes.[Organe Name]";
}

std::string detail::organeDatasSql(int32_t targetid) {
  return std::string("SELECT [Organe Name],[Data Name], [Flag Panne]") + " FROM Lien_Données_ds_Organe" +
         " WHERE [Target Id]=" + std::to_string(targetid) + " ORDER BY [Organe Name], [Data Name]";
}

// ---------------------------------------------------------------- OrganeItem

OrganeItem::OrganeItem() = default;
OrganeItem::~OrganeItem() = default;

void OrganeItem::setOrganeName(std::string v) {
  organeName_ = std::move(v);
  detail::bumpNameVersion();
}

void OrganeItem::clear() {
  if (DeviceDatas_) DeviceDatas_->clear();
  DeviceDatas_.reset();
  request_.reset();
  parent_.reset();
}

void OrganeItem::createXMLnode(xml::Document& odoc, xml::Node reqNode) {
  reqNode.setAttribute("Name", organeName_);
  if (OrganeDTC_ != 0) reqNode.setAttribute("DTC", std::to_string(OrganeDTC_));
  if (OrganeOBD_ != 0) reqNode.setAttribute("OBD", std::to_string(OrganeOBD_));
  if (OrganeTypeId_ != 1) reqNode.setAttribute("Type", std::to_string(OrganeTypeId_));
  if (!requestName_.empty()) reqNode.setAttribute("FreezeFrame", requestName_);
  bool children = false;
  if (!Mnemonique_.empty()) {
    reqNode.appendText("\n");
    reqNode.appendElement("Mnemonic").appendText(Mnemonique_);
    children = true;
  }
  if (DeviceDatas_ && DeviceDatas_->Count() > 0) {
    DeviceDatas_->createXMLnode(odoc, reqNode);
    children = true;
  }
  if (children) reqNode.appendText("\n");
}

void OrganeItem::loadXml(xml::Document& odoc, xml::Node parNode) {
  // Attributes left out of the element are at their defaults.
  organeName_.clear();
  Mnemonique_.clear();
  OrganeTypeId_ = 1;
  OrganeTypeName_ = "Entrée";
  OrganeDTC_ = 0;
  OrganeOBD_ = 0;
  requestName_.clear();
  request_.reset();
  detail::bumpNameVersion();

  if (auto name = parNode.attribute("Name")) {
    organeName_ = *name;
  } else {
    // The rest of the element is still read so that nothing of it is lost;
    // the caller sees the pending error.
    recordError(100, "", "OrganeItem.loadXml error : Device Name not defined");
  }
  if (auto m = parNode.child("Mnemonic")) Mnemonique_ = m.text();
  auto readInt = [&](const char* attr, int32_t& out) {
    if (auto v = parNode.attribute(attr)) trap([&] { out = text::toInt(*v); });
  };
  readInt("Type", OrganeTypeId_);
  readInt("DTC", OrganeDTC_);
  readInt("OBD", OrganeOBD_);
  if (auto ff = parNode.attribute("FreezeFrame")) requestName_ = *ff;

  auto target = parent();
  OrganeTypeName_ = typeNameFor(target, OrganeTypeId_, OrganeTypeName_);
  request_ = requestFor(target, requestName_);

  if (DeviceDatas_) DeviceDatas_->clear();
  DeviceDatas_ = std::make_shared<DeviceDataItems>();
  DeviceDatas_->loadXml(odoc, parNode, weak_from_this().lock());
}

void OrganeItem::dbInsert(db::Connection& conn) {
  auto target = requireTarget(*this);
  auto rs = conn.openUpdatable(kOrganeColumns);
  rs->addNew();
  rs->setField("Address", target->Address());
  rs->setField("Target Id", target->targetid());
  rs->setField("Organe Name", organeName_);
  rs->setField("Mnemonique", Mnemonique_.empty() ? db::Value() : db::Value(Mnemonique_));
  rs->setField("Type Organe Id", OrganeTypeId_);
  rs->setField("DTC", OrganeDTC_);
  rs->setField("OBD", OrganeOBD_);
  rs->update();
  id_ = rs->field("Organe Id").toInt32();
  rs->close();
}

void OrganeItem::dbUpdate(db::Connection& conn) {
  requireTarget(*this);
  auto rs = conn.openUpdatable("SELECT [Mnemonique], [Type Organe Id], [DTC], [OBD] FROM Organes WHERE [Organe Id]=" +
                               std::to_string(id_));
  // A row deleted meanwhile leaves nothing to update, as for data items.
  if (rs->eof()) {
    rs->close();
    return;
  }
  rs->setField("Mnemonique", Mnemonique_.empty() ? db::Value() : db::Value(Mnemonique_));
  rs->setField("Type Organe Id", OrganeTypeId_);
  rs->setField("DTC", OrganeDTC_);
  rs->setField("OBD", OrganeOBD_);
  rs->update();
  rs->close();
}

void OrganeItem::dbDelete(db::Connection& conn) {
  // The request link and the device data rows go with the organ (the
  // database removes rows that name a deleted organ).
  conn.execute("DELETE * FROM Organes WHERE [Organe Id]=" + std::to_string(id_));
}

void OrganeItem::dbRename(db::Connection& conn, const std::string& newName) {
  requireTarget(*this);
  clearLastError();
  std::unique_ptr<db::UpdatableRecordset> rs;
  bool empty = false;
  if (!trap([&] {
        rs = conn.openUpdatable("SELECT [Organe Name] FROM Organes WHERE [Organe Id]=" + std::to_string(id_));
        empty = rs->eof();
      })) {
    recordError(101, "", "Enable to execute sql");
    return;
  }
  if (empty) {
    recordError(1, "", "Device not found");
    trap([&] { rs->close(); });
    return;
  }
  if (!trap([&] {
        rs->setField("Organe Name", newName);
        rs->update();
      })) {
    trap([&] { rs->cancelUpdate(); });
    recordError(2, "", "Duplicate device name");
    return;
  }
  setOrganeName(newName);
  trap([&] { rs->close(); });
}

void OrganeItem::dbInsertRequest(db::Connection& conn) {
  auto target = requireTarget(*this);
  // No freeze-frame request, no link.
  if (requestName_.empty()) return;
  auto rs = conn.openUpdatable(kRequestLinkColumns);
  rs->addNew();
  rs->setField("Address", target->Address());
  rs->setField("Target Id", target->targetid());
  rs->setField("Request Name", requestName_);
  rs->setField("Organe Name", organeName_);
  rs->update();
  rs->close();
}

void OrganeItem::dbUpdateRequest(db::Connection& conn) {
  auto target = requireTarget(*this);
  std::string where = linkWhere(*target, organeName_);
  conn.execute("DELETE * FROM [Lien_DTC_ReqContext]" + where);
  if (requestName_.empty()) return;
  auto rs = conn.openUpdatable("SELECT  [Request Name] FROM [Lien_DTC_ReqContext]" + where);
  if (rs->eof()) {
    // The usual case after the delete: the link is added anew.
    rs->close();
    dbInsertRequest(conn);
    return;
  }
  rs->setField("Request Name", requestName_);
  rs->update();
  rs->close();
}

void OrganeItem::dbReadRequest(db::Connection& conn) {
  auto target = requireTarget(*this);
  auto rs = conn.execute("SELECT  [Request Name] FROM [Lien_DTC_ReqContext] " + linkWhere(*target, organeName_));
  requestName_ = rs->eof() ? std::string() : rs->field("Request Name").toText();
  rs->close();
  request_ = requestFor(target, requestName_);
}

// --------------------------------------------------------------- OrganeItems

OrganeItems::Ptr OrganeItems::Add(int32_t id, std::string organeName, std::string Mnemonique, int32_t OrganeDTC,
                                  int32_t OrganeOBD, std::string_view sKey) {
  return addNew(sKey, [&](OrganeItem& o) {
    o.setId(id);
    o.setOrganeName(std::move(organeName));
    o.setMnemonique(std::move(Mnemonique));
    o.setOrganeDTC(OrganeDTC);
    o.setOrganeOBD(OrganeOBD);
  });
}

OrganeItems::Ptr OrganeItems::ItemName(std::string_view name) const {
  for (const auto& o : *this)
    if (o && names::equal(o->organeName(), name)) return o;
  return nullptr;
}

void OrganeItems::createXMLnode(xml::Document& odoc, xml::Node parent) {
  for (const auto& o : *this) {
    parent.appendText("\n");
    o->createXMLnode(odoc, parent.appendElement("Device"));
  }
}

void OrganeItems::loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<TargetItem>& Ptarget) {
  odoc.forEachChild(node, "Device", [&](const xml::Node& n) {
    auto o = std::make_shared<OrganeItem>();
    o->setParent(Ptarget);
    o->loadXml(odoc, n);
    AddData(o);
  });
}

void OrganeItems::DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  if (!target) raise(100, "", "Parent not defined");
  const std::string sql = std::string("SELECT [Organe Id], [Organe Name], Mnemonique, [Type Organe Id], DTC, OBD") +
                          " FROM Organes" + " WHERE Address=" + std::to_string(target->Address()) +
                          " AND [Target Id]=" + std::to_string(target->targetid()) + " ORDER BY [Organe Name]";
  try {
    auto rs = conn.execute(sql);
    for (; !rs->eof(); rs->moveNext()) {
      auto o = Add(rs->field("Organe Id").toInt32(), rs->field("Organe Name").toText(), {}, 0, 0);
      o->setParent(target);
      readOrganeRow(*rs, *o);
      o->setOrganeTypeName(typeNameFor(target, o->OrganeTypeId(), o->OrganeTypeName()));
    }
    rs->close();
  } catch (const Error& e) {
    raiseReadError(e, "OrganeItems.DbRead error : ", sql);
  }
}

void OrganeItems::dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  if (!target) raise(100, "", "Parent not defined");
  std::string sql = detail::organesWithContextSql(target->Address(), target->targetid());
  std::vector<Ptr> read;
  try {
    auto rs = conn.execute(sql);
    for (; !rs->eof(); rs->moveNext()) {
      auto o = Add(rs->field("Organe Id").toInt32(), rs->field("Organe Name").toText(), {}, 0, 0);
      o->setParent(target);
      readOrganeRow(*rs, *o);
      o->setOrganeTypeName(typeNameFor(target, o->OrganeTypeId(), o->OrganeTypeName()));
      o->setRequestName(rs->field("Request Name").toText());
      o->setRequest(requestFor(target, o->requestName()));
      read.push_back(o);
    }
    rs->close();
  } catch (const Error& e) {
    raiseReadError(e, "DeviceItems.DbReadAll error : ", sql);
  }
  // The device data are read once the organ query is closed: the whole
  // target's in one statement (not one per organ), each organ's in the order
  // of its data names, and handed to their organs by the name rule.
  std::unordered_map<std::string, Ptr> byOrgan;
  for (const auto& o : read) {
    o->setDeviceDatas(std::make_shared<DeviceDataItems>());
    byOrgan.emplace(names::key(o->organeName()), o);
  }
  if (read.empty()) return;
  sql = detail::organeDatasSql(target->targetid());
  try {
    auto rs = conn.execute(sql);
    std::string organ;
    Ptr owner;
    bool first = true;
    for (; !rs->eof(); rs->moveNext()) {
      std::string name = rs->field("Organe Name").toText();
      if (first || name != organ) {
        auto it = byOrgan.find(names::key(name));
        owner = it == byOrgan.end() ? nullptr : it->second;
        organ = std::move(name);
        first = false;
      }
      if (!owner) continue;
      auto d = owner->DeviceDatas()->Add();
      d->setParent(owner);
      d->setDataname(rs->field("Data Name").toText());
      const db::Value& flag = rs->field("Flag Panne");
      d->setFlagPanne(!flag.isNull() && flag.toBool());
    }
    rs->close();
  } catch (const Error& e) {
    raiseReadError(e, "DeviceItems.DbReadAll error : ", sql);
  }
}

void OrganeItems::DbInsertAll(db::Connection& conn, int32_t Address, int32_t targetid) {
  if (empty()) return;
  // One transaction for the whole write: far fewer disk syncs. A refused row
  // does not end it; only a failure to open the row sets rolls it back.
  db::Transaction tx(conn);
  auto organes = conn.openUpdatable(kOrganeColumns);
  auto links = conn.openUpdatable(kRequestLinkColumns);
  auto datas = conn.openUpdatable(kDeviceDataColumns);

  // Adds one prepared row; a refusal is logged and the row dropped.
  auto commit = [](db::UpdatableRecordset& rs, const std::string& what) {
    try {
      rs.update();
      return true;
    } catch (const Error& e) {
      if (!db::isRowRefusal(e)) throw;  // a fault ends the insert
      try {
        rs.cancelUpdate();
      } catch (const Error&) {
      }
      host().logEvent(EventType::Error, "OrganeItems.DbInsertAll : " + what + " not inserted : " + e.description());
      return false;
    }
  };

  for (const auto& o : *this) {
    if (!o) continue;
    std::string name = o->organeName();
    if (text::length(name) > kMaxOrganeName) {
      host().messageBox("Nom de l'organe trop long, tronqué à 70 caractères", "", MessageIcon::Exclamation);
      name = text::left(name, kMaxOrganeName);
      o->setOrganeName(name);
    }
    std::string mnemo = o->Mnemonique();
    if (text::length(mnemo) > kMnemoniqueWarnLength)
      host().messageBox("Mnemonique de l'organe trop long, tronqué à 50 caractères", "", MessageIcon::Exclamation);
    if (text::length(mnemo) > kMaxMnemonique) {
      mnemo = text::left(mnemo, kMaxMnemonique);
      o->setMnemonique(mnemo);
    }

    organes->addNew();
    organes->setField("Address", Address);
    organes->setField("Target Id", targetid);
    organes->setField("Organe Name", name);
    organes->setField("Mnemonique", mnemo.empty() ? db::Value() : db::Value(mnemo));
    organes->setField("Type Organe Id", o->OrganeTypeId());
    organes->setField("DTC", o->OrganeDTC());
    organes->setField("OBD", o->OrganeOBD());
    // Without its row the organ's links would have nothing to refer to.
    if (!commit(*organes, "device '" + name + "'")) continue;
    o->setId(organes->field("Organe Id").toInt32());

    if (!o->requestName().empty()) {
      links->addNew();
      links->setField("Address", Address);
      links->setField("Target Id", targetid);
      links->setField("Request Name", o->requestName());
      links->setField("Organe Name", name);
      commit(*links, "freeze frame request '" + o->requestName() + "' of device '" + name + "'");
    }
    if (auto dd = o->DeviceDatas()) {
      for (const auto& d : *dd) {
        if (!d) continue;
        const std::string dataName = d->dataname();
        datas->addNew();
        datas->setField("Address", Address);
        datas->setField("Target Id", targetid);
        datas->setField("Data Name", dataName);
        datas->setField("Organe Name", name);
        datas->setField("Flag Panne", d->FlagPanne());
        commit(*datas, "data '" + dataName + "' of device '" + name + "'");
      }
    }
  }
  organes->close();
  links->close();
  datas->close();
  tx.commit();
}

}  // namespace kavrel
