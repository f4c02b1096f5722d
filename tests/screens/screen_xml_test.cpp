// The screen tree in XML: the exact layout, export -> import -> export, the
// initial button, and the loading rules.

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "screens/screen_fixture.h"
#include "support/checks.h"

namespace kavrel {
namespace {

std::string exportTree(CategoryItems& categories) {
  xml::Document doc;
  categories.createXMLnode(doc, doc.appendElement("ds:Categories"));
  return doc.toString();
}

std::shared_ptr<CategoryItems> importTree(const std::string& text, const std::shared_ptr<TargetItem>& target) {
  xml::Document doc;
  EXPECT_TRUE(doc.loadString(text)) << doc.parseError().reason;
  auto categories = std::make_shared<CategoryItems>();
  categories->loadXml(doc, doc.documentElement(), target);
  return categories;
}

TEST(ScreenXml, LayoutOfAScreenIsExact) {
  test::ScreenTarget t;
  auto s = t.addScreen(t.addCategory("Moteur"), "Essai");
  auto l = t.addLabel(s, "Titre \"1\" & co");
  l->setFontName("Arial");
  l->setFontSize(8.25F);
  l->setLabelColor(255);
  auto go = t.addButton(s, "Go");
  t.addStep(go, "Lecture", 0);
  t.addStep(go, "Ecriture 'rapide'", 5);
  t.addStep(go, "Lecture", 7)->setRequest(nullptr);  // its request was deleted
  auto init = t.addButton(s, "Init");
  init->setInitButton(true);
  init->setMessage("Bonjour");
  t.addStep(init, "Lecture", 100);
  s->setButtonInit(init);
  t.addScreen(t.addCategory("Vide"), "Rien");
  EXPECT_EQ(exportTree(*t.target->Categories()),
            "<ds:Categories>\n"
            "<Category Name=\"Moteur\">\n"
            "<Screen Name=\"Essai\" Color=\"16777215\" WindowState=\"0\" Width=\"600\" Height=\"400\">\n"
            "<Label Text=\"Titre &quot;1&quot; &amp; co\" Color=\"255\" Alignment=\"0\">\n"
            "<Rectangle Left=\"0\" Top=\"0\" Height=\"0\" Width=\"0\"/>\n"
            "<Font Name=\"Arial\" Size=\" 8.25\" Bold=\"0\" Italic=\"0\" Color=\"0\"/></Label>\n"
            "<Message Text=\"Bonjour\"/>\n"
            "<Send Delay=\"100\" RequestName=\"Lecture\"/>\n"
            "<Button Text=\"Go\">\n"
            "<Rectangle Left=\"0\" Top=\"0\" Height=\"0\" Width=\"0\"/>\n"
            "<Font Name=\"\" Size=\" 12\" Bold=\"0\" Italic=\"0\"/>\n"
            "<Message Text=\"\"/>\n"
            "<Send Delay=\"0\" RequestName=\"Lecture\"/><Send Delay=\"5\" RequestName=\"Ecriture 'rapide'\"/><Send/>"
            "</Button>\n"
            "<Button Text=\"Init\" InitButton=\"1\">\n"
            "<Rectangle Left=\"0\" Top=\"0\" Height=\"0\" Width=\"0\"/>\n"
            "<Font Name=\"\" Size=\" 12\" Bold=\"0\" Italic=\"0\"/>\n"
            "<Message Text=\"Bonjour\"/>\n"
            "<Send Delay=\"100\" RequestName=\"Lecture\"/></Button></Screen></Category>\n"
            "<Category Name=\"Vide\">\n"
            "<Screen Name=\"Rien\" Color=\"16777215\" WindowState=\"0\" Width=\"600\" Height=\"400\"/></Category>"
            "</ds:Categories>\n");
}

TEST(ScreenXml, ExportImportExportGivesTheSameBytesAndTheSameTree) {
  test::ScreenTarget t;
  t.buildTree();
  const std::string first = exportTree(*t.target->Categories());
  auto imported = importTree(first, t.target);
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  EXPECT_EQ(exportTree(*imported), first);
  // Nothing stored is lost: the tree (in document order) is the one built,
  // steps numbered from 0, the initial button linked again.
  EXPECT_EQ(test::describe(*imported), test::describe(*t.target->Categories()));
  auto reglages = imported->ItemName("Moteur")->Screens()->ItemName("Réglages");
  ASSERT_TRUE(reglages->ButtonInit());
  EXPECT_EQ(reglages->ButtonInit()->Caption(), "Départ");
  EXPECT_EQ(reglages->ButtonInit()->parent(), reglages);
  EXPECT_EQ(reglages->parent(), imported->ItemName("Moteur"));
  EXPECT_EQ(imported->ItemName("Moteur")->parent(), t.target);
  EXPECT_EQ(reglages->LabelItems()->Item(1)->FontSize(), 8.25F);
}

TEST(ScreenXml, LoadingRulesForMissingNamesRequestsAndTheInitialButton) {
  test::ScreenTarget t;
  defaultHost()->clear();
  recordError(7, "before", "pending before the load");
  auto categories = importTree(
      "<ds:Categories>\n"
      "<Category>\n"
      "<Screen Color=\"1\"/>\n"
      "<Screen Name=\"Ancien\" Width=\"bad\" Height=\"500\">\n"
      "<Message Text=\"Démarrage\"/>\n"
      "<Send RequestName=\"Lecture\" Delay=\"10\"/><Send Delay=\"1\"/><Send RequestName=\"Inconnue\"/>"
      "<Send RequestName=\"Ecriture 'rapide'\" Delay=\"20\"/>\n"
      "<Button Text=\"B\">\n<Font Size=\"10,5\"/></Button>\n"
      "<Label Text=\"L\">\n<Font Size=\"bad\" Bold=\"1\"/></Label></Screen></Category>\n"
      "<Category Name=\"Deux\">\n"
      "<Screen Name=\"Marqués\">\n"
      "<Message Text=\"copie\"/>\n"
      "<Button Text=\"Premier\" InitButton=\"1\">\n<Message Text=\"vrai\"/></Button>\n"
      "<Button Text=\"Second\" InitButton=\"1\"/></Screen></Category></ds:Categories>",
      t.target);
  // What was pending before is still there; nothing else is.
  EXPECT_TRUE(test::recorded(7, "pending before the load"));
  clearLastError();
  // A category without a name is kept; a screen without one is dropped.
  ASSERT_EQ(categories->Count(), 2);
  auto unnamed = categories->Item(1);
  EXPECT_EQ(unnamed->categoryName(), "");
  ASSERT_EQ(unnamed->Screens()->Count(), 1);
  auto ancien = unnamed->Screens()->Item(1);
  EXPECT_EQ(ancien->ScreenWidth(), 600);
  EXPECT_EQ(ancien->ScreenHeight(), 500);
  EXPECT_EQ(ancien->ButtonItems()->Item(1)->FontSize(), 10.5F);
  EXPECT_EQ(ancien->LabelItems()->Item(1)->FontSize(), 0.0F);
  EXPECT_TRUE(ancien->LabelItems()->Item(1)->FontBold());
  // The screen's own message and steps, without a marked button, make one;
  // the steps with an empty or unknown request are logged and skipped.
  auto init = ancien->ButtonInit();
  ASSERT_TRUE(init);
  EXPECT_TRUE(init->InitButton());
  EXPECT_EQ(ancien->ButtonItems()->Count(), 2);
  EXPECT_EQ(ancien->ButtonItems()->Item(2), init);
  EXPECT_EQ(init->Message(), "Démarrage");
  ASSERT_EQ(init->ScenarioItems()->Count(), 2);
  EXPECT_EQ(init->ScenarioItems()->Item(1)->index(), 0);
  EXPECT_EQ(init->ScenarioItems()->Item(2)->index(), 1);
  EXPECT_EQ(init->ScenarioItems()->Item(2)->request(), t.target->Requests()->ItemName("Ecriture 'rapide'"));
  EXPECT_EQ(init->ScenarioItems()->Item(2)->Delay(), 20);
  std::vector<std::string> logged;
  for (const auto& e : defaultHost()->events()) logged.push_back(e.text);
  EXPECT_EQ(logged, (std::vector<std::string>{"ScreenItem.loadXml : Name undefined, bad screen",
                                              "ScenarioItem.loadXml : requestName missing ",
                                              "ScenarioItem.loadXml : request (Inconnue) missing "}));
  // With marked buttons the first one is the initial button; the screen's
  // copies of its message do not override its own.
  auto marques = categories->Item(2)->Screens()->Item(1);
  ASSERT_TRUE(marques->ButtonInit());
  EXPECT_EQ(marques->ButtonInit()->Caption(), "Premier");
  EXPECT_EQ(marques->ButtonInit()->Message(), "vrai");
  EXPECT_EQ(marques->ButtonItems()->Count(), 2);

  // A single item's load signals a missing name.
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<Category/>"));
  auto c = std::make_shared<CategoryItem>();
  c->loadXml(doc, doc.documentElement());
  EXPECT_TRUE(test::recorded(1, "Name undefined, bad category"));
  EXPECT_EQ(lastError().source, "CategoryItem.loadXml");
  clearLastError();
}

TEST(ScreenXml, ImportedTreeIsStoredAndReadBackWithTheInitialButton) {
  test::ScreenTarget t;
  t.buildTree();
  auto imported = importTree(exportTree(*t.target->Categories()), t.target);
  t.target->setCategories(imported);
  imported->DbInsertAll(t.conn());
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  auto read = std::make_shared<CategoryItems>();
  read->dbReadAll(t.conn(), t.target);
  EXPECT_EQ(test::describe(*read), test::kStoredTree);
  auto reglages = read->ItemName("Moteur")->Screens()->ItemName("Réglages");
  ASSERT_TRUE(reglages->ButtonInit());
  EXPECT_EQ(reglages->ButtonInit()->Caption(), "Départ");
}

}  // namespace
}  // namespace kavrel
