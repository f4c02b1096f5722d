#include "kavrel/screens/display_items.h"

#include <gtest/gtest.h>

#include "screens/display_fixture.h"
#include "screens/display_support.h"
#include "support/checks.h"
#include "support/engines.h"

namespace kavrel {
namespace {

using test::describe;
using test::DisplayTarget;

const std::string kNoRequest =
    "DisplayExtraItem.DbInsertAll : DisplayExtraItem.dbInsert : impossible to insert extraData because the request "
    "doesn't exist";
const std::string kNoPosition = "DisplayDataItem.DbInsertAll : DisplayDataItem.dbInsert : the display shows no data position";

std::vector<std::string> eventTexts() {
  std::vector<std::string> out;
  for (const auto& e : defaultHost()->events()) out.push_back(e.text);
  return out;
}

std::vector<std::string> described(const DisplayItems& list) {
  std::vector<std::string> out;
  for (const auto& d : list) out.push_back(describe(*d));
  return out;
}

class DisplayDb : public ::kavrel::test::EngineTest {};
KAVREL_ON_ENGINES(DisplayDb);

TEST_P(DisplayDb, EveryKindRoundTripsWithItsLinkAndThresholds) {
  DisplayTarget t;
  auto data = t.dataDisplay("Lecture 'A'", "Vitesse", 500);
  data->setDisplayTop(20);
  data->setDisplayHeight(310);
  data->setDisplayWidth(4100);
  data->setCaptionWidth(1900);
  data->setDisplayColor(12632256);
  data->setFontName("Courier 'New'");
  data->setFontSize(12);
  data->setFontBold(true);
  data->setFontItalic(true);
  data->setFontColor(255);
  DisplayTarget::range(data, 12.5, 255, 3);
  DisplayTarget::range(data, -3, 16711680);
  // The row names the linked data, not the link's own (stale) copy of it.
  data->DisplayDataItem()->setDataname("Nom périmé");
  auto input = t.dataDisplay("Ecriture", "Consigne", 100);
  auto requestInput = t.requestDisplay("Reset", true, 200);
  DisplayTarget::range(requestInput, 0.1, 65280);
  auto request = t.requestDisplay("Lecture 'A'", false, 300);
  auto other = t.display(2, 400);
  for (const auto& d : {data, input, requestInput, request, other}) {
    d->DbInsertAll(t.conn());
    EXPECT_GT(d->id(), 0);
  }
  EXPECT_FALSE(lastError().pending());
  // The link of the other kind is offered too and refused into the event log.
  EXPECT_EQ(eventTexts(), (std::vector<std::string>{kNoRequest, kNoRequest, kNoPosition, kNoPosition, kNoPosition,
                                                    kNoRequest}));

  // Read back in [Left] order, each with the link of its type only.
  auto list = t.readBack();
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  EXPECT_EQ(described(*list), (std::vector<std::string>{
                                  "3|100,0,300,4000,2000|16777215|Arial,10,00,0|Ecriture/Consigne|-",
                                  "1|200,0,300,4000,2000|16777215|Arial,10,00,0|Reset input|0.1:65280 ",
                                  "1|300,0,300,4000,2000|16777215|Arial,10,00,0|Lecture 'A'|-",
                                  "2|400,0,300,4000,2000|16777215|Arial,10,00,0||-",
                                  "3|500,20,310,4100,1900|12632256|Courier 'New',12,11,255|Lecture 'A'/Vitesse|-3:16711680 "
                                  "12.5:255~3 ",
                              }));
  auto first = list->Item(1);
  EXPECT_EQ(first->id(), input->id());
  EXPECT_EQ(first->parent(), t.screen);
  EXPECT_EQ(first->DisplayDataItem()->DataPosition(), t.target->Requests()->ItemDataPositionName("Ecriture", "Consigne"));
  EXPECT_EQ(first->DisplayDataItem()->parent(), first);
  EXPECT_EQ(first->RangeItems(), nullptr);  // no thresholds
  EXPECT_NE(first->DisplayExtraItem(), nullptr);  // left as constructed
  EXPECT_EQ(list->Item(2)->DisplayExtraItem()->request(), t.target->Requests()->ItemName("Reset"));
  EXPECT_EQ(list->Item(2)->RangeItems()->Item(1)->parent(), list->Item(2));

  // The link rows name the target twice and its address once.
  auto row = t.conn().execute("SELECT [Ecu Address], [Ecu Id], [Screen Id], [Type Affich] FROM Données_Aff WHERE "
                              "[Display Id]=" + std::to_string(data->id()));
  ASSERT_FALSE(row->eof());
  EXPECT_EQ(row->field(0).toInt32(), 122);
  EXPECT_EQ(row->field(1).toInt32(), t.target->targetid());
  EXPECT_EQ(row->field(2).toInt32(), t.screen->screenId());
  EXPECT_EQ(row->field(3).toInt32(), 3);
  EXPECT_TRUE(t.value("SELECT LgVariable FROM Extra_Aff WHERE [Display Id]=" + std::to_string(requestInput->id())).toBool());
  EXPECT_TRUE(t.value("SELECT Param FROM Extra_Aff WHERE [Display Id]=" + std::to_string(requestInput->id())).toBool());
  EXPECT_EQ(t.count("SELECT SonFlag FROM Seuils WHERE [Seuil]=12.5"), 1);

  // A Null font name reads as "Arial"; an empty one is written as Null.
  data->setFontName("");
  data->dbUpdate(t.conn());
  EXPECT_TRUE(t.value("SELECT FontName FROM Affichages WHERE [Display Id]=" + std::to_string(data->id())).isNull());
  EXPECT_EQ(t.readBack()->Item(5)->FontName(), "Arial");
}

TEST_P(DisplayDb, ALinkNotFoundReadsAsNoneAndABrokenLinkStopsTheRead) {
  DisplayTarget t;
  auto a = t.requestDisplay("Reset", false, 0);
  auto b = t.dataDisplay("Lecture 'A'", "Vitesse", 100);
  auto c = t.requestDisplay("Reset", false, 200);
  for (const auto& d : {a, b, c}) d->DbInsertAll(t.conn());
  // A type-3 row without its link row, and a type-1 row whose request went.
  t.conn().execute("DELETE FROM Données_Aff");
  auto list = t.readBack();
  ASSERT_EQ(list->Count(), 3);
  EXPECT_EQ(list->Item(2)->DisplayDataItem(), nullptr);
  EXPECT_NE(list->Item(2)->DisplayExtraItem(), nullptr);
  EXPECT_FALSE(lastError().pending());

  // A link table that cannot be read stops the read at that display; the
  // displays read so far stay and the error is left pending.
  b->DbInsertAll(t.conn());
  t.conn().execute("DROP TABLE Données_Aff");
  auto stopped = std::make_shared<DisplayItems>();
  EXPECT_NO_THROW(stopped->DbRead(t.conn(), t.target->targetid(), t.screen));
  EXPECT_TRUE(lastError().pending());
  ASSERT_EQ(stopped->Count(), 2);  // the request display at 0, the data display at 100
  EXPECT_EQ(stopped->Item(1)->TypeDisplay(), 1);
  EXPECT_EQ(stopped->Item(2)->TypeDisplay(), 3);
}

TEST_P(DisplayDb, ATargetWideBatchReadsWhatTheScreenReadsRead) {
  DisplayTarget t;
  auto second = t.addScreen("Boîte");
  for (const auto& screen : {t.screen, second}) {
    for (int i = 0; i < 3; ++i) {
      auto d = t.dataDisplay(i == 1 ? "Ecriture" : "Lecture 'A'", i == 1 ? "Consigne" : "Régime", 100 * (3 - i));
      d->setParent(screen);
      DisplayTarget::range(d, i * 1.5, i);
      d->DbInsertAll(t.conn());
      auto r = t.requestDisplay("Reset", i == 2, 50 + i);
      r->setParent(screen);
      r->DbInsertAll(t.conn());
    }
  }
  for (const auto& screen : {t.screen, second}) {
    auto alone = std::make_shared<DisplayItems>();
    alone->DbRead(t.conn(), t.target->targetid(), screen);
    auto batched = std::make_shared<DisplayItems>();
    {
      detail::DisplayReadBatch batch(t.conn(), t.target->targetid());
      batched->DbRead(t.conn(), t.target->targetid(), screen);
    }
    EXPECT_EQ(alone->Count(), 6);
    EXPECT_EQ(described(*alone), described(*batched));
    for (const auto& d : *batched) EXPECT_EQ(d->parent(), screen);
  }
}

TEST_P(DisplayDb, UpdateKeepsTheTypeAndDeletesTakeLinksAndThresholds) {
  DisplayTarget t;
  auto d = t.dataDisplay("Lecture 'A'", "Vitesse", 10);
  DisplayTarget::range(d, 1, 2);
  d->DbInsertAll(t.conn());
  d->setTypeDisplay(1);
  d->setDisplayLeft(11);
  d->setFontName("O'Brien");
  d->setFontSize(14);
  d->setFontBold(true);
  d->dbUpdate(t.conn());
  const std::string id = std::to_string(d->id());
  EXPECT_EQ(t.count("SELECT [Type Affich] FROM Affichages WHERE [Display Id]=" + id), 3);
  EXPECT_EQ(t.count("SELECT [Left] FROM Affichages WHERE [Display Id]=" + id), 11);
  EXPECT_EQ(t.value("SELECT FontName FROM Affichages WHERE [Display Id]=" + id).toText(), "O'Brien");
  EXPECT_EQ(t.count("SELECT FontSize FROM Affichages WHERE [Display Id]=" + id), 14);
  EXPECT_EQ(t.count("SELECT FontBold FROM Affichages WHERE [Display Id]=" + id), 1);

  // A shown position cannot be deleted; a shown request takes its displays with it.
  auto pos = t.target->Requests()->ItemDataPositionName("Lecture 'A'", "Vitesse");
  pos->dbDelete(t.conn());
  EXPECT_TRUE(test::recorded(1, "The data is used, impossible to remove it."));
  clearLastError();
  auto shown = t.requestDisplay("Reset", false, 20);
  shown->DbInsertAll(t.conn());
  EXPECT_NO_THROW(t.target->Requests()->ItemName("Reset")->dbDelete(t.conn()));
  EXPECT_EQ(t.count("SELECT count(*) FROM Affichages WHERE [Display Id]=" + std::to_string(shown->id())), 0);
  EXPECT_EQ(t.count("SELECT count(*) FROM Extra_Aff"), 0);

  // dbDeleteItem: an unknown id does nothing; of two equal ids only the first goes.
  DisplayItems list;
  auto stranger = t.display(3);
  stranger->setId(999);
  list.AddData(d);
  auto twin = t.display(3);
  twin->setId(d->id());
  list.AddData(twin);
  list.dbDeleteItem(t.conn(), stranger);
  EXPECT_EQ(list.Count(), 2);
  list.dbDeleteItem(t.conn(), twin);
  ASSERT_EQ(list.Count(), 1);
  EXPECT_EQ(list.Item(1), twin);
  for (const char* table : {"Affichages", "Données_Aff", "Seuils"})
    EXPECT_EQ(t.count(std::string("SELECT count(*) FROM ") + table + " WHERE [Display Id]=" + id), 0) << table;
  pos->dbDelete(t.conn());  // no longer shown
  EXPECT_FALSE(lastError().pending());
}

TEST_P(DisplayDb, WritesWithoutAScreenOfATargetRaiseParentNotDefined) {
  DisplayItem d;
  test::TempDb db;
  for (auto op : {&DisplayItem::dbInsert, &DisplayItem::dbUpdate, &DisplayItem::dbDelete})
    EXPECT_TRUE(test::throws([&] { (d.*op)(*db.connection()); }, 100, "Parent not defined"));
  auto orphan = std::make_shared<DisplayItem>();
  orphan->DbInsertAll(*db.connection());  // logged, not thrown
  EXPECT_EQ(eventTexts(), std::vector<std::string>{"DisplayItem.DbInsertAll : Parent not defined"});
  EXPECT_FALSE(lastError().pending());
  EXPECT_TRUE(test::throws([&] { DisplayDataItem().DbRead(*db.connection(), nullptr, 3); }, 100,
                           "DisplayDataItems.dbReadKVR error : parent not defined"));
  EXPECT_TRUE(test::throws([&] { DisplayExtraItem().DbRead(*db.connection(), nullptr, 1); }, 100,
                           "DisplayExtraItems.dbRead error : parent not defined"));
  EXPECT_TRUE(test::throws([&] { DisplayDataItem().dbReadKVR(*db.connection(), nullptr); }, 100,
                           "DisplayDataItem.dbReadKVR error : parent not defined"));
  EXPECT_TRUE(test::throws([&] { DisplayExtraItems().dbReadKVR(*db.connection(), nullptr); }, 100,
                           "DisplayExtraItems.dbReadKVR error : parent not defined"));
}

TEST(DisplayObjects, DefaultsClearAndObsoleteXmlOperations) {
  auto d = std::make_shared<DisplayItem>();
  EXPECT_EQ(describe(*d), "3|0,0,300,4000,2000|16777215|Arial,10,00,0|/(unresolved)|");
  auto data = d->DisplayDataItem();
  auto extra = d->DisplayExtraItem();
  data->setParent(d);
  d->clear();
  EXPECT_EQ(d->DisplayDataItem(), nullptr);
  EXPECT_EQ(d->DisplayExtraItem(), nullptr);
  EXPECT_EQ(d->RangeItems(), nullptr);
  EXPECT_EQ(data->parent(), nullptr);
  xml::Document doc;
  xml::Node root = doc.appendElement("Screen");
  d->createXMLnode(doc, root);  // no link: nothing written
  EXPECT_EQ(doc.toString(), "<Screen/>\n");
  data->createXMLnode(doc, root);
  data->loadXml(doc, root);
  extra->createXMLnode(doc, root);
  extra->loadXml(doc, root);
  DisplayDataItems().createXMLnode(doc, root);
  DisplayDataItems().loadXml(doc, root);
  DisplayExtraItems().createXMLnode(doc, root);
  DisplayExtraItems().loadXml(doc, root);
  std::vector<std::string> boxes;
  for (const auto& b : defaultHost()->messageBoxes()) {
    EXPECT_EQ(b.title, "");
    boxes.push_back(b.text);
  }
  EXPECT_EQ(boxes, (std::vector<std::string>{
                       "DisplayDataItem.createXMLnode obsolete function", "DisplayDataItem.loadXml obsolete function",
                       "DisplayExtraItem.createXMLnode obsolete function", "DisplayExtraItem.loadXml obsolete function",
                       "DisplayDataItems.createXMLnode obsolete function", "DisplayDataItems.loadXml obsolete function",
                       "DisplayExtraItems.createXMLnode obsolete function",
                       "DisplayExtraItems.loadXml obsolete function"}));
  EXPECT_EQ(doc.toString(), "<Screen/>\n");
}

}  // namespace
}  // namespace kavrel

namespace kavrel {
namespace {

class DisplayBulk : public ::kavrel::test::EngineTest {};
KAVREL_ON_ENGINES(DisplayBulk);

TEST_P(DisplayBulk, AScreenInsertWritesEachDisplayBeforeItsLinksAndThresholds) {
  DisplayTarget t;
  auto fresh = t.category->Screens()->Add(0, "Neuf");
  fresh->setParent(t.category);
  auto displays = fresh->DisplayItems();
  ASSERT_NE(displays, nullptr);
  std::vector<std::shared_ptr<DisplayItem>> made{t.dataDisplay("Lecture 'A'", "Vitesse", 30),
                                                 t.requestDisplay("Reset", true, 10), t.display(2, 20),
                                                 t.dataDisplay("Lecture 'A'", "Absente", 40)};
  DisplayTarget::range(made[0], 2.5, 1, 4);
  DisplayTarget::range(made[1], -1, 2);
  DisplayTarget::range(made[2], 0, 3);
  for (const auto& d : made) {
    d->setParent(fresh);
    displays->AddData(d);
  }
  ScreenItems screens;
  screens.AddData(fresh);
  screens.DbInsertAll(t.conn());
  ASSERT_GT(fresh->screenId(), t.screen->screenId());
  // Only the link a display's type needs is missed when it cannot be stored.
  EXPECT_EQ(eventTexts(), std::vector<std::string>{kNoPosition});
  for (const auto& d : made) EXPECT_GT(d->id(), 0);
  EXPECT_EQ(t.count("SELECT [Display Id] FROM Données_Aff"), made[0]->id());
  EXPECT_EQ(t.count("SELECT [Display Id] FROM Extra_Aff"), made[1]->id());
  EXPECT_EQ(t.count("SELECT count(*) FROM Seuils"), 3);
  t.screen = fresh;
  auto back = t.readBack();
  ASSERT_EQ(back->Count(), 4);
  EXPECT_EQ(back->Item(4)->DisplayDataItem(), nullptr);
  back->Remove(4);
  EXPECT_EQ(described(*back), (std::vector<std::string>{describe(*made[1]), describe(*made[2]), describe(*made[0])}));
}

}  // namespace
}  // namespace kavrel
