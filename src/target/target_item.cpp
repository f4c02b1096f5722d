#include "kavrel/target/target_item.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kavrel/catalogues/function_items.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/data_liste_items.h"
#include "kavrel/requests/data_position_items.h"
#include "kavrel/requests/organe_items.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/screens/button_items.h"
#include "kavrel/screens/category_items.h"
#include "kavrel/screens/display_items.h"
#include "kavrel/screens/label_items.h"
#include "kavrel/screens/screen_items.h"
#include "kavrel/session/kavrel_database.h"
#include "kavrel/target/auto_ident_items.h"
#include "kavrel/target/target_param_item.h"
#include "platform/host_hold.h"
#include "requests/position_support.h"
#include "target/document_layout.h"
#include "target/target_read.h"
#include "target/target_support.h"

namespace kavrel {

using target::addLine;
using target::num;

namespace {

constexpr const char* kUceError = "Insert Uce error : ";
constexpr const char* kFunctionError = " DbInsert Function Error : ";
constexpr const char* kParametersError = "Insert parameters error : ";
constexpr const char* kLoadSource = "loadXml";

// Drops a collection after letting it break its links.
template <class C>
void release(std::shared_ptr<C>& c) {
  if (c) {
    c->clear();
    c.reset();
  }
}

// What a whole-tree insert changes in the objects under a target, kept so
// that an insert that is undone can put it back: new ids, changed flags, the
// names it shortens, the links it sets. restore() puts back each value that
// differs, newest first.
class TreeSnapshot {
 public:
  template <class T, class Get, class Set>
  void keep(const std::shared_ptr<T>& item, Get get, Set set) {
    if (!item) return;
    auto old = std::invoke(get, *item);
    undo_.push_back([item, old, get, set] {
      if (!(std::invoke(get, *item) == old)) std::invoke(set, *item, old);
    });
  }

  template <class C, class F>
  void each(const std::shared_ptr<C>& collection, F&& f) {
    if (!collection) return;
    for (const auto& item : *collection)
      if (item) f(item);
  }

  void positions(const std::shared_ptr<DataPositionItems>& list) {
    each(list, [&](const auto& p) { keep(p, &DataPositionItem::reference, &DataPositionItem::setReference); });
  }

  void restore() {
    for (auto it = undo_.rbegin(); it != undo_.rend(); ++it) (*it)();
  }

 private:
  std::vector<std::function<void()>> undo_;
};

}  // namespace

std::shared_ptr<TargetItem> TargetItem::create() {
  auto t = std::make_shared<TargetItem>(Passkey{});
  t->Parametres_->setParent(t);
  return t;
}

TargetItem::TargetItem(Passkey) : Parametres_(std::make_shared<TargetParamItem>()) {}

TargetItem::~TargetItem() { clear(); }

// ---- properties that mark the target as changed

void TargetItem::setDatas(std::shared_ptr<DataItems> v) {
  datas_ = std::move(v);
  ValueChanged_ = true;
}
void TargetItem::setDatasRef(std::shared_ptr<DataItems> v) {
  datasRef_ = std::move(v);
  ValueChanged_ = true;
}
void TargetItem::setRequests(std::shared_ptr<RequestItems> v) {
  Requests_ = std::move(v);
  ValueChanged_ = true;
}
void TargetItem::setOrganes(std::shared_ptr<OrganeItems> v) {
  Organes_ = std::move(v);
  ValueChanged_ = true;
}
void TargetItem::setParametres(std::shared_ptr<TargetParamItem> v) {
  Parametres_ = std::move(v);
  ValueChanged_ = true;
}
void TargetItem::setTargetid(int32_t v) {
  targetid_ = v;
  ValueChanged_ = true;
}
void TargetItem::setAddress(int32_t v) {
  Address_ = v;
  ValueChanged_ = true;
}
void TargetItem::setName(std::string v) {
  name_ = std::move(v);
  ValueChanged_ = true;
}
void TargetItem::setLangue(std::string v) {
  Langue_ = std::move(v);
  ValueChanged_ = true;
}
void TargetItem::setReference(bool v) {
  reference_ = v;
  ValueChanged_ = true;
}

void TargetItem::clear() {
  parent_.reset();
  release(Organes_);
  release(Categories_);
  release(Requests_);
  release(datasRef_);
  release(datas_);
  release(Parametres_);
  release(AutoIdents_);
}

// ---- reading

namespace detail {

std::string targetHeaderSql(int32_t targetid) {
  return std::string(
             "SELECT [Target Name],Langue,[Référence],Fonctions.[Function Name],Fonctions.[XId],"
             "Fonctions.[RId] FROM Cibles,Fonctions ") +
         "WHERE Cibles.Address=Fonctions.Address AND [Target Id]=" + std::to_string(targetid);
}

std::vector<std::string> targetReadStatements(int32_t address, int32_t targetid) {
  return {targetHeaderSql(targetid),
          targetParamsSql(targetid),
          autoIdentsSql(address, targetid),
          datasWithFicheSql(address, targetid),
          dataListsSql(targetid),
          requestsSql(address, targetid, false),
          referencePositionsSql(targetid),
          positionsSql(targetid),
          organesWithContextSql(address, targetid),
          organeDatasSql(targetid),
          categoriesSql(targetid),
          screensOfTargetSql(targetid),
          labelsOfTargetSql(targetid),
          buttonsOfTargetSql(targetid),
          scenariosOfTargetSql(targetid),
          displaysOfTargetSql(targetid, -1),
          rangesOfTargetSql(targetid, -1),
          dataLinksOfTargetSql(targetid, -1),
          extraLinksOfTargetSql(targetid, -1)};
}

}  // namespace detail

bool TargetItem::DbRead(db::Connection& conn, int32_t address, int32_t targetid) {
  // The execute's failure reaches the caller unchanged.
  auto rs = conn.execute(detail::targetHeaderSql(targetid));
  Address_ = address;
  targetid_ = targetid;
  // An unknown id is not an error: the fields simply keep their values.
  if (!rs->eof()) {
    trap([&] { functionName_ = rs->field(3).toText(); });
    trap([&] { name_ = rs->field(0).toText(); });
    trap([&] { Langue_ = rs->field(1).toText(); });
    trap([&] { target::fieldBool(*rs, 2, reference_); });
    if (Parametres_) {
      trap([&] {
        const db::Value& x = rs->field(4);
        if (!x.isNull()) Parametres_->setCanXId(x.toInt32());
      });
      trap([&] {
        const db::Value& r = rs->field(5);
        if (!r.isNull()) Parametres_->setCanRId(r.toInt32());
      });
    }
  }
  rs->close();
  return true;
}

bool TargetItem::dbReadKVR(db::Connection& conn, int32_t address, int32_t targetid) {
  auto rs = conn.execute("SELECT [Target Name] FROM Cibles WHERE Address=" + num(address) +
                         " AND [Target Id]=" + num(targetid));
  Address_ = address;
  targetid_ = targetid;
  if (!rs->eof()) trap([&] { name_ = rs->field("Target Name").toText(); });
  rs->close();
  return true;
}

bool TargetItem::dbReadTargetAll(db::Connection& conn, int32_t address, int32_t targetid) {
  // One snapshot for all the tables: a writer in another process cannot
  // leave half its change in what is read.
  db::Transaction snapshot(conn, db::Transaction::Kind::Read);
  // A server engine sends every SELECT of the read at once and works on
  // the later ones while the objects are built from the earlier ones.
  db::ReadAhead ahead(conn, detail::targetReadStatements(address, targetid));
  if (!DbRead(conn, address, targetid)) return false;
  auto self = shared_from_this();
  // From here each step runs even when an earlier one failed.
  trap([&] {
    if (Parametres_) Parametres_->DbRead(conn, self);
  });
  trap([&] {
    AutoIdents_ = std::make_shared<AutoIdentItems>();
    AutoIdents_->dbReadAll(conn, self);
  });
  trap([&] {
    release(datas_);
    datas_ = std::make_shared<DataItems>();
    datas_->dbReadAll(conn, self);
  });
  trap([&] {
    release(Requests_);
    Requests_ = std::make_shared<RequestItems>();
    detail::DeferredPositionLinks links(datas_);
    Requests_->dbReadAll(conn, self);
    links.resolve();
  });
  trap([&] {
    release(Organes_);
    Organes_ = std::make_shared<OrganeItems>();
    Organes_->dbReadAll(conn, self);
  });
  trap([&] {
    release(Categories_);
    Categories_ = std::make_shared<CategoryItems>();
    Categories_->dbReadAll(conn, self);
  });
  trap([&] { snapshot.commit(); });
  ValueChanged_ = false;
  return true;
}

void TargetItem::dbReadTargetAllKVR(db::Connection& conn, int32_t address, int32_t targetid) {
  auto self = shared_from_this();
  {
    auto rs = conn.execute("SELECT [Target Name] FROM Cibles WHERE Address=" + num(address) +
                           " AND [Target Id]=" + num(targetid));
    Address_ = address;
    targetid_ = targetid;
    name_ = rs->field("Target Name").toText();
    rs->close();
  }
  if (Parametres_) Parametres_->dbReadKVR(conn, self);
  release(datas_);
  datas_ = std::make_shared<DataItems>();
  datas_->dbReadKVR(conn, self);
  release(Requests_);
  Requests_ = std::make_shared<RequestItems>();
  Requests_->dbReadKVR(conn, self);
  release(Categories_);
  Categories_ = std::make_shared<CategoryItems>();
  Categories_->dbReadKVR(conn, self);
  ValueChanged_ = false;
}

// ---- writing

void TargetItem::dbUpdateTargetAll(db::Connection& conn, int32_t address, int32_t targetid) {
  if (!ValueChanged_) return;
  auto rs = conn.openUpdatable("SELECT [Target Name],Langue,[Référence] FROM Cibles WHERE Address=" + num(address) +
                               " AND [Target Id]=" + num(targetid));
  if (rs->eof()) {
    rs->close();
    return;
  }
  rs->setField("Target Name", name_);
  rs->setField("Langue", Langue_);
  rs->setField("Référence", reference_);
  rs->update();
  rs->close();
  ValueChanged_ = false;
}

void TargetItem::dbRename(db::Connection& conn, const std::string& newName) {
  auto rs = conn.openUpdatable("SELECT [Target Name] FROM Cibles WHERE Address=" + num(Address_) +
                               " AND [Target Id]=" + num(targetid_));
  if (rs->eof()) {
    rs->close();
    return;
  }
  rs->setField("Target Name", newName);
  rs->update();
  rs->close();
  name_ = newName;
}

void TargetItem::dbInsert(db::Connection& conn) {
  {
    auto rs = conn.openUpdatable("SELECT [Address],[Function Name],[XId],[RId] FROM [Fonctions] WHERE [Address]=" +
                                 num(Address_));
    // An existing function row for the address is left as it is.
    if (rs->eof()) {
      try {
        rs->addNew();
        rs->setField("Address", Address_);
        rs->setField("Function Name", functionName_);
        // -1 means "no identifier" and leaves the column empty.
        if (Parametres_ && Parametres_->CanXId() != -1) rs->setField("XId", Parametres_->CanXId());
        if (Parametres_ && Parametres_->CanRId() != -1) rs->setField("RId", Parametres_->CanRId());
        rs->update();
      } catch (const Error& e) {
        trap([&] { rs->cancelUpdate(); });
        target::rethrowWithPrefix(e, kFunctionError);
      }
    }
    rs->close();
  }
  auto rs = conn.openUpdatable("SELECT [Target Id],Address,[Target Name],Langue,[Référence] FROM Cibles");
  rs->addNew({"Address", "Target Name", "Langue", "Référence"},
             {db::Value(Address_), db::Value(name_), db::Value(Langue_), db::Value(reference_)});
  targetid_ = rs->field("Target Id").toInt32();
  rs->close();
  ValueChanged_ = false;
}

void TargetItem::dbInsertAppartenance(db::Connection& conn) {
  auto rs = conn.openUpdatable("SELECT [Target Address], [Target Id], [Ecu Address], [Ecu Id] FROM [Appartenance cible]");
  rs->addNew({"Target Address", "Target Id", "Ecu Address", "Ecu Id"},
             {db::Value(Address_), db::Value(targetid_), db::Value(Address_), db::Value(targetid_)});
  rs->close();
}

void TargetItem::dbInsertTargetAll(db::Connection& conn) {
  if (!conn.batchesWrites()) {
    insertTree(conn);
    return;
  }
  // Refused rows are rare in a whole-target insert: try it in batches
  // first, in a nested transaction (a caller's own stays as it is), ready
  // to undo it and write row by row.
  TreeSnapshot snapshot;
  const auto self = shared_from_this();
  snapshot.keep(self, [](const TargetItem& t) { return t.targetid_; }, [](TargetItem& t, int32_t v) { t.targetid_ = v; });
  snapshot.keep(self, [](const TargetItem& t) { return t.ValueChanged_; },
                [](TargetItem& t, bool v) { t.ValueChanged_ = v; });
  snapshot.keep(Parametres_, [](const TargetParamItem& p) { return p.changed_; },
                [](TargetParamItem& p, bool v) { p.changed_ = v; });
  snapshot.each(datas_, [&](const auto& d) {
    snapshot.keep(d, &DataItem::id, &DataItem::setId);
    snapshot.each(d->DataListes(),
                  [&](const auto& e) { snapshot.keep(e, &DataListeItem::ValueChanged, &DataListeItem::setValueChanged); });
    snapshot.positions(d->DataPositions());
  });
  snapshot.each(Requests_, [&](const auto& r) {
    snapshot.keep(r, &RequestItem::requestId, &RequestItem::setRequestId);
    snapshot.positions(r->DataPositions());
  });
  snapshot.each(Organes_, [&](const auto& o) {
    snapshot.keep(o, &OrganeItem::id, &OrganeItem::setId);
    snapshot.keep(o, [](const OrganeItem& x) { return x.organeName(); },
                  [](OrganeItem& x, const std::string& v) { x.setOrganeName(v); });
    snapshot.keep(o, [](const OrganeItem& x) { return x.Mnemonique(); },
                  [](OrganeItem& x, const std::string& v) { x.setMnemonique(v); });
  });
  snapshot.each(Categories_, [&](const auto& c) {
    snapshot.keep(c, &CategoryItem::categoryId, &CategoryItem::setCategoryId);
    snapshot.each(c->Screens(), [&](const auto& s) {
      snapshot.keep(s, &ScreenItem::screenId, &ScreenItem::setScreenId);
      snapshot.keep(s, &ScreenItem::InitId, &ScreenItem::setInitId);
      snapshot.keep(s, &ScreenItem::ButtonInit, &ScreenItem::setButtonInit);
      snapshot.each(s->LabelItems(), [&](const auto& l) { snapshot.keep(l, &LabelItem::LabelId, &LabelItem::setLabelId); });
      snapshot.each(s->ButtonItems(),
                    [&](const auto& b) { snapshot.keep(b, &ButtonItem::buttonId, &ButtonItem::setButtonId); });
      snapshot.each(s->DisplayItems(), [&](const auto& d) { snapshot.keep(d, &DisplayItem::id, &DisplayItem::setId); });
    });
  });
  const ErrorRecord pending = lastError();
  {
    HostHold held;
    try {
      db::Transaction attempt(conn);
      db::BatchedWrites batched(conn);
      insertTree(conn);
      batched.end();
      attempt.commit();
      held.release();
      return;
    } catch (const Error& e) {
      if (e.number() != db::kErrBatchRefused) {
        // A fault: everything is undone, the objects too (no id of a row
        // that is gone).
        snapshot.restore();
        throw;
      }
    } catch (...) {
      snapshot.restore();
      throw;
    }
  }
  // A batch was refused: the attempt is rolled back and its host entries
  // dropped; the objects go back as they were and the rows go one by one.
  snapshot.restore();
  lastError() = pending;
  insertTree(conn);
}

void TargetItem::insertTree(db::Connection& conn) {
  // One transaction for the whole tree: far fewer commits, and a failure
  // midway leaves no half-written target behind.
  db::Transaction tx(conn);
  // A refused row rolls everything back: the target is then as unsaved as
  // before (no id of a row that does not exist, still marked changed).
  struct RestoreUnlessCommitted {
    TargetItem& t;
    const int32_t id;
    const bool changed;
    bool committed = false;
    ~RestoreUnlessCommitted() {
      if (committed) return;
      t.targetid_ = id;
      t.ValueChanged_ = changed;
    }
  } restore{*this, targetid_, ValueChanged_};
  try {
    dbInsert(conn);
  } catch (const Error& e) {
    target::rethrowWithPrefix(e, kUceError);
  }
  try {
    dbInsertAppartenance(conn);
  } catch (const Error& e) {
    target::rethrowWithPrefix(e, kUceError);
  }
  if (Parametres_) {
    try {
      Parametres_->setParent(shared_from_this());
      Parametres_->dbInsert(conn);
    } catch (const Error& e) {
      target::rethrowWithPrefix(e, kParametersError);
    }
  }
  // The collections' failures are left pending and do not stop the others;
  // a fault of the engine or the disk (or running out of memory) is no such
  // failure: it rolls the whole insert back and reaches the caller.
  const auto collection = [](auto&& write) {
    try {
      write();
    } catch (const Error& e) {
      if (!db::isRowRefusal(e)) throw;
      recordError(e);
    }
  };
  if (AutoIdents_)
    for (const auto& entry : *AutoIdents_) collection([&] { entry->dbInsert(conn); });
  if (datas_) collection([&] { datas_->DbInsertAll(conn); });
  if (Requests_) collection([&] { Requests_->DbInsertAll(conn, Address_, targetid_); });
  if (Organes_) collection([&] { Organes_->DbInsertAll(conn, Address_, targetid_); });
  if (Categories_) collection([&] { Categories_->DbInsertAll(conn); });
  tx.commit();
  restore.committed = true;
  ValueChanged_ = false;
}

// ---- XML

xml::Node TargetItem::createXMLnode(xml::Document& odoc, xml::Node parent) {
  auto session = parent_.lock();
  xml::Node el = parent.isNull() ? odoc.appendElement("kvr:Target") : parent.appendElement("kvr:Target");
  el.setAttribute("Name", name_);
  if (session && !session->xmlEcuSchema().empty()) el.setAttribute("xmlns", session->xmlEcuSchema());
  if (session && !session->xmlScreenSchema().empty()) el.setAttribute("xmlns:ds", session->xmlScreenSchema());

  xml::Node function = addLine(el, "Function");
  std::string functionName = functionName_;
  if (session && session->functions())
    if (auto f = session->functions()->ItemAddress(Address_)) functionName = f->functionName();
  function.setAttribute("Name", functionName);
  function.setAttribute("Address", num(Address_));

  xml::Node language = addLine(el, "Language");
  language.setAttribute("Name", Langue_);
  if (reference_) language.setAttribute("Reference", "1");

  if (Parametres_) Parametres_->createXMLnode(odoc, el);
  if (AutoIdents_) AutoIdents_->createXMLnode(odoc, addLine(el, "AutoIdents"));
  if (datas_) datas_->createXMLnode(odoc, addLine(el, "Datas"));
  xml::Node requests = addLine(el, "Requests");
  requests.setAttribute("Endian", Parametres_ && Parametres_->LittleEndian() ? "Little" : "Big");
  if (Requests_) Requests_->createXMLnode(odoc, requests);
  if (Organes_) Organes_->createXMLnode(odoc, addLine(el, "Devices"));
  if (Categories_) {
    xml::Node categories = addLine(el, "ds:Categories");
    if (session && !session->xmlScreenSchema().empty()) categories.setAttribute("xmlns", session->xmlScreenSchema());
    Categories_->createXMLnode(odoc, categories);
  }
  target::endLines(el);
  return el;
}

const xml::PiecewiseLayout& target::documentLayout() {
  static const xml::PiecewiseLayout layout{
      "xml",
      "kvr:Target",
      {"Function", "Language", "Description", "DateOfficialisation", "Failures", "Boot", "Protocol", "K", "CAN"},
      {"Datas", "Requests", "Devices", "ds:Categories", "AutoIdents"}};
  return layout;
}

void TargetItem::loadXml(xml::Document& odoc, xml::Node node) {
  auto session = parent_.lock();
  auto self = shared_from_this();
  // Steps up to the language only signal what is missing; the signals are
  // dropped afterwards, so an incomplete element is imported as far as it goes.
  auto signal = [](std::string description) { recordError(1, kLoadSource, std::move(description)); };

  xml::Node t;
  trap([&] { t = node.isNull() ? xml::Node() : node.selectSingleNode("kvr:Target"); });
  if (t.isNull()) signal("Bad xml file, Target node not found");

  if (auto n = t.isNull() ? std::nullopt : t.attribute("Name"))
    setName(*n);
  else
    signal("Bad xml file, Target Name not found");

  xml::Node functionEl = t.isNull() ? xml::Node() : t.child("Function");
  std::optional<std::string> fname = functionEl.isNull() ? std::nullopt : functionEl.attribute("Name");
  if (fname)
    functionName_ = *fname;
  else
    signal("Bad xml file, Target function name not found");

  try {
    auto functions = session ? session->functions() : nullptr;
    std::shared_ptr<FunctionItem> f = (functions && fname) ? functions->ItemName(*fname) : nullptr;
    std::optional<std::string> address = functionEl.isNull() ? std::nullopt : functionEl.attribute("Address");
    if (f) {
      setAddress(f->Address());
    } else if (!address) {
      signal("Bad xml file, The function '" + fname.value_or("") +
             "' doesn't exist in the database structure, Contact Kavrel HotLine");
    } else {
      setAddress(text::toInt(*address));
      if (functions) {
        f = functions->ItemAddress(Address_);
        if (!f && fname) f = functions->Add(Address_, *fname);
      }
    }
    CanDescription can;
    if (f && Parametres_ && Parametres_->isCan(t, can)) {
      if (can.CanXId != -1) f->setCanXId(can.CanXId);
      if (can.CanRId != -1) f->setCanRId(can.CanRId);
      if (session && session->DbConnection()) f->dbUpdate(*session->DbConnection());
    }
  } catch (const Error& e) {
    signal(e.description());
  } catch (const std::exception& e) {
    signal(e.what());
  }

  Langue_ = "Français";
  reference_ = true;
  xml::Node language = t.isNull() ? xml::Node() : t.child("Language");
  target::attrText(language, "Name", Langue_);
  if (auto r = language.isNull() ? std::nullopt : language.attribute("Reference")) {
    try {
      reference_ = text::toBool(*r);
    } catch (const Error&) {
      // Not a boolean: the reference flag stays set.
    }
  }
  clearLastError();

  if (t.isNull()) {
    ValueChanged_ = true;
    return;
  }
  if (Parametres_) Parametres_->loadXml(odoc, t);

  if (xml::Node datasEl = t.child("Datas"); !datasEl.isNull()) {
    release(datas_);
    datas_ = std::make_shared<DataItems>();
    datas_->loadXml(odoc, datasEl, self);
  }
  if (xml::Node requestsEl = t.child("Requests"); !requestsEl.isNull()) {
    release(Requests_);
    Requests_ = std::make_shared<RequestItems>();
    detail::DeferredPositionLinks links(datas_);
    Requests_->loadXml(odoc, requestsEl, self);
    links.resolve();
  }
  if (xml::Node devicesEl = t.child("Devices"); !devicesEl.isNull()) {
    release(Organes_);
    Organes_ = std::make_shared<OrganeItems>();
    Organes_->loadXml(odoc, devicesEl, self);
  }
  if (xml::Node categoriesEl = t.child("ds:Categories"); !categoriesEl.isNull()) {
    release(Categories_);
    Categories_ = std::make_shared<CategoryItems>();
    Categories_->loadXml(odoc, categoriesEl, self);
  }
  if (xml::Node autoIdentsEl = t.child("AutoIdents"); !autoIdentsEl.isNull()) {
    if (AutoIdents_) {
      // Re-loading a target that had identification entries empties its
      // categories, not its old entries; kept as the established behaviour.
      if (Categories_) Categories_->clear();
      AutoIdents_.reset();
    }
    AutoIdents_ = std::make_shared<AutoIdentItems>();
    AutoIdents_->loadXml(odoc, autoIdentsEl, self);
  }
  ValueChanged_ = true;
}

}  // namespace kavrel
