#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
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

class FunctionItemsDb : public ::testing::Test {
 protected:
  int64_t count(const std::string& sql) { return conn->execute(sql)->field(0).toInt64(); }
  test::TempDb tdb;
  std::shared_ptr<db::Connection> conn = tdb.connection();
};

TEST_F(FunctionItemsDb, ReadSortsByNameAndMapsNullIdsToNone) {
  conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name],[XId],[RId]) VALUES (88,'Freinage',1712,1680)");
  conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name]) VALUES (122,'Airbag')");
  conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name],[XId],[RId]) VALUES (123,'Moteur'," +
                std::to_string(kExtendedId) + ",-1)");
  FunctionItems f;
  EXPECT_TRUE(f.DbRead(*conn));
  EXPECT_EQ(describe(f), "Airbag 122 -1 -1;Freinage 88 1712 1680;Moteur 123 -1730481904 -1;");

  conn->execute("DROP TABLE [Fonctions]");
  EXPECT_THROW(f.DbRead(*conn), Error);  // a missing table reaches the caller
}

TEST_F(FunctionItemsDb, InsertStoresNoneAsNullAndUpdateRewritesTheRow) {
  FunctionItem f;
  f.setAddress(122);
  f.setFunctionName("Injection");
  f.dbInsert(*conn);
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Fonctions] WHERE [XId] IS NULL AND [RId] IS NULL"), 1);

  f.setCanXId(kExtendedId);
  f.setCanRId(2024);
  f.setFunctionName("Injection directe");
  f.dbUpdate(*conn);
  FunctionItems read;
  read.DbRead(*conn);
  EXPECT_EQ(describe(read), "Injection directe 122 -1730481904 2024;");

  // An address without a row: nothing to rewrite, nothing added.
  FunctionItem other;
  other.setAddress(7);
  other.dbUpdate(*conn);
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Fonctions]"), 1);

  // The same address again: the key refuses it; number and source kept.
  auto e = test::thrownBy<DbError>([&] { f.dbInsert(*conn); });
  EXPECT_EQ(e.description().rfind(" DbInsert Function Error : ", 0), 0u) << e.description();
  EXPECT_GT(e.description().size(), std::string(" DbInsert Function Error : ").size());
  EXPECT_NE(e.number(), 0);
}

TEST_F(FunctionItemsDb, InsertAllIsAllOrNothing) {
  FunctionItems f;
  f.Add(1, "Un");
  f.Add(2, "Deux");
  f.Add(1, "Encore un");  // duplicate key in the table
  EXPECT_THROW(f.dbInsertAll(*conn), Error);
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Fonctions]"), 0);
  f.Remove(3);
  f.dbInsertAll(*conn);
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Fonctions]"), 2);
}

TEST(FunctionItems, LookupsAreExactAndFirstMatch) {
  FunctionItems f;
  f.Add(10, "Moteur");
  f.Add(11, "Moteur");
  f.Add(12, "ABS", "key");
  EXPECT_EQ(f.ItemName("Moteur")->Address(), 10);
  EXPECT_EQ(f.ItemName("moteur"), nullptr);
  EXPECT_EQ(f.ItemAddress(12)->functionName(), "ABS");
  EXPECT_EQ(f.ItemAddress(99), nullptr);
  EXPECT_EQ(f.Item("key")->Address(), 12);
}

// ---- XML

TEST(FunctionItemsXml, CanIdsAreWrittenAsValueAndExtendedFlagAndReadBack) {
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

  xml::Document back;
  ASSERT_TRUE(back.loadString(doc.toString()));
  FunctionItems g;
  clearLastError();
  g.loadXml(back, back.documentElement());
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(describe(g), describe(f));
}

TEST(FunctionItemsXml, MissingAttributesKeepDefaultsAndAnUnreadableNumberDropsTheEntry) {
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<Functions><Function Address=\"5\"/><Function Name=\"Sans adresse\"/></Functions>"));
  FunctionItems f;
  f.loadXml(doc, doc.documentElement());
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(describe(f), " 5 -1 -1;Sans adresse 0 -1 -1;");

  ASSERT_TRUE(doc.loadString(
      "<Functions><Function Name=\"A\" Address=\"douze\"/><Function Name=\"B\" Address=\"12\"/></Functions>"));
  FunctionItems g;
  g.loadXml(doc, doc.documentElement());
  EXPECT_EQ(describe(g), "B 12 -1 -1;");
  ASSERT_TRUE(lastError().pending());
  EXPECT_EQ(lastError().number, kErrTypeMismatch);
  EXPECT_TRUE(test::contains(lastError().description, "douze"));
}

}  // namespace
}  // namespace kavrel
