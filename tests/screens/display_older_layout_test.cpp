#include <gtest/gtest.h>

#include <string>

#include "screens/display_fixture.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "support/engines.h"

namespace kavrel {
namespace {

using test::describe;

// An older-layout database whose displays carry their data name, and the
// in-memory target its readers resolve names against.
struct OlderDisplays {
  OlderDisplays() {
    for (const char* sql : {
             "INSERT INTO Requêtes ([Request Id], Address, [Target Id], [Request Name], LgVariable) VALUES "
             "(1, 122, 1, 'Lecture', 0), (2, 122, 1, 'Ecriture', 0), (3, 122, 1, 'Reset', -1)",
             // Data of non-zero length are shown as data; of zero length, as their request.
             "INSERT INTO Données (Address, [Target Id], [Request Id], [Data Name], Param, Length) VALUES "
             "(122, 1, 1, 'Vitesse', 0, 1), (122, 1, 2, 'Consigne', -1, 2), (122, 1, 2, 'Pression', -1, 1), "
             "(122, 1, 3, 'Reset', 0, 0), (122, 1, 1, 'Inconnue', 0, 1)",
             "INSERT INTO Affichages ([Target Id], [Screen Id], [Left], [Data Name], Address, [Ecu Id], Param, "
             "FontName, FontBold) VALUES (1, 7, 0, 'Vitesse', 122, 1, 0, 'Verdana', -1), "
             "(1, 7, 10, 'Consigne', 122, 1, -1, NULL, 0), (1, 7, 20, 'Pression', 122, 1, -1, NULL, 0), "
             "(1, 7, 30, 'Reset', 122, 1, 0, NULL, 0), (1, 7, 40, 'Fantôme', 122, 1, 0, NULL, 0), "
             "(1, 7, 50, 'Inconnue', 122, 1, 0, NULL, 0), (1, 8, 0, 'Vitesse', 122, 1, 0, NULL, 0)",
             "INSERT INTO Seuils VALUES (1, 5.5, 255, -1, 2), (1, -1, 0, 0, 0)"})
      db.conn->execute(sql);

    target->setTargetid(1);
    target->setAddress(122);
    auto requests = std::make_shared<RequestItems>();
    target->setRequests(requests);
    auto add = [&](const char* name, std::vector<std::string> positions) {
      auto r = requests->Add(0);
      r->setParent(target);
      r->setRequestName(name);
      for (const auto& p : positions) test::addPosition(r, p, 1, 0, false, p != "Vitesse");
    };
    add("Lecture", {"Vitesse"});
    add("Ecriture", {"consigne - ecriture", "Pression"});
    add("Reset", {});
    auto categories = std::make_shared<CategoryItems>();
    target->setCategories(categories);
    auto category = categories->Add(1, "Mesures");
    category->setParent(target);
    screen = category->Screens()->Add(7, "Moteur");
    screen->setParent(category);
  }
  test::OlderLayoutDb db;
  std::shared_ptr<TargetItem> target = TargetItem::create();
  std::shared_ptr<ScreenItem> screen;
};

class DisplayOlderLayout : public ::kavrel::test::EngineTest {};
KAVREL_ON_ENGINES(DisplayOlderLayout);

TEST_P(DisplayOlderLayout, TheTypeFollowsTheJoinedDataAndFallsBackToThree) {
  OlderDisplays old;
  DisplayItems list;
  list.dbReadKVR(*old.db.conn, 1, old.screen);
  std::vector<std::string> got;
  for (const auto& d : list) got.push_back(describe(*d));
  const std::string plain = ",0,300,4000,2000|16777215|Arial,10,00,0|";
  EXPECT_EQ(got, (std::vector<std::string>{
                     "3|0,0,300,4000,2000|16777215|Verdana,10,10,0|Lecture/Vitesse|-1:0 5.5:255~2 ",
                     "3|10" + plain + "Ecriture/Consigne|-",  // found as "consigne - ecriture"
                     "3|20" + plain + "Ecriture/Pression|-",  // an input found under its plain name
                     "1|30" + plain + "Reset|-",
                     "3|40" + plain + "-|-",  // neither: type 3, nothing linked
                     "3|50" + plain + "Lecture/Inconnue(unresolved)|-",
                 }));
  auto requests = old.target->Requests();
  EXPECT_EQ(list.Item(2)->DisplayDataItem()->DataPosition(),
            requests->ItemDataPositionName("Ecriture", "consigne - ecriture"));
  EXPECT_EQ(list.Item(4)->DisplayExtraItem()->request(), requests->ItemName("Reset"));
  EXPECT_EQ(list.Item(4)->DisplayDataItem(), nullptr);
  EXPECT_EQ(list.Item(5)->DisplayExtraItem(), nullptr);
  auto boxes = defaultHost()->messageBoxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].text, "DisplayDatatem.dbReadKVR error : Data position non trouvée : Inconnue");
  EXPECT_EQ(boxes[0].title, "");

  // The collections read every joined row, with their own message text.
  defaultHost()->clear();
  DisplayDataItems datas;
  EXPECT_EQ(datas.dbReadKVR(*old.db.conn, list.Item(6)), 1);
  ASSERT_EQ(defaultHost()->messageBoxes().size(), 1u);
  EXPECT_EQ(defaultHost()->messageBoxes()[0].text,
            "DisplayDatatems.dbReadKVR error : Data position non trouvée : Inconnue");
  DisplayExtraItems extras;
  EXPECT_EQ(extras.dbReadKVR(*old.db.conn, list.Item(4)), 1);
  EXPECT_EQ(extras.Item(1)->request(), requests->ItemName("Reset"));
  EXPECT_EQ(extras.dbReadKVR(*old.db.conn, list.Item(1)), 0);
}

TEST_P(DisplayOlderLayout, ErrorsReachTheCallerWithTheDisplaysReadSoFar) {
  OlderDisplays old;
  old.db.conn->execute("DROP TABLE Seuils");
  DisplayItems list;
  EXPECT_THROW(list.dbReadKVR(*old.db.conn, 1, old.screen), Error);
  EXPECT_EQ(list.Count(), 1);
}

}  // namespace
}  // namespace kavrel
