#include "kavrel/target/target_param_item.h"

#include <functional>

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/engines.h"
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

// Every setter raising ValueChanged, each with a value away from the default.
using Setter = std::function<void(TargetParamItem&)>;
const std::vector<Setter>& setters() {
  using P = TargetParamItem;
  static const std::vector<Setter> all = {
      [](P& p) { p.setMultiPoint(false); },           [](P& p) { p.setKey1(0x11); },
      [](P& p) { p.setKey2(0x22); },                  [](P& p) { p.setBaudRate(19200); },
      [](P& p) { p.setInterByteDelay(2); },           [](P& p) { p.setKW2Delay(33); },
      [](P& p) { p.setFirstRequestDelay(44); },       [](P& p) { p.setReplyToRequestDelay(55); },
      [](P& p) { p.setTesterPresentDelay(1500); },    [](P& p) { p.setKW2Timeout(333); },
      [](P& p) { p.setRequestToReplyTimeout(444); },  [](P& p) { p.setErrorDelay(555); },
      [](P& p) { p.setLittleEndian(true); },          [](P& p) { p.setComment("line <one> & two"); },
      [](P& p) { p.setDateOfficialisation("2003-05-01"); }, [](P& p) { p.setReprogrammable("Flash"); },
      [](P& p) { p.setTypePanne("Pannes codées"); },  [](P& p) { p.setInitMode(0); }};
  return all;
}

void setDistinctValues(TargetParamItem& p, int32_t mode) {
  for (const auto& set : setters()) set(p);
  p.setInitMode(mode);
}

TEST(TargetParamItem, SettersRaiseOnChangesOnlyAndDefaultsComeBack) {
  TargetParamItem p;
  int events = 0;
  p.ValueChanged.subscribe([&] { ++events; });
  ParamValue def;
  for (int i = p_initMode; i <= p_Reprogrammable; ++i) EXPECT_TRUE(p.isDefaultValue(targetParameter(i), def)) << i;
  EXPECT_FALSE(p.isDefaultValue(p_DateOfficialisation, def));  // there is no default date
  EXPECT_TRUE(std::holds_alternative<std::monostate>(def));
  // Each changing setter raises once; the same value again raises nothing.
  for (size_t i = 0; i < setters().size(); ++i) {
    setters()[i](p);
    setters()[i](p);
    EXPECT_EQ(events, static_cast<int>(i) + 1) << "setter " << i;
  }
  EXPECT_TRUE(p.isChanged());
  // The default is given even when the value differs; setting it raises once.
  ASSERT_FALSE(p.isDefaultValue(p_BaudRate, def));
  EXPECT_EQ(std::get<int32_t>(def), 10400);
  ASSERT_FALSE(p.isDefaultValue(p_multiPoint, def));
  EXPECT_EQ(std::get<bool>(def), true);
  for (int i = p_initMode; i <= p_DateOfficialisation; ++i) {
    p.SetDefaultValue(targetParameter(i));
    p.SetDefaultValue(targetParameter(i));
  }
  EXPECT_EQ(events, static_cast<int>(setters().size()) + 16);
  EXPECT_EQ(p.BaudRate(), 10400);
  EXPECT_EQ(p.Reprogrammable() + p.DateOfficialisation(), "");

  // CAN ids belong to the function: no mark. The failure id marks the
  // object changed but raises no event; without a session the label stays.
  TargetParamItem q;
  q.ValueChanged.subscribe([&] { ++events; });
  q.setCanXId(5);
  q.setCanRId(6);
  EXPECT_FALSE(q.isChanged());
  q.setTypePanneId(4);
  EXPECT_TRUE(q.isChanged());
  EXPECT_EQ(q.TypePanne(), "Ne contient pas de pannes");
  EXPECT_EQ(events, static_cast<int>(setters().size()) + 16);
  // With a session, id and label follow its catalogue.
  test::SessionDb s;
  auto r = s.session->NewTarget()->Parametres();
  r->setTypePanneId(3);
  EXPECT_EQ(r->TypePanne(), "Pannes codées");
  r->setTypePanne("Ne contient pas de pannes");
  EXPECT_EQ(r->TypePanneId(), 0);
  r->setTypePanne("unknown label");  // not in the catalogue: id kept
  EXPECT_EQ(r->TypePanneId(), 0);
  EXPECT_FALSE(lastError().pending());
}

// ---- database

class TargetParamDb : public ::kavrel::test::EngineTest {
 protected:
  void SetUp() override {
    s.conn->execute("INSERT INTO Cibles (Address,[Target Name],Langue,[Référence]) VALUES (122,'ABS 5','Français',-1)");
    target->setAddress(122);
    target->setTargetid(static_cast<int32_t>(s.count("SELECT max([Target Id]) FROM Cibles")));
  }
  test::SessionDb s;
  std::shared_ptr<TargetItem> target = s.session->NewTarget();
};

TEST_P(TargetParamDb, InsertThenReadRestoresEveryColumn) {
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
  // Reprogramming and comment trimmed, the comment cut to 255 characters;
  // the date neither trimmed nor cut.
  p->setReprogrammable("Flash");
  p->setComment(std::string(255, 'c'));
  EXPECT_EQ(describe(r), describe(*p));
  EXPECT_EQ(r.TypePanne(), "Pannes codées");
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

TEST_P(TargetParamDb, UpdateAndReadNeedTheRowAndTheTarget) {
  auto p = target->Parametres();
  EXPECT_TRUE(test::throws([&] { p->dbUpdate(*s.conn); }, 100, "Target parameters not found"));
  auto notFound = [&] {
    return test::throws([&] { p->DbRead(*s.conn, target); }, 99, "Parameters not found", "TargetParamItem.DbRead");
  };
  EXPECT_TRUE(notFound());
  EXPECT_EQ(s.count("SELECT count(*) FROM [Paramètres UCE]"), 0);
  p->dbInsert(*s.conn);
  p->setBaudRate(500000);
  p->dbUpdate(*s.conn);
  EXPECT_FALSE(p->isChanged());
  EXPECT_EQ(s.count("SELECT [Baud Rate] FROM [Paramètres UCE]"), 500000);
  TargetParamItem orphan;
  EXPECT_TRUE(test::throws([&] { orphan.dbUpdate(*s.conn); }, 100, "Target not defined", "TargetParamItem.dbUpdate"));
  // A row whose failure type is missing from the catalogue is not found.
  p->setTypePanneId(42);
  p->dbUpdate(*s.conn);
  EXPECT_TRUE(notFound());
  EXPECT_TRUE(p->isChanged());
}

class TargetParamOlderLayout : public ::kavrel::test::EngineTest {};

TEST_P(TargetParamOlderLayout, ReadsTheOlderColumnsOnly) {
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
    // line has no multipoint flag, a CAN or init-less line no K-line timing,
    // and only the mode-1 ISO8 and the Protocol form carry the KW2 timeout.
    std::vector<targetParameter> absent;
    if (mode == 0) absent = {p_multiPoint, p_KW2Delay, p_KW2Timeout};
    if (mode == 2) absent = {p_KW2Delay, p_FirstRequestDelay, p_KW2Timeout};
    EXPECT_EQ(test::contains(first, "Timeout=\"333\""), mode == 1 || mode == 7 || mode == 9) << first;
    if (mode == 3 || mode == 255)
      absent = {p_key1,         p_key2,         p_InterByteDelay,        p_KW2Delay,  p_FirstRequestDelay,
                p_ReplyToRequestDelay, p_TesterPresentDelay, p_KW2Timeout, p_RequestToReplyTimeout, p_ErrorDelay};
    for (auto a : absent) p.SetDefaultValue(a);
    EXPECT_EQ(describe(*dest->Parametres()), describe(p));
  }
}

TEST(TargetParamXml, LineElementsTheExamplesDoNotShowAndDefaultsForMissingElements) {
  test::SessionDb s;
  auto t = TargetItem::create();
  t->setParent(s.session);
  t->setAddress(122);  // a function without CAN identifiers
  auto p = t->Parametres();
  for (auto [mode, part] : {std::pair{0, "<K BaudRate=\"10400\">\n<ISO8>\n<L/>\n<KW1 Value=\"208\""},
                            {2, "<KWP Multipoint=\"1\">\n<FastInit>\n<KW1"},
                            {7, "<Protocol Name=\"VAN\" InitMode=\"7\" Multipoint=\"1\""}}) {
    p->setInitMode(mode);
    EXPECT_TRUE(test::contains(written(t), part));
  }
  p->setInitMode(3);
  EXPECT_FALSE(test::contains(written(t), "SendId"));
  setDistinctValues(*p, 1);
  p->setTypePanneId(3);
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<kvr:Target><K><KWP/></K></kvr:Target>"));
  p->loadXml(doc, doc.documentElement());
  ParamValue def;
  for (int i = p_initMode; i <= p_Reprogrammable; ++i) EXPECT_TRUE(p->isDefaultValue(targetParameter(i), def)) << i;
  EXPECT_EQ(p->TypePanneId(), 0);
  EXPECT_EQ(p->TypePanne(), "Ne contient pas de pannes");
  EXPECT_EQ(p->Comment() + p->DateOfficialisation(), "");
}

KAVREL_ON_ENGINES(TargetParamDb);
KAVREL_ON_ENGINES(TargetParamOlderLayout);

}  // namespace
}  // namespace kavrel
