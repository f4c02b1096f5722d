// Device types and failure types: one design, two tables.
#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

template <class Items>
struct Traits;
template <>
struct Traits<TypeOrganeItems> {
  static constexpr const char* table = "Type Organe";
  static constexpr const char* element = "DeviceType";
};
template <>
struct Traits<PanneItems> {
  static constexpr const char* table = "Type Panne";
  static constexpr const char* element = "Failure";
};

template <class Items>
std::string describe(const Items& items) {
  std::string s;
  for (const auto& i : items) s += std::to_string(i->id()) + " " + i->libelle() + ";";
  return s;
}

template <class Items>
class IdLabelItems : public ::testing::Test {};
using Catalogues = ::testing::Types<TypeOrganeItems, PanneItems>;
TYPED_TEST_SUITE(IdLabelItems, Catalogues);

TYPED_TEST(IdLabelItems, ReadSortsByLabelAndAMissingTableIsRecordedErrorOne) {
  for (const test::Engine e : {test::Engine::SQLite, test::Engine::PostgreSQL}) {
    SCOPED_TRACE(e == test::Engine::SQLite ? "SQLite" : "PostgreSQL");
    test::TempDb tdb(e);
    auto conn = tdb.connection();
    TypeParam src;
    src.Add(4, "Sortie");
    src.Add(1, "Entrée");
    src.Add(7, "Capteur");
    src.dbInsertAll(*conn);
    TypeParam items;
    EXPECT_TRUE(items.DbRead(*conn));
    EXPECT_FALSE(lastError().pending());
    EXPECT_EQ(describe(items), "7 Capteur;1 Entrée;4 Sortie;");
    EXPECT_EQ(items.ItemId(7)->libelle(), "Capteur");
    EXPECT_EQ(items.ItemName("ENTRÉE")->id(), 1);  // the name rule
    EXPECT_EQ(items.ItemName("Entree"), nullptr);
    EXPECT_EQ(items.ItemName("Entrée")->id(), 1);
    conn->execute(std::string("DROP TABLE [") + Traits<TypeParam>::table + "]");
    TypeParam none;
    EXPECT_FALSE(none.DbRead(*conn));
    EXPECT_EQ(none.Count(), 0);
    EXPECT_TRUE(test::recorded(1, std::string("Table '") + Traits<TypeParam>::table + "' doesn't exist in the database"));
    EXPECT_EQ(lastError().source, "");
  }
}

TYPED_TEST(IdLabelItems, XmlRoundTripAndMissingAttributes) {
  TypeParam src;
  src.Add(0, "Aucune");
  src.Add(12, "Douze");
  xml::Document doc;
  src.createXMLnode(doc, doc.appendElement("List"));
  std::string e = Traits<TypeParam>::element;
  xml::Document in;
  ASSERT_TRUE(in.loadString("<List><" + e + " Name=\"Sans id\"/><" + e + " Id=\"3\"/><Other Id=\"9\"/>" +
                            doc.toString().substr(6)));  // the two written entries follow
  TypeParam back;
  back.loadXml(in, in.documentElement());
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(describe(back), "0 Sans id;3 ;0 Aucune;12 Douze;");
}

}  // namespace
}  // namespace kavrel
