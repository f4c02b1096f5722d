#include <gtest/gtest.h>

#include "kavrel/catalogues/function_items.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/xml.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

// 0x18DAF110 with the extended flag (bit 31).
constexpr int32_t kExtendedId = -1730481904;

int32_t countRows(db::Connection& conn, const std::string& sql) {
  auto rs = conn.execute(sql);
  return rs->field(0).toInt32();
}

TEST(FunctionItemsDb, ReadSortsByNameAndMapsNullIdsToNone) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name],[XId],[RId]) VALUES (88,'Freinage',1712,1680)");
  conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name]) VALUES (122,'Airbag')");
  conn->execute("INSERT INTO [Fonctions] ([Address],[Function Name],[XId],[RId]) VALUES (123,'Moteur'," +
                std::to_string(kExtendedId) + ",-1)");

  FunctionItems f;
  EXPECT_TRUE(f.DbRead(*conn));
  ASSERT_EQ(f.Count(), 3);
  EXPECT_EQ(f.Item(1)->functionName(), "Airbag");
  EXPECT_EQ(f.Item(1)->Address(), 122);
  EXPECT_EQ(f.Item(1)->CanXId(), -1);
  EXPECT_EQ(f.Item(1)->CanRId(), -1);
  EXPECT_EQ(f.Item(2)->functionName(), "Freinage");
  EXPECT_EQ(f.Item(2)->CanXId(), 1712);
  EXPECT_EQ(f.Item(2)->CanRId(), 1680);
  EXPECT_EQ(f.Item(3)->CanXId(), kExtendedId);
  EXPECT_EQ(f.Item(3)->CanRId(), -1);
}

TEST(FunctionItemsDb, MissingTableReachesTheCaller) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  conn->execute("DROP TABLE [Fonctions]");
  FunctionItems f;
  EXPECT_THROW(f.DbRead(*conn), Error);
}

TEST(FunctionItemsDb, InsertStoresNoneAsNullAndUpdateRewritesTheRow) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  FunctionItem f;
  f.setAddress(122);
  f.setFunctionName("Injection");
  f.dbInsert(*conn);
  EXPECT_EQ(countRows(*conn, "SELECT COUNT(*) FROM [Fonctions] WHERE [XId] IS NULL AND [RId] IS NULL"), 1);

  f.setCanXId(kExtendedId);
  f.setCanRId(2024);
  f.setFunctionName("Injection directe");
  f.dbUpdate(*conn);
  FunctionItems read;
  read.DbRead(*conn);
  ASSERT_EQ(read.Count(), 1);
  EXPECT_EQ(read.Item(1)->functionName(), "Injection directe");
  EXPECT_EQ(read.Item(1)->CanXId(), kExtendedId);
  EXPECT_EQ(read.Item(1)->CanRId(), 2024);

  // An address without a row: nothing to rewrite, nothing added.
  FunctionItem other;
  other.setAddress(7);
  other.dbUpdate(*conn);
  EXPECT_EQ(countRows(*conn, "SELECT COUNT(*) FROM [Fonctions]"), 1);
}

TEST(FunctionItemsDb, InsertFailureKeepsNumberAndSourceWithPrefix) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  FunctionItem f;
  f.setAddress(122);
  f.dbInsert(*conn);
  try {
    f.dbInsert(*conn);  // same address: the key refuses it
    FAIL() << "duplicate address inserted";
  } catch (const DbError& e) {
    EXPECT_EQ(e.description().rfind(" DbInsert Function Error : ", 0), 0u) << e.description();
    EXPECT_GT(e.description().size(), std::string(" DbInsert Function Error : ").size());
    EXPECT_NE(e.number(), 0);
  }
}

TEST(FunctionItemsDb, InsertAllIsAllOrNothing) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  FunctionItems f;
  f.Add(1, "Un");
  f.Add(2, "Deux");
  f.Add(1, "Encore un");  // duplicate key in the table
  EXPECT_THROW(f.dbInsertAll(*conn), Error);
  EXPECT_EQ(countRows(*conn, "SELECT COUNT(*) FROM [Fonctions]"), 0);
  f.Remove(3);
  f.dbInsertAll(*conn);
  EXPECT_EQ(countRows(*conn, "SELECT COUNT(*) FROM [Fonctions]"), 2);
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

xml::Node writeCatalogue(xml::Document& doc, const FunctionItems& f) {
  xml::Node root = doc.appendElement("Functions");
  f.createXMLnode(doc, root);
  return root;
}

TEST(FunctionItemsXml, CanIdsAreWrittenAsValueAndExtendedFlag) {
  FunctionItems f;
  auto a = f.Add(123, "Moteur");
  a->setCanXId(kExtendedId);
  a->setCanRId(2024);
  f.Add(88, "Freinage");  // no CAN ids: no SendId / ReceiveId

  xml::Document doc;
  xml::Node root = writeCatalogue(doc, f);
  auto nodes = root.selectNodes("Function");
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].attribute("Name"), "Moteur");
  EXPECT_EQ(nodes[0].attribute("Address"), "123");
  EXPECT_EQ(nodes[0].selectString("SendId/CANId/@Value"), "417001744");
  EXPECT_EQ(nodes[0].selectString("SendId/CANId/@Extended"), "1");
  EXPECT_EQ(nodes[0].selectString("ReceiveId/CANId/@Value"), "2024");
  EXPECT_FALSE(nodes[0].selectString("ReceiveId/CANId/@Extended").has_value());
  EXPECT_TRUE(nodes[1].selectNodes("SendId | ReceiveId").empty());

  // Line feeds around each entry, and one after the last.
  EXPECT_EQ(doc.toString(),
            "<Functions>\n<Function Name=\"Moteur\" Address=\"123\">\n<SendId>\n<CANId Value=\"417001744\" "
            "Extended=\"1\"/>\n</SendId>\n<ReceiveId>\n<CANId Value=\"2024\"/>\n</ReceiveId></Function>\n"
            "<Function Name=\"Freinage\" Address=\"88\"/>\n</Functions>\n");
}

TEST(FunctionItemsXml, RoundTripRestoresExtendedIds) {
  FunctionItems f;
  auto a = f.Add(123, "Moteur");
  a->setCanXId(kExtendedId);
  a->setCanRId(static_cast<int32_t>(0x80000000u | 0x18DA10F1u));
  auto b = f.Add(88, "Freinage");
  b->setCanXId(1712);

  xml::Document doc;
  writeCatalogue(doc, f);
  xml::Document back;
  ASSERT_TRUE(back.loadString(doc.toString()));
  FunctionItems g;
  clearLastError();
  g.loadXml(back, back.documentElement());
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(g.Count(), 2);
  EXPECT_EQ(g.Item(1)->CanXId(), kExtendedId);
  EXPECT_EQ(g.Item(1)->CanRId(), a->CanRId());
  EXPECT_EQ(g.Item(2)->CanXId(), 1712);
  EXPECT_EQ(g.Item(2)->CanRId(), -1);
}

TEST(FunctionItemsXml, MissingAttributesKeepDefaultsWithoutPendingError) {
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<Functions><Function Address=\"5\"/><Function Name=\"Sans adresse\"/></Functions>"));
  FunctionItems f;
  f.loadXml(doc, doc.documentElement());
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(f.Count(), 2);
  EXPECT_EQ(f.Item(1)->functionName(), "");
  EXPECT_EQ(f.Item(1)->Address(), 5);
  EXPECT_EQ(f.Item(2)->Address(), 0);
}

TEST(FunctionItemsXml, UnreadableNumberDropsTheEntryAndLeavesTheErrorPending) {
  xml::Document doc;
  ASSERT_TRUE(doc.loadString(
      "<Functions><Function Name=\"A\" Address=\"douze\"/><Function Name=\"B\" Address=\"12\"/></Functions>"));
  FunctionItems f;
  f.loadXml(doc, doc.documentElement());
  ASSERT_EQ(f.Count(), 1);
  EXPECT_EQ(f.Item(1)->functionName(), "B");
  ASSERT_TRUE(lastError().pending());
  EXPECT_EQ(lastError().number, kErrTypeMismatch);
  EXPECT_NE(lastError().description.find("douze"), std::string::npos);
  clearLastError();
}

}  // namespace
}  // namespace kavrel
