#include "kavrel/requests/data_position_items.h"

#include <gtest/gtest.h>

#include "requests/position_support.h"
#include "support/engines.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "support/request_fixture.h"

namespace kavrel {
namespace {

using test::addPosition;
using test::describe;

class DataPositionDb : public ::kavrel::test::EngineTest {};

TEST_P(DataPositionDb, LinkToDataReferenceUpdateAndDelete) {
  test::StoredTarget t;
  auto d = t.addData("Temp d'eau");
  auto p = addPosition(t.addRequest("Lire"), "TEMP D'EAU");
  EXPECT_EQ(p->Data(), d);
  EXPECT_EQ(p->dataname(), "Temp d'eau");  // the linked data's name
  p->setDataname("Inconnue");
  EXPECT_EQ(p->Data(), nullptr);
  EXPECT_EQ(p->dataname(), "Inconnue");  // kept, not lost
  std::vector<std::shared_ptr<DataPositionItem>> placed;
  for (const char* name : {"Req 'A'", "Req B"}) {
    auto r = t.addRequest(name);
    r->dbInsert(t.conn());
    placed.push_back(addPosition(r, "Temp d'eau", 4));
    placed.back()->dbInsert(t.conn());
  }
  auto a = placed[0], b = placed[1];
  auto rows = [&](const std::string& request) {
    return t.count("SELECT count(*) FROM [Emplacement Donnée] WHERE [Request Name]=" + db::sql::quote(request));
  };
  // One reference position per data item, which cannot go while it is one.
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
  auto read = r->DataPositions()->Item(1);
  EXPECT_EQ(describe(*read), "Temp d'eau|4|0|001");
  EXPECT_EQ(read->Data(), d);
  EXPECT_EQ(d->DataPositions()->Item(1), read);
  r->clear();
  EXPECT_EQ(d->DataPositions()->Count(), 0);
  a->dbDeleteReference(t.conn());
  EXPECT_FALSE(lastError().pending() || a->reference());
  EXPECT_EQ(t.count("SELECT count(*) FROM Donnée_Ref"), 0);
  a->setStartOctet(7);
  a->setStartBit(3);
  a->setLittleEndian(true);
  a->setParam(true);
  a->dbUpdate(t.conn());
  EXPECT_EQ(t.count("SELECT StartOctet*1000 + StartBit*100 + -[Little Endian]*10 + -Param "
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
  EXPECT_TRUE(test::throws([&] { orphan.dbIsReference(t.conn()); }, 100,
                           "DataPositionItem.dbIsReference error : parent not defined"));
  EXPECT_THROW(orphan.dbDelete(t.conn()), Error);
}

// ---------------------------------------------------------------- XML

TEST(DataPositionXml, EndianAgainstTheTargetDefaultAndLongOrMissingNames) {
  test::StoredTarget t;
  t.addData("Vitesse");
  t.addData("Couple");
  auto r = t.addRequest("Lire");
  addPosition(r, "Vitesse");
  addPosition(r, "Couple", 1, 5, true, true, true);
  xml::Document doc;
  r->DataPositions()->createXMLnode(doc, doc.appendElement("Request"));
  EXPECT_EQ(doc.toString(),
            "<Request><DataItem Name=\"Vitesse\" FirstByte=\"1\"/>\n"
            "<DataItem Name=\"Couple\" Ref=\"1\" FirstByte=\"1\" BitOffset=\"5\" Endian=\"Little\" Param=\"1\"/>\n"
            "</Request>\n");
  // Into a target whose default is little-endian: the position written
  // without Endian takes that default; Param is read by the typed reader
  // only; a name without data there is kept.
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
  EXPECT_EQ(describe(*p1) + " " + describe(*r2->DataPositions()->Item(2)), "Vitesse|1|0|100 Couple|1|5|101");
  // From that target, a big-endian position says so.
  xml::Document out;
  xml::Node e = out.appendElement("DataItem");
  p1->setLittleEndian(false);
  p1->createXMLnode(out, e);
  EXPECT_EQ(e.attribute("Endian").value_or(""), "Big");
  r2->clear();
  const std::string longName = "Température " + std::string(70, 'x');
  ASSERT_TRUE(in.loadString("<Sent><DataItem Name=\"" + longName +
                            "\" FirstByte=\"2\"/><DataItem FirstByte=\"3\"/></Sent>"));
  auto r3 = std::make_shared<RequestItem>();
  r3->DataPositions()->loadXmlType(in, in.documentElement(), r3, true);
  EXPECT_EQ(lastError().description, "DataPositionItem.loadXml error : Dataname missing");
  ASSERT_EQ(r3->DataPositions()->Count(), 2);
  EXPECT_EQ(describe(*r3->DataPositions()->Item(1)), longName.substr(0, 71) + "|2|0|010");  // "é" is two bytes
  EXPECT_TRUE(test::longNameBoxShown(longName));
  EXPECT_EQ(r3->DataPositions()->Item(2)->StartOctet(), 3);
}

// ---------------------------------------------------------------- older layout

class OlderLayoutPlacement : public ::kavrel::test::EngineTest {};

TEST_P(OlderLayoutPlacement, WorkedExamples) {
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
    auto p = detail::olderLayoutPlacement(c.start, c.length, c.mask, c.fort, c.faible, c.numeric);
    EXPECT_EQ(std::vector({p.StartOctet, p.StartBit, p.bitCount}), std::vector({c.octet, c.bit, c.bits}));
    if (c.numeric && c.length) {
      EXPECT_EQ((p.StartBit + p.bitCount + 7) / 8, *c.length);  // the byte count comes back
    }
  }
}

class OlderLayout : public ::kavrel::test::EngineTest {};

TEST_P(OlderLayout, RequestsAndPositionsAndTheWarningForMissingData) {
  test::OlderLayoutDb old;
  db::Connection& conn = *old.conn;
  conn.execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (122, 'ABS')");
  conn.execute("INSERT INTO Requêtes ([Request Id], Address, [Target Id], [Request Name], [Request Bytes], "
               "[Length Datas], [Manual Send]) VALUES (1, 122, 1, 'Lire ''A''', '21 01', 6, -1), "
               "(2, 122, 1, 'Ecrire', '3B 01', NULL, NULL)");
  // Request, name, numeric, param, start, length, mask, high bit, low bit, little endian.
  for (const char* row : {"1, 'Régime', -1, 0, 3, 2, NULL, 7, 0, -1", "1, 'Etat', -1, 0, 5, 1, NULL, 5, 3, 0",
                          "1, 'Masqué', -1, 0, 6, 1, 56, NULL, NULL, 0", "1, 'VIN', 0, 0, 7, 4, NULL, 7, 2, 0",
                          "1, 'Perdue', -1, 0, 8, 1, NULL, 7, 0, 0", "1, 'Vide', -1, 0, 9, 0, NULL, 7, 0, 0",
                          "2, 'Etat', -1, -1, 2, 1, NULL, 5, 3, 0"})
    conn.execute("INSERT INTO Données (Address, [Target Id], [Request Id], [Data Name], Numérique, Param, Start, "
                 "Length, Masque, NumBitFort, NumBitFaible, [Little Endian]) VALUES (122, 1, " + std::string(row) + ")");
  // Without a session the warning goes to the event log; with one, it is a
  // warning of the session.
  for (bool withSession : {false, true}) {
    SCOPED_TRACE(withSession);
    defaultHost()->clear();
    auto session = KavrelDatabase::create();
    std::vector<std::string> warnings;
    session->WarningInfo.subscribe([&](const std::string&, const std::string& msg) { warnings.push_back(msg); });
    auto target = TargetItem::create();
    if (withSession) target->setParent(session);
    target->setAddress(122);
    target->setTargetid(1);
    target->setDatas(std::make_shared<DataItems>());
    target->datas()->dbReadKVR(conn, target);
    for (int32_t i = target->datas()->Count(); i >= 1; --i)
      if (target->datas()->Item(i)->dataname() == "Perdue") target->datas()->Remove(i);
    warnings.clear();
    target->setRequests(std::make_shared<RequestItems>());
    target->Requests()->dbReadKVR(conn, target);
    auto& reqs = *target->Requests();
    ASSERT_EQ(reqs.Count(), 2);
    auto lire = reqs.Item(2);
    EXPECT_EQ(describe(*lire), "Lire 'A'|'21 01'|-|6|0|10111110|");
    // Ordered by name; the row of length 0 gives nothing.
    std::string positions;
    for (const auto& p : *lire->DataPositions()) {
      positions += describe(*p) + (p->Data() ? "+" + std::to_string(p->Data()->NumberBits()) : "") + " ";
      if (p->Data()) {
        EXPECT_EQ(p->Data()->DataPositions()->Item(1), p);
      }
    }
    EXPECT_EQ(positions, "Etat|5|3|000+3 Masqué|6|3|000+3 Perdue|8|0|000 Régime|3|0|100+16 VIN|7|0|000+32 ");
    // The written "Etat" is the data item the data reader renamed.
    auto ecrire = reqs.Item(1)->DataPositions()->Item(1);
    ASSERT_TRUE(ecrire->Data());
    EXPECT_EQ(describe(*ecrire), "etat - ecriture|2|3|010");
    auto events = defaultHost()->events();
    if (withSession) {
      ASSERT_EQ(warnings.size(), 1u);
      EXPECT_EQ(warnings[0].rfind("Data non trouvée : ", 0), 0u);
      EXPECT_TRUE(test::contains(warnings[0], "Perdue"));
      EXPECT_TRUE(events.empty());
      // The result tells whether every position found its data.
      EXPECT_FALSE(std::make_shared<DataPositionItems>()->dbReadKVR(conn, lire));
      EXPECT_TRUE(std::make_shared<DataPositionItems>()->dbReadKVR(conn, reqs.Item(1)));
    } else {
      ASSERT_EQ(events.size(), 1u);
      EXPECT_EQ(events[0].text.rfind("Data non trouvée : Perdue", 0), 0u) << events[0].text;
    }
    target->clear();
  }
}

KAVREL_ON_ENGINES(DataPositionDb);
KAVREL_ON_ENGINES(OlderLayout);
KAVREL_ON_ENGINES(OlderLayoutPlacement);

}  // namespace
}  // namespace kavrel
