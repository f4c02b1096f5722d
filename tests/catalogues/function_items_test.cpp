// Functions: the address as key, CAN ids stored as Null when there are none,
// and their XML form (value plus extended flag).
#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

// 0x18DAF110 with the extended flag (bit 31).
constexpr int32_t kExtendedId = -1730481904;

std::string describe(const FunctionItems& f) {
  std::string s;
  for (const auto& i : f)
    s += i->functionName() + " " + std::to_string(i->Address()) + " " + std::to_string(i->CanXId()) + " " +
         std::to_string(i->CanRId()) + ";";
  return s;
}

class FunctionItemsDb : public ::kavrel::test::EngineTest {};

TEST_P(FunctionItemsDb, NullIdsUpdatesKeyRefusalAndAllOrNothingInsert) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  auto count = [&](const std::string& sql) { return conn->execute(sql)->field(0).toInt64(); };
  conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name],[XId],[RId]) VALUES (88,'Freinage',1712,1680)");
  FunctionItem f;
  f.setAddress(122);
  f.setFunctionName("Injection");
  f.dbInsert(*conn);
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Fonctions] WHERE [XId] IS NULL AND [RId] IS NULL"), 1);
  FunctionItems read;
  EXPECT_TRUE(read.DbRead(*conn));  // sorted by name, Null ids read as none
  EXPECT_EQ(describe(read), "Freinage 88 1712 1680;Injection 122 -1 -1;");
  f.setCanXId(kExtendedId);
  f.setCanRId(2024);
  f.setFunctionName("Airbag");
  f.dbUpdate(*conn);
  FunctionItem other;  // an address without a row: nothing to rewrite, nothing added
  other.setAddress(7);
  other.dbUpdate(*conn);
  FunctionItems again;
  again.DbRead(*conn);
  EXPECT_EQ(describe(again), "Airbag 122 -1730481904 2024;Freinage 88 1712 1680;");
  // The same address again: the key refuses it; number and source kept.
  auto e = test::thrownBy<DbError>([&] { f.dbInsert(*conn); });
  EXPECT_EQ(e.description().rfind(" DbInsert Function Error : ", 0), 0u) << e.description();
  EXPECT_GT(e.description().size(), std::string(" DbInsert Function Error : ").size());
  EXPECT_NE(e.number(), 0);
  FunctionItems all;
  all.Add(1, "Un");
  all.Add(88, "Encore");  // duplicate key in the table
  EXPECT_THROW(all.dbInsertAll(*conn), Error);
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Fonctions]"), 2);
  all.Remove(2);
  all.dbInsertAll(*conn);
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Fonctions]"), 3);
  conn->execute("DROP TABLE [Fonctions]");
  EXPECT_THROW(all.DbRead(*conn), Error);  // a missing table reaches the caller
}

TEST(FunctionItems, LookupsFollowTheNameRuleAndTakeTheFirstMatch) {
  FunctionItems f;
  f.Add(10, "Électronique moteur");
  f.Add(11, "électronique MOTEUR");
  f.Add(12, "ABS", "key");
  EXPECT_EQ(f.ItemName("ÉLECTRONIQUE MOTEUR")->Address(), 10);
  EXPECT_EQ(f.ItemName("Electronique moteur"), nullptr);
  EXPECT_EQ(f.ItemAddress(12)->functionName(), "ABS");
  EXPECT_EQ(f.ItemAddress(99), nullptr);
  EXPECT_EQ(f.Item("key")->Address(), 12);
}

TEST(FunctionItemsXml, CanIdsAsValueAndExtendedFlagRoundTripAndBadEntries) {
  FunctionItems f;
  auto a = f.Add(123, "Moteur");
  a->setCanXId(kExtendedId);
  a->setCanRId(2024);
  f.Add(88, "Freinage");  // no CAN ids: no SendId / ReceiveId
  xml::Document doc;
  f.createXMLnode(doc, doc.appendElement("Functions"));
  // Line feeds around each entry, and one after the last.
  EXPECT_EQ(doc.toString(),
            "<Functions>\n<Function Name=\"Moteur\" Address=\"123\">\n<SendId>\n<CANId Value=\"417001744\" "
            "Extended=\"1\"/>\n</SendId>\n<ReceiveId>\n<CANId Value=\"2024\"/>\n</ReceiveId></Function>\n"
            "<Function Name=\"Freinage\" Address=\"88\"/>\n</Functions>\n");
  auto load = [](const std::string& text) {
    xml::Document in;
    EXPECT_TRUE(in.loadString(text));
    FunctionItems g;
    g.loadXml(in, in.documentElement());
    return describe(g);
  };
  EXPECT_EQ(load(doc.toString()), describe(f));
  EXPECT_FALSE(lastError().pending());
  // Missing attributes keep the defaults; an unreadable number drops its entry.
  EXPECT_EQ(load("<Functions><Function Address=\"5\"/><Function Name=\"Sans adresse\"/></Functions>"),
            " 5 -1 -1;Sans adresse 0 -1 -1;");
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(load("<Functions><Function Name=\"A\" Address=\"douze\"/><Function Name=\"B\" Address=\"12\"/></Functions>"),
            "B 12 -1 -1;");
  EXPECT_EQ(lastError().number, kErrTypeMismatch);
  EXPECT_TRUE(test::contains(lastError().description, "douze"));
}

KAVREL_ON_ENGINES(FunctionItemsDb);

}  // namespace
}  // namespace kavrel
