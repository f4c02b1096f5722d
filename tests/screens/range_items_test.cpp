#include "kavrel/screens/range_items.h"

#include <gtest/gtest.h>

#include <clocale>
#include <locale>
#include <string>

#include "screens/display_fixture.h"
#include "screens/display_support.h"
#include "support/checks.h"
#include "support/engines.h"

namespace kavrel {
namespace {

using test::DisplayTarget;

// The display's threshold rows as "value:colour:flag:sound", in value then colour order.
std::string rows(DisplayTarget& t, const DisplayItem& d) {
  auto rs = t.conn().execute("SELECT Seuil, Couleur, SonFlag, Son FROM Seuils WHERE [Display Id]=" +
                             std::to_string(d.id()) + " ORDER BY Seuil, Couleur");
  std::string s;
  for (; !rs->eof(); rs->moveNext())
    s += text::decimalText(rs->field(0).toDouble()) + ":" + rs->field(1).toText() + ":" + rs->field(2).toText() +
         ":" + rs->field(3).toText() + " ";
  return s;
}

// Gives C++ streams a decimal comma for the scope, and the C library too
// when the system has such a locale.
struct CommaLocale {
  struct Comma : std::numpunct<char> {
    char do_decimal_point() const override { return ','; }
  };
  CommaLocale() : previous(std::locale::global(std::locale(std::locale::classic(), new Comma))) {
    for (const char* name : {"de_DE.UTF-8", "fr_FR.UTF-8", "de_DE", "fr_FR"})
      if (std::setlocale(LC_ALL, name)) {
        active = true;
        break;
      }
  }
  ~CommaLocale() {
    std::setlocale(LC_ALL, "C");
    std::locale::global(previous);
  }
  std::locale previous;
  bool active = false;
};

class RangeDb : public ::kavrel::test::EngineTest {};
KAVREL_ON_ENGINES(RangeDb);

TEST_P(RangeDb, TwoThresholdsOfOneValueAreUpdatedMovedAndDeletedTogether) {
  DisplayTarget t;
  auto d = t.dataDisplay("Lecture 'A'", "Vitesse");
  auto red = DisplayTarget::range(d, 5, 255);
  auto green = DisplayTarget::range(d, 5, 65280, 2);
  auto other = DisplayTarget::range(d, 80.25, 1);
  d->DbInsertAll(t.conn());
  EXPECT_EQ(rows(t, *d), "5:255:0:0 5:65280:1:2 80.25:1:0:0 ");

  // Rows are named by display and value: the update reaches both fives.
  red->setSonFlag(true);
  red->setSon(7);
  red->dbUpdate(t.conn());
  EXPECT_EQ(rows(t, *d), "5:255:1:7 5:255:1:7 80.25:1:0:0 ");
  red->dbUpdateRange(t.conn(), 7.75);
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(red->Seuil(), 5);  // the caller sets it
  EXPECT_EQ(rows(t, *d), "7.75:255:1:7 7.75:255:1:7 80.25:1:0:0 ");

  // Deleting matches value and colour: both rows now have red.
  red->setSeuil(7.75);
  green->setSeuil(7.75);
  auto ranges = d->RangeItems();
  auto probe = std::make_shared<RangeItem>();
  probe->setSeuil(7.75);
  probe->setCouleur(1);
  ranges->DbDeleteRange(t.conn(), probe);  // no range of that colour in memory
  EXPECT_EQ(ranges->Count(), 3);
  EXPECT_EQ(rows(t, *d), "7.75:255:1:7 7.75:255:1:7 80.25:1:0:0 ");
  probe->setCouleur(255);
  ranges->DbDeleteRange(t.conn(), probe);
  ASSERT_EQ(ranges->Count(), 2);
  EXPECT_EQ(ranges->Item(1), green);
  EXPECT_EQ(rows(t, *d), "80.25:1:0:0 ");
  other->dbDelete(t.conn());
  EXPECT_EQ(rows(t, *d), "");
}

TEST_P(RangeDb, InsertFailureIsLeftPendingAndParentlessRangesRaise) {
  DisplayTarget t;
  auto d = t.dataDisplay("Lecture 'A'", "Vitesse");
  d->setId(424242);  // never stored: the row is refused by the database
  auto r = DisplayTarget::range(d, 1, 2);
  EXPECT_NO_THROW(r->dbInsert(t.conn()));
  ASSERT_TRUE(lastError().pending());
  EXPECT_EQ(lastError().description.rfind(" DBInsert Range Error : ", 0), 0u) << lastError().description;
  EXPECT_EQ(t.count("SELECT count(*) FROM Seuils"), 0);

  RangeItem orphan;
  EXPECT_TRUE(test::throws([&] { orphan.dbInsert(t.conn()); }, 100, "Parent not defined"));
  EXPECT_TRUE(test::throws([&] { orphan.dbUpdate(t.conn()); }, 100, "Parent not defined"));
  EXPECT_TRUE(test::throws([&] { orphan.dbDelete(t.conn()); }, 100, "Parent not defined"));
}

TEST_P(RangeDb, ValuesAreSplicedWithALeadingBlankAndAPointWhateverTheLocale) {
  EXPECT_EQ(detail::thresholdText(12.5), " 12.5");
  EXPECT_EQ(detail::thresholdText(10), " 10");
  EXPECT_EQ(detail::thresholdText(0), " 0");
  EXPECT_EQ(detail::thresholdText(-0.25), "-0.25");
  EXPECT_EQ(detail::thresholdText(0.1), " 0.1");

  DisplayTarget t;
  auto d = t.dataDisplay("Lecture 'A'", "Vitesse");
  auto r = DisplayTarget::range(d, 12.5, 3);
  auto tenth = DisplayTarget::range(d, 0.1, 4);
  d->DbInsertAll(t.conn());
  CommaLocale comma;
  EXPECT_EQ(detail::thresholdText(12.5), " 12.5");
  r->setCouleur(9);
  r->dbUpdate(t.conn());
  tenth->dbUpdateRange(t.conn(), 0.3);
  EXPECT_EQ(rows(t, *d), "0.3:4:0:0 12.5:9:0:0 ") << (comma.active ? "comma locale" : "C locale");
}

TEST(RangeXml, ValueColourAndSoundAsWrittenAndAsRead) {
  auto d = std::make_shared<DisplayItem>();
  auto ranges = d->RangeItems();
  DisplayTarget::range(d, 12.5, 255, 3);
  DisplayTarget::range(d, -2, 0);
  xml::Document doc;
  xml::Node el = doc.appendElement("Display");
  ranges->createXMLnode(doc, el);
  EXPECT_EQ(doc.toString(),
            "<Display><Threshold Value=\" 12.5\" Color=\"255\">\n<Sound Name=\"3\"/></Threshold>"
            "<Threshold Value=\"-2\" Color=\"0\"/></Display>\n");

  // Sound gives the flag but not its number; a decimal comma cuts the value.
  xml::Document in;
  ASSERT_TRUE(in.loadString("<Display><Threshold Value=\" 12.5\" Color=\"255\"><Sound Name=\"3\"/></Threshold>"
                            "<Threshold Value=\"12,5\" Color=\"x\"/><Threshold/><Other Value=\"1\"/></Display>"));
  RangeItems loaded;
  loaded.loadXml(in, in.documentElement(), d);
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(loaded.Count(), 3);
  EXPECT_EQ(loaded.Item(1)->Seuil(), 12.5);
  EXPECT_TRUE(loaded.Item(1)->SonFlag());
  EXPECT_EQ(loaded.Item(1)->Son(), 0);
  EXPECT_EQ(loaded.Item(1)->parent(), d);
  EXPECT_EQ(loaded.Item(2)->Seuil(), 12);
  EXPECT_EQ(loaded.Item(2)->Couleur(), 0);  // not a number: left at 0
  EXPECT_FALSE(loaded.Item(2)->SonFlag());
  EXPECT_EQ(loaded.Item(3)->Seuil(), 0);
}

}  // namespace
}  // namespace kavrel
