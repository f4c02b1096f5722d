#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

std::string describe(const ProtocolItems& p) {
  std::string s;
  for (const auto& i : p)
    s += i->protocolName() + " " + std::to_string(i->initMode()) + " " + std::to_string(i->multiPoint()) + ";";
  return s;
}

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
  EXPECT_EQ(describe(p), "CAN multipoint 3 1;KWP rapide 1 0;Sans init 255 0;Vide 0 0;");

  ProtocolItem dup;
  dup.setProtocolName("Vide");
  EXPECT_THROW(dup.dbInsert(*conn), Error);
}

TEST(ProtocolItems, XmlMissingAttributesArePassedOver) {
  xml::Document in;
  ASSERT_TRUE(in.loadString("<Protocols><Protocol Name=\"Seul\"/><Protocol initMode=\"2\" multiPoint=\"1\"/>"
                            "<Protocol Name=\"X\" initMode=\"deux\"/></Protocols>"));
  ProtocolItems q;
  q.loadXml(in, in.documentElement());
  EXPECT_EQ(describe(q), "Seul 0 0; 2 1;");  // the unreadable mode leaves its entry out
  EXPECT_EQ(lastError().number, kErrTypeMismatch);
}

}  // namespace
}  // namespace kavrel
