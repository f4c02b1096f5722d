// The session used the wrong way round: closed, never read, or after a
// failure. Each case gives a numbered error (thrown or recorded) and leaves
// nothing dangling.
#include <gtest/gtest.h>

#include <filesystem>
#include <type_traits>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/temp_db.h"
#include "support/engines.h"

namespace kavrel {
namespace {

using test::throws;

static_assert(!std::is_default_constructible_v<KavrelDatabase>, "sessions come from create() only");
static_assert(!std::is_reference_v<decltype(std::declval<const RequestItems&>().Item(1))>,
              "Item returns the element by value");

class SessionSafety : public ::kavrel::test::EngineTest {};
KAVREL_ON_ENGINES(SessionSafety);

TEST_P(SessionSafety, ClosedSessionsRefuseWithNumberedErrors) {
  auto s = KavrelDatabase::create();
  EXPECT_TRUE(throws([&] { s->connection(); }, 2, "Error database not defined"));
  int32_t address = 0, id = 0;
  EXPECT_TRUE(throws([&] { s->DbFindUceByName("x", address, id); }, 2, "Error database not defined"));
  EXPECT_TRUE(throws([&] { s->importParametersFromXml("none.xml"); }, 2, "Error database not defined"));
  EXPECT_TRUE(throws([&] { s->DbRead(); }, 2, "Error database not defined"));
  s->NewTarget();
  EXPECT_TRUE(throws([&] { s->DbDeleteUce(); }, 2, "Error database not defined"));
  EXPECT_FALSE(s->IsKavrelDatabase());
  EXPECT_EQ(lastError().number, 3);
  // Catalogues never read: exporting them is refused, not a crash.
  test::TempDir dir;
  EXPECT_EQ(test::thrownBy([&] { s->ExportParametersToXml(dir.file("p.xml")); }).number(), 91);  // "object not set"

  // A failed open leaves the session closed.
  EXPECT_NE(test::thrownBy([&] { s->DbOpen(dir.file("missing.db")); }).number(), 0);
  EXPECT_EQ(s->DbConnection(), nullptr);
  EXPECT_TRUE(throws([&] { s->connection(); }, 2, "Error database not defined"));

  test::TempDb db;
  s->DbOpen(db.path());
  EXPECT_TRUE(s->connection().isOpen());
  s->DbClose();
  EXPECT_TRUE(throws([&] { s->connection(); }, 2, "Error database not defined"));
}

TEST_P(SessionSafety, AFailedReadLeavesEmptyCataloguesNotNullOnes) {
  test::TempDb db;
  db.connection()->execute("DROP TABLE [Fonctions]");
  auto s = KavrelDatabase::create();
  s->DbOpen(db.path());
  s->DbRead();
  EXPECT_TRUE(test::recorded(1, "No function defined in database, bad database"));
  ASSERT_TRUE(s->protocols() && s->typeOrganes() && s->Pannes());
  EXPECT_EQ(s->protocols()->ItemName("CAN"), nullptr);
  EXPECT_EQ(s->Pannes()->Count(), 0);
  // The target's parts look the catalogues up without tripping on them.
  auto t = s->NewTarget();
  EXPECT_EQ(t->parent(), s);
  t->Parametres()->setInitMode(7);
  test::TempDir dir;
  s->ExportUceToXml(dir.file("t.xml"));
  EXPECT_TRUE(std::filesystem::exists(dir.file("t.xml")));
}

TEST_P(SessionSafety, ExportOfAnUnknownTargetEndsLikeASuccessfulOne) {
  test::TempDb db;
  db.connection()->execute("INSERT INTO Fonctions (Address, [Function Name]) VALUES (1, 'Moteur')");
  db.connection()->execute("INSERT INTO Protocoles VALUES ('KWP', 1, 0)");
  db.connection()->close();
  test::TempDir dir;
  auto s = KavrelDatabase::create();
  s->ExportNamedUceToXml(db.path(), "Inconnue", dir.file("t.xml"));
  EXPECT_TRUE(test::recorded(1, "Target 'Inconnue' not found"));
  EXPECT_FALSE(std::filesystem::exists(dir.file("t.xml")));
  EXPECT_EQ(s->DbConnection(), nullptr);
  ASSERT_NE(s->functions(), nullptr);  // kept, as after an export
  EXPECT_EQ(s->functions()->ItemName("MOTEUR")->Address(), 1);
  EXPECT_EQ(s->ActiveTarget(), nullptr);
}

TEST(CollectionSafety, AnItemStaysValidAfterTheCollectionGrowsOrShrinks) {
  RequestItems c;
  c.Add(1)->setRequestName("Première");
  const auto& first = c.Item(1);  // a value, kept alive by the reference
  auto keyed = c.Add(2, "k");
  for (int32_t i = 3; i < 2000; ++i) c.Add(i);
  EXPECT_EQ(first->requestName(), "Première");
  auto byKey = c.Item("k");
  c.Remove("k");
  c.clear();
  EXPECT_EQ(byKey, keyed);
  EXPECT_EQ(first->requestId(), 1);
}

}  // namespace
}  // namespace kavrel
