#include "kavrel/target/target_item.h"

#include <functional>

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "target/target_fixture.h"

namespace kavrel {
namespace {

TEST(TargetItem, DirtyFlagIsSetByAllButParentAutoIdentsAndCategoriesAndClearReleasesAll) {
  auto session = KavrelDatabase::create();
  auto t = TargetItem::create();
  EXPECT_TRUE(t->ValueChanged());
  ASSERT_TRUE(t->Parametres());
  EXPECT_EQ(t->Parametres()->parent(), t);
  t->setValueChanged(false);
  t->setParent(session);
  t->setAutoIdents(std::make_shared<AutoIdentItems>());
  t->setCategories(std::make_shared<CategoryItems>());
  EXPECT_FALSE(t->ValueChanged());
  auto entry = t->AutoIdents()->Add(1, "S", "soft", "v", t);
  auto params = t->Parametres();
  const std::function<void()> marking[] = {
      [&] { t->setTargetid(1); },        [&] { t->setAddress(2); },    [&] { t->setName("n"); },
      [&] { t->setLangue("English"); },  [&] { t->setReference(false); }, [&] { t->setDatas(nullptr); },
      [&] { t->setDatasRef(nullptr); },  [&] { t->setRequests(nullptr); }, [&] { t->setOrganes(nullptr); },
      [&] { t->setParametres(params); }};
  for (size_t i = 0; i < std::size(marking); ++i) {
    t->setValueChanged(false);
    marking[i]();
    EXPECT_TRUE(t->ValueChanged()) << "setter " << i;
  }
  t->clear();
  EXPECT_TRUE(!t->parent() && !t->Parametres() && !t->AutoIdents() && !t->Categories());
  EXPECT_TRUE(!params->parent() && !entry->parent());
}

// ---- database

class TargetDb : public ::kavrel::test::EngineTest {
 protected:
  std::shared_ptr<TargetItem> newTarget(int32_t address, const std::string& name) {
    auto t = s.session->NewTarget();
    t->setAddress(address);
    t->setName(name);
    return t;
  }
  // A target read back from the database the way the editor does it.
  std::shared_ptr<TargetItem> readBack(const std::string& name) {
    int32_t address = 0, id = 0;
    EXPECT_TRUE(s.session->DbFindUceByName(name, address, id));
    auto t = s.session->NewTarget();
    EXPECT_TRUE(t->dbReadTargetAll(*s.conn, address, id));
    return t;
  }
  // A target imported from a document naming the new function "Airbag".
  std::shared_ptr<TargetItem> importAirbag(const std::string& more = "") {
    xml::Document doc;
    EXPECT_TRUE(doc.loadString("<xml><kvr:Target Name=\"New\"><Function Name=\"Airbag\" Address=\"300\"/>" + more +
                               "</kvr:Target></xml>"));
    auto t = s.session->NewTarget();
    t->loadXml(doc, doc.documentElement());
    return t;
  }
  test::SessionDb s;
};

TEST_P(TargetDb, InsertedTargetReadsBackWhole) {
  auto t = newTarget(122, "ABS 5.3");
  t->setLangue("English");
  t->setReference(false);
  t->setAutoIdents(std::make_shared<AutoIdentItems>());
  t->AutoIdents()->Add(12, "SUP", "SW1", "V2", t);
  t->dbInsertTargetAll(*s.conn);
  EXPECT_FALSE(t->ValueChanged());
  EXPECT_GT(t->targetid(), 0);
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  const std::string id = std::to_string(t->targetid());
  EXPECT_EQ(s.count("SELECT count(*) FROM [Appartenance cible] WHERE [Target Id]=" + id + " AND [Ecu Id]=" + id +
                    " AND [Target Address]=122 AND [Ecu Address]=122"),
            1);
  EXPECT_EQ(s.count("SELECT count(*) FROM Fonctions"), 2);  // the existing function row is kept
  // (The columns of each part are read back byte for byte in the document
  // round trips; here what the examples do not show.)
  auto r = readBack("ABS 5.3");
  EXPECT_FALSE(r->ValueChanged());
  EXPECT_EQ(r->targetid(), t->targetid());
  EXPECT_EQ(r->Langue(), "English");
  EXPECT_FALSE(r->reference());
  EXPECT_EQ(r->Parametres()->CanXId(), -1);  // Null XId leaves the default
  ASSERT_EQ(r->AutoIdents()->Count(), 1);
  EXPECT_TRUE(r->datas() && r->Requests() && r->Organes());
  EXPECT_FALSE(r->datasRef());
}

TEST_P(TargetDb, DbReadIsTrueForAnUnknownIdAndTakesCanIdsWhenPresent) {
  auto t = newTarget(0, "kept");
  t->Parametres()->setCanXId(77);
  EXPECT_TRUE(t->DbRead(*s.conn, 5, 999));
  EXPECT_EQ(t->name(), "kept");
  EXPECT_EQ(t->Address(), 5);
  EXPECT_EQ(t->targetid(), 999);
  s.conn->execute("INSERT INTO Cibles (Address,[Target Name],Langue,[Référence]) VALUES (65,'INJ','Deutsch',0), "
                  "(122,'ABS','Deutsch',0)");
  const int32_t id = static_cast<int32_t>(s.count("SELECT min([Target Id]) FROM Cibles"));
  EXPECT_TRUE(t->DbRead(*s.conn, 65, id));
  EXPECT_EQ(t->name(), "INJ");
  EXPECT_FALSE(t->reference());
  EXPECT_EQ(t->Parametres()->CanXId(), test::kExtendedId);
  EXPECT_EQ(t->Parametres()->CanRId(), 2016);
  // A function without identifiers leaves them as they were.
  EXPECT_TRUE(t->DbRead(*s.conn, 122, id + 1));
  EXPECT_EQ(t->name(), "ABS");
  EXPECT_EQ(t->Parametres()->CanXId(), test::kExtendedId);
  s.conn->execute("ALTER TABLE Cibles RENAME TO Cibles2");
  EXPECT_THROW(t->DbRead(*s.conn, 65, id), Error);
}

TEST_P(TargetDb, UpdateAndRenameTouchOnlyAnExistingRow) {
  auto t = newTarget(122, "Before");
  t->dbInsertTargetAll(*s.conn);
  const int32_t address = t->Address(), id = t->targetid();
  t->setName("Ignored");
  t->setValueChanged(false);
  t->dbUpdateTargetAll(*s.conn, address, id);
  EXPECT_EQ(readBack("Before")->name(), "Before");
  t = readBack("Before");
  t->setLangue("Italiano");
  t->dbUpdateTargetAll(*s.conn, address, id + 100);  // no such row
  EXPECT_TRUE(t->ValueChanged());
  t->dbUpdateTargetAll(*s.conn, address, id);
  EXPECT_FALSE(t->ValueChanged());
  EXPECT_EQ(readBack("Before")->Langue(), "Italiano");
  t = readBack("Before");
  t->dbRename(*s.conn, "After");
  EXPECT_EQ(t->name(), "After");
  EXPECT_FALSE(t->ValueChanged());
  EXPECT_EQ(readBack("After")->targetid(), id);
  t->setTargetid(id + 100);
  t->dbRename(*s.conn, "Lost");
  EXPECT_EQ(t->name(), "After");
}

TEST_P(TargetDb, NewFunctionRowLeavesMissingIdentifiersEmpty) {
  auto t = importAirbag("<CAN BaudRate=\"500000\" Multipoint=\"0\" InitMode=\"3\"><SendId><CANId Value=\"1818\"/>"
                        "</SendId></CAN>");
  ASSERT_TRUE(s.session->functions()->ItemName("Airbag"));
  t->dbInsertTargetAll(*s.conn);
  EXPECT_EQ(s.count("SELECT count(*) FROM Fonctions WHERE Address=300 AND [Function Name]='Airbag' AND XId=1818 "
                    "AND RId IS NULL"),
            1);
}

TEST_P(TargetDb, InsertFailuresRollBackWhatTheyMustAndNameTheirStep) {
  // The table whose inserts fail, whether the target is the imported one with
  // a new function, the start of the thrown description ("" for nothing
  // thrown), and tables left empty.
  const struct {
    const char* table;
    bool imported;
    const char* prefix;
    std::vector<const char*> empty;
  } cases[] = {
      {"Fonctions", true, "Insert Uce error :  DbInsert Function Error : ", {"Cibles"}},
      {"Cibles", true, "Insert Uce error : ", {"Fonctions WHERE Address=300"}},
      {"[Paramètres UCE]", false, "Insert parameters error : ", {"Cibles", "[Appartenance cible]", "Identification"}},
      // Collection failures neither stop the insert nor reach the caller.
      {"Identification", false, "", {}},
  };
  // A trigger refuses every insert into the table (each engine writes
  // triggers its own way).
  if (onServer()) {
    s.conn->execute("CREATE FUNCTION refuse() RETURNS trigger AS $$ BEGIN RAISE EXCEPTION 'refused by test'; END $$ "
                    "LANGUAGE plpgsql");
  }
  const char* refusing = nullptr;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.table);
    s.conn->execute("DELETE FROM Cibles");
    if (refusing) s.conn->execute(std::string("DROP TRIGGER refuse") + (onServer() ? " ON " + std::string(refusing) : ""));
    refusing = c.table;
    s.conn->execute(std::string("CREATE TRIGGER refuse BEFORE INSERT ON ") + c.table +
                    (onServer() ? " FOR EACH ROW EXECUTE FUNCTION refuse()"
                                : " BEGIN SELECT RAISE(ABORT, 'refused by test'); END"));
    clearLastError();
    auto t = c.imported ? importAirbag() : newTarget(122, "P");
    t->setAutoIdents(std::make_shared<AutoIdentItems>());
    t->AutoIdents()->Add(1, "S", "x", "y", t);
    t->AutoIdents()->Add(2, "S", "x", "y", t);
    if (*c.prefix == '\0') {
      EXPECT_NO_THROW(t->dbInsertTargetAll(*s.conn));
      EXPECT_TRUE(lastError().pending());  // left for the caller to test
      EXPECT_FALSE(t->ValueChanged());
      EXPECT_EQ(s.count("SELECT count(*) FROM Cibles") + s.count("SELECT count(*) FROM [Paramètres UCE]"), 2);
      continue;
    }
    const int32_t idBefore = t->targetid();
    const std::string d = test::thrownBy([&] { t->dbInsertTargetAll(*s.conn); }).description();
    EXPECT_EQ(d.rfind(c.prefix, 0), 0u) << d;
    EXPECT_TRUE(test::contains(d, "refused by test"));
    const bool functionRow = std::string(c.table) == "Fonctions";
    EXPECT_EQ(d.find("DbInsert Function Error") != std::string::npos, functionRow);
    // Rolled back: still unsaved, with no id of a row that is gone.
    EXPECT_TRUE(t->ValueChanged());
    EXPECT_EQ(t->targetid(), idBefore);
    EXPECT_EQ(s.conn->transactionDepth(), 0);
    for (const char* table : c.empty) EXPECT_EQ(s.count(std::string("SELECT count(*) FROM ") + table), 0) << table;
  }
}

class TargetOlderLayout : public ::kavrel::test::EngineTest {};

TEST_P(TargetOlderLayout, ReadsNameParametersAndLeavesTheRest) {
  test::OlderLayoutDb old;
  old.conn->execute("INSERT INTO Cibles (Address,[Target Name]) VALUES (122,'ABS old')");
  old.conn->execute("INSERT INTO [Paramètres UCE] ([Ecu Id],[Init Mode],[Baud Rate],Multipoint,[Little Endian]) "
                    "VALUES (1,0,4800,0,0)");
  auto t = TargetItem::create();
  t->setLangue("English");
  t->setReference(false);
  EXPECT_TRUE(t->dbReadKVR(*old.conn, 122, 1));
  EXPECT_EQ(t->name(), "ABS old");
  t->setName("");
  t->dbReadTargetAllKVR(*old.conn, 122, 1);
  EXPECT_EQ(t->name(), "ABS old");
  EXPECT_EQ(t->Langue(), "English");
  EXPECT_FALSE(t->reference());
  EXPECT_EQ(t->Parametres()->BaudRate(), 4800);
  EXPECT_FALSE(t->ValueChanged());
  EXPECT_TRUE(!t->AutoIdents() && !t->Organes() && t->datas() && t->Requests());
  // No row: an error, not an empty read.
  EXPECT_THROW(t->dbReadTargetAllKVR(*old.conn, 122, 2), Error);
  // The identification table of the current layout is not there.
  EXPECT_TRUE(test::throws([&] { std::make_shared<AutoIdentItems>()->dbReadAll(*old.conn, t); }, 1,
                           "Table 'Identification' doesn't exist in the database"));
}

// ---- XML

std::string exportTarget(const std::shared_ptr<TargetItem>& t) {
  xml::Document doc;
  t->createXMLnode(doc, doc.appendElement("xml"));
  return doc.toString();
}

std::shared_ptr<TargetItem> importTarget(const std::shared_ptr<KavrelDatabase>& session, const std::string& text) {
  xml::Document doc;
  EXPECT_TRUE(doc.loadString(text));
  auto t = session->NewTarget();
  t->loadXml(doc, doc.documentElement());
  return t;
}

TEST(TargetXml, ExportThenImportGivesTheSameDocument) {
  // (The examples show the frame; here what they do not.)
  test::SessionDb s;
  auto t = s.session->NewTarget();
  t->setName("ABS");
  t->setAddress(122);
  t->setReference(false);
  t->Parametres()->setLittleEndian(true);
  t->setAutoIdents(std::make_shared<AutoIdentItems>());
  t->AutoIdents()->Add(7, "S'Q", "", "V1", t);
  const std::string text = exportTarget(t);
  EXPECT_TRUE(test::contains(text, "<Language Name=\"Français\"/>"));  // not a reference
  EXPECT_TRUE(test::contains(text, "<Requests Endian=\"Little\"/>"));    // written with no requests
  EXPECT_TRUE(test::contains(text, "<AutoIdent DiagVersion=\"7\" Supplier=\"S'Q\" Soft=\"\" Version=\"V1\"/>"));
  auto back = importTarget(s.session, text);
  EXPECT_TRUE(back->ValueChanged());
  EXPECT_TRUE(back->reference());  // no attribute: reference
  ASSERT_EQ(back->AutoIdents()->Count(), 1);
  EXPECT_EQ(back->AutoIdents()->Item(1)->parent(), back);
  back->setReference(false);
  EXPECT_EQ(exportTarget(back), text);
}

TEST(TargetXml, ImportedAndReadPositionsLinkToTheFirstDataOfTheirNameInReadingOrder) {
  // Positions of a whole target are linked once all requests are read.
  test::SessionDb s;
  auto t = importTarget(
      s.session,
      "<xml><kvr:Target Name=\"N\"><Function Name=\"ABS\"/><Datas>"
      "<Data Name=\"Speed\"/><Data Name=\"Torque\"/><Data Name=\"Dup\"/><Data Name=\"Idle\"/>"
      "</Datas><Requests>"
      "<Request Name=\"R1\"><Received><DataItem Name=\"torque\" FirstByte=\"3\"/>"
      "<DataItem Name=\"Speed\" FirstByte=\"4\"/><DataItem Name=\"Unknown\"/><DataItem Name=\"DUP\"/></Received></Request>"
      "<Request Name=\"R2\"><Sent><DataItem Name=\"SPEED\" FirstByte=\"2\"/></Sent></Request>"
      "</Requests></kvr:Target></xml>");
  // Each position with the data it links to, then each data item with its
  // positions (request/first byte) in list order.
  const auto links = [](const std::shared_ptr<TargetItem>& target) {
    std::string out;
    for (const char* r : {"R1", "R2"})
      for (const auto& p : *target->Requests()->ItemName(r)->DataPositions())
        out += std::string(r) + ":" + p->dataname() + "->" + (p->Data() ? p->Data()->dataname() : "-") + " ";
    for (const auto& d : *target->datas()) {
      out += "|" + d->dataname() + ":";
      if (auto list = d->DataPositions())
        for (const auto& p : *list) out += " " + p->requestName() + "/" + std::to_string(p->StartOctet());
    }
    return out;
  };
  EXPECT_EQ(links(t),
            "R1:Torque->Torque R1:Speed->Speed R1:Unknown->- R1:Dup->Dup R2:Speed->Speed "
            "|Speed: R1/4 R2/2|Torque: R1/3|Dup: R1/1|Idle:");
  // Positions read on their own, outside a whole-target read, link at once.
  auto r2 = t->Requests()->ItemName("R2");
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<Received><DataItem Name=\"Idle\"/></Received>"));
  r2->DataPositions()->loadXml(doc, doc.documentElement(), r2);
  EXPECT_EQ(r2->DataPositions()->Item(2)->Data(), t->datas()->ItemName("Idle"));
  EXPECT_EQ(t->datas()->ItemName("Idle")->DataPositions()->Item(1), r2->DataPositions()->Item(2));
  // The same links when the target is read back from a database (where a
  // position must name a stored data item).
  t->Requests()->ItemName("R1")->DataPositions()->Remove(3);
  r2->DataPositions()->Remove(2);
  auto& conn = *s.session->DbConnection();
  t->dbInsertTargetAll(conn);
  ASSERT_FALSE(lastError().pending()) << lastError().description;
  auto back = s.session->NewTarget();
  back->dbReadTargetAll(conn, t->Address(), t->targetid());
  EXPECT_EQ(links(back),  // read in name order
            "R1:Dup->Dup R1:Speed->Speed R1:Torque->Torque R2:Speed->Speed "
            "|Dup: R1/1|Idle:|Speed: R1/4 R2/2|Torque: R1/3");
}

TEST(TargetXml, IncompleteTargetElementsAreImportedWithoutError) {
  test::SessionDb s;
  for (const char* text : {"<xml><kvr:Target><Function Name=\"ABS\"/></kvr:Target></xml>",
                           "<xml><kvr:Target Name=\"N\"/></xml>", "<xml><other/></xml>",
                           "<xml><kvr:Target Name=\"N\"><Function Name=\"Unknown\"/>"
                           "<Language Name=\"English\" Reference=\"maybe\"/></kvr:Target></xml>"}) {
    SCOPED_TRACE(text);
    std::shared_ptr<TargetItem> t;
    EXPECT_NO_THROW(t = importTarget(s.session, text));
    EXPECT_FALSE(lastError().pending()) << lastError().description;
    EXPECT_TRUE(t->reference());
    EXPECT_TRUE(t->ValueChanged());
  }
  auto t = importTarget(s.session, "<xml><kvr:Target><Function Name=\"ABS\"/></kvr:Target></xml>");
  EXPECT_EQ(t->Address(), 122);
  EXPECT_EQ(t->Langue(), "Français");
  EXPECT_EQ(s.session->functions()->Count(), 2);  // nothing added for an unknown name without address
}

TEST(TargetXml, CanDescriptionUpdatesTheCatalogueFunctionAndIdentificationReloadEmptiesCategories) {
  test::SessionDb s;
  auto t = importTarget(s.session,
                        "<xml><kvr:Target Name=\"N\"><Function Name=\"ABS\"/><CAN BaudRate=\"500000\" Multipoint=\"1\">"
                        "<SendId><CANId Value=\"417001744\" Extended=\"1\"/></SendId>"
                        "<ReceiveId><CANId Value=\"1800\"/></ReceiveId></CAN></kvr:Target></xml>");
  auto f = s.session->functions()->ItemAddress(122);
  ASSERT_TRUE(f);
  EXPECT_EQ(f->CanXId(), test::kExtendedId);
  EXPECT_EQ(f->CanRId(), 1800);
  EXPECT_EQ(s.count("SELECT XId FROM Fonctions WHERE Address=122"), test::kExtendedId);
  EXPECT_EQ(t->Parametres()->initMode(), 3);
  EXPECT_EQ(t->Parametres()->BaudRate(), 500000);
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<xml><kvr:Target Name=\"N\"><Function Name=\"ABS\"/><AutoIdents><AutoIdent "
                             "DiagVersion=\"1\"/></AutoIdents></kvr:Target></xml>"));
  t = s.session->NewTarget();
  t->setCategories(std::make_shared<CategoryItems>());
  t->Categories()->Add(1, "Engine");
  t->loadXml(doc, doc.documentElement());  // no identification entries before: categories kept
  EXPECT_EQ(t->Categories()->Count(), 1);
  t->loadXml(doc, doc.documentElement());
  ASSERT_TRUE(t->Categories());
  EXPECT_EQ(t->Categories()->Count(), 0);
  EXPECT_EQ(t->AutoIdents()->Count(), 1);
}

KAVREL_ON_ENGINES(TargetDb);
KAVREL_ON_ENGINES(TargetOlderLayout);

}  // namespace
}  // namespace kavrel
