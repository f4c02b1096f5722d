// Device data: links between an organ and the data items of its target
// (table Lien_Données_ds_Organe), each with a failure flag.

#include "kavrel/platform/names.h"
#include "kavrel/requests/device_data_items.h"

#include <string>
#include <utility>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/organe_items.h"
#include "kavrel/target/target_item.h"

namespace kavrel {

namespace {

constexpr size_t kMaxDataName = 70;

struct Owners {
  std::shared_ptr<OrganeItem> organe;
  std::shared_ptr<TargetItem> target;
};

// The organ and its target, both needed to name the row.
Owners requireOwners(const DeviceDataItem& d) {
  Owners o{d.parent(), nullptr};
  if (o.organe) o.target = o.organe->parent();
  if (!o.target) raise(100, "", "Parent not defined");
  return o;
}

std::string rowWhere(const Owners& o, const std::string& dataName) {
  return " WHERE [Target Id]=" + std::to_string(o.target->targetid()) + " AND [Data Name]='" +
         db::sql::doubleQuotes(dataName) + "' AND [Organe Name]='" + db::sql::doubleQuotes(o.organe->organeName()) +
         "'";
}

}  // namespace

// ------------------------------------------------------------ DeviceDataItem

std::string DeviceDataItem::dataname() const { return Data_ ? Data_->dataname() : dataname_; }

void DeviceDataItem::setDataname(std::string v) {
  dataname_ = std::move(v);
  Data_.reset();
  if (auto organe = parent())
    if (auto target = organe->parent())
      if (auto datas = target->datas()) Data_ = datas->ItemName(dataname_);
}

void DeviceDataItem::clear() {
  Data_.reset();
  parent_.reset();
}

void DeviceDataItem::dbInsert(db::Connection& conn) {
  Owners o = requireOwners(*this);
  clearLastError();
  std::unique_ptr<db::UpdatableRecordset> rs;
  if (!trap([&] {
        rs = conn.openUpdatable(
            "SELECT [Address], [Target Id], [Data Name], [Organe Name], [Flag Panne] From Lien_Données_ds_Organe");
        rs->addNew();
        rs->setField("Address", o.target->Address());
        rs->setField("Target Id", o.target->targetid());
        rs->setField("Data Name", dataname());
        rs->setField("Organe Name", o.organe->organeName());
        rs->setField("Flag Panne", FlagPanne_);
      }))
    return;
  if (!trap([&] { rs->update(); })) {
    trap([&] { rs->cancelUpdate(); });
    recordError(1, "", "Data already exist : enabled to add this data");
    return;
  }
  trap([&] { rs->close(); });
}

void DeviceDataItem::dbUpdate(db::Connection& conn) {
  Owners o = requireOwners(*this);
  clearLastError();
  trap([&] {
    auto rs = conn.openUpdatable("SELECT [Flag Panne] From Lien_Données_ds_Organe" + rowWhere(o, dataname()));
    if (rs->eof()) {
      rs->close();
      raise(1, "", "device data not found, impossible to update it.");
    }
    rs->setField("Flag Panne", FlagPanne_);
    rs->update();
    rs->close();
  });
}

void DeviceDataItem::dbDelete(db::Connection& conn) {
  Owners o = requireOwners(*this);
  clearLastError();
  const std::string name = dataname();
  trap([&] {
    try {
      conn.clearErrors();
      conn.execute("DELETE * From Lien_Données_ds_Organe" + rowWhere(o, name));
    } catch (const Error& e) {
      raise(1, "", "error : " + e.description() + " . Impossible to remove the data " + name);
    }
  });
}

void DeviceDataItem::createXMLnode(xml::Document&, xml::Node reqNode) const {
  reqNode.setAttribute("Name", dataname());
  reqNode.setAttribute("FailureFlag", FlagPanne_ ? "1" : "0");
}

void DeviceDataItem::loadXml(xml::Document&, xml::Node parNode) {
  FlagPanne_ = false;
  std::string name;
  if (auto n = parNode.attribute("Name")) name = *n;
  if (text::length(name) > kMaxDataName) {
    host().messageBox("Data name '" + name + "' too long , MDB database max length = 70 characters" + "\r\n" +
                          "name is truncated to 70 car",
                      "Builder importation", MessageIcon::Exclamation);
    name = text::left(name, kMaxDataName);
  }
  setDataname(std::move(name));
  if (auto f = parNode.attribute("FailureFlag")) trap([&] { FlagPanne_ = text::toBool(*f); });
}

// ----------------------------------------------------------- DeviceDataItems

DeviceDataItems::Ptr DeviceDataItems::Add(std::string_view sKey) {
  return addNew(sKey, [](DeviceDataItem&) {});
}

DeviceDataItems::Ptr DeviceDataItems::ItemName(std::string_view name) const {
  for (const auto& d : *this)
    if (d && names::equal(d->dataname(), name)) return d;
  return nullptr;
}

void DeviceDataItems::DbRead(db::Connection& conn, const std::shared_ptr<OrganeItem>& Porgane) {
  auto target = Porgane ? Porgane->parent() : nullptr;
  if (!target) raise(100, "", "Parent not defined");
  auto rs = conn.execute(std::string("SELECT [Data Name], [Flag Panne]") + " FROM Lien_Données_ds_Organe" +
                         " WHERE Address=" + std::to_string(target->Address()) +
                         " AND [Target Id]=" + std::to_string(target->targetid()) + " AND [Organe Name]='" +
                         db::sql::doubleQuotes(Porgane->organeName()) + "'");
  for (; !rs->eof(); rs->moveNext()) {
    auto d = Add();
    d->setParent(Porgane);
    d->setDataname(rs->field("Data Name").toText());
    const db::Value& flag = rs->field("Flag Panne");
    d->setFlagPanne(!flag.isNull() && flag.toBool());
  }
  rs->close();
}

void DeviceDataItems::DbInsertAll(db::Connection& conn) {
  // Each insert starts clean; the last refusal stays pending for the caller.
  ErrorRecord failed;
  for (const auto& d : *this) {
    if (!d) continue;
    d->dbInsert(conn);
    if (lastError().pending()) failed = lastError();
  }
  if (failed.pending()) recordError(failed.number, failed.source, failed.description);
}

void DeviceDataItems::createXMLnode(xml::Document& odoc, xml::Node parent) const {
  for (const auto& d : *this) {
    parent.appendText("\n");
    d->createXMLnode(odoc, parent.appendElement("DeviceData"));
  }
}

void DeviceDataItems::loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<OrganeItem>& Porgane) {
  for (const auto& n : node.selectNodes("DeviceData")) {
    if (!n.hasAttribute("Name")) {
      // Without a name the entry refers to no data: it is left out.
      recordError(100, "", "DeviceDataItem.loadXml error : Data Name not defined");
      continue;
    }
    auto d = std::make_shared<DeviceDataItem>();
    d->setParent(Porgane);
    d->loadXml(odoc, n);
    AddData(d);
  }
}

}  // namespace kavrel
