#include "kavrel/requests/data_position_items.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "requests/position_support.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "support/request_fixture.h"

namespace kavrel {
namespace {

using test::describe;

std::shared_ptr<DataPositionItem> newPosition(const std::shared_ptr<RequestItem>& r, const std::string& data) {
  auto p = r->DataPositions()->Add();
  p->setParent(r);
  p->setDataname(data);
  return p;
}

TEST(DataPositionTest, NewPositionAndItsLinkToData) {
  test::StoredTarget t;
  auto d = t.addData("Régime moteur");
  auto r = t.addRequest("Lire");
  auto p = newPosition(r, "RÉGIME MOTEUR");
  EXPECT_EQ(p->Data(), d);
  EXPECT_EQ(p->dataname(), "Régime moteur");  // the linked data's name
  p->setDataname("Inconnue");
  EXPECT_EQ(p->Data(), nullptr);
  EXPECT_EQ(p->dataname(), "Inconnue");  // kept, not lost
}

class PositionDbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    d = t.addData("Temp d'eau");
    for (const char* name : {"Req 'A'", "Req B"}) {
      auto r = t.addRequest(name);
      r->dbInsert(t.conn());
      auto p = newPosition(r, "Temp d'eau");
      p->setStartOctet(4);
      p->dbInsert(t.conn());
    }
    a = t.target->Requests()->Item(1)->DataPositions()->Item(1);
    b = t.target->Requests()->Item(2)->DataPositions()->Item(1);
  }
  int64_t rows(const std::string& request) {
    return t.count("SELECT count(*) FROM [Emplacement Donnée] WHERE [Request Name]=" + db::sql::quote(request));
  }

  test::StoredTarget t;
  std::shared_ptr<DataItem> d;
  std::shared_ptr<DataPositionItem> a, b;
};

TEST_F(PositionDbTest, ReferenceIsOnePositionPerData) {
  a->dbIsReference(t.conn());
  EXPECT_FALSE(a->reference());
  a->dbInsertReference(t.conn());
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  EXPECT_TRUE(a->reference());
  b->dbIsReference(t.conn());
  EXPECT_FALSE(b->reference());

  b->dbInsertReference(t.conn());
  EXPECT_TRUE(test::recorded(1, "This data is already defined as reference"));
  EXPECT_FALSE(b->reference());

  // The reference position cannot go while it is the reference.
  a->dbDelete(t.conn());
  EXPECT_TRUE(test::recorded(1, "The data is used, impossible to remove it."));

  // A request's read lists its positions under the request and their data;
  // clearing the request takes them off the data again.
  auto r = std::make_shared<RequestItem>();
  r->setParent(t.target);
  r->setRequestName("Req 'A'");
  d->setDataPositions(nullptr);
  r->DataPositions()->DbRead(t.conn(), r);
  ASSERT_EQ(r->DataPositions()->Count(), 1);
  auto p = r->DataPositions()->Item(1);
  EXPECT_EQ(describe(*p), "Temp d'eau|4|0|001");
  EXPECT_EQ(p->Data(), d);
  EXPECT_EQ(d->DataPositions()->Item(1), p);
  r->clear();
  EXPECT_EQ(d->DataPositions()->Count(), 0);

  a->dbDeleteReference(t.conn());
  EXPECT_FALSE(lastError().pending());
  EXPECT_FALSE(a->reference());
  EXPECT_EQ(t.count("SELECT count(*) FROM Donnée_Ref"), 0);

  DataPositionItem orphan;
  EXPECT_TRUE(test::throws([&] { orphan.dbIsReference(t.conn()); }, 100,
                           "DataPositionItem.dbIsReference error : parent not defined"));
}

TEST_F(PositionDbTest, UpdateAndDeleteOfTheRow) {
  a->setStartOctet(7);
  a->setStartBit(3);
  a->setLittleEndian(true);
  a->setParam(true);
  a->dbUpdate(t.conn());
  EXPECT_EQ(t.count("SELECT StartOctet*1000 + StartBit*100 + ([Little Endian]=-1)*10 + (Param=-1) "
                    "FROM [Emplacement Donnée] WHERE [Request Name]='Req ''A'''"),
            7311);
  EXPECT_EQ(rows("Req B"), 1);

  t.addDisplayOf("Req 'A'", "Temp d'eau");
  a->dbDelete(t.conn());  // shown by a display
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(rows("Req 'A'"), 1);

  b->dbDelete(t.conn());
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(rows("Req B"), 0);

  DataPositionItem orphan;
  EXPECT_THROW(orphan.dbDelete(t.conn()), Error);
}

// ---------------------------------------------------------------- XML

TEST(DataPositionXmlTest, EndianAgainstTheTargetDefault) {
  test::StoredTarget t;
  t.addData("Vitesse");
  t.addData("Couple");
  auto r = t.addRequest("Lire");
  auto big = newPosition(r, "Vitesse");
  auto little = newPosition(r, "Couple");
  little->setLittleEndian(true);
  little->setStartBit(5);
  little->setParam(true);
  little->setReference(true);

  xml::Document doc;
  r->DataPositions()->createXMLnode(doc, doc.appendElement("Request"));
  EXPECT_EQ(doc.toString(),
            "<Request><DataItem Name=\"Vitesse\" FirstByte=\"1\"/>\n"
            "<DataItem Name=\"Couple\" Ref=\"1\" FirstByte=\"1\" BitOffset=\"5\" Endian=\"Little\" Param=\"1\"/>\n"
            "</Request>\n");

  // Into a target whose default is little-endian: the position written
  // without Endian takes that default.
  auto other = t.newTarget(123, "ESP");
  other->Parametres()->setLittleEndian(true);
  auto r2 = std::make_shared<RequestItem>();
  r2->setParent(other);
  xml::Document in;
  ASSERT_TRUE(in.loadString(doc.toString()));
  r2->DataPositions()->loadXml(in, in.documentElement(), r2);
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(r2->DataPositions()->Count(), 2);
  auto p1 = r2->DataPositions()->Item(1);
  // Param is read by the typed reader only; a name without data there is kept.
  EXPECT_EQ(describe(*p1), "Vitesse|1|0|100");
  EXPECT_EQ(describe(*r2->DataPositions()->Item(2)), "Couple|1|5|101");

  // From that target, a big-endian position says so.
  xml::Document out;
  xml::Node e = out.appendElement("DataItem");
  p1->setLittleEndian(false);
  p1->createXMLnode(out, e);
  EXPECT_EQ(e.attribute("Endian").value_or(""), "Big");
  r2->clear();
}

TEST(DataPositionXmlTest, LongAndMissingNames) {
  const std::string longName = "Température " + std::string(70, 'x');
  xml::Document in;
  ASSERT_TRUE(in.loadString("<Sent><DataItem Name=\"" + longName +
                            "\" FirstByte=\"2\"/><DataItem FirstByte=\"3\"/></Sent>"));
  auto r = std::make_shared<RequestItem>();
  r->DataPositions()->loadXmlType(in, in.documentElement(), r, true);
  EXPECT_EQ(lastError().description, "DataPositionItem.loadXml error : Dataname missing");
  ASSERT_EQ(r->DataPositions()->Count(), 2);
  auto p = r->DataPositions()->Item(1);
  EXPECT_EQ(p->dataname(), longName.substr(0, 71));  // 70 characters, "é" is two bytes
  EXPECT_TRUE(p->param());
  EXPECT_TRUE(test::longNameBoxShown(longName));
  EXPECT_EQ(r->DataPositions()->Item(2)->StartOctet(), 3);
}

// ---------------------------------------------------------------- older layout

TEST(OlderLayoutPlacementTest, WorkedExamples) {
  using detail::olderLayoutPlacement;
  struct Case {
    std::optional<int32_t> start, length, mask, fort, faible;
    bool numeric;
    int32_t octet, bit, bits;
  } cases[] = {
      {3, 1, {}, 7, 0, true, 3, 0, 8},        // a whole byte
      {5, 1, {}, 5, 3, true, 5, 3, 3},        // bits 5..3 of byte 5
      {2, 2, {}, 7, 0, true, 2, 0, 16},       // a 16-bit word
      {2, 2, {}, 3, 4, true, 2, 4, 8},        // bits 7..4 of the low byte, 3..0 of the high one
      {6, 1, 0x38, {}, {}, true, 6, 3, 3},    // bits from the mask
      {6, 2, 0x0FF0, {}, {}, true, 6, 4, 8},  // a mask over two bytes
      {7, 4, {}, 7, 2, false, 7, 0, 32},      // byte strings start on a byte
      {{}, {}, {}, {}, {}, true, 1, 0, 8},    // all Null: one whole byte
  };
  for (const auto& c : cases) {
    auto p = olderLayoutPlacement(c.start, c.length, c.mask, c.fort, c.faible, c.numeric);
    EXPECT_EQ(p.StartOctet, c.octet);
    EXPECT_EQ(p.StartBit, c.bit);
    EXPECT_EQ(p.bitCount, c.bits);
    if (c.numeric && c.length) {
      EXPECT_EQ((p.StartBit + p.bitCount + 7) / 8, *c.length);  // the byte count comes back
    }
  }
}

class OlderLayoutTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (122, 'ABS')");
    conn->execute("INSERT INTO Requêtes ([Request Id], Address, [Target Id], [Request Name], [Request Bytes], "
                  "[Length Datas], [Manual Send]) VALUES (1, 122, 1, 'Lire ''A''', '21 01', 6, -1)");
    conn->execute("INSERT INTO Requêtes ([Request Id], Address, [Target Id], [Request Name], [Request Bytes]) "
                  "VALUES (2, 122, 1, 'Ecrire', '3B 01')");
    // Request, name, numeric, param, start, length, mask, high bit, low bit, little endian.
    row(1, "Régime", -1, 0, "3", "2", "NULL", "7", "0", -1);
    row(1, "Etat", -1, 0, "5", "1", "NULL", "5", "3", 0);
    row(1, "Masqué", -1, 0, "6", "1", "56", "NULL", "NULL", 0);
    row(1, "VIN", 0, 0, "7", "4", "NULL", "7", "2", 0);
    row(1, "Perdue", -1, 0, "8", "1", "NULL", "7", "0", 0);
    row(1, "Vide", -1, 0, "9", "0", "NULL", "7", "0", 0);
    row(2, "Etat", -1, -1, "2", "1", "NULL", "5", "3", 0);
    defaultHost()->clear();
  }
  void TearDown() override { target->clear(); }
  void row(int req, const std::string& name, int numeric, int param, const std::string& start,
           const std::string& length, const std::string& mask, const std::string& fort, const std::string& faible,
           int little) {
    conn->execute("INSERT INTO Données (Address, [Target Id], [Request Id], [Data Name], Numérique, Liste, Param, "
                  "Start, Length, Masque, NumBitFort, NumBitFaible, [Little Endian]) VALUES (122, 1, " +
                  std::to_string(req) + ", " + db::sql::quote(name) + ", " + std::to_string(numeric) + ", 0, " +
                  std::to_string(param) + ", " + start + ", " + length + ", " + mask + ", " + fort + ", " + faible +
                  ", " + std::to_string(little) + ")");
  }
  // The target's data read, less "Perdue"; then its requests.
  void read() {
    target->setAddress(122);
    target->setTargetid(1);
    target->setDatas(std::make_shared<DataItems>());
    target->datas()->dbReadKVR(*conn, target);
    for (int32_t i = 1; i <= target->datas()->Count(); ++i)
      if (target->datas()->Item(i)->dataname() == "Perdue") target->datas()->Remove(i);
    target->setRequests(std::make_shared<RequestItems>());
    target->Requests()->dbReadKVR(*conn, target);
  }
  std::shared_ptr<DataPositionItem> at(int32_t req, int32_t i) {
    return target->Requests()->Item(req)->DataPositions()->Item(i);
  }

  test::OlderLayoutDb old;
  std::shared_ptr<db::Connection> conn = old.conn;
  std::shared_ptr<TargetItem> target = TargetItem::create();
};

TEST_F(OlderLayoutTest, RequestsAndPositionsOfTheOlderLayout) {
  read();
  auto& reqs = *target->Requests();
  ASSERT_EQ(reqs.Count(), 2);
  auto lire = reqs.Item(2);
  EXPECT_EQ(describe(*lire), "Lire 'A'|'21 01'|-|6|0|10111110|");

  // Ordered by name; the row of length 0 gives nothing.
  ASSERT_EQ(lire->DataPositions()->Count(), 5);
  const char* expected[] = {"Etat|5|3|000", "Masqué|6|3|000", "Perdue|8|0|000", "Régime|3|0|100", "VIN|7|0|000"};
  for (int32_t i = 1; i <= 5; ++i) {
    auto p = at(2, i);
    EXPECT_EQ(describe(*p), expected[i - 1]);
    if (p->dataname() != "Perdue") {
      ASSERT_TRUE(p->Data()) << expected[i - 1];
      EXPECT_EQ(p->Data()->DataPositions()->Item(1), p);
    }
  }
  EXPECT_EQ(at(2, 1)->Data()->NumberBits(), 3);
  EXPECT_EQ(at(2, 4)->Data()->NumberBits(), 16);
  EXPECT_EQ(at(2, 3)->Data(), nullptr);

  // The written "Etat" is the data item the data reader renamed.
  auto ecrire = at(1, 1);
  EXPECT_TRUE(ecrire->param());
  ASSERT_TRUE(ecrire->Data());
  EXPECT_EQ(ecrire->dataname(), "etat - ecriture");

  // Without a session the warning goes to the event log.
  auto events = defaultHost()->events();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].text.rfind("Data non trouvée : Perdue", 0), 0u) << events[0].text;
}

TEST_F(OlderLayoutTest, MissingDataIsAWarningOfTheSession) {
  auto session = KavrelDatabase::create();
  std::vector<std::string> warnings;
  session->WarningInfo.subscribe([&](const std::string&, const std::string& msg) { warnings.push_back(msg); });
  target->setParent(session);
  read();
  std::vector<std::string> missing;
  for (const auto& w : warnings)
    if (w.rfind("Data non trouvée : ", 0) == 0) missing.push_back(w);
  ASSERT_EQ(missing.size(), 1u);
  EXPECT_NE(missing[0].find("Perdue"), std::string::npos);
  EXPECT_TRUE(defaultHost()->events().empty());

  // The result tells whether every position found its data.
  auto r = target->Requests()->Item(2);
  auto again = std::make_shared<DataPositionItems>();
  EXPECT_FALSE(again->dbReadKVR(*conn, r));
  EXPECT_TRUE(std::make_shared<DataPositionItems>()->dbReadKVR(*conn, target->Requests()->Item(1)));
  again->clear();
}

}  // namespace
}  // namespace kavrel
