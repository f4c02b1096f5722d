#include "kavrel/requests/organe_items.h"

#include <gtest/gtest.h>

#include <string>

#include "kavrel/catalogues/type_organe_items.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/platform/xml.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/device_data_items.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/session/kavrel_database.h"
#include "kavrel/target/target_item.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

std::string repeat(const std::string& unit, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += unit;
  return s;
}

// A stored target with two data items and two requests, read back through
// their collections so that organs can link to them.
class OrganeDbTest : public ::testing::Test {
 protected:
  void SetUp() override {
    conn = db.connection();
    conn->execute("INSERT INTO Fonctions (Address, [Function Name]) VALUES (122, 'Moteur')");
    conn->execute("INSERT INTO Cibles (Address, [Target Name], Langue, [Référence]) VALUES (122, 'UCE', 'Français', 1)");
    auto rs = conn->execute("SELECT [Target Id] FROM Cibles");
    target = TargetItem::create();
    target->setAddress(122);
    target->setTargetid(rs->field(0).toInt32());
    rs->close();
    const std::string tid = std::to_string(target->targetid());
    for (const char* d : {"Speed", "Temp d'eau"})
      conn->execute("INSERT INTO Données (Address, [Target Id], [Data Name], NumberBits, Numérique, Liste, Signé, "
                    "CoeffA, CoeffB, CoeffC, Ascii) VALUES (122, " + tid + ", " + db::sql::quote(d) +
                    ", 8, 1, 0, 0, 1, 0, 1, 0)");
    for (const char* r : {"FF1", "FF2"})
      conn->execute("INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, " + tid + ", " +
                    db::sql::quote(r) + ")");
    target->setDatas(std::make_shared<DataItems>());
    target->datas()->DbRead(*conn, target);
    target->setRequests(std::make_shared<RequestItems>());
    target->Requests()->DbRead(*conn, target);
    defaultHost()->clear();
    clearLastError();
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

  int64_t count(const std::string& sql) {
    auto rs = conn->execute(sql);
    int64_t n = rs->field(0).toInt64();
    rs->close();
    return n;
  }

  test::TempDb db;
  std::shared_ptr<db::Connection> conn;
  std::shared_ptr<TargetItem> target;
};

TEST_F(OrganeDbTest, BulkInsertThenReadAllKeepsOrgansLinksAndDeviceData) {
  auto session = KavrelDatabase::create();
  session->setTypeOrganes(std::make_shared<TypeOrganeItems>());
  session->typeOrganes()->Add(3, "Actionneur");
  target->setParent(session);

  auto organes = twoOrgans();
  organes->DbInsertAll(*conn, target->Address(), target->targetid());
  EXPECT_NE(organes->Item(1)->id(), 0);
  EXPECT_EQ(count("SELECT COUNT(*) FROM Lien_Données_ds_Organe"), 2);

  auto read = std::make_shared<OrganeItems>();
  read->dbReadAll(*conn, target);
  ASSERT_EQ(read->Count(), 2);
  auto cap = read->Item(1);  // ordered by name
  auto inj = read->Item(2);
  EXPECT_EQ(cap->organeName(), "Capteur");
  EXPECT_EQ(cap->requestName(), "");
  EXPECT_EQ(cap->request(), nullptr);
  EXPECT_EQ(cap->OrganeTypeName(), "Entrée");  // type 1 is not in the catalogue
  EXPECT_EQ(cap->DeviceDatas()->Count(), 0);

  EXPECT_EQ(inj->id(), organes->Item(1)->id());
  EXPECT_EQ(inj->Mnemonique(), "INJ");
  EXPECT_EQ(inj->OrganeTypeId(), 3);
  EXPECT_EQ(inj->OrganeTypeName(), "Actionneur");
  EXPECT_EQ(inj->OrganeDTC(), 1234);
  EXPECT_EQ(inj->OrganeOBD(), 56);
  EXPECT_EQ(inj->requestName(), "FF1");
  EXPECT_EQ(inj->request(), target->Requests()->ItemName("FF1"));
  ASSERT_EQ(inj->DeviceDatas()->Count(), 2);
  auto speed = inj->DeviceDatas()->ItemName("Speed");  // the linked data's own spelling
  ASSERT_NE(speed, nullptr);
  EXPECT_EQ(speed->Data(), target->datas()->ItemName("Speed"));
  EXPECT_TRUE(speed->FlagPanne());
  EXPECT_FALSE(inj->DeviceDatas()->ItemName("Temp d'eau")->FlagPanne());

  auto plain = std::make_shared<OrganeItems>();
  plain->DbRead(*conn, target);
  ASSERT_EQ(plain->Count(), 2);
  EXPECT_EQ(plain->Item(2)->OrganeTypeName(), "Actionneur");
  EXPECT_EQ(plain->Item(2)->requestName(), "");
}

TEST_F(OrganeDbTest, RenameRefusalsAndSuccess) {
  auto organes = twoOrgans();
  organes->DbInsertAll(*conn, target->Address(), target->targetid());
  auto cap = organes->ItemName("Capteur");
  auto inj = organes->ItemName("Injecteur");

  cap->dbRename(*conn, "Injecteur");
  EXPECT_EQ(lastError().number, 2);
  EXPECT_EQ(lastError().description, "Duplicate device name");
  EXPECT_EQ(cap->organeName(), "Capteur");

  inj->dbRename(*conn, "Injecteur n'2");
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(inj->organeName(), "Injecteur n'2");
  // The links follow the organ's new name.
  EXPECT_EQ(count("SELECT COUNT(*) FROM Lien_Données_ds_Organe WHERE [Organe Name]='Injecteur n''2'"), 2);

  auto ghost = organes->Add(9999, "Ghost", "", 0, 0);
  EXPECT_THROW(ghost->dbRename(*conn, "X"), Error);  // no parent: thrown
  ghost->setParent(target);
  ghost->dbRename(*conn, "X");
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(lastError().description, "Device not found");
}

TEST_F(OrganeDbTest, BulkInsertCutsNameAndMnemonic) {
  auto organes = std::make_shared<OrganeItems>();
  auto a = organes->Add(0, "A", repeat("é", 60), 0, 0);
  auto b = organes->Add(0, "B", repeat("m", 75), 0, 0);
  auto c = organes->Add(0, repeat("ô", 75), "", 0, 0);
  auto twin = organes->Add(0, "A", "", 0, 0);  // refused: logged, the others stay
  organes->DbInsertAll(*conn, target->Address(), target->targetid());
  EXPECT_EQ(count("SELECT COUNT(*) FROM Organes"), 3);
  EXPECT_EQ(twin->id(), 0);
  ASSERT_EQ(defaultHost()->events().size(), 1u);
  EXPECT_EQ(defaultHost()->events()[0].eventType, EventType::Error);

  auto boxes = defaultHost()->messageBoxes();
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0].text, "Mnemonique de l'organe trop long, tronqué à 50 caractères");
  EXPECT_EQ(boxes[1].text, "Nom de l'organe trop long, tronqué à 70 caractères");
  EXPECT_EQ(boxes[1].icon, MessageIcon::Exclamation);

  auto mnemo = [&](const std::string& name) {
    auto rs = conn->execute("SELECT Mnemonique FROM Organes WHERE [Organe Name]=" + db::sql::quote(name));
    return rs->eof() ? std::string("<none>") : rs->field(0).toText();
  };
  EXPECT_EQ(mnemo("A"), repeat("é", 50));  // 60 characters: cut without a box
  EXPECT_EQ(mnemo("B"), repeat("m", 50));
  EXPECT_EQ(mnemo(repeat("ô", 70)), "");
  EXPECT_EQ(c->organeName(), repeat("ô", 70));
}

TEST_F(OrganeDbTest, SingleRowAndRequestLinkOperations) {
  OrganeItems organes;
  auto o = organes.Add(0, "Pompe", "P", 0, 0);
  EXPECT_THROW(o->dbInsert(*conn), Error);
  o->setParent(target);
  o->dbInsert(*conn);
  ASSERT_NE(o->id(), 0);

  o->setOrganeDTC(77);
  o->dbUpdate(*conn);
  EXPECT_EQ(count("SELECT DTC FROM Organes WHERE [Organe Id]=" + std::to_string(o->id())), 77);

  o->setRequestName("FF1");
  o->dbInsertRequest(*conn);
  o->setRequestName("FF2");
  o->dbUpdateRequest(*conn);
  o->setRequestName("");
  o->dbReadRequest(*conn);
  EXPECT_EQ(o->requestName(), "FF2");
  EXPECT_EQ(o->request(), target->Requests()->ItemName("FF2"));
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Lien_DTC_ReqContext]"), 1);

  o->dbDelete(*conn);
  EXPECT_EQ(count("SELECT COUNT(*) FROM Organes"), 0);
  EXPECT_EQ(count("SELECT COUNT(*) FROM [Lien_DTC_ReqContext]"), 0);
}

TEST_F(OrganeDbTest, DeviceDataRowOperations) {
  OrganeItems organes;
  auto o = organes.Add(0, "Pompe", "", 0, 0);
  o->setParent(target);
  o->dbInsert(*conn);
  DeviceDataItems datas;
  auto d = datas.Add();
  d->setParent(o);
  d->setDataname("Temp d'eau");
  ASSERT_NE(d->Data(), nullptr);

  d->dbInsert(*conn);
  EXPECT_FALSE(lastError().pending());
  d->dbInsert(*conn);
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(lastError().description, "Data already exist : enabled to add this data");

  d->setFlagPanne(true);
  d->dbUpdate(*conn);
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(count("SELECT [Flag Panne] FROM Lien_Données_ds_Organe"), -1);

  d->dbDelete(*conn);
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(count("SELECT COUNT(*) FROM Lien_Données_ds_Organe"), 0);
  d->dbUpdate(*conn);
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(lastError().description, "device data not found, impossible to update it.");

  auto unknown = datas.Add();
  unknown->setParent(o);
  unknown->setDataname("Nowhere");
  EXPECT_EQ(unknown->Data(), nullptr);
  EXPECT_EQ(unknown->dataname(), "Nowhere");
}

// ------------------------------------------------------------------- XML

TEST_F(OrganeDbTest, XmlOmitsDefaultsAndRoundTrips) {
  auto organes = twoOrgans();
  xml::Document doc;
  auto devices = doc.appendElement("xml").appendElement("Devices");
  organes->createXMLnode(doc, devices);

  auto nodes = devices.selectNodes("Device");
  ASSERT_EQ(nodes.size(), 2u);
  xml::Node plain = nodes[1];
  EXPECT_EQ(plain.attribute("Name"), "Capteur");
  for (const char* a : {"DTC", "OBD", "Type", "FreezeFrame"}) EXPECT_FALSE(plain.hasAttribute(a)) << a;
  EXPECT_TRUE(plain.children().empty());

  xml::Node full = nodes[0];
  EXPECT_EQ(full.attribute("DTC"), "1234");
  EXPECT_EQ(full.attribute("Type"), "3");
  EXPECT_EQ(full.attribute("FreezeFrame"), "FF1");
  EXPECT_EQ(full.child("Mnemonic").text(), "INJ");
  auto dd = full.selectNodes("DeviceData");
  ASSERT_EQ(dd.size(), 2u);
  EXPECT_EQ(dd[0].attribute("Name"), "Speed");
  EXPECT_EQ(dd[0].attribute("FailureFlag"), "1");
  EXPECT_EQ(dd[1].attribute("FailureFlag"), "0");

  xml::Document back;
  ASSERT_TRUE(back.loadString(doc.toString()));
  OrganeItems loaded;
  loaded.loadXml(back, back.documentElement().child("Devices"), target);
  EXPECT_FALSE(lastError().pending());
  ASSERT_EQ(loaded.Count(), 2);
  auto inj = loaded.Item(1);
  EXPECT_EQ(inj->organeName(), "Injecteur");
  EXPECT_EQ(inj->Mnemonique(), "INJ");
  EXPECT_EQ(inj->OrganeTypeId(), 3);
  EXPECT_EQ(inj->OrganeDTC(), 1234);
  EXPECT_EQ(inj->OrganeOBD(), 56);
  EXPECT_EQ(inj->request(), target->Requests()->ItemName("FF1"));
  ASSERT_EQ(inj->DeviceDatas()->Count(), 2);
  EXPECT_EQ(inj->DeviceDatas()->Item(1)->Data(), target->datas()->ItemName("Speed"));
  EXPECT_TRUE(inj->DeviceDatas()->Item(1)->FlagPanne());
  EXPECT_EQ(loaded.Item(2)->OrganeTypeId(), 1);
  EXPECT_EQ(loaded.Item(2)->Mnemonique(), "");
}

TEST_F(OrganeDbTest, XmlLoadReportsMissingNameAndCutsLongDataName) {
  const std::string longName = repeat("d", 71);
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<Devices><Device DTC=\"5\"/><Device Name=\"X\"><DeviceData Name=\"" + longName +
                             "\"/></Device></Devices>"));
  OrganeItems loaded;
  loaded.loadXml(doc, doc.documentElement(), target);
  EXPECT_EQ(lastError().number, 100);
  EXPECT_EQ(lastError().description, "OrganeItem.loadXml error : Device Name not defined");
  ASSERT_EQ(loaded.Count(), 2);
  EXPECT_EQ(loaded.Item(1)->OrganeDTC(), 5);
  auto boxes = defaultHost()->messageBoxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].title, "Builder importation");
  EXPECT_EQ(boxes[0].text, "Data name '" + longName + "' too long , MDB database max length = 70 characters\r\n" +
                               "name is truncated to 70 car");
  EXPECT_EQ(loaded.Item(2)->DeviceDatas()->Item(1)->dataname(), repeat("d", 70));
}

}  // namespace
}  // namespace kavrel
