// Test helper: a stored target (Fonctions and Cibles rows written with plain
// SQL) with empty data and request collections, and small SQL shortcuts.
//
//   kavrel::test::StoredTarget t;             // address 122, "ABS"
//   auto d = t.addData("Vitesse");            // inserted DataItem (false: in memory only)
//   t.count("SELECT count(*) FROM Requêtes"); // one number (t.value: the field itself)
//   t.addDisplayOf("Req", "Vitesse");         // a display showing a position
#pragma once

#include <cstdint>

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/temp_db.h"

namespace kavrel::test {

class StoredTarget {
 public:
  explicit StoredTarget(int32_t address = 122, const std::string& name = "ABS") {
    conn().execute("INSERT INTO Fonctions (Address, [Function Name]) VALUES (" + std::to_string(address) +
                   ", 'Freinage')");
    target = newTarget(address, name);
  }
  // Another target of the same database (its own Cibles row).
  std::shared_ptr<TargetItem> newTarget(int32_t address, const std::string& name) {
    conn().execute("INSERT INTO Cibles (Address, [Target Name], Langue, [Référence]) VALUES (" +
                   std::to_string(address) + ", " + db::sql::quote(name) + ", 'Français', -1)");
    auto t = TargetItem::create();
    t->setAddress(address);
    t->setTargetid(static_cast<int32_t>(count("SELECT max([Target Id]) FROM Cibles")));
    t->setName(name);
    t->setDatas(std::make_shared<DataItems>());
    t->setRequests(std::make_shared<RequestItems>());
    return t;
  }
  db::Connection& conn() { return *db_.connection(); }
  std::shared_ptr<db::Connection> sharedConn() { return db_.connection(); }
  std::string tid() const { return std::to_string(target->targetid()); }
  // A data item of the target, stored in Données unless told otherwise.
  std::shared_ptr<DataItem> addData(const std::string& name, bool store = true) {
    auto d = target->datas()->Add(0);
    d->setParent(target);
    d->setDataname(name);
    if (store) d->dbInsert(conn());
    return d;
  }
  // A request of the target (in memory only).
  std::shared_ptr<RequestItem> addRequest(const std::string& name) {
    auto r = target->Requests()->Add(0);
    r->setParent(target);
    r->setRequestName(name);
    return r;
  }
  // The first field of the first row (Null when there is none).
  db::Value value(const std::string& sql) {
    auto rs = conn().execute(sql);
    return rs->eof() ? db::Value() : rs->field(0);
  }
  int64_t count(const std::string& sql) {
    auto v = value(sql);
    return v.isNull() ? 0 : v.toInt64();
  }
  // A category, a screen and a display of the target showing the stored
  // position (request, data); returns the display id.
  int64_t addDisplayOf(const std::string& request, const std::string& data) {
    if (count("SELECT count(*) FROM Ecrans") == 0) {
      conn().execute("INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + tid() + ", 'Mesures')");
      conn().execute("INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (" + tid() +
                     ", (SELECT max([Category Id]) FROM Catégories), 'Ecran')");
    }
    const std::string screen = "(SELECT max([Screen Id]) FROM Ecrans)";
    conn().execute("INSERT INTO Affichages ([Target Id], [Screen Id], [Type Affich]) VALUES (" + tid() + ", " +
                   screen + ", 3)");
    const int64_t id = count("SELECT max([Display Id]) FROM Affichages");
    conn().execute("INSERT INTO Données_Aff ([Target Id], [Display Id], [Type Affich], [Data Name], [Request Name]) "
                   "VALUES (" + tid() + ", " + std::to_string(id) + ", 3, " + db::sql::quote(data) + ", " +
                   db::sql::quote(request) + ")");
    return id;
  }
  std::shared_ptr<TargetItem> target;
 private:
  TempDb db_;
};

// The stored properties of a request, and of a data position, on one line.
inline std::string describe(const RequestItem& r) {
  auto frame = [](const std::shared_ptr<ByteFrame>& f) {
    return !f ? std::string("-") : f->storedValue().isNull() ? std::string("null") : "'" + f->text() + "'";
  };
  std::string flags;
  for (bool b : {r.ManuelSend(), r.LgVariable(), r.AccesTous(), r.AccesUsine(), r.AccesApresVente(), r.AccesEtudes(),
                 r.AccesConstructeur(), r.DossierMaintenabilite()})
    flags += b ? '1' : '0';
  return r.requestName() + "|" + frame(r.RequestBytes()) + "|" + frame(r.ReplyBytes()) + "|" +
         std::to_string(r.LengthDatas()) + "|" + std::to_string(r.ShiftBytesCount()) + "|" + flags + "|" +
         r.Commentaire();
}
inline std::string describe(const DataPositionItem& p) {
  return p.dataname() + "|" + std::to_string(p.StartOctet()) + "|" + std::to_string(p.StartBit()) + "|" +
         std::to_string(p.LittleEndian()) + std::to_string(p.param()) + std::to_string(p.reference());
}

// A position of `r` showing the data named `data`.
inline std::shared_ptr<DataPositionItem> addPosition(const std::shared_ptr<RequestItem>& r, const std::string& data,
                                                     int32_t octet = 1, int32_t bit = 0, bool little = false,
                                                     bool param = false, bool ref = false) {
  auto p = r->DataPositions()->Add();
  p->setParent(r);
  p->setDataname(data);
  p->setStartOctet(octet);
  p->setStartBit(bit);
  p->setLittleEndian(little);
  p->setParam(param);
  p->setReference(ref);
  return p;
}

// The one message box an import shows for a data name over 70 characters.
inline ::testing::AssertionResult longNameBoxShown(const std::string& name) {
  auto boxes = defaultHost()->messageBoxes();
  const std::string text =
      "Data name '" + name + "' too long , MDB database max length = 70 characters\r\nname is truncated to 70 car";
  if (boxes.size() == 1 && boxes[0].title == "Builder importation" && boxes[0].icon == MessageIcon::Exclamation &&
      boxes[0].text == text)
    return ::testing::AssertionSuccess();
  auto failure = ::testing::AssertionFailure() << boxes.size() << " boxes";
  for (const auto& b : boxes) failure << "\n" << b.title << ": " << b.text;
  return failure;
}

}  // namespace kavrel::test
