#include "kavrel/platform/names.h"
#include "kavrel/requests/data_position_items.h"

#include <bit>
#include <unordered_map>
#include <utility>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/session/kavrel_database.h"
#include "kavrel/target/target_item.h"
#include "kavrel/target/target_param_item.h"
#include "requests/position_support.h"

namespace kavrel {
namespace {

constexpr const char* kParentNotDefined = "error : parent not defined";
constexpr const char* kReferenceParentNotDefined = "DataPositionItem.dbIsReference error : parent not defined";
constexpr size_t kMaxDataName = 70;

// The request and target a position belongs to.
struct Owners {
  std::shared_ptr<RequestItem> request;
  std::shared_ptr<TargetItem> target;
};

Owners ownersOf(const DataPositionItem& p) {
  Owners o;
  o.request = p.parent();
  if (o.request) o.target = o.request->parent();
  return o;
}

// Fails with error 100 when the position is not attached to a request of a
// target: its row cannot be identified without them.
Owners ownersOrRaise(const DataPositionItem& p, const char* description) {
  Owners o = ownersOf(p);
  if (!o.request || !o.target) raise(100, "", description);
  return o;
}

bool targetLittleEndian(const std::shared_ptr<TargetItem>& t) {
  auto params = t ? t->Parametres() : nullptr;
  return params && params->LittleEndian();
}

// The WHERE clause naming the position's row in [Emplacement Donnée] and
// Donnée_Ref.
std::string positionFilter(const Owners& o, const DataPositionItem& p) {
  return " WHERE [Target Id]=" + std::to_string(o.target->targetid()) + " AND Address=" +
         std::to_string(o.target->Address()) + " AND [Request Name]='" +
         db::sql::doubleQuotes(o.request->requestName()) + "' AND [Data Name]='" +
         db::sql::doubleQuotes(p.dataname()) + "'";
}

const char* kPositionColumns =
    "SELECT [Address], [Target Id], [Data Name], [Request Name], [StartOctet], [StartBit], [Little Endian], [Param] "
    "FROM [Emplacement Donnée]";
const char* kReferenceColumns = "SELECT [Address], [Target Id], [Data Name], [Request Name] FROM [Donnée_Ref]";

// A mask may use all 32 bits: read it as a 64-bit number and keep its bits.
std::optional<int32_t> maskOf(const db::Value& v) {
  if (v.isNull()) return std::nullopt;
  return static_cast<int32_t>(static_cast<uint32_t>(v.toInt64()));
}

void warnDataNotFound(const std::shared_ptr<TargetItem>& target, const std::string& message) {
  // The client hears of it through its session; without one the host's
  // event log keeps it.
  if (auto session = target ? target->parent() : nullptr)
    raiseWarning(*session, "DataPositionItems.dbReadKVR", message);
  else
    host().logEvent(EventType::Warning, message);
}

}  // namespace

// ---------------------------------------------------------------- helpers

namespace detail {

void linkPositionToData(const std::shared_ptr<DataPositionItem>& pos) {
  // Called for every position a target reads: no reference-count traffic
  // beyond the one new entry.
  DataItem* data = pos ? pos->dataPtr() : nullptr;
  if (!data) {
    // Within a bulk read its name was only noted: linked when the batch resolves.
    if (!pos) return;
    const Owners o = ownersOf(*pos);
    if (auto* batch = DeferredPositionLinks::activeFor(o.target ? o.target->datas().get() : nullptr))
      batch->add(pos);
    return;
  }
  DataPositionItems* list = data->dataPositionsPtr();
  if (!list) {
    data->setDataPositions(std::make_shared<DataPositionItems>());
    list = data->dataPositionsPtr();
  }
  for (const auto& p : *list)
    if (p == pos) return;
  list->AddData(pos);
}

namespace {
thread_local DeferredPositionLinks* activeLinks = nullptr;
}  // namespace

DeferredPositionLinks::DeferredPositionLinks(std::shared_ptr<DataItems> datas)
    : datas_(std::move(datas)), previous_(activeLinks) {
  activeLinks = this;
}

DeferredPositionLinks::~DeferredPositionLinks() {
  // Normally resolved already; on the way out of a failed load the links
  // are still made, as they would have been one by one.
  try {
    resolve();
  } catch (...) {
  }
  if (activeLinks == this) activeLinks = previous_;
}

DeferredPositionLinks* DeferredPositionLinks::activeFor(const DataItems* datas) noexcept {
  if (!datas) return nullptr;
  for (DeferredPositionLinks* b = activeLinks; b; b = b->previous_)
    if (b->active_ && b->datas_.get() == datas) return b;
  return nullptr;
}

void DeferredPositionLinks::add(const std::shared_ptr<DataPositionItem>& pos) {
  positions_.push_back(pos);
  names_.push_back(pos->dataname());
}

void DeferredPositionLinks::resolve() {
  if (!active_) return;
  active_ = false;
  if (activeLinks == this) activeLinks = previous_;
  if (positions_.empty()) return;
  const std::vector<int32_t> found = datas_->indexesOfNames(names_);
  names_ = {};
  // In the order of the data items (a counting sort, stable: each item's
  // positions keep their reading order), so the items are visited in the
  // order they were made and each one's list is completed at once.
  const auto items = static_cast<size_t>(datas_->Count());
  std::vector<uint32_t> start(items + 2, 0);
  for (int32_t f : found) ++start[static_cast<size_t>(f) + 1];
  for (size_t k = 1; k < start.size(); ++k) start[k] += start[k - 1];
  std::vector<uint32_t> order(found.size());
  for (size_t i = 0; i < found.size(); ++i) order[start[static_cast<size_t>(found[i])]++] = static_cast<uint32_t>(i);
  constexpr size_t kAhead = 8;
  for (size_t k = 0; k < order.size(); ++k) {
    if (k + kAhead < order.size()) __builtin_prefetch(positions_[order[k + kAhead]].get(), 1);
    const size_t i = order[k];
    if (found[i] == 0) continue;  // no data of that name: the position keeps its name only
    positions_[i]->setData(datas_->Item(found[i]));
    linkPositionToData(positions_[i]);
  }
  positions_ = {};
}

void unlinkPositionFromData(const std::shared_ptr<DataPositionItem>& pos) {
  auto data = pos ? pos->Data() : nullptr;
  auto list = data ? data->DataPositions() : nullptr;
  if (!list) return;
  for (int32_t i = list->Count(); i >= 1; --i)
    if (list->Item(i) == pos) list->Remove(i);
}

void setPositionRow(db::UpdatableRecordset& rs, int32_t address, int32_t targetid, const std::string& requestName,
                    const DataPositionItem& pos) {
  rs.setField("Address", address);
  rs.setField("Target Id", targetid);
  rs.setField("Data Name", pos.dataname());
  rs.setField("Request Name", requestName);
  rs.setField("StartOctet", pos.StartOctet());
  rs.setField("StartBit", pos.StartBit());
  rs.setField("Little Endian", pos.LittleEndian());
  rs.setField("Param", pos.param());
}

void setReferenceRow(db::UpdatableRecordset& rs, int32_t address, int32_t targetid, const std::string& requestName,
                     const DataPositionItem& pos) {
  rs.setField("Address", address);
  rs.setField("Target Id", targetid);
  rs.setField("Request Name", requestName);
  rs.setField("Data Name", pos.dataname());
}

OlderPlacement olderLayoutPlacement(std::optional<int32_t> Start, std::optional<int32_t> Length,
                                    std::optional<int32_t> Masque, std::optional<int32_t> NumBitFort,
                                    std::optional<int32_t> NumBitFaible, bool numeric) {
  OlderPlacement p;
  p.StartOctet = Start.value_or(1);
  const int32_t length = Length && *Length > 0 ? *Length : 1;
  if (!numeric) {
    p.StartBit = 0;
    p.bitCount = 8 * length;
    return p;
  }
  const uint32_t mask = (Masque && length <= 4) ? static_cast<uint32_t>(*Masque) : 0u;
  int32_t low = 0;
  if (NumBitFaible) {
    low = *NumBitFaible;
  } else if (mask != 0) {
    const int32_t l = std::countr_zero(mask);
    if (l <= 7) low = l;
  }
  int32_t high = 7;
  if (NumBitFort) {
    high = *NumBitFort;
  } else if (mask != 0) {
    const int32_t h = (31 - std::countl_zero(mask)) - 8 * (length - 1);
    if (h >= 0 && h <= 7) high = h;
  }
  p.StartBit = low;
  p.bitCount = (high - low) + 8 * length - 7;
  return p;
}

}  // namespace detail

// ---------------------------------------------------------------- DataPositionItem

std::string DataPositionItem::dataname() const { return Data_ ? Data_->dataname() : dataname_; }

void DataPositionItem::setDataname(std::string v) {
  std::shared_ptr<DataItems> datas;
  if (auto request = parent())
    if (auto target = request->parent()) datas = target->datas();
  if (datas) {
    // Within a bulk read the link is made when the batch resolves.
    if (detail::DeferredPositionLinks::activeFor(datas.get()))
      Data_.reset();
    else
      Data_ = datas->ItemName(v);
  } else if (Data_ && !names::equal(Data_->dataname(), v)) {
    // Nowhere to look the name up: a link to data of another name would lie.
    Data_.reset();
  }
  // Kept even when nothing is linked, so the name is not lost.
  dataname_ = std::move(v);
}

void DataPositionItem::clear() {
  parent_.reset();
  Data_.reset();
  DisplayDatas_.reset();
}

void DataPositionItem::createXMLnode(xml::Document&, xml::Node reqNode) {
  reqNode.setAttribute("Name", dataname());
  if (reference_) reqNode.setAttribute("Ref", "1");
  reqNode.setAttribute("FirstByte", std::to_string(StartOctet_));
  if (StartBit_ != 0) reqNode.setAttribute("BitOffset", std::to_string(StartBit_));
  if (LittleEndian_ != targetLittleEndian(ownersOf(*this).target))
    reqNode.setAttribute("Endian", LittleEndian_ ? "Little" : "Big");
}

void DataPositionItem::loadXml(xml::Document&, xml::Node parNode) {
  // Attributes at their default are not written: start from the defaults.
  StartOctet_ = 1;
  StartBit_ = 0;
  reference_ = false;
  LittleEndian_ = targetLittleEndian(ownersOf(*this).target);

  const xml::Attributes attributes = parNode.attributes();
  trap([&] {
    auto name = attributes.get("Name");
    if (!name) {
      dataname_.clear();
      Data_.reset();
      raise(1, "", "DataPositionItem.loadXml error : Dataname missing");
    }
    std::string n(*name);
    if (text::length(n) > kMaxDataName) {
      host().messageBox("Data name '" + n + "' too long , MDB database max length = 70 characters\r\n" +
                            "name is truncated to 70 car",
                        "Builder importation", MessageIcon::Exclamation);
      n = text::left(n, kMaxDataName);
    }
    setDataname(std::move(n));
  });
  trap([&] {
    if (auto v = attributes.get("FirstByte")) StartOctet_ = text::toInt(*v);
  });
  trap([&] {
    if (auto v = attributes.get("BitOffset")) StartBit_ = text::toInt(*v);
  });
  trap([&] {
    if (auto v = attributes.get("Ref")) reference_ = text::toBool(*v);
  });
  trap([&] {
    auto v = attributes.get("Endian");
    if (!v) return;
    if (text::iequals(*v, "Little"))
      LittleEndian_ = true;
    else if (text::iequals(*v, "Big"))
      LittleEndian_ = false;
    else
      raise(1, "", "DataPositionItem.loadXml error : Endian '" + std::string(*v) + "' is neither Little nor Big");
  });
}

void DataPositionItem::dbIsReference(db::Connection& conn) {
  Owners o = ownersOrRaise(*this, kReferenceParentNotDefined);
  auto rs = conn.execute("SELECT count(*) From [Donnée_Ref]" + positionFilter(o, *this));
  int64_t count = rs->eof() ? 0 : rs->field(0).toInt64();
  rs->close();
  // Only a single row marks the reference; anything else is not one.
  reference_ = (count == 1);
}

void DataPositionItem::dbInsertReference(db::Connection& conn) {
  Owners o = ownersOrRaise(*this, kParentNotDefined);
  auto rs = conn.openUpdatable(kReferenceColumns);
  clearLastError();
  bool ok = trap([&] {
    rs->addNew();
    detail::setReferenceRow(*rs, o.target->Address(), o.target->targetid(), o.request->requestName(), *this);
    rs->update();
  });
  if (!ok) {
    trap([&] { rs->cancelUpdate(); });
    trap([&] { rs->close(); });
    recordError(1, "", "This data is already defined as reference");
    return;
  }
  rs->close();
  reference_ = true;
}

void DataPositionItem::dbDeleteReference(db::Connection& conn) {
  Owners o = ownersOrRaise(*this, kReferenceParentNotDefined);
  if (trapClean([&] { conn.execute("DELETE * From [Donnée_Ref]" + positionFilter(o, *this)); }))
    reference_ = false;
  else
    recordError(1, "", "The reference data is used, impossible to delete it.");
}

void DataPositionItem::dbInsert(db::Connection& conn) {
  Owners o = ownersOrRaise(*this, kParentNotDefined);
  auto rs = conn.openUpdatable(kPositionColumns);
  rs->addNew();
  detail::setPositionRow(*rs, o.target->Address(), o.target->targetid(), o.request->requestName(), *this);
  try {
    rs->update();
  } catch (...) {
    trap([&] { rs->cancelUpdate(); });
    throw;
  }
  rs->close();
}

void DataPositionItem::dbUpdate(db::Connection& conn) {
  Owners o = ownersOrRaise(*this, kParentNotDefined);
  // No Address term here, unlike the other statements of the row.
  auto rs = conn.openUpdatable(
      "SELECT  [StartOctet], [StartBit], [Little Endian], [Param] FROM [Emplacement Donnée] WHERE [Target Id]=" +
      std::to_string(o.target->targetid()) + " AND [Request Name]='" +
      db::sql::doubleQuotes(o.request->requestName()) + "' AND [Data Name]='" + db::sql::doubleQuotes(dataname()) +
      "'");
  if (!rs->eof()) {
    rs->setField("StartOctet", StartOctet_);
    rs->setField("StartBit", StartBit_);
    rs->setField("Little Endian", LittleEndian_);
    rs->setField("Param", param_);
    try {
      rs->update();
    } catch (...) {
      trap([&] { rs->cancelUpdate(); });
      throw;
    }
  }
  rs->close();
}

void DataPositionItem::dbDelete(db::Connection& conn) {
  Owners o = ownersOrRaise(*this, kParentNotDefined);
  // Displays that still show the position make the database refuse.
  if (!trapClean([&] { conn.execute("DELETE * From [Emplacement Donnée]" + positionFilter(o, *this)); }))
    recordError(1, "", "The data is used, impossible to remove it.");
}

// ---------------------------------------------------------------- DataPositionItems

DataPositionItems::Ptr DataPositionItems::Add(std::string_view sKey) {
  return addNew(sKey, [](DataPositionItem&) {});
}

void DataPositionItems::createXMLnode(xml::Document& odoc, xml::Node parent) {
  for (const auto& pos : *this) {
    xml::Node e = parent.appendElement("DataItem");
    pos->createXMLnode(odoc, e);
    if (pos->param()) e.setAttribute("Param", "1");
    parent.appendText("\n");
  }
}

void DataPositionItems::createXMLnodeType(xml::Document& odoc, xml::Node parent, bool param) {
  for (const auto& pos : *this) {
    if (pos->param() != param) continue;
    xml::Node e = parent.appendElement("DataItem");
    pos->createXMLnode(odoc, e);
    parent.appendText("\n");
  }
}

namespace {

void loadPositions(DataPositionItems& list, xml::Document& odoc, xml::Node node,
                   const std::shared_ptr<RequestItem>& Prequest, const bool* param) {
  std::vector<xml::Node> nodes;
  if (!trap([&] { nodes = node.selectNodes("DataItem"); })) return;
  list.reserve(static_cast<size_t>(list.Count()) + nodes.size());
  // The batch of a whole-target read, found once for all the positions.
  detail::DeferredPositionLinks* batch = nullptr;
  if (auto target = Prequest ? Prequest->parent() : nullptr)
    batch = detail::DeferredPositionLinks::activeFor(target->datas().get());
  for (const auto& n : nodes) {
    auto pos = std::make_shared<DataPositionItem>();
    pos->setParent(Prequest);
    if (Prequest) pos->setRequestName(Prequest->requestName());
    if (param) pos->setParam(*param);
    pos->loadXml(odoc, n);
    // Added even when its element was incomplete (the error stays pending).
    trap([&] { list.AddData(pos); });
    if (batch && !pos->dataPtr())
      batch->add(pos);
    else
      detail::linkPositionToData(pos);
  }
}

}  // namespace

void DataPositionItems::loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<RequestItem>& Prequest) {
  loadPositions(*this, odoc, node, Prequest, nullptr);
}

void DataPositionItems::loadXmlType(xml::Document& odoc, xml::Node node, const std::shared_ptr<RequestItem>& Prequest,
                                    bool param) {
  loadPositions(*this, odoc, node, Prequest, &param);
}

void DataPositionItems::DbRead(db::Connection& conn, const std::shared_ptr<RequestItem>& Prequest) {
  auto target = Prequest ? Prequest->parent() : nullptr;
  if (!target) raise(100, "", kParentNotDefined);
  auto rs = conn.execute("SELECT [Data Name], StartOctet, StartBit, [Little Endian], Param From [Emplacement Donnée] "
                         "WHERE [Target Id]=" +
                         std::to_string(target->targetid()) + " AND Address=" + std::to_string(target->Address()) +
                         " AND [Request Name]='" + db::sql::doubleQuotes(Prequest->requestName()) +
                         "' ORDER BY [Data Name]");
  std::vector<Ptr> read;
  for (; !rs->eof(); rs->moveNext()) {
    Ptr pos = Add();
    pos->setParent(Prequest);
    pos->setRequestName(Prequest->requestName());
    pos->setStartOctet(detail::intOr(rs->field("StartOctet"), 1));
    pos->setStartBit(detail::intOr(rs->field("StartBit"), 0));
    pos->setLittleEndian(detail::boolOr(rs->field("Little Endian"), false));
    pos->setParam(detail::boolOr(rs->field("Param"), false));
    pos->setDataname(rs->field("Data Name").toText());
    read.push_back(pos);
  }
  rs->close();
  // The reference queries run once the position rows are read.
  for (const auto& pos : read) {
    if (pos->Data()) pos->dbIsReference(conn);
    detail::linkPositionToData(pos);
  }
}

void DataPositionItems::DbInsertAll(db::Connection& conn) {
  if (empty()) return;
  auto rs = conn.openUpdatable(kPositionColumns);
  for (const auto& pos : *this) {
    Owners o = ownersOrRaise(*pos, kParentNotDefined);
    rs->addNew();
    detail::setPositionRow(*rs, o.target->Address(), o.target->targetid(), o.request->requestName(), *pos);
    try {
      rs->update();
    } catch (...) {
      trap([&] { rs->cancelUpdate(); });
      throw;
    }
  }
  rs->close();
}

bool DataPositionItems::dbReadKVR(db::Connection& conn, const std::shared_ptr<RequestItem>& Prequest) {
  auto target = Prequest ? Prequest->parent() : nullptr;
  if (!target) raise(100, "", kParentNotDefined);
  auto rs = conn.execute(
      "SELECT [Data Id], [Request Id], [Data Name], [Numérique], [Liste], [Param], [Start], [Length], [Masque], "
      "[NumBitFort], [NumBitFaible], [Unité], [Signé], [CoeffA], [CoeffB],[CoeffC], [Format], [Ascii], "
      "[Little Endian], [StartBit], [NumberBits], [Mnemo], [Description] From Données WHERE Address=" +
      std::to_string(target->Address()) + " AND [Target Id]=" + std::to_string(target->targetid()) +
      " AND [Request Id]=" + std::to_string(Prequest->requestId()) + " ORDER BY [Data Name],[Param] DESC");

  // The data reader made one item per row, under the row's id; a second row
  // of a name was renamed, so the id is the sure link and the name the
  // fallback.
  auto datas = target->datas();
  std::unordered_map<int32_t, std::shared_ptr<DataItem>> byId;
  if (datas)
    for (const auto& d : *datas) byId.emplace(d->id(), d);

  bool allFound = true;
  for (; !rs->eof(); rs->moveNext()) {
    auto length = detail::optInt(rs->field("Length"));
    if (length && *length == 0) continue;  // no data item was made of such a row
    const std::string name = rs->field("Data Name").toText();
    const bool param = detail::boolOr(rs->field("Param"), false);
    const auto placement = detail::olderLayoutPlacement(
        detail::optInt(rs->field("Start")), length, maskOf(rs->field("Masque")),
        detail::optInt(rs->field("NumBitFort")), detail::optInt(rs->field("NumBitFaible")),
        detail::boolOr(rs->field("Numérique"), true));

    std::shared_ptr<DataItem> data;
    if (auto id = detail::optInt(rs->field("Data Id"))) {
      auto it = byId.find(*id);
      if (it != byId.end() && names::equal(text::left(it->second->dataname(), text::length(name)), name))
        data = it->second;
    }
    if (!data && datas) {
      if (param) data = datas->ItemName(text::lower(name) + " - ecriture");
      if (!data) data = datas->ItemName(name);
    }

    Ptr pos = Add();
    pos->setParent(Prequest);
    pos->setRequestName(Prequest->requestName());
    pos->setStartOctet(placement.StartOctet);
    pos->setStartBit(placement.StartBit);
    pos->setLittleEndian(detail::boolOr(rs->field("Little Endian"), false));
    pos->setParam(param);
    if (data) {
      pos->setDataname(data->dataname());
      pos->setData(data);  // the very item, even if another has its name
      detail::linkPositionToData(pos);
    } else {
      pos->setDataname(name);
      allFound = false;
      warnDataNotFound(target, "Data non trouvée : " + name + " (request '" + Prequest->requestName() + "')");
    }
  }
  rs->close();
  return allFound;
}

}  // namespace kavrel
