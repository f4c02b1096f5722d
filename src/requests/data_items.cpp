#include "kavrel/platform/names.h"
#include "kavrel/requests/data_items.h"

#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_liste_items.h"
#include "kavrel/session/kavrel_database.h"
#include "kavrel/target/target_item.h"
#include "target/target_read.h"

namespace kavrel {
namespace {

constexpr size_t kMaxDataName = 70;

// A coefficient read as far as it is a number; one too large for a double
// (it would be stored as infinity and written back as a text that reads 0)
// is refused, naming where it stands.
double finiteNumber(std::string_view v, const char* element, const char* attribute, const std::string& data) {
  const double x = text::val(v);
  if (!std::isfinite(x))
    raise(kErrOverflow, "DataItem.loadXml",
          "Number out of range in attribute \"" + std::string(attribute) + "\" of element \"" + element +
              "\" of data '" + data + "': \"" + std::string(v) + "\"");
  return x;
}
// Labels the bulk insert stores whole; longer ones are shortened to this.
constexpr size_t kMaxBulkLabel = 70;
constexpr const char* kCorrectionClass = "Read Kavrel97 Data auto-correct";
constexpr const char* kInsertSql =
    "SELECT [Address], [Target Id], [Data Name], [Data Id], [NumberBits], [Numérique], [Liste], [Unité], [Signé], "
    "[CoeffA], [CoeffB], [CoeffC], [Format], [Ascii], [Mnemo], [Description] FROM Données";
constexpr const char* kListInsertSql = "SELECT [Data Id],Valeur, Numérique, Liste, Libellé, Info From Listes";
constexpr const char* kFicheInsertSql = "SELECT [Data Id], [Fiche] FROM [Fiches Diag]";
constexpr const char* kDataColumns =
    "[Data Name], NumberBits, Numérique, Liste, Unité, Signé, CoeffA, CoeffB, CoeffC, Format, Ascii, Mnemo, "
    "Description";
constexpr const char* kWithFiche =
    " , Fiche From Données LEFT JOIN [Fiches Diag] ON (Données.[data Id] = [Fiches Diag].[Data Id])";

std::string num(int32_t v) { return std::to_string(v); }

db::Value textOrNull(const std::string& s) { return s.empty() ? db::Value() : db::Value(s); }

std::shared_ptr<TargetItem> requireTarget(const std::shared_ptr<TargetItem>& t) {
  if (!t) raise(100, "", "Parent not defined");
  return t;
}

std::string targetFilter(const TargetItem& t) {
  return " WHERE Address=" + num(t.Address()) + " AND [Target Id]=" + num(t.targetid());
}

// Copies the data columns of the current row, starting with [Data Name] at
// position `col`, in the order of kDataColumns. Null keeps the default.
void readDataColumns(db::Recordset& rs, DataItem& d, int col) {
  d.setDataname(rs.field(col).toText());
  if (const auto& v = rs.field(col + 1); !v.isNull()) d.setNumberBits(v.toInt32());
  if (const auto& v = rs.field(col + 2); !v.isNull()) d.setNumerique(v.toBool());
  if (const auto& v = rs.field(col + 3); !v.isNull()) d.setListe(v.toBool());
  d.setUnite(rs.field(col + 4).toText());
  if (const auto& v = rs.field(col + 5); !v.isNull()) d.setSigne(v.toBool());
  const auto& a = rs.field(col + 6);
  d.setCoeffA(a.isNull() ? 1.0 : a.toDouble());
  const auto& b = rs.field(col + 7);
  d.setCoeffB(b.isNull() ? 0.0 : b.toDouble());
  const auto& c = rs.field(col + 8);
  d.setCoeffC(c.isNull() ? 1.0 : c.toDouble());
  d.setDataFormat(rs.field(col + 9).toText());
  if (const auto& v = rs.field(col + 10); !v.isNull()) d.setAscii(v.toBool());
  d.setMnemo(rs.field(col + 11).toText());
  d.setDescription(rs.field(col + 12).toText());
}

// The columns of a new Données row (insert and bulk insert).
void setNewRowFields(db::UpdatableRecordset& rs, const DataItem& d, const TargetItem& t) {
  rs.setField("Address", db::Value(t.Address()));
  rs.setField("Target Id", db::Value(t.targetid()));
  rs.setField("Data Name", db::Value(d.dataname()));
  rs.setField("NumberBits", db::Value(d.NumberBits()));
  rs.setField("Numérique", db::Value(d.numerique()));
  rs.setField("Liste", db::Value(d.liste()));
  rs.setField("Unité", textOrNull(d.Unite()));
  rs.setField("Signé", db::Value(d.Signe()));
  rs.setField("CoeffA", db::Value(d.CoeffA()));
  rs.setField("CoeffB", db::Value(d.CoeffB()));
  rs.setField("CoeffC", db::Value(d.CoeffC()));
  rs.setField("Format", textOrNull(d.DataFormat()));
  rs.setField("Ascii", db::Value(d.Ascii()));
  rs.setField("Mnemo", textOrNull(d.Mnemo()));
  rs.setField("Description", textOrNull(d.Description()));
}

// Keeps an earlier failure when a later step of the same zone succeeded
// (the later step's own zone starts by clearing the record).
void restoreIfCleared(const ErrorRecord& saved) {
  if (saved.pending() && !lastError().pending()) recordError(saved.number, saved.source, saved.description);
}

// A failure raised again inside a zone keeps number and description only.
void reRecordPending() {
  const ErrorRecord e = lastError();
  recordError(e.number, "", e.description);
}

void cancelQuietly(db::UpdatableRecordset* rs) {
  if (!rs) return;
  try {
    rs->cancelUpdate();
  } catch (...) {
  }
}

// Round half to even, as the legacy integer conversion does.
int32_t roundToInt(double v) {
  const double r = std::nearbyint(v);
  if (!(r >= -2147483648.0 && r <= 2147483647.0)) raise(kErrOverflow, "", "Overflow");
  return static_cast<int32_t>(r);
}

// The highest and lowest set bits of a mask (-1 when none).
int highestBit(uint32_t m) {
  for (int b = 31; b >= 0; --b)
    if (m & (1u << b)) return b;
  return -1;
}
int lowestBit(uint32_t m) {
  for (int b = 0; b < 32; ++b)
    if (m & (1u << b)) return b;
  return -1;
}

}  // namespace

// ---------------------------------------------------------------- DataItem

DataItem::DataItem() : DataListes_(std::make_shared<DataListeItems>()) {}

DataItem::~DataItem() = default;

void DataItem::setDataname(std::string v) {
  if (v == dataname_) return;
  dataname_ = std::move(v);
  // The name indexes of the collections holding this item refile it.
  detail::dataNameJournal().record(this);
}

void DataItem::clear() {
  if (DataListes_) DataListes_->clear();
  DataListes_.reset();
  DataPositions_.reset();
  parent_.reset();
}

void DataItem::createXMLnode(xml::Document& odoc, xml::Node reqNode) {
  reqNode.setAttribute("Name", dataname_);
  reqNode.appendText("\n");
  const std::string comment = text::trim(Description_);
  if (!comment.empty()) {
    reqNode.appendElement("Comment").appendCData(comment);
    reqNode.appendText("\n");
  }
  if (!Mnemo_.empty()) {
    reqNode.appendElement("Mnemonic").appendText(Mnemo_);
    reqNode.appendText("\n");
  }
  if (!Fiche_.empty()) {
    reqNode.appendElement("Description").appendCData(Fiche_);
    reqNode.appendText("\n");
  }
  if (numerique_) {
    auto bits = reqNode.appendElement("Bits");
    if (NumberBits_ != 8) bits.setAttribute("count", num(NumberBits_));
    if (Signe_) bits.setAttribute("signed", "1");
    if (liste_) {
      auto list = bits.appendElement("List");
      if (DataListes_) DataListes_->createXMLnode(odoc, list);
    } else if (!Unite_.empty() || CoeffA_ != 1.0 || CoeffB_ != 0.0 || CoeffC_ != 1.0 || !DataFormat_.empty()) {
      // With every attribute at its default the element would say nothing:
      // an item with default scaling is written as an empty Bits element.
      auto scaled = bits.appendElement("Scaled");
      if (!Unite_.empty()) scaled.setAttribute("Unit", Unite_);
      if (CoeffA_ != 1.0) scaled.setAttribute("Step", text::decimalText(CoeffA_));
      if (CoeffB_ != 0.0) scaled.setAttribute("Offset", text::decimalText(CoeffB_));
      if (CoeffC_ != 1.0) scaled.setAttribute("DivideBy", text::decimalText(CoeffC_));
      if (!DataFormat_.empty()) scaled.setAttribute("Format", DataFormat_);
    }
  } else {
    auto bytes = reqNode.appendElement("Bytes");
    bytes.setAttribute("count", text::decimalText(static_cast<double>(NumberBits_) / 8.0));
    if (Ascii_) bytes.setAttribute("ascii", "1");
  }
  reqNode.appendText("\n");
}

void DataItem::loadXml(xml::Document& odoc, xml::Node parNode) {
  std::optional<std::string> name;
  trap([&] { name = parNode.attribute("Name"); });
  if (!name) {
    recordError(100, "", "DataItem.loadXml error : Name not defined");
    clearLastError();
    return;
  }
  if (text::length(*name) > kMaxDataName) {
    const std::string message = "Data name '" + *name + "' too long , MDB database max length = 70 characters\r\n" +
                                "name is truncated to 70 car";
    host().importEvent({ImportEventKind::TruncatedName, xml::elementPath(parNode), message});
    host().messageBox(message, "Builder importation", MessageIcon::Exclamation);
    *name = text::left(*name, kMaxDataName);
  }
  setDataname(*name);

  trap([&] {
    std::string comment;
    if (auto c = parNode.child("Comment")) {
      comment = c.text();
    } else if (auto cn = parNode.selectSingleNode("comment()")) {
      comment = cn.value();
    }
    Description_ = text::trim(text::replaceAll(comment, "\n", "\r\n"));
  });
  trap([&] {
    auto m = parNode.child("Mnemonic");
    Mnemo_ = m ? m.text() : std::string();
  });
  trap([&] {
    auto f = parNode.child("Description");
    Fiche_ = f ? f.text() : std::string();
  });

  // Defaults are not written, so start from them.
  NumberBits_ = 8;
  numerique_ = true;
  liste_ = false;
  Unite_.clear();
  Signe_ = false;
  CoeffA_ = 1.0;
  CoeffB_ = 0.0;
  CoeffC_ = 1.0;
  DataFormat_.clear();
  Ascii_ = false;
  // The list is replaced by the one of the element (or none).
  if (DataListes_) trap([&] { DataListes_->clear(); });

  xml::Node bits;
  trap([&] { bits = parNode.child("Bits"); });
  if (bits) {
    numerique_ = true;
    const xml::Attributes bitsAttributes = bits.attributes();
    trap([&] {
      if (auto c = bitsAttributes.get("count")) NumberBits_ = text::toInt(*c);
    });
    trap([&] {
      if (auto s = bitsAttributes.get("signed")) Signe_ = text::toBool(*s);
    });
    xml::Node scaled;
    trap([&] { scaled = bits.child("Scaled"); });
    if (scaled) {
      const xml::Attributes scaledAttributes = scaled.attributes();
      trap([&] {
        if (auto v = scaledAttributes.get("Step")) CoeffA_ = finiteNumber(*v, "Scaled", "Step", dataname_);
      });
      trap([&] {
        if (auto v = scaledAttributes.get("Offset")) CoeffB_ = finiteNumber(*v, "Scaled", "Offset", dataname_);
      });
      trap([&] {
        if (auto v = scaledAttributes.get("DivideBy")) CoeffC_ = finiteNumber(*v, "Scaled", "DivideBy", dataname_);
      });
      trap([&] {
        if (auto v = scaledAttributes.get("Unit")) Unite_ = std::string(*v);
      });
      trap([&] {
        if (auto v = scaledAttributes.get("Format")) DataFormat_ = std::string(*v);
      });
    }
    xml::Node list;
    trap([&] { list = bits.child("List"); });
    if (list) {
      liste_ = true;
      if (!DataListes_) DataListes_ = std::make_shared<DataListeItems>();
      DataListes_->loadXml(odoc, list, weak_from_this().lock());
    }
    return;
  }

  xml::Node bytes;
  trap([&] { bytes = parNode.child("Bytes"); });
  if (bytes) {
    numerique_ = false;
    const xml::Attributes bytesAttributes = bytes.attributes();
    trap([&] {
      auto c = bytesAttributes.get("count");
      if (!c) return;
      // A byte count may be a fraction (12 bits are 1.5 bytes).
      const std::string t = text::trim(*c);
      const char first = t.empty() ? '\0' : t.front();
      if (!((first >= '0' && first <= '9') || first == '.' || first == '-' || first == '+'))
        raise(kErrTypeMismatch, "", "Type mismatch");
      NumberBits_ = roundToInt(finiteNumber(t, "Bytes", "count", dataname_) * 8.0);
    });
    trap([&] {
      if (auto a = bytesAttributes.get("ascii")) Ascii_ = text::toBool(*a);
    });
  }
}

void DataItem::dbInsert(db::Connection& conn) {
  auto t = parent();
  if (!t) raise(100, "", "Parent not defined");
  auto rs = conn.openUpdatable(kInsertSql);
  rs->addNew();
  setNewRowFields(*rs, *this, *t);
  rs->update();
  id_ = rs->field("Data Id").toInt32();
  rs->close();
}

void DataItem::dbUpdate(db::Connection& conn) {
  if (!parent()) raise(100, "", "Parent not defined");
  clearLastError();
  std::unique_ptr<db::UpdatableRecordset> rs;
  bool empty = false;
  const bool opened = trap([&] {
    rs = conn.openUpdatable(
        "SELECT  [NumberBits], [Numérique], [Liste], [Unité], [Signé], [CoeffA], [CoeffB], [CoeffC], [Format], "
        "[Ascii], [Mnemo], [Description] FROM Données WHERE [Data Id]=" +
        num(id_));
    empty = rs->eof();
  });
  if (!opened) {
    reRecordPending();
    return;
  }
  if (empty) {
    trap([&] { rs->close(); });
    return;
  }
  trap([&] {
    rs->setField("NumberBits", db::Value(NumberBits_));
    // Numérique and Signé are written as 1/0 here, unlike the insert.
    rs->setField("Numérique", db::Value(int32_t{numerique_ ? 1 : 0}));
    rs->setField("Liste", db::Value(liste_));
    rs->setField("Unité", textOrNull(Unite_));
    rs->setField("Signé", db::Value(int32_t{Signe_ ? 1 : 0}));
    rs->setField("CoeffA", db::Value(CoeffA_));
    rs->setField("CoeffB", db::Value(CoeffB_));
    rs->setField("CoeffC", db::Value(CoeffC_));
    rs->setField("Format", textOrNull(DataFormat_));
    rs->setField("Ascii", db::Value(Ascii_));
    rs->setField("Mnemo", textOrNull(Mnemo_));
    rs->setField("Description", textOrNull(Description_));
  });
  if (!trap([&] { rs->update(); })) {
    cancelQuietly(rs.get());
    recordError(1, "", "Impossible to update data, check data parameters (lenght, type, ...)");
    return;
  }
  trap([&] { rs->close(); });
}

void DataItem::dbUpdateAll(db::Connection& conn) {
  clearLastError();
  if (DataListes_) trap([&] { DataListes_->dbDeleteAll(conn, shared_from_this()); });
  ErrorRecord saved = lastError();
  trap([&] { dbUpdate(conn); });
  restoreIfCleared(saved);
  if (lastError().pending()) {
    reRecordPending();
    return;
  }
  if (DataListes_ && liste_) trap([&] { DataListes_->DbInsertAll(conn); });
  saved = lastError();
  trap([&] { dbUpdateFiche(conn); });
  restoreIfCleared(saved);
  if (lastError().pending()) reRecordPending();
}

void DataItem::dbRename(db::Connection& conn, const std::string& newName) {
  if (!parent()) raise(100, "", "Parent not defined");
  clearLastError();
  std::unique_ptr<db::UpdatableRecordset> rs;
  bool empty = false;
  if (!trap([&] {
        rs = conn.openUpdatable("SELECT [Data Name] FROM Données WHERE [Data Id]=" + num(id_));
        empty = rs->eof();
      })) {
    recordError(101, "", "Enable to execute sql");
    return;
  }
  if (empty) {
    trap([&] { rs->close(); });
    recordError(1, "", "Data not found");
    return;
  }
  // The database keeps names unique per target (letter case ignored): the
  // memory copy changes only once it accepted the new name.
  if (!trap([&] {
        rs->setField("Data Name", db::Value(newName));
        rs->update();
      })) {
    cancelQuietly(rs.get());
    recordError(2, "", "Duplicate name");
    return;
  }
  setDataname(newName);
  trap([&] { rs->close(); });
}

void DataItem::DbInsertAll(db::Connection& conn) {
  dbInsert(conn);
  dbInsertFiche(conn);
  if (liste_ && DataListes_) DataListes_->DbInsertAll(conn);
}

void DataItem::dbDelete(db::Connection& conn) {
  clearLastError();
  trap([&] { conn.clearErrors(); });
  const std::string name = db::sql::doubleQuotes(dataname_);
  // Both deletes or neither: displays are not lost for a data item that
  // the database refuses to delete.
  std::optional<db::Transaction> tx;
  trap([&] {
    const auto t = parent();
    if (!t) raise(100, "", "Parent not defined");
    tx.emplace(conn);
    const std::string tid = num(t->targetid());
    trap([&] {
      conn.execute("DELETE * from Affichages WHERE [Target Id]=" + tid +
                   " AND [Display Id] in (select [Display Id] from Données_Aff where [Target Id]=" + tid +
                   " AND [Data Name]='" + name + "')");
    });
    trap([&] { conn.execute("DELETE * from Données WHERE [Data Id]=" + num(id_)); });
    if (!lastError().pending()) tx->commit();
  });
  tx.reset();
  if (lastError().pending()) recordError(1, "", "Impossible to delete the data '" + dataname_ + "'");
}

void DataItem::dbInsertFiche(db::Connection& conn) {
  if (Fiche_.empty()) return;
  auto rs = conn.openUpdatable(kFicheInsertSql);
  rs->addNew({"Data Id", "Fiche"}, {db::Value(id_), db::Value(Fiche_)});
  rs->close();
}

void DataItem::dbReadFiche(db::Connection& conn) {
  auto rs = conn.execute("SELECT [Fiche] FROM [Fiches Diag] WHERE [Data Id] =" + num(id_));
  if (!rs->eof()) {
    const auto& v = rs->field(0);
    if (!v.isNull()) Fiche_ = v.toText();
  }
  rs->close();
}

void DataItem::dbUpdateFiche(db::Connection& conn) {
  if (Fiche_.empty()) {
    dbDeleteFiche(conn);
    return;
  }
  auto rs = conn.openUpdatable("SELECT [Fiche] FROM [Fiches Diag] WHERE [Data Id] =" + num(id_));
  if (rs->eof()) {
    rs->close();
    dbInsertFiche(conn);
    return;
  }
  rs->setField("Fiche", db::Value(Fiche_));
  rs->update();
  rs->close();
}

void DataItem::dbDeleteFiche(db::Connection& conn) {
  clearLastError();
  trap([&] { conn.execute("DELETE * from [Fiches Diag] WHERE [Data Id] =" + num(id_)); });
}

void DataItem::dbReReadAll(db::Connection& conn) {
  auto rs = conn.execute(std::string("SELECT ") + kDataColumns + kWithFiche + " WHERE Données.[Data Id]=" + num(id_));
  readDataColumns(*rs, *this, 0);
  Fiche_ = rs->field(13).toText();
  rs->close();
}

// ---------------------------------------------------------------- DataItems

DataItems::Ptr DataItems::Add(int32_t id, std::string_view sKey) {
  return addNew(sKey, [&](DataItem& d) { d.setId(id); });
}

std::string DataItems::nameKey(const DataItem& d) { return names::key(d.dataname()); }

DataItems::Ptr DataItems::ItemName(std::string_view name) const { return nameIndex_.first(*this, names::key(name)); }

std::vector<int32_t> DataItems::indexesOfNames(const std::vector<std::string>& names) const {
  std::vector<std::string> keys;
  keys.reserve(names.size());
  for (const auto& n : names) keys.push_back(names::key(n));
  const std::vector<uint32_t> found = nameIndex_.firstPositions(*this, keys);
  std::vector<int32_t> out(found.size(), 0);
  for (size_t i = 0; i < found.size(); ++i)
    if (found[i] != detail::NameIndex<DataItem>::kNone) out[i] = static_cast<int32_t>(found[i]) + 1;
  return out;
}

DataItems::Ptr DataItems::ItemDuplicate(const Ptr& Item) const {
  if (!Item) return nullptr;
  // The items of that name in collection order: the first with another id.
  const auto* same = nameIndex_.find(*this, names::key(Item->dataname()));
  if (!same) return nullptr;
  for (size_t i = 0; i < same->size(); ++i) {
    const Ptr& d = KeyedCollection<DataItem>::Item(static_cast<int32_t>(same->at(i)) + 1);
    if (d->id() != Item->id()) return d;
  }
  return nullptr;
}

void DataItems::DbRead(db::Connection& conn, const std::shared_ptr<TargetItem>& Ptarget) {
  requireTarget(Ptarget);
  auto rs = conn.execute(std::string("SELECT [Data Id], ") + kDataColumns + " From Données" + targetFilter(*Ptarget) +
                         " ORDER BY [Data Name]");
  for (; !rs->eof(); rs->moveNext()) {
    auto d = Add(rs->field(0).toInt32());
    d->setParent(Ptarget);
    readDataColumns(*rs, *d, 1);
  }
  rs->close();
}

std::string detail::datasWithFicheSql(int32_t address, int32_t targetid) {
  return std::string("SELECT Données.[Data Id], ") + kDataColumns + kWithFiche + " WHERE Address=" + num(address) +
         " AND [Target Id]=" + num(targetid) + " ORDER BY [Data Name]";
}

// The entries of the ids between the target's first and last data item:
// a range of the table's key instead of a join, which costs the server
// twice as much. Entries of another target's items that lie in between
// (ids given while two targets were stored at once) are read too, and
// never asked for: the caller filters by each of its items.
std::string detail::dataListsSql(int32_t targetid) {
  const std::string ofTarget = " FROM Données WHERE [Target Id]=" + num(targetid) + ")";
  return "SELECT * FROM Listes WHERE [Data Id] BETWEEN (SELECT min([Data Id])" + ofTarget +
         " AND (SELECT max([Data Id])" + ofTarget + " ORDER BY [Data Id], [Valeur]";
}

void DataItems::dbReadAll(db::Connection& conn, const std::shared_ptr<TargetItem>& Ptarget) {
  requireTarget(Ptarget);
  // The items are read once, in order: a forward result keeps one row in
  // memory rather than the whole table.
  auto rs = conn.execute(detail::datasWithFicheSql(Ptarget->Address(), Ptarget->targetid()));
  std::vector<Ptr> listed;
  for (; !rs->eof(); rs->moveNext()) {
    auto d = Add(rs->field(0).toInt32());
    d->setParent(Ptarget);
    readDataColumns(*rs, *d, 1);
    d->setFiche(rs->field(14).toText());
    if (d->liste() && d->DataListes()) listed.push_back(d);
  }
  rs->close();
  if (listed.empty()) return;
  // Every list entry of the target in one result, filtered per listed
  // item; asked for once the items are built, which a server engine
  // reading ahead spends answering it.
  auto lists = conn.openClient(detail::dataListsSql(Ptarget->targetid()));
  for (const auto& d : listed) {
    auto entries = d->DataListes();
    lists->filter("[Data Id]=" + num(d->id()));
    entries->reserve(static_cast<size_t>(entries->Count() + lists->recordCount()));
    for (; !lists->eof(); lists->moveNext()) {
      auto e = entries->Add(lists->field("Valeur").toInt32());
      e->setParent(d);
      e->setLibelle(lists->field("Libellé").toText());
      e->setInfo(lists->field("Info").toText());
      e->setValueChanged(false);
    }
  }
  lists->close();
}

void DataItems::DbReadRef(db::Connection& conn, const std::shared_ptr<TargetItem>& Ptarget) {
  requireTarget(Ptarget);
  auto rs = conn.execute(
      "SELECT [Data Id], Données.[Data Name], NumberBits, Numérique, Liste, Unité, Signé, CoeffA, CoeffB, CoeffC, "
      "Format, Ascii, Mnemo, Description"
      " From Donnée_Ref,Données"
      " WHERE Donnée_Ref.Address=Données.Address AND Donnée_Ref.[Target Id]=Données.[Target Id] AND "
      "Donnée_Ref.[Data Name]=Données.[Data Name]"
      " AND Donnée_Ref.Address=" +
      num(Ptarget->Address()) + " AND Donnée_Ref.[Target Id]=" + num(Ptarget->targetid()) +
      " ORDER BY Données.[Data Name]");
  for (; !rs->eof(); rs->moveNext()) {
    auto d = Add(rs->field(0).toInt32());
    d->setParent(Ptarget);
    readDataColumns(*rs, *d, 1);
  }
  rs->close();
}

void DataItems::DbInsertAll(db::Connection& conn) {
  // One transaction and three row sets for the whole collection: targets
  // hold thousands of data items.
  db::Transaction tx(conn);
  auto dataRs = conn.openUpdatable(kInsertSql);
  auto listRs = conn.openUpdatable(kListInsertSql);
  auto ficheRs = conn.openUpdatable(kFicheInsertSql);
  std::optional<Error> firstFailure;
  auto remember = [&](const Error& e) {
    if (!firstFailure) firstFailure = e;
  };

  for (const auto& d : *this) {
    if (!d) continue;
    try {
      auto t = d->parent();
      if (!t) raise(100, "", "Parent not defined");
      dataRs->addNew();
      setNewRowFields(*dataRs, *d, *t);
      dataRs->update();
      d->setId(dataRs->field("Data Id").toInt32());
    } catch (const Error& e) {
      // A refused row (a name already used, ...) is skipped; the others are
      // stored and the first failure is reported at the end. A fault of the
      // engine or the disk ends the insert.
      if (!db::isRowRefusal(e)) throw;
      cancelQuietly(dataRs.get());
      host().logEvent(EventType::Error, "DataItems.DbInsertAll : data '" + d->dataname() + "' : " + e.description());
      remember(e);
      continue;
    }

    if (d->liste() && d->DataListes()) {
      for (const auto& e : *d->DataListes()) {
        if (!e) continue;
        std::string label = e->libelle();
        if (text::length(label) > kMaxBulkLabel) {
          host().messageBox("Libellé trop long pour la base mdb\r\n" + num(e->Valeur()) + " = " + label, kLibraryName,
                            MessageIcon::Exclamation);
          // The value's hex digits end the label, so shortened labels of
          // different values stay distinct.
          label = text::left(label, 65) + " " + text::right("000" + text::hex(e->Valeur()), 4);
        }
        try {
          listRs->addNew();
          listRs->setField("Data Id", db::Value(d->id()));
          listRs->setField("Valeur", db::Value(e->Valeur()));
          listRs->setField("Numérique", db::Value(d->numerique()));
          listRs->setField("Liste", db::Value(d->liste()));
          listRs->setField("Libellé", textOrNull(label));
          listRs->setField("Info", textOrNull(e->Info()));
          listRs->update();
          e->setValueChanged(false);
        } catch (const Error& failure) {
          if (!db::isRowRefusal(failure)) throw;
          host().messageBox("Erreur de doublon " + num(e->Valeur()) + " = " + label, kLibraryName,
                            MessageIcon::Exclamation);
          cancelQuietly(listRs.get());
        }
      }
    }

    if (!d->Fiche().empty()) {
      try {
        ficheRs->addNew({"Data Id", "Fiche"}, {db::Value(d->id()), db::Value(d->Fiche())});
      } catch (const Error& e) {
        if (!db::isRowRefusal(e)) throw;
        cancelQuietly(ficheRs.get());
        host().logEvent(EventType::Error,
                        "DataItems.DbInsertAll : sheet of '" + d->dataname() + "' : " + e.description());
        remember(e);
      }
    }
  }
  ficheRs->close();
  listRs->close();
  dataRs->close();
  tx.commit();
  if (firstFailure) throw *firstFailure;
}

void DataItems::dbReadKVR(db::Connection& conn, const std::shared_ptr<TargetItem>& Ptarget) {
  requireTarget(Ptarget);
  const auto session = Ptarget->parent();
  auto warn = [&](const std::string& msg) {
    if (session) raiseWarning(*session, kCorrectionClass, msg);
  };
  auto rs = conn.execute(std::string("SELECT [Data Id], [Request Id], [Data Name], [Numérique], [Liste], [Param],") +
                         " [Start], [Length], [Masque], [NumBitFort], [NumBitFaible], [Unité], [Signé], [CoeffA], "
                         "[CoeffB]," +
                         "[CoeffC], [Format], [Ascii], [Little Endian], [StartBit], [NumberBits], [Mnemo], "
                         "[Description]" +
                         " From Données" + targetFilter(*Ptarget) + " ORDER BY [Data Name],[param] DESC");

  // First item of each name (by its name key), for the duplicate check without a
  // scan per row.
  std::unordered_map<std::string, Ptr> firstByName;
  for (const auto& d : *this)
    if (d) firstByName.try_emplace(names::key(d->dataname()), d);

  for (; !rs->eof(); rs->moveNext()) {
    // A row without a length is taken as one byte rather than dropped.
    const auto& lengthV = rs->field("Length");
    const int32_t length = lengthV.isNull() ? 1 : lengthV.toInt32();
    if (length == 0) continue;  // a further placement of a data already read

    auto d = Add(rs->field("Data Id").toInt32());
    d->setParent(Ptarget);
    const std::string name = rs->field("Data Name").toText();
    d->setDataname(name);
    if (const auto& v = rs->field("Numérique"); !v.isNull()) d->setNumerique(v.toBool());
    if (const auto& v = rs->field("Liste"); !v.isNull()) d->setListe(v.toBool());
    d->setUnite(rs->field("Unité").toText());
    if (const auto& v = rs->field("Signé"); !v.isNull()) d->setSigne(v.toBool());
    if (const auto& v = rs->field("CoeffA"); !v.isNull()) d->setCoeffA(v.toDouble());
    if (const auto& v = rs->field("CoeffB"); !v.isNull()) d->setCoeffB(v.toDouble());
    if (const auto& v = rs->field("CoeffC"); !v.isNull()) d->setCoeffC(v.toDouble());
    d->setDataFormat(rs->field("Format").toText());
    if (const auto& v = rs->field("Ascii"); !v.isNull()) d->setAscii(v.toBool());
    d->setMnemo(rs->field("Mnemo").toText());
    d->setDescription(rs->field("Description").toText());

    if (d->Unite() == "%" && d->CoeffC() == 100.0) {
      const std::string a = text::decimalText(d->CoeffA());
      const std::string b = text::decimalText(d->CoeffB());
      const std::string c = text::decimalText(d->CoeffC());
      d->setCoeffC(1.0);
      warn("data : " + name + " Unit = '%'" + "(" + a + " * X + " + b + ") / " + c + " change to (" + a + " * X + " +
           b + ") / 1");
    }

    if (!d->numerique()) {
      d->setNumberBits(8 * length);
    } else {
      // Bit numbers inside the field: the high one in its first byte, the
      // low one in its last. A missing one is taken from the mask (bit 0 =
      // low bit of the last byte) when there is one, else the whole byte.
      const auto& fortV = rs->field("NumBitFort");
      const auto& faibleV = rs->field("NumBitFaible");
      const auto& maskV = rs->field("Masque");
      const uint32_t mask =
          (maskV.isNull() || length > 4) ? 0u : static_cast<uint32_t>(static_cast<int32_t>(maskV.toInt64()));
      int32_t high = 7;
      int32_t low = 0;
      if (!fortV.isNull()) {
        high = fortV.toInt32();
      } else if (mask != 0) {
        const int h = highestBit(mask) - 8 * (length - 1);
        if (h >= 0 && h <= 7) high = h;
      }
      if (!faibleV.isNull()) {
        low = faibleV.toInt32();
      } else if (mask != 0) {
        const int l = lowestBit(mask);
        if (l <= 7) low = l;
      }
      if (high < low)
        warn(name + " - lNumBitFort (" + num(high) + ") < lNumBitFaible (" + num(low) + ") : length=" + num(length));
      d->setNumberBits((high - low) + 8 * length - 7);
    }

    d->dbReadFiche(conn);
    if (d->liste() && d->DataListes()) d->DataListes()->dbReadKVR(conn, d);

    // The same name again (its writing placement): both are kept.
    const std::string key = names::key(name);
    Ptr other;
    if (auto it = firstByName.find(key); it != firstByName.end())
      other = it->second->id() != d->id() ? it->second : ItemDuplicate(d);
    if (other) d->setDataname(text::lower(name) + " - ecriture");
    firstByName.try_emplace(names::key(d->dataname()), d);
  }
  rs->close();
}

void DataItems::createXMLnode(xml::Document& odoc, xml::Node parent) {
  for (const auto& d : *this) {
    parent.appendText("\n");
    auto node = parent.appendElement("Data");
    if (d) d->createXMLnode(odoc, node);
  }
}

void DataItems::loadXml(xml::Document& odoc, xml::Node parNode, const std::shared_ptr<TargetItem>& Ptarget) {
  size_t count = 0;
  if (!trap([&] { count = odoc.countChildren(parNode, "Data"); })) return;
  reserve(static_cast<size_t>(Count()) + count);
  // One element at a time: a large document read in pieces never holds
  // more than the element being read.
  odoc.forEachChild(parNode, "Data", [&](const xml::Node& node) {
    auto d = std::make_shared<DataItem>();
    d->setParent(Ptarget);
    d->loadXml(odoc, node);
    // The complement of the pending number is non-zero for every number but
    // -1: items that reported an error are kept too.
    if (~lastError().number) trap([&] { AddData(d); });
  });
}

}  // namespace kavrel
