#include <gtest/gtest.h>

#include <string>

#include "screens/display_fixture.h"
#include "support/checks.h"

namespace kavrel {
namespace {

using test::describe;
using test::DisplayTarget;

std::string exported(DisplayItems& list) {
  xml::Document doc;
  list.createXMLnode(doc, doc.appendElement("Screen"));
  return doc.toString();
}

std::shared_ptr<DisplayItems> imported(DisplayTarget& t, const std::string& screenXml) {
  xml::Document doc;
  EXPECT_TRUE(doc.loadString(screenXml)) << doc.parseError().reason;
  auto list = std::make_shared<DisplayItems>();
  list->loadXml(doc, doc.documentElement(), t.screen);
  return list;
}

std::vector<std::string> eventTexts() {
  std::vector<std::string> out;
  for (const auto& e : defaultHost()->events()) out.push_back(e.text);
  return out;
}

TEST(DisplayXml, EveryKindWritesItsElementAndReadsBackToTheSameBytes) {
  DisplayTarget t;
  DisplayItems list;
  auto data = list.AddData(t.dataDisplay("Lecture 'A'", "Vitesse", 500));
  data->setFontSize(12);
  data->setFontBold(true);
  DisplayTarget::range(data, 12.5, 255, 0);  // a sound's number is not read back (below)
  DisplayTarget::range(data, -3, 16711680);
  list.AddData(t.dataDisplay("Ecriture", "Consigne", 100));  // its position is written: an input
  auto requestInput = list.AddData(t.requestDisplay("Reset", true, 200));
  requestInput->setCaptionWidth(1500);
  requestInput->setDisplayColor(65535);
  requestInput->setFontName("Tahoma & co");
  requestInput->setFontItalic(true);
  requestInput->setFontColor(128);
  list.AddData(t.requestDisplay("Lecture 'A'", false, 300));
  const std::string xml = exported(list);
  const std::string expected =
      "<Screen>\n"
      "<Display Width=\"2000\" Color=\"16777215\" DataName=\"Vitesse\" RequestName=\"Lecture 'A'\">\n"
      "<Rectangle Left=\"500\" Top=\"0\" Height=\"300\" Width=\"4000\"/>\n"
      "<Font Name=\"Arial\" Size=\" 12\" Bold=\"1\" Italic=\"0\" Color=\"0\"/>"
      "<Threshold Value=\" 12.5\" Color=\"255\">\n<Sound Name=\"0\"/></Threshold>"
      "<Threshold Value=\"-3\" Color=\"16711680\"/></Display>\n"
      "<Input Width=\"2000\" Color=\"16777215\" DataName=\"Consigne\" RequestName=\"Ecriture\">\n"
      "<Rectangle Left=\"100\" Top=\"0\" Height=\"300\" Width=\"4000\"/>\n"
      "<Font Name=\"Arial\" Size=\" 10\" Bold=\"0\" Italic=\"0\" Color=\"0\"/></Input>\n"
      "<Input Width=\"1500\" Color=\"65535\" RequestName=\"Reset\">\n"
      "<Rectangle Left=\"200\" Top=\"0\" Height=\"300\" Width=\"4000\"/>\n"
      "<Font Name=\"Tahoma &amp; co\" Size=\" 10\" Bold=\"0\" Italic=\"1\" Color=\"128\"/></Input>\n"
      "<Display Width=\"2000\" Color=\"16777215\" RequestName=\"Lecture 'A'\">\n"
      "<Rectangle Left=\"300\" Top=\"0\" Height=\"300\" Width=\"4000\"/>\n"
      "<Font Name=\"Arial\" Size=\" 10\" Bold=\"0\" Italic=\"0\" Color=\"0\"/></Display></Screen>\n";
  EXPECT_EQ(xml, expected);

  auto back = imported(t, xml);
  EXPECT_TRUE(eventTexts().empty());
  ASSERT_EQ(back->Count(), list.Count());
  for (int32_t i = 1; i <= list.Count(); ++i) {
    EXPECT_EQ(describe(*back->Item(i)), describe(*list.Item(i))) << i;
    EXPECT_EQ(back->Item(i)->parent(), t.screen);
  }
  EXPECT_EQ(back->Item(2)->DisplayDataItem()->DataPosition(), t.target->Requests()->ItemDataPositionName("Ecriture", "Consigne"));
  EXPECT_EQ(back->Item(3)->DisplayExtraItem()->request(), t.target->Requests()->ItemName("Reset"));
  EXPECT_EQ(exported(*back), expected);

  // Other types write the data name only; a display without the link its
  // type needs writes nothing but the line feed before it.
  DisplayItems odd;
  auto typeTwo = odd.AddData(t.dataDisplay("Lecture 'A'", "Régime"));
  typeTwo->setTypeDisplay(2);
  odd.AddData(t.display(3))->setDisplayDataItem(nullptr);
  odd.AddData(t.display(1))->setDisplayExtraItem(nullptr);
  EXPECT_EQ(exported(odd),
            "<Screen>\n<Display Width=\"2000\" Color=\"16777215\" DataName=\"Régime\">\n"
            "<Rectangle Left=\"0\" Top=\"0\" Height=\"300\" Width=\"4000\"/>\n"
            "<Font Name=\"Arial\" Size=\" 10\" Bold=\"0\" Italic=\"0\" Color=\"0\"/></Display>\n\n</Screen>\n");
}

TEST(DisplayXml, BrokenDisplaysAreKeptWithTheirEventLogEntryOnly) {
  DisplayTarget t;
  const std::string longName = test::repeat("é", 71);
  auto list = imported(
      t, "<Screen>"
         "<Display RequestName=\"Inconnue\" Width=\"1200\"><Font Size=\"10,6\"/></Display>"
         "<Input><Font Size=\" 10\" Bold=\"True\"/></Input>"
         "<Display DataName=\"Vitesse\" RequestName=\"Ecriture\"><Font Size=\"10.5\"/></Display>"
         "<Display DataName=\"\" RequestName=\"Ecriture\"><Rectangle Left=\"x\" Top=\"7\"/></Display>"
         "<Input DataName=\"" + longName + "\" RequestName=\"Lecture 'A'\"><Font Size=\"11.5\"/></Input>"
         "<Label/><Display DataName=\"Régime\" RequestName=\"Lecture 'A'\" Color=\"red\">"
         "<Threshold Value=\"12,5\" Color=\"3\"/></Display>"
         "</Screen>");
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(eventTexts(), (std::vector<std::string>{
                              "DisplayItem.loadXml : request missing (Inconnue)",
                              "DisplayItem.loadXml : requestName missing",
                              "DisplayItem.loadXml : request/data missing (Ecriture/Vitesse)",
                              "DisplayItem.loadXml : dataName or requestName missing",
                              "DisplayItem.loadXml : request/data missing (Lecture 'A'/" + test::repeat("é", 70) + ")",
                          }));
  EXPECT_TRUE(test::longNameBoxShown(longName));
  ASSERT_EQ(list->Count(), 6);
  EXPECT_EQ(describe(*list->Item(1)), "1|0,0,300,4000,1200|16777215|Arial,11,00,0|Inconnue(unresolved)|");
  EXPECT_EQ(describe(*list->Item(2)), "1|0,0,300,4000,2000|16777215|Arial,10,10,0|(unresolved)|");
  EXPECT_EQ(list->Item(2)->DisplayExtraItem()->parent(), nullptr);  // not set up
  EXPECT_EQ(describe(*list->Item(3)), "3|0,0,300,4000,2000|16777215|Arial,10,00,0|Ecriture/Vitesse(unresolved)|");
  EXPECT_EQ(describe(*list->Item(4)), "3|0,7,300,4000,2000|16777215|Arial,10,00,0|/(unresolved)|");
  EXPECT_EQ(describe(*list->Item(5)),
            "3|0,0,300,4000,2000|16777215|Arial,12,00,0|Lecture 'A'/" + test::repeat("é", 70) + "(unresolved)|");
  EXPECT_EQ(describe(*list->Item(6)), "3|0,0,300,4000,2000|16777215|Arial,10,00,0|Lecture 'A'/Régime|12:3 ");

  // An unresolved link still exports the names it was given.
  auto again = imported(t, [&] {
    DisplayItems one;
    one.AddData(list->Item(3));
    one.AddData(list->Item(1));
    return exported(one);
  }());
  EXPECT_EQ(describe(*again->Item(1)), describe(*list->Item(3)));
  EXPECT_EQ(describe(*again->Item(2)), describe(*list->Item(1)));
}

}  // namespace
}  // namespace kavrel
