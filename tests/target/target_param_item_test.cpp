#include "kavrel/target/target_param_item.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/older_layout.h"
#include "support/temp_db.h"
#include "target/target_fixture.h"

namespace kavrel {
namespace {

struct EventCounter {
  explicit EventCounter(TargetParamItem& p) {
    p.ValueChanged.subscribe([this] { ++count; });
  }
  int count = 0;
};

TEST(TargetParamItemSetters, EachChangingSetterRaisesOnceAndEqualValuesRaiseNothing) {
  using Set = std::function<void(TargetParamItem&)>;
  struct Case {
    const char* name;
    Set change;
  };
  const std::vector<Case> cases = {
      {"initMode", [](TargetParamItem& p) { p.setInitMode(0); }},
      {"multiPoint", [](TargetParamItem& p) { p.setMultiPoint(false); }},
      {"key1", [](TargetParamItem& p) { p.setKey1(1); }},
      {"key2", [](TargetParamItem& p) { p.setKey2(2); }},
      {"BaudRate", [](TargetParamItem& p) { p.setBaudRate(9600); }},
      {"InterByteDelay", [](TargetParamItem& p) { p.setInterByteDelay(1); }},
      {"KW2Delay", [](TargetParamItem& p) { p.setKW2Delay(26); }},
      {"FirstRequestDelay", [](TargetParamItem& p) { p.setFirstRequestDelay(21); }},
      {"ReplyToRequestDelay", [](TargetParamItem& p) { p.setReplyToRequestDelay(6); }},
      {"TesterPresentDelay", [](TargetParamItem& p) { p.setTesterPresentDelay(2000); }},
      {"KW2Timeout", [](TargetParamItem& p) { p.setKW2Timeout(301); }},
      {"RequestToReplyTimeout", [](TargetParamItem& p) { p.setRequestToReplyTimeout(302); }},
      {"ErrorDelay", [](TargetParamItem& p) { p.setErrorDelay(303); }},
      {"LittleEndian", [](TargetParamItem& p) { p.setLittleEndian(true); }},
      {"Reprogrammable", [](TargetParamItem& p) { p.setReprogrammable("Flash"); }},
      {"DateOfficialisation", [](TargetParamItem& p) { p.setDateOfficialisation("2003-05-01"); }},
      {"Comment", [](TargetParamItem& p) { p.setComment("note"); }},
      {"TypePanne", [](TargetParamItem& p) { p.setTypePanne("Pannes codées"); }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TargetParamItem p;
    EventCounter events(p);
    c.change(p);
    EXPECT_EQ(events.count, 1);
    EXPECT_TRUE(p.isChanged());
    c.change(p);  // the same value again
    EXPECT_EQ(events.count, 1);
  }
}

TEST(TargetParamItemSetters, DefaultsAndQuietSetters) {
  TargetParamItem p;
  EventCounter events(p);
  p.setBaudRate(10400);  // already the default
  p.setInitMode(2);
  p.setTypePanne("Ne contient pas de pannes");
  EXPECT_EQ(events.count, 0);
  EXPECT_FALSE(p.isChanged());

  p.setCanXId(5);
  p.setCanRId(6);
  EXPECT_EQ(events.count, 0);
  EXPECT_FALSE(p.isChanged());

  // The failure id marks the object changed but raises no event.
  p.setTypePanneId(4);
  EXPECT_EQ(events.count, 0);
  EXPECT_TRUE(p.isChanged());
  EXPECT_EQ(p.TypePanneId(), 4);
  EXPECT_EQ(p.TypePanne(), "Ne contient pas de pannes");  // no session: label unchanged
}

TEST(TargetParamItemSetters, FailureTypeFollowsTheSessionCatalogue) {
  test::SessionDb s;
  auto t = s.session->NewTarget();
  auto p = t->Parametres();
  p->setTypePanneId(3);
  EXPECT_EQ(p->TypePanne(), "Pannes codées");
  p->setTypePanne("Ne contient pas de pannes");
  EXPECT_EQ(p->TypePanneId(), 0);
  p->setTypePanne("unknown label");  // not in the catalogue: id kept
  EXPECT_EQ(p->TypePanneId(), 0);
  EXPECT_FALSE(lastError().pending());
}

TEST(TargetParamItemDefaults, IsDefaultValueAndSetDefaultValue) {
  TargetParamItem p;
  ParamValue def;
  for (int i = p_initMode; i <= p_Reprogrammable; ++i) {
    SCOPED_TRACE(i);
    EXPECT_TRUE(p.isDefaultValue(static_cast<targetParameter>(i), def));
    EXPECT_FALSE(std::holds_alternative<std::monostate>(def));
  }
  EXPECT_FALSE(p.isDefaultValue(p_DateOfficialisation, def));
  EXPECT_TRUE(std::holds_alternative<std::monostate>(def));

  ASSERT_TRUE(p.isDefaultValue(p_key1, def));
  EXPECT_EQ(std::get<int32_t>(def), 208);
  ASSERT_TRUE(p.isDefaultValue(p_multiPoint, def));
  EXPECT_EQ(std::get<bool>(def), true);
  ASSERT_TRUE(p.isDefaultValue(p_Reprogrammable, def));
  EXPECT_EQ(std::get<std::string>(def), "");

  p.setBaudRate(9600);
  EXPECT_FALSE(p.isDefaultValue(p_BaudRate, def));
  EXPECT_EQ(std::get<int32_t>(def), 10400);

  EventCounter events(p);
  p.SetDefaultValue(p_BaudRate);
  EXPECT_EQ(p.BaudRate(), 10400);
  EXPECT_EQ(events.count, 1);
  p.SetDefaultValue(p_BaudRate);
  EXPECT_EQ(events.count, 1);

  p.setDateOfficialisation("2003-05-01");
  p.SetDefaultValue(p_DateOfficialisation);
  EXPECT_EQ(p.DateOfficialisation(), "");
  EXPECT_EQ(events.count, 3);
}

// ---- database

class TargetParamDb : public ::testing::Test {
 protected:
  void SetUp() override {
    target = s.session->NewTarget();
    s.conn->execute("INSERT INTO Cibles (Address,[Target Name],Langue,[Référence]) VALUES (122,'ABS 5','Français',-1)");
    target->setAddress(122);
    target->setTargetid(static_cast<int32_t>(s.count("SELECT max([Target Id]) FROM Cibles")));
  }
  test::SessionDb s;
  std::shared_ptr<TargetItem> target;
};

TEST_F(TargetParamDb, InsertThenReadRestoresEveryColumn) {
  auto p = target->Parametres();
  p->setInitMode(1);
  p->setMultiPoint(false);
  p->setKey1(0x8A);
  p->setKey2(0x8B);
  p->setBaudRate(9600);
  p->setInterByteDelay(1);
  p->setKW2Delay(31);
  p->setFirstRequestDelay(41);
  p->setReplyToRequestDelay(51);
  p->setTesterPresentDelay(2001);
  p->setKW2Timeout(311);
  p->setRequestToReplyTimeout(321);
  p->setErrorDelay(331);
  p->setLittleEndian(true);
  p->setReprogrammable("  Flash  ");
  p->setDateOfficialisation(" 2003-05-01 ");
  p->setComment("  " + std::string(300, 'c'));
  p->setTypePanneId(3);
  p->dbInsert(*s.conn);
  EXPECT_FALSE(p->isChanged());

  TargetParamItem r;
  r.DbRead(*s.conn, target);
  EXPECT_FALSE(r.isChanged());
  EXPECT_EQ(r.parent(), target);
  EXPECT_EQ(r.initMode(), 1);
  EXPECT_FALSE(r.multiPoint());
  EXPECT_EQ(r.key1(), 0x8A);
  EXPECT_EQ(r.key2(), 0x8B);
  EXPECT_EQ(r.BaudRate(), 9600);
  EXPECT_EQ(r.InterByteDelay(), 1);
  EXPECT_EQ(r.KW2Delay(), 31);
  EXPECT_EQ(r.FirstRequestDelay(), 41);
  EXPECT_EQ(r.ReplyToRequestDelay(), 51);
  EXPECT_EQ(r.TesterPresentDelay(), 2001);
  EXPECT_EQ(r.KW2Timeout(), 311);
  EXPECT_EQ(r.RequestToReplyTimeout(), 321);
  EXPECT_EQ(r.ErrorDelay(), 331);
  EXPECT_TRUE(r.LittleEndian());
  EXPECT_EQ(r.Reprogrammable(), "Flash");
  EXPECT_EQ(r.DateOfficialisation(), " 2003-05-01 ");  // neither trimmed nor cut
  EXPECT_EQ(r.Comment(), std::string(255, 'c'));
  EXPECT_EQ(r.TypePanneId(), 3);
  EXPECT_EQ(r.TypePanne(), "Pannes codées");
}

TEST_F(TargetParamDb, BlankReprogrammingIsStoredAsNull) {
  auto p = target->Parametres();
  p->setReprogrammable("   ");
  p->dbInsert(*s.conn);
  EXPECT_EQ(s.count("SELECT count(*) FROM [Paramètres UCE] WHERE Reprogrammable IS NULL AND "
                    "[Date Officialisation] IS NULL"),
            1);
  TargetParamItem r;
  r.DbRead(*s.conn, target);
  EXPECT_EQ(r.Reprogrammable(), "");
}

TEST_F(TargetParamDb, UpdateRewritesTheRowAndNeedsIt) {
  auto p = target->Parametres();
  try {
    p->dbUpdate(*s.conn);
    FAIL() << "no row to update";
  } catch (const Error& e) {
    EXPECT_EQ(e.number(), 100);
    EXPECT_EQ(e.description(), "Target parameters not found");
  }
  EXPECT_EQ(s.count("SELECT count(*) FROM [Paramètres UCE]"), 0);

  p->dbInsert(*s.conn);
  p->setBaudRate(500000);
  p->dbUpdate(*s.conn);
  EXPECT_FALSE(p->isChanged());
  EXPECT_EQ(s.count("SELECT [Baud Rate] FROM [Paramètres UCE]"), 500000);

  TargetParamItem orphan;
  try {
    orphan.dbUpdate(*s.conn);
    FAIL() << "no parent";
  } catch (const Error& e) {
    EXPECT_EQ(e.number(), 100);
    EXPECT_EQ(e.description(), "Target not defined");
    EXPECT_EQ(e.source(), "TargetParamItem.dbUpdate");
  }
}

TEST_F(TargetParamDb, ReadOfMissingRowOrUnknownFailureTypeIsNotFound) {
  auto p = target->Parametres();
  auto expectNotFound = [&] {
    try {
      p->DbRead(*s.conn, target);
      FAIL() << "not found expected";
    } catch (const Error& e) {
      EXPECT_EQ(e.number(), 99);
      EXPECT_EQ(e.source(), "TargetParamItem.DbRead");
      EXPECT_EQ(e.description(), "Parameters not found");
    }
    EXPECT_TRUE(p->isChanged());
  };
  expectNotFound();
  // A row whose failure type is missing from the catalogue.
  p->setTypePanneId(42);
  p->dbInsert(*s.conn);
  expectNotFound();
}

TEST(TargetParamOlderLayout, ReadsTheOlderColumnsOnly) {
  test::TempDir dir;
  const std::string path = dir.file("old.sqlite");
  test::createOlderLayoutDb(path);
  auto conn = db::openConnection(path);
  conn->execute("INSERT INTO Cibles (Address,[Target Name]) VALUES (122,'ABS')");
  conn->execute(
      "INSERT INTO [Paramètres UCE] ([Ecu Id],Comment,[Init Mode],Multipoint,Key1,Key2,[Baud Rate],InterByteDelay,"
      "KW2Delay,FirstRequestDelay,ReplyToRequestDelay,TesterPresentDelay,KW2Timeout,RequestToReplyTimeout,"
      "ErrorDelay,[Little Endian]) VALUES (1,'old',0,0,1,2,4800,3,4,5,6,7,8,9,10,-1)");
  auto t = TargetItem::create();
  t->setTargetid(1);
  auto p = t->Parametres();
  p->setReprogrammable("kept");
  p->dbReadKVR(*conn, t);
  EXPECT_EQ(p->Comment(), "old");
  EXPECT_EQ(p->initMode(), 0);
  EXPECT_FALSE(p->multiPoint());
  EXPECT_EQ(p->BaudRate(), 4800);
  EXPECT_EQ(p->ErrorDelay(), 10);
  EXPECT_TRUE(p->LittleEndian());
  EXPECT_EQ(p->Reprogrammable(), "kept");
  EXPECT_EQ(p->TypePanne(), "Ne contient pas de pannes");

  t->setTargetid(2);  // no row: the error reaches the caller
  EXPECT_THROW(p->dbReadKVR(*conn, t), Error);
  conn->close();
}

// ---- XML

// Writes the parameters under a target element and reads them back into a
// fresh object; returns the text of both writings.
struct XmlRoundTrip {
  std::string first;
  std::string second;
};

XmlRoundTrip roundTrip(const std::shared_ptr<TargetItem>& source, const std::shared_ptr<TargetItem>& dest) {
  xml::Document doc;
  xml::Node el = doc.appendElement("kvr:Target");
  source->Parametres()->createXMLnode(doc, el);
  el.appendElement("Requests").setAttribute("Endian", source->Parametres()->LittleEndian() ? "Little" : "Big");
  XmlRoundTrip r;
  r.first = doc.toString();

  xml::Document in;
  EXPECT_TRUE(in.loadString(r.first));
  dest->Parametres()->loadXml(in, in.documentElement());

  xml::Document again;
  xml::Node el2 = again.appendElement("kvr:Target");
  dest->Parametres()->createXMLnode(again, el2);
  el2.appendElement("Requests").setAttribute("Endian", dest->Parametres()->LittleEndian() ? "Little" : "Big");
  r.second = again.toString();
  return r;
}

void setDistinctValues(TargetParamItem& p, int32_t mode) {
  p.setInitMode(mode);
  p.setMultiPoint(false);
  p.setKey1(0x11);
  p.setKey2(0x22);
  p.setBaudRate(19200);
  p.setInterByteDelay(2);
  p.setKW2Delay(33);
  p.setFirstRequestDelay(44);
  p.setReplyToRequestDelay(55);
  p.setTesterPresentDelay(1500);
  p.setKW2Timeout(333);
  p.setRequestToReplyTimeout(444);
  p.setErrorDelay(555);
  p.setLittleEndian(true);
  p.setComment("line <one> & two");
  p.setDateOfficialisation("2003-05-01");
  p.setReprogrammable("Flash");
}

TEST(TargetParamXml, EveryLineKindReadsBackAsWritten) {
  test::SessionDb s;
  for (int32_t mode : {0, 1, 2, 3, 255, 7, 9}) {
    SCOPED_TRACE(mode);
    auto source = TargetItem::create();
    source->setParent(s.session);
    source->setAddress(65);
    setDistinctValues(*source->Parametres(), mode);
    source->Parametres()->setTypePanneId(3);
    source->Parametres()->setCanXId(0x7E0);
    source->Parametres()->setCanRId(kavrel::test::kExtendedId);

    auto dest = TargetItem::create();
    dest->setParent(s.session);
    dest->setAddress(65);
    XmlRoundTrip r = roundTrip(source, dest);
    EXPECT_EQ(r.first, r.second);

    auto& p = *dest->Parametres();
    EXPECT_EQ(p.initMode(), mode);
    EXPECT_EQ(p.BaudRate(), 19200);
    EXPECT_TRUE(p.LittleEndian());
    EXPECT_EQ(p.Comment(), "line <one> & two");
    EXPECT_EQ(p.DateOfficialisation(), "2003-05-01");
    EXPECT_EQ(p.Reprogrammable(), "Flash");
    EXPECT_EQ(p.TypePanneId(), 3);
    EXPECT_EQ(p.TypePanne(), "Pannes codées");
    // A plain K line carries no multipoint flag.
    if (mode != 0) {
      EXPECT_FALSE(p.multiPoint());
    }
    if (mode != 3 && mode != 255) {
      EXPECT_EQ(p.key1(), 0x11);
      EXPECT_EQ(p.key2(), 0x22);
      EXPECT_EQ(p.InterByteDelay(), 2);
      EXPECT_EQ(p.TesterPresentDelay(), 1500);
      EXPECT_EQ(p.ErrorDelay(), 555);
    }
    if (mode == 1 || mode == 7 || mode == 9) {
      EXPECT_EQ(p.KW2Delay(), 33);
    }
    if (mode != 2 && mode != 3 && mode != 255) {
      EXPECT_EQ(p.FirstRequestDelay(), 44);
    }
  }
}

TEST(TargetParamXml, LineElementsOfEachMode) {
  test::SessionDb s;
  auto t = TargetItem::create();
  t->setParent(s.session);
  t->setAddress(65);
  auto p = t->Parametres();
  auto write = [&] {
    xml::Document doc;
    xml::Node el = doc.appendElement("kvr:Target");
    p->createXMLnode(doc, el);
    return doc.toString();
  };
  p->setInitMode(0);
  std::string k0 = write();
  EXPECT_NE(k0.find("<K BaudRate=\"10400\">\n<ISO8>\n<L/>\n<KW1 Value=\"208\""), std::string::npos) << k0;
  p->setInitMode(1);
  std::string k1 = write();
  EXPECT_NE(k1.find("<KWP Multipoint=\"1\">\n<ISO8>"), std::string::npos) << k1;
  EXPECT_NE(k1.find("</ISO8>\n<KW2_ Delay=\"25\"/>\n</KWP>"), std::string::npos) << k1;
  p->setInitMode(2);
  EXPECT_NE(write().find("<KWP Multipoint=\"1\">\n<FastInit>\n<KW1"), std::string::npos);
  p->setInitMode(7);
  p->setMultiPoint(false);
  EXPECT_NE(write().find("<Protocol Name=\"VAN\" InitMode=\"7\" Multipoint=\"0\""), std::string::npos);

  // Mode 3: identifiers of the function at the target's address; extended
  // identifiers as their low 29 bits with Extended="1".
  p->setInitMode(3);
  std::string can = write();
  EXPECT_NE(can.find("<SendId>\n<CANId Value=\"417001744\" Extended=\"1\"/>\n</SendId>"), std::string::npos) << can;
  EXPECT_NE(can.find("<ReceiveId>\n<CANId Value=\"2016\"/>"), std::string::npos) << can;
  t->setAddress(122);  // a function without identifiers
  EXPECT_EQ(write().find("SendId"), std::string::npos);

  CanDescription d;
  xml::Document doc;
  ASSERT_TRUE(doc.loadString(can));
  ASSERT_TRUE(p->isCan(doc.documentElement(), d));
  EXPECT_EQ(d.initMode, 3);
  EXPECT_EQ(d.CanXId, kavrel::test::kExtendedId);
  EXPECT_EQ(d.CanRId, 2016);
  EXPECT_FALSE(d.multiPoint);
  ASSERT_TRUE(doc.loadString(k0));
  EXPECT_FALSE(p->isCan(doc.documentElement(), d));
  EXPECT_EQ(d.CanXId, -1);
}

TEST(TargetParamXml, MissingElementsGiveTheDefaults) {
  TargetParamItem p;
  setDistinctValues(p, 1);
  p.setTypePanneId(3);
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<kvr:Target><K><KWP/></K></kvr:Target>"));
  p.loadXml(doc, doc.documentElement());
  ParamValue def;
  for (int i = p_initMode; i <= p_Reprogrammable; ++i) EXPECT_TRUE(p.isDefaultValue(targetParameter(i), def)) << i;
  EXPECT_EQ(p.TypePanneId(), 0);
  EXPECT_EQ(p.TypePanne(), "Ne contient pas de pannes");
  EXPECT_EQ(p.Comment(), "");
  EXPECT_EQ(p.DateOfficialisation(), "");
}

}  // namespace
}  // namespace kavrel
