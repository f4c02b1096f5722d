#include "kavrel/requests/organe_items.h"

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "support/checks.h"
#include "support/request_fixture.h"

namespace kavrel {
namespace {

using test::repeat;

std::string describe(const OrganeItem& o) {
  std::string s = o.organeName() + "|" + o.Mnemonique() + "|" + std::to_string(o.OrganeTypeId()) + "|" +
                  std::to_string(o.OrganeDTC()) + "|" + std::to_string(o.OrganeOBD()) + "|" + o.requestName();
  if (o.DeviceDatas())
    for (const auto& d : *o.DeviceDatas()) s += "|" + d->dataname() + (d->FlagPanne() ? "!" : "");
  return s;
}

// A stored target with the data items "Speed" and "Temp d'eau" and the
// stored requests "FF1" and "FF2", so that organs can link to them.
class OrganeDbTest : public ::kavrel::test::EngineTest {
 protected:
  void SetUp() override {
    t.addData("Speed");
    t.addData("Temp d'eau");
    for (const char* r : {"FF1", "FF2"}) t.addRequest(r)->dbInsert(t.conn());
  }
  // Organ "Injecteur" (type 3, codes, freeze frame, two data) and "Capteur"
  // (all defaults), in a collection owned by the target.
  std::shared_ptr<OrganeItems> twoOrgans() {
    auto organes = std::make_shared<OrganeItems>();
    target->setOrganes(organes);
    auto inj = organes->Add(0, "Injecteur", "INJ", 1234, 56);
    inj->setParent(target);
    inj->setOrganeTypeId(3);
    inj->setRequestName("FF1");
    inj->setDeviceDatas(std::make_shared<DeviceDataItems>());
    for (auto [name, flag] : {std::pair{"speed", true}, std::pair{"Temp d'eau", false}}) {
      auto d = inj->DeviceDatas()->Add();
      d->setParent(inj);
      d->setDataname(name);
      d->setFlagPanne(flag);
    }
    organes->Add(0, "Capteur", "", 0, 0)->setParent(target);
    return organes;
  }
  test::StoredTarget t;
  std::shared_ptr<TargetItem> target = t.target;
  db::Connection& conn = t.conn();
};

TEST_P(OrganeDbTest, BulkInsertReadAllAndRename) {
  auto session = KavrelDatabase::create();
  session->setTypeOrganes(std::make_shared<TypeOrganeItems>());
  session->typeOrganes()->Add(3, "Actionneur");
  target->setParent(session);
  auto organes = twoOrgans();
  organes->DbInsertAll(conn, target->Address(), target->targetid());
  EXPECT_NE(organes->Item(1)->id(), 0);
  EXPECT_EQ(t.count("SELECT COUNT(*) FROM Lien_Données_ds_Organe"), 2);
  // Ordered by name; type 1 is not in the catalogue; the device data take
  // the linked data's own spelling.
  auto read = std::make_shared<OrganeItems>();
  read->dbReadAll(conn, target);
  ASSERT_EQ(read->Count(), 2);
  EXPECT_EQ(describe(*read->Item(1)), "Capteur||1|0|0|");
  EXPECT_EQ(read->Item(1)->OrganeTypeName(), "Entrée");
  EXPECT_EQ(read->Item(1)->request(), nullptr);
  auto inj = read->Item(2);
  EXPECT_EQ(describe(*inj), "Injecteur|INJ|3|1234|56|FF1|Speed!|Temp d'eau");
  EXPECT_EQ(inj->OrganeTypeName(), "Actionneur");
  EXPECT_EQ(inj->id(), organes->Item(1)->id());
  EXPECT_EQ(inj->request(), target->Requests()->ItemName("FF1"));
  EXPECT_EQ(inj->DeviceDatas()->ItemName("Speed")->Data(), target->datas()->ItemName("Speed"));
  // The plain read takes neither the freeze-frame link nor the device data.
  auto plain = std::make_shared<OrganeItems>();
  plain->DbRead(conn, target);
  ASSERT_EQ(plain->Count(), 2);
  EXPECT_EQ(plain->Item(2)->OrganeTypeName(), "Actionneur");
  EXPECT_EQ(plain->Item(2)->requestName(), "");
  // Renames: refused onto another organ's name; the links follow a new name.
  organes->ItemName("Capteur")->dbRename(conn, "Injecteur");
  EXPECT_TRUE(test::recorded(2, "Duplicate device name"));
  EXPECT_EQ(organes->Item(2)->organeName(), "Capteur");
  organes->Item(1)->dbRename(conn, "Injecteur n'2");
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(organes->Item(1)->organeName(), "Injecteur n'2");
  EXPECT_EQ(t.count("SELECT COUNT(*) FROM Lien_Données_ds_Organe WHERE [Organe Name]='Injecteur n''2'"), 2);
  auto ghost = organes->Add(9999, "Ghost", "", 0, 0);
  EXPECT_THROW(ghost->dbRename(conn, "X"), Error);  // no parent: thrown
  ghost->setParent(target);
  ghost->dbRename(conn, "X");
  EXPECT_TRUE(test::recorded(1, "Device not found"));
}

TEST_P(OrganeDbTest, BulkInsertCutsNameAndMnemonic) {
  auto organes = std::make_shared<OrganeItems>();
  organes->Add(0, "A", repeat("é", 60), 0, 0);
  organes->Add(0, "B", repeat("m", 75), 0, 0);
  auto c = organes->Add(0, repeat("ô", 75), "", 0, 0);
  auto twin = organes->Add(0, "A", "", 0, 0);  // refused: logged, the others stay
  organes->DbInsertAll(conn, target->Address(), target->targetid());
  EXPECT_EQ(twin->id(), 0);
  ASSERT_EQ(defaultHost()->events().size(), 1u);
  EXPECT_EQ(defaultHost()->events()[0].eventType, EventType::Error);
  auto boxes = defaultHost()->messageBoxes();
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0].text, "Mnemonique de l'organe trop long, tronqué à 50 caractères");
  EXPECT_EQ(boxes[1].text, "Nom de l'organe trop long, tronqué à 70 caractères");
  EXPECT_EQ(boxes[1].icon, MessageIcon::Exclamation);
  // 60 characters are cut without a box.
  EXPECT_EQ(test::joinedRows(t.conn(), "SELECT [Organe Name] || '=' || coalesce(Mnemonique, '') FROM Organes ORDER BY [Organe Id]",
                       ";"),
            "A=" + repeat("é", 50) + ";B=" + repeat("m", 50) + ";" + repeat("ô", 70) + "=");
  EXPECT_EQ(c->organeName(), repeat("ô", 70));
}

TEST_P(OrganeDbTest, SingleRowRequestLinkAndDeviceDataOperations) {
  OrganeItems organes;
  auto o = organes.Add(0, "Pompe", "P", 0, 0);
  EXPECT_THROW(o->dbInsert(conn), Error);
  o->setParent(target);
  o->dbInsert(conn);
  ASSERT_NE(o->id(), 0);
  o->setOrganeDTC(77);
  o->dbUpdate(conn);
  EXPECT_EQ(t.count("SELECT DTC FROM Organes WHERE [Organe Id]=" + std::to_string(o->id())), 77);
  o->setRequestName("FF1");
  o->dbInsertRequest(conn);
  o->setRequestName("FF2");
  o->dbUpdateRequest(conn);
  o->setRequestName("");
  o->dbReadRequest(conn);
  EXPECT_EQ(o->requestName(), "FF2");
  EXPECT_EQ(o->request(), target->Requests()->ItemName("FF2"));
  EXPECT_EQ(t.count("SELECT COUNT(*) FROM [Lien_DTC_ReqContext]"), 1);
  DeviceDataItems datas;
  auto d = datas.Add();
  d->setParent(o);
  d->setDataname("Temp d'eau");
  ASSERT_NE(d->Data(), nullptr);
  d->dbInsert(conn);
  EXPECT_FALSE(lastError().pending());
  d->dbInsert(conn);
  EXPECT_TRUE(test::recorded(1, "Data already exist : enabled to add this data"));
  d->setFlagPanne(true);
  d->dbUpdate(conn);
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(t.count("SELECT [Flag Panne] FROM Lien_Données_ds_Organe"), -1);
  d->dbDelete(conn);
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(t.count("SELECT COUNT(*) FROM Lien_Données_ds_Organe"), 0);
  d->dbUpdate(conn);
  EXPECT_TRUE(test::recorded(1, "device data not found, impossible to update it."));
  // A name the target does not know is kept as it is.
  auto unknown = datas.Add();
  unknown->setParent(o);
  unknown->setDataname("Nowhere");
  EXPECT_EQ(unknown->Data(), nullptr);
  EXPECT_EQ(unknown->dataname(), "Nowhere");
  o->dbDelete(conn);
  EXPECT_EQ(t.count("SELECT COUNT(*) FROM Organes") + t.count("SELECT COUNT(*) FROM [Lien_DTC_ReqContext]"), 0);
}

// ------------------------------------------------------------------- XML

TEST_P(OrganeDbTest, XmlRoundTripLinksRequestAndDataAndLoadingReportsMissingNames) {
  auto organes = twoOrgans();
  xml::Document doc;
  organes->createXMLnode(doc, doc.appendElement("xml").appendElement("Devices"));
  EXPECT_TRUE(test::contains(doc.toString(), "<Device Name=\"Capteur\"/>"));  // defaults are left out
  xml::Document back;
  ASSERT_TRUE(back.loadString(doc.toString()));
  OrganeItems loaded;
  loaded.loadXml(back, back.documentElement().child("Devices"), target);
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(loaded.Count(), 2);
  auto inj = loaded.Item(1);
  EXPECT_EQ(describe(*inj), "Injecteur|INJ|3|1234|56|FF1|Speed!|Temp d'eau");
  EXPECT_EQ(inj->request(), target->Requests()->ItemName("FF1"));
  EXPECT_EQ(inj->DeviceDatas()->Item(1)->Data(), target->datas()->ItemName("Speed"));
  EXPECT_EQ(describe(*loaded.Item(2)), "Capteur||1|0|0|");
  const std::string longName = repeat("d", 71);
  ASSERT_TRUE(back.loadString("<Devices><Device DTC=\"5\"/><Device Name=\"X\"><DeviceData Name=\"" + longName +
                              "\"/></Device></Devices>"));
  OrganeItems bad;
  bad.loadXml(back, back.documentElement(), target);
  EXPECT_TRUE(test::recorded(100, "OrganeItem.loadXml error : Device Name not defined"));
  ASSERT_EQ(bad.Count(), 2);
  EXPECT_EQ(bad.Item(1)->OrganeDTC(), 5);
  EXPECT_TRUE(test::longNameBoxShown(longName));
  EXPECT_EQ(bad.Item(2)->DeviceDatas()->Item(1)->dataname(), repeat("d", 70));
}

KAVREL_ON_ENGINES(OrganeDbTest);

}  // namespace
}  // namespace kavrel
