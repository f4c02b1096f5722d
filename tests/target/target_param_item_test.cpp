#include "kavrel/target/target_param_item.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "target/target_fixture.h"

namespace kavrel {
namespace {

// Every stored parameter on one line (the CAN ids belong to the function).
std::string describe(const TargetParamItem& p) {
  std::string s;
  for (int32_t v : {p.initMode(), int32_t{p.multiPoint()}, p.key1(), p.key2(), p.BaudRate(), p.InterByteDelay(),
                    p.KW2Delay(), p.FirstRequestDelay(), p.ReplyToRequestDelay(), p.TesterPresentDelay(),
                    p.KW2Timeout(), p.RequestToReplyTimeout(), p.ErrorDelay(), int32_t{p.LittleEndian()},
                    p.TypePanneId()})
    s += std::to_string(v) + " ";
  return s + "|" + p.Reprogrammable() + "|" + p.DateOfficialisation() + "|" + p.Comment() + "|" + p.TypePanne();
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

struct EventCounter {
  explicit EventCounter(TargetParamItem& p) {
    p.ValueChanged.subscribe([this] { ++count; });
  }
  int count = 0;
};

TEST(TargetParamItemSetters, EachChangingSetterRaisesOnceAndEqualValuesRaiseNothing) {
  using Set = std::function<void(TargetParamItem&)>;
  const std::vector<std::pair<const char*, Set>> cases = {
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
  for (const auto& [name, change] : cases) {
    SCOPED_TRACE(name);
    TargetParamItem p;
    EventCounter events(p);
    change(p);
    EXPECT_EQ(events.count, 1);
    EXPECT_TRUE(p.isChanged());
    change(p);  // the same value again
    EXPECT_EQ(events.count, 1);
  }
}

TEST(TargetParamItemSetters, QuietSettersAndTheFailureTypeCatalogue) {
  TargetParamItem p;
  EventCounter events(p);
  p.setCanXId(5);
  p.setCanRId(6);
  EXPECT_FALSE(p.isChanged());
  // The failure id marks the object changed but raises no event; without a
  // session the label stays.
  p.setTypePanneId(4);
  EXPECT_EQ(events.count, 0);
  EXPECT_TRUE(p.isChanged());
  EXPECT_EQ(p.TypePanne(), "Ne contient pas de pannes");

  // With a session, id and label follow its catalogue.
  test::SessionDb s;
  auto q = s.session->NewTarget()->Parametres();
  q->setTypePanneId(3);
  EXPECT_EQ(q->TypePanne(), "Pannes codées");
  q->setTypePanne("Ne contient pas de pannes");
  EXPECT_EQ(q->TypePanneId(), 0);
  q->setTypePanne("unknown label");  // not in the catalogue: id kept
  EXPECT_EQ(q->TypePanneId(), 0);
  EXPECT_FALSE(lastError().pending());
}

TEST(TargetParamItemDefaults, IsDefaultValueAndSetDefaultValue) {
  TargetParamItem p;
  ParamValue def;
  for (int i = p_initMode; i <= p_Reprogrammable; ++i) {
    EXPECT_TRUE(p.isDefaultValue(static_cast<targetParameter>(i), def)) << i;
    EXPECT_FALSE(std::holds_alternative<std::monostate>(def)) << i;
  }
  EXPECT_FALSE(p.isDefaultValue(p_DateOfficialisation, def));
  EXPECT_TRUE(std::holds_alternative<std::monostate>(def));
  ASSERT_TRUE(p.isDefaultValue(p_multiPoint, def));
  EXPECT_EQ(std::get<bool>(def), true);
  ASSERT_TRUE(p.isDefaultValue(p_Reprogrammable, def));
  EXPECT_EQ(std::get<std::string>(def), "");

  p.setBaudRate(9600);
  EXPECT_FALSE(p.isDefaultValue(p_BaudRate, def));
  EXPECT_EQ(std::get<int32_t>(def), 10400);  // given even when the value differs
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
  setDistinctValues(*p, 1);
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
  EXPECT_EQ(r.TypePanne(), "Pannes codées");
  // Reprogramming and comment trimmed, the comment cut to 255 characters;
  // the date neither trimmed nor cut.
  p->setReprogrammable("Flash");
  p->setComment(std::string(255, 'c'));
  EXPECT_EQ(describe(r), describe(*p));

  // Blank reprogramming and date are stored as Null.
  s.conn->execute("INSERT INTO Cibles (Address,[Target Name]) VALUES (122,'ABS 6')");
  auto other = TargetItem::create();
  other->setParent(s.session);
  other->setTargetid(target->targetid() + 1);
  other->Parametres()->setReprogrammable("   ");
  other->Parametres()->dbInsert(*s.conn);
  EXPECT_EQ(s.count("SELECT count(*) FROM [Paramètres UCE] WHERE Reprogrammable IS NULL AND "
                    "[Date Officialisation] IS NULL"),
            1);
  r.DbRead(*s.conn, other);
  EXPECT_EQ(r.Reprogrammable(), "");
}

TEST_F(TargetParamDb, UpdateNeedsTheRowAndTheTarget) {
  auto p = target->Parametres();
  EXPECT_TRUE(test::throws([&] { p->dbUpdate(*s.conn); }, 100, "Target parameters not found"));
  EXPECT_EQ(s.count("SELECT count(*) FROM [Paramètres UCE]"), 0);
  p->dbInsert(*s.conn);
  p->setBaudRate(500000);
  p->dbUpdate(*s.conn);
  EXPECT_FALSE(p->isChanged());
  EXPECT_EQ(s.count("SELECT [Baud Rate] FROM [Paramètres UCE]"), 500000);

  TargetParamItem orphan;
  EXPECT_TRUE(test::throws([&] { orphan.dbUpdate(*s.conn); }, 100, "Target not defined", "TargetParamItem.dbUpdate"));
}

TEST_F(TargetParamDb, ReadOfMissingRowOrUnknownFailureTypeIsNotFound) {
  auto p = target->Parametres();
  auto notFound = [&] {
    return test::throws([&] { p->DbRead(*s.conn, target); }, 99, "Parameters not found", "TargetParamItem.DbRead");
  };
  EXPECT_TRUE(notFound());
  EXPECT_TRUE(p->isChanged());
  // A row whose failure type is missing from the catalogue.
  p->setTypePanneId(42);
  p->dbInsert(*s.conn);
  EXPECT_TRUE(notFound());
  EXPECT_TRUE(p->isChanged());
}

TEST(TargetParamOlderLayout, ReadsTheOlderColumnsOnly) {
  test::OlderLayoutDb old;
  old.conn->execute("INSERT INTO Cibles (Address,[Target Name]) VALUES (122,'ABS')");
  old.conn->execute(
      "INSERT INTO [Paramètres UCE] ([Ecu Id],Comment,[Init Mode],Multipoint,Key1,Key2,[Baud Rate],InterByteDelay,"
      "KW2Delay,FirstRequestDelay,ReplyToRequestDelay,TesterPresentDelay,KW2Timeout,RequestToReplyTimeout,"
      "ErrorDelay,[Little Endian]) VALUES (1,'old',0,0,1,2,4800,3,4,5,6,7,8,9,10,-1)");
  auto t = TargetItem::create();
  t->setTargetid(1);
  auto p = t->Parametres();
  p->setReprogrammable("kept");
  p->dbReadKVR(*old.conn, t);
  EXPECT_EQ(describe(*p), "0 0 1 2 4800 3 4 5 6 7 8 9 10 1 0 |kept||old|Ne contient pas de pannes");

  t->setTargetid(2);  // no row: the error reaches the caller
  EXPECT_THROW(p->dbReadKVR(*old.conn, t), Error);
}

// ---- XML

// The parameters' elements under a target element, as the target document
// has them (the endianness is an attribute of the requests).
std::string written(const std::shared_ptr<TargetItem>& t) {
  xml::Document doc;
  xml::Node el = doc.appendElement("kvr:Target");
  t->Parametres()->createXMLnode(doc, el);
  el.appendElement("Requests").setAttribute("Endian", t->Parametres()->LittleEndian() ? "Little" : "Big");
  return doc.toString();
}

TEST(TargetParamXml, EveryLineKindReadsBackAsWritten) {
  test::SessionDb s;
  for (int32_t mode : {0, 1, 2, 3, 255, 7, 9}) {
    SCOPED_TRACE(mode);
    auto source = TargetItem::create();
    source->setParent(s.session);
    source->setAddress(65);
    auto& p = *source->Parametres();
    setDistinctValues(p, mode);
    p.setTypePanneId(3);
    p.setCanXId(0x7E0);
    p.setCanRId(test::kExtendedId);
    auto dest = TargetItem::create();
    dest->setParent(s.session);
    dest->setAddress(65);
    const std::string first = written(source);
    xml::Document in;
    ASSERT_TRUE(in.loadString(first));
    dest->Parametres()->loadXml(in, in.documentElement());
    EXPECT_EQ(written(dest), first);

    // What a line kind does not carry comes back as its default: a plain K
    // line has no multipoint flag, a CAN or init-less line no K-line timing.
    std::vector<targetParameter> absent;
    if (mode == 0) absent = {p_multiPoint, p_KW2Delay};
    if (mode == 2) absent = {p_KW2Delay, p_FirstRequestDelay};
    if (mode == 3 || mode == 255)
      absent = {p_key1,         p_key2,         p_InterByteDelay,        p_KW2Delay,  p_FirstRequestDelay,
                p_ReplyToRequestDelay, p_TesterPresentDelay, p_KW2Timeout, p_RequestToReplyTimeout, p_ErrorDelay};
    for (auto a : absent) p.SetDefaultValue(a);
    EXPECT_EQ(describe(*dest->Parametres()), describe(p));
  }
}

TEST(TargetParamXml, LineElementsOfEachMode) {
  test::SessionDb s;
  auto t = TargetItem::create();
  t->setParent(s.session);
  t->setAddress(65);
  auto p = t->Parametres();
  p->setInitMode(0);
  const std::string k0 = written(t);
  EXPECT_TRUE(test::contains(k0, "<K BaudRate=\"10400\">\n<ISO8>\n<L/>\n<KW1 Value=\"208\""));
  p->setInitMode(1);
  const std::string k1 = written(t);
  EXPECT_TRUE(test::contains(k1, "<KWP Multipoint=\"1\">\n<ISO8>"));
  EXPECT_TRUE(test::contains(k1, "</ISO8>\n<KW2_ Delay=\"25\"/>\n</KWP>"));
  p->setInitMode(2);
  EXPECT_TRUE(test::contains(written(t), "<KWP Multipoint=\"1\">\n<FastInit>\n<KW1"));
  p->setInitMode(7);
  p->setMultiPoint(false);
  EXPECT_TRUE(test::contains(written(t), "<Protocol Name=\"VAN\" InitMode=\"7\" Multipoint=\"0\""));

  // Mode 3: identifiers of the function at the target's address; extended
  // identifiers as their low 29 bits with Extended="1".
  p->setInitMode(3);
  const std::string can = written(t);
  EXPECT_TRUE(test::contains(can, "<SendId>\n<CANId Value=\"417001744\" Extended=\"1\"/>\n</SendId>"));
  EXPECT_TRUE(test::contains(can, "<ReceiveId>\n<CANId Value=\"2016\"/>"));
  t->setAddress(122);  // a function without identifiers
  EXPECT_FALSE(test::contains(written(t), "SendId"));
  // (Reading the CAN description back is checked through the target import.)
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
