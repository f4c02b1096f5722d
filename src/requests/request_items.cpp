#include "kavrel/platform/names.h"
#include "kavrel/requests/request_items.h"

#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/frame.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/data_position_items.h"
#include "kavrel/requests/organe_items.h"
#include "kavrel/target/target_item.h"
#include "requests/position_support.h"
#include "target/target_read.h"

namespace kavrel {
namespace {

// A position (request and data name) as one text, equal for names the name
// rule counts equal.
std::string positionKey(std::string_view request, std::string_view data) {
  std::string key = names::key(request);
  key += '\0';
  key += names::key(data);
  return key;
}

constexpr const char* kParentNotDefined = "error : parent not defined";

const char* kRequestColumns =
    "SELECT Address, [Target Id], [Request Id], [Request Name], [Request Bytes], [Length Datas],"
    " ShiftBytesCount, [Manual Send], LgVariable, [Accès Tous], [Accès Usine], [Accès Après Vente],"
    " [Accès Etudes], [Accès Constructeur], [Dossier Maintenabilite], Commentaire,[Reply Bytes]"
    " FROM Requêtes";
const char* kPositionColumns =
    "SELECT [Address], [Target Id], [Data Name], [Request Name], [StartOctet], [StartBit], [Little Endian], [Param] "
    "FROM [Emplacement Donnée]";
const char* kReferenceColumns = "SELECT [Address], [Target Id], [Data Name], [Request Name] FROM [Donnée_Ref]";

db::Value frameValue(const std::shared_ptr<ByteFrame>& f) { return f ? f->storedValue() : db::Value(); }

// The columns a request writes besides its name and owner (insert, update).
void setRequestColumns(db::UpdatableRecordset& rs, const RequestItem& r) {
  rs.setField("Request Bytes", frameValue(r.RequestBytes()));
  rs.setField("Length Datas", r.LengthDatas());
  rs.setField("ShiftBytesCount", r.ShiftBytesCount());
  rs.setField("Manual Send", r.ManuelSend());
  rs.setField("LgVariable", r.LgVariable());
  rs.setField("Accès Tous", r.AccesTous());
  rs.setField("Accès Usine", r.AccesUsine());
  rs.setField("Accès Après Vente", r.AccesApresVente());
  rs.setField("Accès Etudes", r.AccesEtudes());
  rs.setField("Accès Constructeur", r.AccesConstructeur());
  rs.setField("Dossier Maintenabilite", r.DossierMaintenabilite());
  rs.setField("Commentaire", r.Commentaire());
  rs.setField("Reply Bytes", frameValue(r.ReplyBytes()));
}

void setNewRequestRow(db::UpdatableRecordset& rs, int32_t address, int32_t targetid, const RequestItem& r) {
  rs.setField("Address", address);
  rs.setField("Target Id", targetid);
  rs.setField("Request Name", r.requestName());
  setRequestColumns(rs, r);
}

// Adds the pending row; on failure drops it and rethrows.
void updateOrCancel(db::UpdatableRecordset& rs) {
  try {
    rs.update();
  } catch (...) {
    trap([&] { rs.cancelUpdate(); });
    throw;
  }
}

std::string requestsQuery(const TargetItem& t, bool olderLayout) {
  return detail::requestsSql(t.Address(), t.targetid(), olderLayout);
}

// Reads the requests of the target's query into the collection.
std::vector<RequestItems::Ptr> readRequests(RequestItems& list, db::Connection& conn,
                                            const std::shared_ptr<TargetItem>& target, bool olderLayout) {
  if (!target) raise(100, "", kParentNotDefined);
  std::vector<RequestItems::Ptr> read;
  auto rs = conn.execute(requestsQuery(*target, olderLayout));
  for (; !rs->eof(); rs->moveNext()) {
    auto r = list.Add(rs->field("Request Id").toInt32());
    r->setParent(target);
    r->setRequestName(rs->field("Request Name").toText());
    r->setRequestBytes(ByteFrame::fromStored(rs->field("Request Bytes")));
    r->setLengthDatas(detail::intOr(rs->field("Length Datas"), 1));
    r->setManuelSend(detail::boolOr(rs->field("Manual Send"), false));
    if (!olderLayout) {
      r->setShiftBytesCount(detail::intOr(rs->field("ShiftBytesCount"), 0));
      r->setLgVariable(detail::boolOr(rs->field("LgVariable"), false));
      r->setAccesTous(detail::boolOr(rs->field("Accès Tous"), true));
      r->setAccesUsine(detail::boolOr(rs->field("Accès Usine"), true));
      r->setAccesApresVente(detail::boolOr(rs->field("Accès Après Vente"), true));
      r->setAccesEtudes(detail::boolOr(rs->field("Accès Etudes"), true));
      r->setAccesConstructeur(detail::boolOr(rs->field("Accès Constructeur"), true));
      r->setDossierMaintenabilite(detail::boolOr(rs->field("Dossier Maintenabilite"), false));
      r->setCommentaire(rs->field("Commentaire").toText());
      r->setReplyBytes(ByteFrame::fromStored(rs->field("Reply Bytes")));
    }
    read.push_back(r);
  }
  rs->close();
  return read;
}

// Replaces the request's positions by a new empty collection, taking the
// old ones off their data items' lists.
std::shared_ptr<DataPositionItems> freshPositions(RequestItem& r) {
  if (auto old = r.DataPositions())
    for (const auto& pos : *old) detail::unlinkPositionFromData(pos);
  auto fresh = std::make_shared<DataPositionItems>();
  r.setDataPositions(fresh);
  return fresh;
}

xml::Node appendLine(xml::Node parent) { return parent.appendText("\n"); }

// An empty child element followed by a line feed.
void appendFlag(xml::Node parent, const char* name) {
  parent.appendElement(name);
  appendLine(parent);
}

}  // namespace

std::string detail::requestsSql(int32_t address, int32_t targetid, bool olderLayout) {
  std::string sql = olderLayout
                        ? "SELECT [Request Id],[Request Name],[Request Bytes],[Length Datas],[Manual Send] "
                        : "SELECT [Request Id],[Request Name],[Request Bytes],[Length Datas],ShiftBytesCount,"
                          "[Manual Send],[LgVariable],[Accès Tous],[Accès Usine],[Accès Après Vente],[Accès Etudes],"
                          "[Accès Constructeur],[Dossier Maintenabilite],[Commentaire],[Reply Bytes] ";
  return sql + " FROM [Requêtes] WHERE Address=" + std::to_string(address) +
         " AND [Target Id]=" + std::to_string(targetid) + " ORDER BY [Request Name]";
}

std::string detail::referencePositionsSql(int32_t targetid) {
  return "SELECT [Request Name], [Data Name] FROM [Donnée_Ref] WHERE [Target Id]=" + std::to_string(targetid);
}

std::string detail::positionsSql(int32_t targetid) {
  return "SELECT * FROM [Emplacement Donnée] WHERE [Target Id]=" + std::to_string(targetid) + " ORDER BY [Data Name]";
}

// ---------------------------------------------------------------- RequestItem

RequestItem::RequestItem() : DataPositions_(std::make_shared<DataPositionItems>()) {}

RequestItem::~RequestItem() = default;

void RequestItem::setRequestName(std::string v) {
  if (v == requestName_) return;
  requestName_ = std::move(v);
  // The name indexes of the collections holding this request refile it.
  detail::requestNameJournal().record(this);
}

void RequestItem::clear() {
  parent_.reset();
  if (DataPositions_) {
    for (const auto& pos : *DataPositions_) detail::unlinkPositionFromData(pos);
    DataPositions_->clear();
    DataPositions_.reset();
  }
  DisplayExtras_.reset();
  // The organs belong to the target; only the link is dropped.
  Organes_.reset();
}

void RequestItem::createXMLnode(xml::Document& odoc, xml::Node reqNode) {
  reqNode.setAttribute("Name", requestName_);
  appendLine(reqNode);
  if (DossierMaintenabilite_) appendFlag(reqNode, "DossierMaintenabilite");
  if (ManuelSend_) appendFlag(reqNode, "ManuelSend");
  if (!(AccesTous_ && AccesUsine_ && AccesApresVente_ && AccesEtudes_ && AccesConstructeur_)) {
    xml::Node deny = reqNode.appendElement("DenyAccess");
    appendLine(deny);
    if (!AccesTous_) appendFlag(deny, "NoSDS");
    if (!AccesUsine_) appendFlag(deny, "Plant");
    if (!AccesApresVente_) appendFlag(deny, "AfterSales");
    if (!AccesEtudes_) appendFlag(deny, "Engineering");
    if (!AccesConstructeur_) appendFlag(deny, "Supplier");
    appendLine(reqNode);
  }
  if (!Commentaire_.empty()) {
    reqNode.appendElement("Comment").appendCData(Commentaire_);
    appendLine(reqNode);
  }

  xml::Node sent = reqNode.appendElement("Sent");
  appendLine(sent);
  if (LgVariable_) appendFlag(sent, "VariableLength");
  xml::Node sentBytes = sent.appendElement("SentBytes");
  if (RequestBytes_ && !RequestBytes_->text().empty()) sentBytes.appendText(RequestBytes_->text());
  appendLine(sent);
  if (DataPositions_) DataPositions_->createXMLnodeType(odoc, sent, true);
  appendLine(reqNode);

  xml::Node received = reqNode.appendElement("Received");
  received.setAttribute("MinBytes", std::to_string(LengthDatas_));
  if (ShiftBytesCount_ != 0) received.setAttribute("ShiftBytesCount", std::to_string(ShiftBytesCount_));
  appendLine(received);
  if (ReplyBytes_ && !ReplyBytes_->empty()) {
    received.appendElement("ReplyBytes").appendText(ReplyBytes_->text());
    appendLine(received);
  }
  if (DataPositions_) DataPositions_->createXMLnodeType(odoc, received, false);
  appendLine(reqNode);
}

void RequestItem::loadXml(xml::Document& odoc, xml::Node node) {
  // Elements and attributes at their default are not written: start from
  // the construction defaults.
  RequestBytes_.reset();
  ReplyBytes_.reset();
  LengthDatas_ = 1;
  ShiftBytesCount_ = 0;
  ManuelSend_ = false;
  LgVariable_ = false;
  AccesTous_ = AccesUsine_ = AccesApresVente_ = AccesEtudes_ = AccesConstructeur_ = true;
  DossierMaintenabilite_ = false;
  Commentaire_.clear();
  auto self = weak_from_this().lock();
  DataPositions_ = self ? freshPositions(*self) : std::make_shared<DataPositionItems>();

  trap([&] {
    auto name = node.attribute("Name");
    if (!name) {
      setRequestName({});
      raise(1, "", "RequestItem.loadXml error : Name not defined");
    }
    setRequestName(std::move(*name));
  });
  trap([&] {
    DossierMaintenabilite_ = !node.child("DossierMaintenabilite").isNull();
    ManuelSend_ = !node.child("ManuelSend").isNull();
    if (xml::Node deny = node.child("DenyAccess")) {
      AccesTous_ = deny.child("NoSDS").isNull();
      AccesUsine_ = deny.child("Plant").isNull();
      AccesApresVente_ = deny.child("AfterSales").isNull();
      AccesEtudes_ = deny.child("Engineering").isNull();
      AccesConstructeur_ = deny.child("Supplier").isNull();
    }
  });
  trap([&] {
    if (xml::Node comment = node.child("Comment")) {
      std::string t = comment.text();
      if (t.empty())
        if (xml::Node c = comment.selectSingleNode("comment()")) t = c.value();
      Commentaire_ = std::move(t);
    }
  });
  if (xml::Node sent = node.child("Sent")) {
    trap([&] {
      LgVariable_ = !sent.child("VariableLength").isNull();
      if (xml::Node bytes = sent.child("SentBytes")) RequestBytes_ = ByteFrame::fromText(bytes.text());
    });
    DataPositions_->loadXmlType(odoc, sent, self, true);
  }
  if (xml::Node received = node.child("Received")) {
    trap([&] {
      if (auto v = received.attribute("MinBytes")) LengthDatas_ = text::toInt(*v);
    });
    trap([&] {
      if (auto v = received.attribute("ShiftBytesCount")) ShiftBytesCount_ = text::toInt(*v);
    });
    trap([&] {
      if (xml::Node bytes = received.child("ReplyBytes")) ReplyBytes_ = ByteFrame::fromText(bytes.text());
    });
    DataPositions_->loadXmlType(odoc, received, self, false);
  }
}

void RequestItem::dbInsert(db::Connection& conn) {
  auto target = parent();
  if (!target) raise(100, "", kParentNotDefined);
  auto rs = conn.openUpdatable(kRequestColumns);
  rs->addNew();
  setNewRequestRow(*rs, target->Address(), target->targetid(), *this);
  updateOrCancel(*rs);
  requestId_ = rs->field("Request Id").toInt32();
  rs->close();
}

void RequestItem::DbInsertAll(db::Connection& conn) {
  dbInsert(conn);
  if (!DataPositions_) return;
  DataPositions_->DbInsertAll(conn);
  for (const auto& pos : *DataPositions_)
    if (pos->reference()) pos->dbInsertReference(conn);
}

void RequestItem::dbUpdate(db::Connection& conn) {
  auto rs = conn.openUpdatable(
      "SELECT  [Request Bytes], [Length Datas], ShiftBytesCount, [Manual Send], LgVariable,"
      " [Accès Tous],[Accès Usine], [Accès Après Vente], [Accès Etudes], [Accès Constructeur],"
      " [Dossier Maintenabilite], Commentaire,[Reply Bytes] FROM [Requêtes] WHERE [Request Id]=" +
      std::to_string(requestId_));
  if (!rs->eof()) {
    setRequestColumns(*rs, *this);
    updateOrCancel(*rs);
  }
  rs->close();
}

void RequestItem::dbRename(db::Connection& conn, const std::string& newName) {
  auto rs = conn.openUpdatable("SELECT  [Request Name] FROM [Requêtes] WHERE [Request Id]=" + std::to_string(requestId_));
  if (rs->eof()) {
    rs->close();
    return;
  }
  try {
    rs->setField("Request Name", newName);
    rs->update();
  } catch (const Error& e) {
    trap([&] { rs->cancelUpdate(); });
    trap([&] { rs->close(); });
    raise(e.number(), e.rawSource(), "Error rename request : " + e.description());
  }
  rs->close();
  // The database carried the new name to the positions' rows.
  setRequestName(newName);
  if (DataPositions_)
    for (const auto& pos : *DataPositions_) pos->setRequestName(newName);
}

void RequestItem::dbDelete(db::Connection& conn) {
  auto target = parent();
  if (!target) raise(100, "", kParentNotDefined);
  const std::string name = db::sql::doubleQuotes(requestName_);
  const std::string tid = std::to_string(target->targetid());

  // Each statement runs whatever happened to the one before; the ones that
  // succeeded stay done.
  bool failed = false;
  auto run = [&](const std::string& sql) {
    try {
      conn.execute(sql);
    } catch (const Error&) {
      failed = true;
    }
  };
  run("DELETE * from Affichages WHERE [Target Id]=" + tid +
      " AND [Display Id] in (select [Display Id] from Données_Aff where [Target Id]=" + tid +
      " AND [Request Name]='" + name + "')");
  run("DELETE * from Affichages WHERE [Target Id]=" + tid +
      " AND [Display Id] in (select [Display Id] from Extra_Aff where [Target Id]=" + tid +
      " AND [Request Name]='" + name + "')");
  run("DELETE * from Scenarios WHERE [Target Id]=" + tid + " AND [Request Name]='" + name + "'");

  // The request's positions go with its row (the database cascades them), unless
  // one is still in use: then the database refuses the whole delete.
  run("DELETE * From [Requêtes] WHERE [Request Id]=" + std::to_string(requestId_));
  if (failed) raise(1, "", "Impossible to delete this request, because it be used or one of this data is used");
}

// ---------------------------------------------------------------- RequestItems

RequestItems::Ptr RequestItems::Add(int32_t RequestId, std::string_view sKey) {
  return addNew(sKey, [&](RequestItem& r) { r.setRequestId(RequestId); });
}

RequestItems::Ptr RequestItems::ItemName(std::string_view name) const {
  return nameIndex_.first(*this, names::key(name));
}

std::shared_ptr<DataPositionItem> RequestItems::ItemDataPositionName(std::string_view requestName,
                                                                     std::string_view dataname) const {
  auto r = ItemName(requestName);
  auto positions = r ? r->DataPositions() : nullptr;
  if (!positions) return nullptr;
  // Data names are unique per target by the name rule; an exact match is
  // preferred all the same (a document may hold both spellings).
  std::shared_ptr<DataPositionItem> caseless;
  for (const auto& pos : *positions) {
    const std::string n = pos->dataname();
    if (n == dataname) return pos;
    if (!caseless && names::equal(n, dataname)) caseless = pos;
  }
  return caseless;
}

void RequestItems::createXMLnode(xml::Document& odoc, xml::Node parent) {
  for (const auto& r : *this) {
    parent.appendText("\n");
    r->createXMLnode(odoc, parent.appendElement("Request"));
  }
}

void RequestItems::loadXml(xml::Document& odoc, xml::Node node, const std::shared_ptr<TargetItem>& target) {
  size_t count = 0;
  if (!trap([&] { count = odoc.countChildren(node, "Request"); })) return;
  reserve(static_cast<size_t>(Count()) + count);
  odoc.forEachChild(node, "Request", [&](const xml::Node& n) {
    auto r = std::make_shared<RequestItem>();
    r->setParent(target);
    r->loadXml(odoc, n);
    // Added even when its element was incomplete (the error stays pending).
    trap([&] { AddData(r); });
  });
}

void RequestItems::DbInsertAll(db::Connection& conn, int32_t Address, int32_t targetid) {
  if (empty()) return;
  auto requests = conn.openUpdatable(kRequestColumns);
  auto positions = conn.openUpdatable(kPositionColumns);
  auto references = conn.openUpdatable(kReferenceColumns);

  // A refused row is logged and recorded; the others are still written.
  // A fault of the engine or the disk is no refusal: it ends the insert.
  auto refused = [&](const std::string& what, const Error& e) {
    if (!db::isRowRefusal(e)) throw;
    std::string text = "RequestItems.DbInsertAll : " + what + " not inserted : " + e.description();
    host().logEvent(EventType::Error, text);
    recordError(e.number(), "RequestItems.DbInsertAll", text);
  };

  for (const auto& r : *this) {
    try {
      requests->addNew();
      setNewRequestRow(*requests, Address, targetid, *r);
      updateOrCancel(*requests);
      r->setRequestId(requests->field("Request Id").toInt32());
    } catch (const Error& e) {
      refused("request '" + r->requestName() + "'", e);
      continue;  // its positions cannot be stored without it
    }
    auto list = r->DataPositions();
    if (!list) continue;
    std::vector<std::shared_ptr<DataPositionItem>> refs;
    for (const auto& pos : *list) {
      try {
        positions->addNew();
        detail::setPositionRow(*positions, Address, targetid, r->requestName(), *pos);
        updateOrCancel(*positions);
        if (pos->reference()) refs.push_back(pos);
      } catch (const Error& e) {
        refused("data position '" + r->requestName() + "/" + pos->dataname() + "'", e);
      }
    }
    for (const auto& pos : refs) {
      try {
        references->addNew();
        detail::setReferenceRow(*references, Address, targetid, r->requestName(), *pos);
        updateOrCancel(*references);
      } catch (const Error& e) {
        refused("reference data '" + r->requestName() + "/" + pos->dataname() + "'", e);
      }
    }
  }
  requests->close();
  positions->close();
  references->close();
}

void RequestItems::DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  readRequests(*this, conn, target, false);
}

void RequestItems::dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  auto read = readRequests(*this, conn, target, false);
  // The reference positions of the whole target, matched by the name rule
  // here rather than joined on the database: a join on name columns costs a
  // collation key per row on a server engine.
  std::unordered_set<std::string> references;
  {
    auto refs = conn.execute(detail::referencePositionsSql(target->targetid()));
    for (; !refs->eof(); refs->moveNext()) {
      references.insert(positionKey(refs->field("Request Name").toText(), refs->field("Data Name").toText()));
    }
    refs->close();
  }
  // One result set for the positions of the whole target, filtered per
  // request.
  auto rs = conn.openClient(detail::positionsSql(target->targetid()));
  for (const auto& r : read) {
    r->setParent(target);
    auto list = freshPositions(*r);
    // The request's half of positionKey(), once per request.
    const std::string requestKey = positionKey(r->requestName(), {});
    rs->filter("[Request Name]='" + db::sql::doubleQuotes(r->requestName()) + "'");
    list->reserve(static_cast<size_t>(rs->recordCount()));
    for (; !rs->eof(); rs->moveNext()) {
      auto pos = list->Add();
      pos->setParent(r);
      pos->setRequestName(r->requestName());
      pos->setStartOctet(detail::intOr(rs->field("StartOctet"), 1));
      pos->setStartBit(detail::intOr(rs->field("StartBit"), 0));
      pos->setLittleEndian(detail::boolOr(rs->field("Little Endian"), false));
      pos->setParam(detail::boolOr(rs->field("Param"), false));
      pos->setDataname(rs->field("Data Name").toText());
      if (!references.empty()) {
        std::string key = requestKey;
        key += names::key(pos->dataname());
        pos->setReference(references.count(key) > 0);
      } else {
        pos->setReference(false);
      }
      detail::linkPositionToData(pos);
    }
  }
  rs->close();
}

void RequestItems::dbReadKVR(db::Connection& conn, const std::shared_ptr<TargetItem>& target) {
  auto read = readRequests(*this, conn, target, true);
  for (const auto& r : read) freshPositions(*r)->dbReadKVR(conn, r);
}

void RequestItems::dbDeleteItem(db::Connection& conn, const Ptr& Item) {
  if (!Item) return;
  for (int32_t i = 1; i <= Count(); ++i) {
    const Ptr& stored = this->Item(i);
    if (stored->requestId() != Item->requestId()) continue;
    Ptr keep = stored;
    keep->dbDelete(conn);
    Remove(i);
    if (auto list = keep->DataPositions())
      for (const auto& pos : *list) detail::unlinkPositionFromData(pos);
    return;
  }
}

}  // namespace kavrel
