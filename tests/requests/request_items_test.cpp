#include "kavrel/requests/request_items.h"

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "support/checks.h"
#include "support/request_fixture.h"

namespace kavrel {
namespace {

using test::addPosition;
using test::describe;

class RequestDbTest : public ::kavrel::test::EngineTest {
 protected:
  // "Lecture 'x'" with every property away from its default and two
  // positions (one a parameter, one the reference of its data), and "Ident".
  void SetUp() override {
    t.addData("Vitesse");
    t.addData("Consigne d'air");
    auto r = t.addRequest("Lecture 'x'");
    r->setRequestBytes(ByteFrame::fromText(" 21 0a"));
    r->setReplyBytes(ByteFrame::fromText("61 0A  xx"));
    r->setLengthDatas(5);
    r->setShiftBytesCount(2);
    r->setManuelSend(true);
    r->setLgVariable(true);
    r->setAccesUsine(false);
    r->setAccesConstructeur(false);
    r->setDossierMaintenabilite(true);
    r->setCommentaire("Lit l'état");
    addPosition(r, "Vitesse", 3, 2, true, false, true);
    addPosition(r, "Consigne d'air", 2, 0, false, true, false);
    t.addRequest("Ident");
    t.target->Requests()->DbInsertAll(t.conn(), t.target->Address(), t.target->targetid());
  }
  // The stored target read whole into a new target object.
  std::shared_ptr<TargetItem> readBack() {
    auto back = TargetItem::create();
    back->setAddress(t.target->Address());
    back->setTargetid(t.target->targetid());
    back->setDatas(std::make_shared<DataItems>());
    back->datas()->DbRead(t.conn(), back);
    back->setRequests(std::make_shared<RequestItems>());
    back->Requests()->dbReadAll(t.conn(), back);
    return back;
  }
  int64_t rows(const std::string& table) { return t.count("SELECT count(*) FROM " + table); }
  test::StoredTarget t;
};

TEST_P(RequestDbTest, WholeTargetReadEqualsWhatWasInsertedAndUpdateWritesAllButTheName) {
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  auto back = readBack();
  auto& reqs = *back->Requests();
  ASSERT_EQ(reqs.Count(), 2);
  // Ordered by name; byte texts are stored exactly as given.
  auto r = reqs.Item(2);
  auto orig = t.target->Requests()->Item(1);
  EXPECT_EQ(describe(*r), "Lecture 'x'|' 21 0a'|'61 0A  xx'|5|2|11101101|Lit l'état");
  EXPECT_EQ(r->requestId(), orig->requestId());
  EXPECT_EQ(r->parent(), back);
  // Positions ordered by data name, shared by the request and its data item.
  ASSERT_EQ(r->DataPositions()->Count(), 2);
  EXPECT_EQ(describe(*r->DataPositions()->Item(1)), "Consigne d'air|2|0|010");
  auto p = r->DataPositions()->Item(2);
  EXPECT_EQ(describe(*p), "Vitesse|3|2|101");
  EXPECT_EQ(p->Data(), back->datas()->ItemName("Vitesse"));
  EXPECT_EQ(p->parent(), r);
  ASSERT_TRUE(p->Data()->DataPositions());
  EXPECT_EQ(p->Data()->DataPositions()->Item(1), p);
  EXPECT_EQ(reqs.Item(1)->DataPositions()->Count(), 0);
  EXPECT_EQ(describe(*reqs.Item(1)), "Ident|null|null|1|0|00111110|");
  auto ident = t.target->Requests()->Item(2);
  ident->setRequestBytes(ByteFrame::fromText("22 F1 90"));
  ident->setAccesEtudes(false);
  ident->setCommentaire("VIN");
  ident->setRequestName("Renamed");
  ident->dbUpdate(t.conn());
  EXPECT_EQ(describe(*readBack()->Requests()->Item(1)), "Ident|'22 F1 90'|null|1|0|00111010|VIN");
}

TEST_P(RequestDbTest, RenameCarriesPositionsAndRefusesADuplicate) {
  auto r = t.target->Requests()->Item(1);
  r->dbRename(t.conn(), "Lecture 'y'");
  EXPECT_EQ(r->requestName(), "Lecture 'y'");
  EXPECT_EQ(t.count("SELECT count(*) FROM [Emplacement Donnée] WHERE [Request Name]='Lecture ''y'''"), 2);
  EXPECT_EQ(t.target->Requests()->ItemName("Lecture 'y'"), r);
  EXPECT_EQ(t.target->Requests()->ItemName("Lecture 'x'"), nullptr);
  const std::string refusal = test::thrownBy([&] { r->dbRename(t.conn(), "Ident"); }).description();
  EXPECT_EQ(refusal.rfind("Error rename request : ", 0), 0u) << refusal;
  EXPECT_EQ(r->requestName(), "Lecture 'y'");
  EXPECT_EQ(t.count("SELECT count(*) FROM Requêtes WHERE [Request Name]='Ident'"), 1);
}

TEST_P(RequestDbTest, DeleteRemovesDisplaysScenariosAndPositionsUnlessTheRequestIsStillUsed) {
  auto& reqs = *t.target->Requests();
  t.addDisplayOf("Lecture 'x'", "Consigne d'air");
  // "Vitesse" is the reference position of its data: the request is used.
  EXPECT_TRUE(test::throws([&] { reqs.dbDeleteItem(t.conn(), reqs.Item(1)); }, 1,
                           "Impossible to delete this request, because it be used or one of this data is used"));
  EXPECT_EQ(reqs.Count(), 2);
  EXPECT_EQ(rows("Affichages"), 0);  // done before the refusal, stays done
  EXPECT_EQ(t.count("SELECT count(*) FROM Requêtes WHERE [Request Name]='Lecture ''x'''"), 1);
  EXPECT_EQ(rows("[Emplacement Donnée]"), 2);
  RequestItem orphan;
  EXPECT_TRUE(test::throws([&] { orphan.dbDelete(t.conn()); }, 100, "error : parent not defined"));
  reqs.Item(1)->DataPositions()->Item(1)->dbDeleteReference(t.conn());
  t.addDisplayOf("Lecture 'x'", "Vitesse");
  t.conn().execute("INSERT INTO Boutons ([Target Id], [Screen Id]) VALUES (" + t.tid() +
                   ", (SELECT max([Screen Id]) FROM Ecrans))");
  t.conn().execute("INSERT INTO Scenarios ([Target Id], [Button Id], [Index], [Request Name]) VALUES (" + t.tid() +
                   ", (SELECT max([Button Id]) FROM Boutons), 1, 'Lecture ''x''')");
  auto back = readBack();
  auto& read = *back->Requests();
  auto data = back->datas()->ItemName("Vitesse");
  ASSERT_EQ(data->DataPositions()->Count(), 1);
  auto stranger = std::make_shared<RequestItem>();
  stranger->setRequestId(-5);
  read.dbDeleteItem(t.conn(), stranger);  // not in the collection: nothing happens
  EXPECT_EQ(read.Count(), 2);
  read.dbDeleteItem(t.conn(), read.ItemName("Lecture 'x'"));
  EXPECT_EQ(read.Count(), 1);
  EXPECT_EQ(rows("Requêtes"), 1);
  EXPECT_EQ(rows("Affichages") + rows("Scenarios") + rows("[Emplacement Donnée]"), 0);
  EXPECT_EQ(data->DataPositions()->Count(), 0);  // no longer listed under its data
}

// ---------------------------------------------------------------- XML

TEST(RequestXmlTest, LayoutOfADefaultRequest) {
  auto r = std::make_shared<RequestItem>();
  r->setRequestName("R'1");
  r->setRequestBytes(ByteFrame::fromText("21 01"));
  r->setReplyBytes(ByteFrame::fromStored(db::Value()));  // holds no bytes: not written
  xml::Document doc;
  r->createXMLnode(doc, doc.appendElement("Requests").appendElement("Request"));
  EXPECT_EQ(doc.toString(),
            "<Requests><Request Name=\"R'1\">\n<Sent>\n<SentBytes>21 01</SentBytes>\n</Sent>\n"
            "<Received MinBytes=\"1\">\n</Received>\n</Request></Requests>\n");
}

TEST(RequestXmlTest, RoundTripKeepsTextsAsTheyAreAndLinksPositions) {
  test::StoredTarget t;
  auto v = t.addData("Vitesse");
  auto r = t.addRequest("Lecture");
  // (The other properties are read back byte for byte in the example
  // documents.)
  r->setRequestBytes(ByteFrame::fromText("21  0a"));
  r->setReplyBytes(ByteFrame::fromText("61 0a"));
  r->setAccesTous(false);
  r->setCommentaire("ligne 1\nligne 2 ]]> fin");
  addPosition(r, "Vitesse", 3, 1, false, false, true);
  addPosition(r, "Vitesse", 2, 0, false, true, false);
  xml::Document doc;
  t.target->Requests()->createXMLnode(doc, doc.appendElement("Requests"));
  xml::Document in;
  ASSERT_TRUE(in.loadString(doc.toString()));
  RequestItems back;
  back.loadXml(in, in.documentElement(), t.target);
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  ASSERT_EQ(back.Count(), 1);
  auto b = back.Item(1);
  EXPECT_EQ(b->parent(), t.target);
  EXPECT_EQ(describe(*b), describe(*r));
  ASSERT_EQ(b->DataPositions()->Count(), 2);
  // The sent side is read first.
  EXPECT_EQ(describe(*b->DataPositions()->Item(1)), "Vitesse|2|0|010");
  auto rec = b->DataPositions()->Item(2);
  EXPECT_EQ(describe(*rec), "Vitesse|3|1|001");
  EXPECT_EQ(rec->Data(), v);
  EXPECT_EQ(rec->parent(), b);
  back.clear();
  // Missing elements give the defaults; a missing name is recorded and the
  // nameless request kept.
  ASSERT_TRUE(in.loadString("<Requests><Request><Comment><!--ancien--></Comment></Request>"
                            "<Request Name=\"B\"><Sent/><Received/></Request></Requests>"));
  back.loadXml(in, in.documentElement(), nullptr);
  EXPECT_EQ(lastError().description, "RequestItem.loadXml error : Name not defined");
  ASSERT_EQ(back.Count(), 2);
  EXPECT_EQ(back.Item(1)->Commentaire(), "ancien");
  EXPECT_EQ(describe(*back.Item(2)), "B|-|-|1|0|00111110|");
  back.clear();
}

KAVREL_ON_ENGINES(RequestDbTest);

}  // namespace
}  // namespace kavrel
