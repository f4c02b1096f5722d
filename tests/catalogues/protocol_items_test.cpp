#include <gtest/gtest.h>

#include "kavrel/catalogues/protocol_items.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/xml.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

TEST(ProtocolItems, ItemIdNeedsBothModeAndMultipoint) {
  ProtocolItems p;
  p.Add(3, false, "CAN simple");
  p.Add(3, true, "CAN multipoint");
  p.Add(3, true, "CAN multipoint bis");
  p.Add(0, false, "KWP 5 bauds");
  EXPECT_EQ(p.ItemId(3, true)->protocolName(), "CAN multipoint");
  EXPECT_EQ(p.ItemId(3, false)->protocolName(), "CAN simple");
  EXPECT_EQ(p.ItemId(0, true), nullptr);
  EXPECT_EQ(p.ItemName("KWP 5 bauds")->initMode(), 0);
  EXPECT_EQ(p.ItemName("kwp 5 bauds"), nullptr);
}

TEST(ProtocolItems, DbReadSortsByNameAndInsertAllWritesEveryEntry) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  ProtocolItems src;
  src.Add(255, false, "Sans init");
  src.Add(3, true, "CAN multipoint");
  src.Add(1, false, "KWP rapide");
  src.dbInsertAll(*conn);
  conn->execute("INSERT INTO [Protocoles] ([Protocol Name]) VALUES ('Vide')");  // Null mode and flag

  ProtocolItems p;
  EXPECT_TRUE(p.DbRead(*conn));
  ASSERT_EQ(p.Count(), 4);
  EXPECT_EQ(p.Item(1)->protocolName(), "CAN multipoint");
  EXPECT_TRUE(p.Item(1)->multiPoint());
  EXPECT_EQ(p.Item(1)->initMode(), 3);
  EXPECT_EQ(p.Item(2)->protocolName(), "KWP rapide");
  EXPECT_FALSE(p.Item(2)->multiPoint());
  EXPECT_EQ(p.Item(3)->initMode(), 255);
  EXPECT_EQ(p.Item(4)->protocolName(), "Vide");
  EXPECT_EQ(p.Item(4)->initMode(), 0);
  EXPECT_FALSE(p.Item(4)->multiPoint());

  ProtocolItem dup;
  dup.setProtocolName("Vide");
  EXPECT_THROW(dup.dbInsert(*conn), Error);
}

TEST(ProtocolItems, XmlAttributesAndMissingOnesPassedOver) {
  ProtocolItems p;
  p.Add(3, true, "CAN");
  p.Add(0, false, "KWP");
  xml::Document doc;
  xml::Node root = doc.appendElement("Protocols");
  p.createXMLnode(doc, root);
  auto nodes = root.selectNodes("Protocol");
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[0].attribute("multiPoint"), "1");
  EXPECT_EQ(nodes[0].attribute("initMode"), "3");
  EXPECT_EQ(nodes[1].attribute("multiPoint"), "0");

  xml::Document in;
  ASSERT_TRUE(in.loadString("<Protocols><Protocol Name=\"Seul\"/><Protocol initMode=\"2\" multiPoint=\"1\"/>"
                            "<Protocol Name=\"X\" initMode=\"deux\"/></Protocols>"));
  ProtocolItems q;
  q.loadXml(in, in.documentElement());
  ASSERT_EQ(q.Count(), 2);  // the unreadable mode leaves its entry out
  EXPECT_EQ(q.Item(1)->protocolName(), "Seul");
  EXPECT_EQ(q.Item(1)->initMode(), 0);
  EXPECT_FALSE(q.Item(1)->multiPoint());
  EXPECT_EQ(q.Item(2)->protocolName(), "");
  EXPECT_EQ(q.Item(2)->initMode(), 2);
  EXPECT_TRUE(q.Item(2)->multiPoint());
  EXPECT_EQ(lastError().number, kErrTypeMismatch);
  clearLastError();
}

}  // namespace
}  // namespace kavrel
