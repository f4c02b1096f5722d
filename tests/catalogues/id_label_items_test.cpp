// Device types and failure types: one design, two tables.
#include <gtest/gtest.h>

#include "kavrel/catalogues/panne_items.h"
#include "kavrel/catalogues/type_organe_items.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/xml.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

template <class Items>
struct Traits;
template <>
struct Traits<TypeOrganeItems> {
  static constexpr const char* table = "[Type Organe]";
  static constexpr const char* missing = "Table 'Type Organe' doesn't exist in the database";
  static constexpr const char* element = "DeviceType";
};
template <>
struct Traits<PanneItems> {
  static constexpr const char* table = "[Type Panne]";
  static constexpr const char* missing = "Table 'Type Panne' doesn't exist in the database";
  static constexpr const char* element = "Failure";
};

template <class Items>
class IdLabelItems : public ::testing::Test {};
using Catalogues = ::testing::Types<TypeOrganeItems, PanneItems>;
TYPED_TEST_SUITE(IdLabelItems, Catalogues);

TYPED_TEST(IdLabelItems, MissingTableRecordsErrorOneAndReturnsFalse) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  conn->execute(std::string("DROP TABLE ") + Traits<TypeParam>::table);
  TypeParam items;
  EXPECT_FALSE(items.DbRead(*conn));
  EXPECT_EQ(items.Count(), 0);
  ASSERT_TRUE(lastError().pending());
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(lastError().source, "");
  EXPECT_EQ(lastError().reportedSource(), "KavrelBuilderLibrary");
  EXPECT_EQ(lastError().description, Traits<TypeParam>::missing);
  clearLastError();
}

TYPED_TEST(IdLabelItems, DbReadSortsByLabelAfterInsertAll) {
  test::TempDb tdb;
  auto conn = tdb.connection();
  TypeParam src;
  src.Add(4, "Sortie");
  src.Add(1, "Entrée");
  src.Add(7, "Capteur");
  src.dbInsertAll(*conn);

  TypeParam items;
  EXPECT_TRUE(items.DbRead(*conn));
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(items.Count(), 3);
  EXPECT_EQ(items.Item(1)->libelle(), "Capteur");
  EXPECT_EQ(items.Item(2)->libelle(), "Entrée");
  EXPECT_EQ(items.Item(3)->id(), 4);
  EXPECT_EQ(items.ItemId(7)->libelle(), "Capteur");
  EXPECT_EQ(items.ItemName("entrée"), nullptr);
  EXPECT_EQ(items.ItemName("Entrée")->id(), 1);
}

TYPED_TEST(IdLabelItems, XmlRoundTripAndMissingAttributes) {
  TypeParam src;
  src.Add(0, "Aucune");
  src.Add(12, "Douze");
  xml::Document doc;
  xml::Node root = doc.appendElement("List");
  src.createXMLnode(doc, root);
  auto nodes = root.selectNodes(Traits<TypeParam>::element);
  ASSERT_EQ(nodes.size(), 2u);
  EXPECT_EQ(nodes[1].attribute("Name"), "Douze");
  EXPECT_EQ(nodes[1].attribute("Id"), "12");

  std::string e = Traits<TypeParam>::element;
  xml::Document in;
  ASSERT_TRUE(in.loadString("<List><" + e + " Name=\"Sans id\"/><" + e + " Id=\"3\"/><Other Id=\"9\"/>" +
                            doc.toString().substr(6)));  // the two written entries follow
  TypeParam back;
  back.loadXml(in, in.documentElement());
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(back.Count(), 4);
  EXPECT_EQ(back.Item(1)->id(), 0);
  EXPECT_EQ(back.Item(2)->libelle(), "");
  EXPECT_EQ(back.Item(2)->id(), 3);
  EXPECT_EQ(back.Item(4)->libelle(), "Douze");
  EXPECT_EQ(back.Item(4)->id(), 12);
}

}  // namespace
}  // namespace kavrel
