// Protocols: found by init mode and multipoint flag together.
#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/temp_db.h"
#include "support/engines.h"

namespace kavrel {
namespace {

std::string describe(const ProtocolItems& p) {
  std::string s;
  for (const auto& i : p)
    s += i->protocolName() + " " + std::to_string(i->initMode()) + " " + std::to_string(i->multiPoint()) + ";";
  return s;
}

class ProtocolItemsDb : public ::kavrel::test::EngineTest {};
KAVREL_ON_ENGINES(ProtocolItemsDb);

TEST_P(ProtocolItemsDb, LookupsInsertAllReadAndXml) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  ProtocolItems src;
  src.Add(255, false, "Sans init");
  src.Add(3, true, "CAN multipoint");
  src.Add(3, true, "CAN multipoint bis");
  src.Add(3, false, "CAN simple");
  EXPECT_EQ(src.ItemId(3, true)->protocolName(), "CAN multipoint");
  EXPECT_EQ(src.ItemId(3, false)->protocolName(), "CAN simple");
  EXPECT_EQ(src.ItemId(255, true), nullptr);
  EXPECT_EQ(src.ItemName("Sans init")->initMode(), 255);
  EXPECT_EQ(src.ItemName("SANS INIT")->initMode(), 255);  // the name rule
  EXPECT_EQ(src.ItemName("Sans init "), nullptr);
  src.dbInsertAll(*conn);
  conn->execute("INSERT INTO [Protocoles] ([Protocol Name]) VALUES ('Vide')");  // Null mode and flag
  ProtocolItems p;
  EXPECT_TRUE(p.DbRead(*conn));
  EXPECT_EQ(describe(p), "CAN multipoint 3 1;CAN multipoint bis 3 1;CAN simple 3 0;Sans init 255 0;Vide 0 0;");
  ProtocolItem dup;
  dup.setProtocolName("Vide");
  EXPECT_THROW(dup.dbInsert(*conn), Error);
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
