// The screen tree in the database: inserts (bulk and item by item), both
// read paths, updates, renames, deletes and their errors.

#include <gtest/gtest.h>

#include <functional>

#include "kavrel/kavrel.h"
#include "screens/screen_fixture.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "support/engines.h"

namespace kavrel {
namespace {

class ScreenDb : public ::kavrel::test::EngineTest {
 protected:
  void SetUp() override { t.buildTree(); }
  // A fresh read of the stored tree through the whole-target path.
  std::shared_ptr<CategoryItems> readAll() {
    auto c = std::make_shared<CategoryItems>();
    c->dbReadAll(t.conn(), target);
    return c;
  }
  std::shared_ptr<ScreenItem> screen(const CategoryItems& c, const std::string& cat, const std::string& name) {
    auto category = c.ItemName(cat);
    return category ? category->Screens()->ItemName(name) : nullptr;
  }
  test::ScreenTarget t;
  std::shared_ptr<TargetItem> target = t.target;
  // Kept alive: tests that close it go on with t.conn(), a new one.
  std::shared_ptr<db::Connection> keep = t.sharedConn();
  db::Connection& conn = *keep;
};
KAVREL_ON_ENGINES(ScreenDb);

TEST_P(ScreenDb, BulkInsertThenBothReadPathsGiveTheTreeInItsOrders) {
  target->Categories()->DbInsertAll(conn);
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  auto reglages = screen(*target->Categories(), "Moteur", "Réglages");
  ASSERT_TRUE(reglages);
  EXPECT_GT(reglages->screenId(), 0);
  for (const auto& b : *reglages->ButtonItems()) EXPECT_GT(b->buttonId(), 0);
  for (const auto& l : *reglages->LabelItems()) EXPECT_GT(l->LabelId(), 0);
  auto depart = reglages->ButtonItems()->Item(2);
  EXPECT_EQ(reglages->InitId(), depart->buttonId());
  EXPECT_EQ(t.count("SELECT [Init Id] FROM Ecrans WHERE [Screen Id]=" + std::to_string(reglages->screenId())),
            depart->buttonId());
  // Empty texts: a label's and a font name are Null, a caption or message an empty text.
  EXPECT_EQ(t.count("SELECT count(*) FROM Titres WHERE [Text] IS NULL"), 1);
  EXPECT_EQ(t.count("SELECT count(*) FROM Titres WHERE FontName IS NULL"), 2);
  EXPECT_EQ(t.count("SELECT count(*) FROM Boutons WHERE FontName IS NULL"), 3);
  EXPECT_EQ(t.count("SELECT count(*) FROM Boutons WHERE Caption='' AND Message=''"), 1);
  EXPECT_EQ(t.count("SELECT count(*) FROM Boutons WHERE Caption IS NULL OR Message IS NULL"), 0);
  EXPECT_EQ(t.count("SELECT count(*) FROM Scenarios WHERE Address=122 AND [Ecu Id]=" + t.tid()), 4);

  auto whole = readAll();
  EXPECT_EQ(test::describe(*whole), test::kStoredTree);
  // Screen by screen, through the collections' own reads, the same tree.
  auto byScreen = std::make_shared<CategoryItems>();
  byScreen->DbRead(conn, target);
  for (const auto& c : *byScreen) c->Screens()->dbReadAll(conn, target->targetid(), c);
  EXPECT_EQ(test::describe(*byScreen), test::kStoredTree);
  // One screen alone.
  auto one = std::make_shared<ScreenItem>();
  auto moteur = byScreen->ItemName("Moteur");
  one->dbReadAll(conn, moteur, reglages->screenId());
  EXPECT_EQ(one->screenName(), "Réglages");
  EXPECT_EQ(one->parent(), moteur);
  ASSERT_TRUE(one->ButtonInit());
  EXPECT_EQ(one->ButtonInit()->Caption(), "Départ");
  EXPECT_EQ(one->LabelItems()->Count(), 3);
}

TEST_P(ScreenDb, ItemByItemInsertStoresTheSameTree) {
  for (const auto& c : *target->Categories()) c->DbInsertAll(conn);
  EXPECT_EQ(test::describe(*readAll()), test::kStoredTree);
  // A screen whose initial button is only named by an id from elsewhere
  // is stored with the new id of that button.
  auto c = t.addCategory("Autre");
  c->dbInsert(conn);
  auto s = t.addScreen(c, "Ecran");
  auto b = t.addButton(s, "Init");
  b->setButtonId(77);
  s->setInitId(77);
  s->DbInsertAll(conn);
  EXPECT_NE(b->buttonId(), 77);
  EXPECT_EQ(s->InitId(), b->buttonId());
  EXPECT_EQ(screen(*readAll(), "Autre", "Ecran")->ButtonInit()->Caption(), "Init");

  // Two buttons marked initial in memory: both insert paths store the first
  // one, and a read marks only it.
  for (bool bulk : {false, true}) {
    auto twice = t.addScreen(c, bulk ? "Deux bulk" : "Deux");
    for (const char* caption : {"y", "x"}) t.addButton(twice, caption)->setInitButton(true);
    if (bulk) {
      auto alone = std::make_shared<ScreenItems>();
      alone->AddData(twice);
      alone->DbInsertAll(conn);
    } else {
      twice->DbInsertAll(conn);
    }
    auto read = screen(*readAll(), "Autre", twice->screenName());
    ASSERT_TRUE(read && read->ButtonInit()) << bulk;
    EXPECT_EQ(read->ButtonInit()->Caption(), "y") << bulk;
    EXPECT_FALSE(read->ButtonItems()->Item(1)->InitButton()) << bulk;  // "x"
  }
}

TEST_P(ScreenDb, UpdatesRewriteEveryColumnWithQuotesKept) {
  target->Categories()->DbInsertAll(conn);
  auto s = screen(*target->Categories(), "Moteur", "Réglages");
  s->setWindowState(1);
  s->setScreenWidth(1024);
  s->setScreenHeight(768);
  s->setScreenColor(0);
  auto label = s->LabelItems()->Item(1);  // "Zone d'..."
  label->setLabelText("L'\"autre\" ''");
  label->setFontName("");
  label->setFontSize(10.5F);
  label->setAlignment(1);
  auto go = s->ButtonItems()->Item(1);  // "Lancer l'essai"
  go->setCaption("Go 'now'");
  go->setMessage("");
  go->setFontName("");
  go->setFontSize(7.5F);
  go->setFontBold(true);
  auto step = go->ScenarioItems()->Item(2);
  step->setRequest(target->Requests()->ItemName("Ecriture 'rapide'"));
  step->setDelay(42);
  s->dbUpdateAll(conn);

  auto read = screen(*readAll(), "Moteur", "Réglages");
  const std::string tree = test::describe(*readAll());
  EXPECT_TRUE(test::contains(tree, " S Réglages|1|1024|768|0|init=Départ\n"));
  EXPECT_TRUE(test::contains(tree, "  L L'\"autre\" ''|1,2,3,4|| 10.5|10|255|65280|1\n"));
  EXPECT_TRUE(test::contains(tree, "  B Go 'now'|10,20,30,40|| 7.5|11||\n   > 0 Ecriture 'rapide' 500\n"
                                   "   > 1 Ecriture 'rapide' 42\n"));
  EXPECT_EQ(t.count("SELECT count(*) FROM Boutons WHERE FontName IS NULL"), 4);

  // The initial button is recorded by id.
  auto other = s->ButtonItems()->Item(1);
  s->DbUpdateInitButton(conn, other->buttonId());
  EXPECT_EQ(s->InitId(), other->buttonId());
  EXPECT_EQ(screen(*readAll(), "Moteur", "Réglages")->ButtonInit()->Caption(), "Go 'now'");
  ASSERT_TRUE(read);
}

TEST_P(ScreenDb, RenamesRefuseWhatTheyCannotDoAndLeaveTheName) {
  target->Categories()->DbInsertAll(conn);
  auto moteur = target->Categories()->ItemName("Moteur");
  auto reglages = moteur->Screens()->ItemName("Réglages");
  struct Case {
    const char* what;
    std::function<void()> call;
    int32_t number;
    const char* description;
  };
  auto orphanCategory = std::make_shared<CategoryItem>();
  auto orphanScreen = std::make_shared<ScreenItem>();
  auto unsavedCategory = t.addCategory("Pas là");
  unsavedCategory->setCategoryId(9999);
  auto unsavedScreen = t.addScreen(moteur, "Pas là");
  unsavedScreen->setScreenId(9999);
  const Case cases[] = {
      {"category without target", [&] { orphanCategory->dbRename(conn, "X"); }, 100, "Parent not defined"},
      {"screen without category", [&] { orphanScreen->dbRename(conn, "X"); }, 100, "Parent not defined"},
      {"category not stored", [&] { unsavedCategory->dbRename(conn, "X"); }, 1, "Category not found"},
      {"screen not stored", [&] { unsavedScreen->dbRename(conn, "X"); }, 1, "Screen not found"},
      {"category name taken", [&] { moteur->dbRename(conn, "Carrosserie"); }, 2, "Duplicate name"},
      {"screen name taken", [&] { reglages->dbRename(conn, "Alpha"); }, 2, "Duplicate name"},
      {"no database", [&] {
         conn.close();
         reglages->dbRename(conn, "X");
       }, 101, "Enable to execute sql"},
  };
  for (const auto& c : cases) EXPECT_TRUE(test::throws(c.call, c.number, c.description)) << c.what;
  db::Connection& reopened = t.conn();
  EXPECT_EQ(moteur->categoryName(), "Moteur");
  EXPECT_EQ(reglages->screenName(), "Réglages");
  moteur->dbRename(reopened, "Motorisation");
  reglages->dbRename(reopened, "Réglage's");
  EXPECT_EQ(reglages->screenName(), "Réglage's");
  auto read = readAll();
  EXPECT_TRUE(read->ItemName("Motorisation") && !read->ItemName("Moteur"));
  EXPECT_TRUE(screen(*read, "Motorisation", "Réglage's"));
}

TEST_P(ScreenDb, DeletesFollowTheRelations) {
  target->Categories()->DbInsertAll(conn);
  auto moteur = target->Categories()->ItemName("Moteur");
  auto reglages = moteur->Screens()->ItemName("Réglages");
  auto rows = [&](const char* table) { return t.count(std::string("SELECT count(*) FROM ") + table); };
  EXPECT_TRUE(test::throws([&] { moteur->dbDelete(conn); }, 1, "Impossible to delete the category 'Moteur'"));

  // A button or label not in the collection: nothing happens.
  auto stranger = std::make_shared<ButtonItem>();
  stranger->setButtonId(9999);
  reglages->ButtonItems()->dbDeleteItem(conn, stranger);
  auto strangeLabel = std::make_shared<LabelItem>();
  strangeLabel->setLabelId(9999);
  reglages->LabelItems()->dbDeleteItem(conn, strangeLabel);
  EXPECT_EQ(rows("Boutons"), 4);
  EXPECT_EQ(rows("Titres"), 3);

  // A button takes its steps along.
  auto go = reglages->ButtonItems()->Item(1);
  ASSERT_EQ(go->Caption(), "Lancer l'essai");
  reglages->ButtonItems()->dbDeleteItem(conn, go);
  EXPECT_EQ(rows("Boutons"), 3);
  EXPECT_EQ(rows("Scenarios"), 1);
  EXPECT_EQ(reglages->ButtonItems()->Count(), 2);
  reglages->LabelItems()->dbDeleteItem(conn, reglages->LabelItems()->Item(2));
  EXPECT_EQ(rows("Titres"), 2);
  EXPECT_EQ(reglages->LabelItems()->Count(), 2);

  // A screen takes its labels, buttons and steps along.
  reglages->dbDelete(conn);
  EXPECT_EQ(rows("Titres"), 0);
  EXPECT_EQ(rows("Boutons"), 1);  // Alpha's
  EXPECT_EQ(rows("Scenarios"), 0);
  target->Categories()->ItemName("Carrosserie")->Screens()->Item(1)->dbDelete(conn);
  target->Categories()->ItemName("Carrosserie")->dbDelete(conn);
  EXPECT_EQ(rows("Catégories"), 1);

  // Deleting the target removes the rest of the tree.
  auto session = KavrelDatabase::create();
  session->setDbConnection(t.sharedConn());
  target->setParent(session);
  session->setActiveTarget(target);
  session->DbDeleteUce();
  for (const char* table : {"Catégories", "Ecrans", "Titres", "Boutons", "Scenarios"}) EXPECT_EQ(rows(table), 0) << table;
}

TEST_P(ScreenDb, ScenarioStepsDeleteReorderAndMove) {
  target->Categories()->DbInsertAll(conn);
  auto go = screen(*target->Categories(), "Moteur", "Réglages")->ButtonItems()->Item(1);
  auto steps = go->ScenarioItems();
  const auto stored = [&] {
    std::string indexes;
    auto rs = conn.execute("SELECT [Index] FROM Scenarios WHERE [Button Id]=" + std::to_string(go->buttonId()) +
                           " ORDER BY [Index]");
    for (; !rs->eof(); rs->moveNext()) indexes += (indexes.empty() ? "" : ",") + rs->field(0).toText();
    return indexes;
  };
  EXPECT_EQ(stored(), "0,1,2");
  auto absent = std::make_shared<ScenarioItem>();
  absent->setIndex(7);
  steps->DbDeleteScenario(conn, absent);
  EXPECT_EQ(steps->Count(), 3);
  steps->DbDeleteScenario(conn, steps->Item(2));
  EXPECT_EQ(stored(), "0,2");
  steps->DbReorder(conn, go);
  EXPECT_EQ(stored(), "1,2");
  // The objects keep their own numbers.
  EXPECT_EQ(steps->Item(1)->index(), 0);
  EXPECT_EQ(steps->Item(2)->index(), 2);
  steps->Item(2)->dbUpdateIndex(conn, 5);
  EXPECT_EQ(stored(), "1,5");
}

TEST_P(ScreenDb, DefaultsAndErrorsOfSingleItems) {
  ScreenItem fresh;
  EXPECT_EQ(fresh.ScreenWidth(), 600);
  EXPECT_EQ(fresh.ScreenHeight(), 400);
  EXPECT_EQ(fresh.ScreenColor(), 16777215);
  EXPECT_EQ(fresh.WindowState(), 0);
  auto b = std::make_shared<ButtonItem>();
  EXPECT_EQ(b->buttonId(), -1);
  EXPECT_EQ(b->FontSize(), 12.0F);
  EXPECT_FALSE(b->hasScenarioItems());
  EXPECT_TRUE(b->ScenarioItems() && b->hasScenarioItems());

  target->Categories()->DbInsertAll(conn);
  auto moteur = target->Categories()->ItemName("Moteur");
  auto s = std::make_shared<ScreenItem>();
  EXPECT_TRUE(test::throws([&] { s->DbRead(conn, moteur, 9999); }, 1, "Screen not found", "ScreenItem.DbRead"));
  conn.close();
  Error e = test::thrownBy([&] { s->DbRead(conn, moteur, 1); });
  EXPECT_EQ(e.description().rfind("Database error " + std::to_string(e.number()) + " : ", 0), 0u)
      << e.description();
  db::Connection& reopened = t.conn();
  // Writes need the whole chain up to the target.
  auto orphan = std::make_shared<LabelItem>();
  EXPECT_TRUE(test::throws([&] { orphan->dbInsert(reopened); }, 100, "Parent not defined"));
  EXPECT_TRUE(test::throws([&] { b->dbInsert(reopened); }, 100, "Parent not defined"));
  EXPECT_TRUE(test::throws([&] { s->dbInsert(reopened); }, 100, "Parent not defined"));
  auto lone = std::make_shared<ScreenItems>();
  lone->Add(0, "Seul");
  EXPECT_TRUE(test::throws([&] { lone->DbInsertAll(reopened); }, 100, "Parent not defined"));
}

TEST(ScreenOlderLayout, TheWholeTargetReadTakesTheScreenTree) {
  test::OlderLayoutDb old;
  for (const char* sql : {
           "INSERT INTO Cibles (Address, [Target Name]) VALUES (122, 'ABS old')",
           "INSERT INTO [Paramètres UCE] ([Ecu Id], [Init Mode], [Baud Rate], Multipoint, [Little Endian]) "
           "VALUES (1, 0, 4800, 0, 0)",
           "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 1, 'Lecture')",
           "INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (1, 'Z')",
           "INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (1, 'A')",
           "INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name], [Init Id], Width) VALUES (1, 2, 'E', 2, 700)",
           "INSERT INTO Titres ([Target Id], [Screen Id], [Text], FontSize) VALUES (1, 1, 'T', 8.25)",
           "INSERT INTO Boutons ([Target Id], [Screen Id], Caption) VALUES (1, 1, 'b')",
           "INSERT INTO Boutons ([Target Id], [Screen Id], Caption, Message) VALUES (1, 1, 'a', 'm')",
           "INSERT INTO Scenarios VALUES (1, 2, 3, 122, 1, 'Lecture', 0, 40)"})
    old.conn->execute(sql);
  auto t = TargetItem::create();
  t->dbReadTargetAllKVR(*old.conn, 122, 1);
  ASSERT_TRUE(t->Categories());
  EXPECT_EQ(test::describe(*t->Categories()),
            "C A\n"
            " S E|0|700|400|16777215|init=a\n"
            "  L T|0,0,0,0|| 8.25|00|0|0|0\n"
            "  B a|0,0,0,0|| 12|00|m|init\n"
            "   > 3 Lecture 40\n"
            "  B b|0,0,0,0|| 12|00||\n"
            "C Z\n");
}

}  // namespace
}  // namespace kavrel
