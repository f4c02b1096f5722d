#include "kavrel/requests/request_items.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/request_fixture.h"

namespace kavrel {
namespace {

using test::describe;

// Forwards to a real connection and counts how result sets are opened.
class CountingConnection : public db::Connection {
 public:
  explicit CountingConnection(db::Connection& c) : c_(c) {}
  std::unique_ptr<db::Recordset> execute(std::string_view sql) override {
    ++executes;
    return c_.execute(sql);
  }
  int64_t recordsAffected() const override { return c_.recordsAffected(); }
  std::unique_ptr<db::ClientRecordset> openClient(std::string_view sql) override {
    ++clients;
    return c_.openClient(sql);
  }
  std::unique_ptr<db::UpdatableRecordset> openUpdatable(std::string_view sql) override {
    ++updatables;
    return c_.openUpdatable(sql);
  }
  void begin() override { c_.begin(); }
  void commit() override { c_.commit(); }
  void rollback() override { c_.rollback(); }
  int transactionDepth() const override { return c_.transactionDepth(); }
  void deferConstraintChecks() override { c_.deferConstraintChecks(); }
  const std::vector<DbError>& errors() const override { return c_.errors(); }
  void clearErrors() override { c_.clearErrors(); }
  bool isOpen() const override { return c_.isOpen(); }
  void close() override { c_.close(); }
  std::string description() const override { return c_.description(); }

  int executes = 0, clients = 0, updatables = 0;

 private:
  db::Connection& c_;
};

std::shared_ptr<DataPositionItem> addPosition(const std::shared_ptr<RequestItem>& r, const std::string& data,
                                              int32_t octet, int32_t bit, bool little, bool param, bool ref) {
  auto p = r->DataPositions()->Add();
  p->setParent(r);
  p->setDataname(data);
  p->setStartOctet(octet);
  p->setStartBit(bit);
  p->setLittleEndian(little);
  p->setParam(param);
  p->setReference(ref);
  return p;
}

class RequestDbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    vitesse = t.addData("Vitesse");
    consigne = t.addData("Consigne d'air");
  }

  // "Lecture 'x'" with every property away from its default and two
  // positions (one a parameter, one the reference of its data), and "Ident".
  void storeTwoRequests() { storeTwoRequests(t.conn()); }
  void storeTwoRequests(db::Connection& conn) {
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
    t.target->Requests()->DbInsertAll(conn, t.target->Address(), t.target->targetid());
  }

  // The stored target read whole into a new target object.
  std::shared_ptr<TargetItem> readBack(db::Connection& conn) {
    auto back = TargetItem::create();
    back->setAddress(t.target->Address());
    back->setTargetid(t.target->targetid());
    back->setDatas(std::make_shared<DataItems>());
    back->datas()->DbRead(conn, back);
    back->setRequests(std::make_shared<RequestItems>());
    back->Requests()->dbReadAll(conn, back);
    return back;
  }

  test::StoredTarget t;
  std::shared_ptr<DataItem> vitesse, consigne;
};

TEST_F(RequestDbTest, WholeTargetReadEqualsWhatWasInserted) {
  {
    CountingConnection c(t.conn());
    storeTwoRequests(c);
    EXPECT_EQ(c.updatables, 3);  // one record set per table, not one per row
  }
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  CountingConnection c(t.conn());
  auto back = readBack(c);
  auto& reqs = *back->Requests();
  ASSERT_EQ(reqs.Count(), 2);
  EXPECT_EQ(c.clients, 1);  // the positions of the whole target in one result set

  // Ordered by name; byte texts are stored exactly as given.
  auto r = reqs.Item(2);
  auto orig = t.target->Requests()->Item(1);
  EXPECT_EQ(describe(*r), describe(*orig));
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

  auto ident = reqs.Item(1);
  EXPECT_EQ(ident->DataPositions()->Count(), 0);
  EXPECT_EQ(describe(*ident), "Ident|null|null|1|0|00111110|");
}

TEST_F(RequestDbTest, RenameCarriesPositionsAndRefusesADuplicate) {
  storeTwoRequests();
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

TEST_F(RequestDbTest, DeleteRemovesDisplaysScenariosAndPositions) {
  storeTwoRequests();
  t.target->Requests()->Item(1)->DataPositions()->Item(1)->dbDeleteReference(t.conn());
  t.addDisplayOf("Lecture 'x'", "Vitesse");
  t.conn().execute("INSERT INTO Boutons ([Target Id], [Screen Id]) VALUES (" + t.tid() +
                   ", (SELECT max([Screen Id]) FROM Ecrans))");
  t.conn().execute("INSERT INTO Scenarios ([Target Id], [Button Id], [Index], [Request Name]) VALUES (" + t.tid() +
                   ", (SELECT max([Button Id]) FROM Boutons), 1, 'Lecture ''x''')");
  auto back = readBack(t.conn());
  auto& reqs = *back->Requests();
  auto r = reqs.ItemName("Lecture 'x'");
  auto data = back->datas()->ItemName("Vitesse");
  ASSERT_EQ(data->DataPositions()->Count(), 1);

  auto stranger = std::make_shared<RequestItem>();
  stranger->setRequestId(-5);
  reqs.dbDeleteItem(t.conn(), stranger);  // not in the collection: nothing happens
  EXPECT_EQ(reqs.Count(), 2);

  reqs.dbDeleteItem(t.conn(), r);
  EXPECT_EQ(reqs.Count(), 1);
  EXPECT_EQ(t.count("SELECT count(*) FROM Requêtes"), 1);
  EXPECT_EQ(t.count("SELECT count(*) FROM Affichages"), 0);
  EXPECT_EQ(t.count("SELECT count(*) FROM Scenarios"), 0);
  EXPECT_EQ(t.count("SELECT count(*) FROM [Emplacement Donnée]"), 0);
  EXPECT_EQ(data->DataPositions()->Count(), 0);  // no longer listed under its data
}

TEST_F(RequestDbTest, DeleteOfARequestStillUsedKeepsItAndWhatItHolds) {
  storeTwoRequests();
  auto& reqs = *t.target->Requests();
  auto r = reqs.Item(1);
  t.addDisplayOf("Lecture 'x'", "Consigne d'air");
  // "Vitesse" is the reference position of its data: the request is used.
  EXPECT_TRUE(test::throws([&] { reqs.dbDeleteItem(t.conn(), r); }, 1,
                           "Impossible to delete this request, because it be used or one of this data is used"));
  EXPECT_EQ(reqs.Count(), 2);
  EXPECT_EQ(t.count("SELECT count(*) FROM Affichages"), 0);  // done before the refusal, stays done
  EXPECT_EQ(t.count("SELECT count(*) FROM Requêtes WHERE [Request Name]='Lecture ''x'''"), 1);
  EXPECT_EQ(t.count("SELECT count(*) FROM [Emplacement Donnée]"), 2);

  RequestItem orphan;
  EXPECT_TRUE(test::throws([&] { orphan.dbDelete(t.conn()); }, 100, "error : parent not defined"));
}

TEST_F(RequestDbTest, UpdateWritesAllButTheName) {
  storeTwoRequests();
  auto r = t.target->Requests()->Item(2);
  r->setRequestBytes(ByteFrame::fromText("22 F1 90"));
  r->setAccesEtudes(false);
  r->setCommentaire("VIN");
  r->dbUpdate(t.conn());
  auto back = readBack(t.conn());
  auto b = back->Requests()->ItemName("Ident");
  ASSERT_TRUE(b);
  EXPECT_EQ(b->RequestBytes()->text(), "22 F1 90");
  EXPECT_FALSE(b->AccesEtudes());
  EXPECT_EQ(b->Commentaire(), "VIN");
}

TEST(RequestItemsTest, ItemNameIsFirstExactMatchAndFollowsRenames) {
  RequestItems reqs;
  auto a = reqs.Add(1);
  a->setRequestName("Lire");
  auto b = reqs.Add(2);
  b->setRequestName("Lire");
  EXPECT_EQ(reqs.ItemName("Lire"), a);
  EXPECT_EQ(reqs.ItemName("lire"), nullptr);
  a->setRequestName("Ecrire");
  EXPECT_EQ(reqs.ItemName("Lire"), b);
  EXPECT_EQ(reqs.ItemName("Ecrire"), a);
  reqs.Remove(2);
  EXPECT_EQ(reqs.ItemName("Lire"), nullptr);

  auto p = a->DataPositions()->Add();
  p->setDataname("Régime");
  EXPECT_EQ(reqs.ItemDataPositionName("Ecrire", "Régime"), p);
  EXPECT_EQ(reqs.ItemDataPositionName("Ecrire", "RÉGIME"), p);  // data names ignore letter case
  EXPECT_EQ(reqs.ItemDataPositionName("Ecrire", "Autre"), nullptr);
  EXPECT_EQ(reqs.ItemDataPositionName("Lire", "Régime"), nullptr);
  reqs.clear();
}

// ---------------------------------------------------------------- XML

std::string written(const std::shared_ptr<RequestItem>& r) {
  xml::Document doc;
  r->createXMLnode(doc, doc.appendElement("Requests").appendElement("Request"));
  return doc.toString();
}

TEST(RequestXmlTest, LayoutOfADefaultRequest) {
  auto r = std::make_shared<RequestItem>();
  r->setRequestName("R'1");
  r->setRequestBytes(ByteFrame::fromText("21 01"));
  r->setReplyBytes(ByteFrame::fromStored(db::Value()));  // holds no bytes: not written
  EXPECT_EQ(written(r),
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
}

TEST(RequestXmlTest, MissingElementsGiveDefaultsAndAMissingNameIsRecorded) {
  xml::Document in;
  ASSERT_TRUE(in.loadString("<Requests><Request><Comment><!--ancien--></Comment></Request>"
                            "<Request Name=\"B\"><Sent/><Received/></Request></Requests>"));
  RequestItems back;
  back.loadXml(in, in.documentElement(), nullptr);
  EXPECT_EQ(lastError().description, "RequestItem.loadXml error : Name not defined");
  ASSERT_EQ(back.Count(), 2);  // the nameless one is kept
  EXPECT_EQ(back.Item(1)->Commentaire(), "ancien");
  EXPECT_EQ(describe(*back.Item(2)), "B|-|-|1|0|00111110|");
  back.clear();
}

}  // namespace
}  // namespace kavrel
