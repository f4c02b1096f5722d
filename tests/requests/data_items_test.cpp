// Data items against a real database file and real XML documents.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/text.h"
#include "kavrel/platform/xml.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/data_liste_items.h"
#include "kavrel/session/kavrel_database.h"
#include "kavrel/target/target_item.h"
#include "support/older_layout.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

using Ptr = std::shared_ptr<DataItem>;

// A stored target (Fonctions and Cibles rows) with an empty data collection.
class DataDb : public ::testing::Test {
 protected:
  void SetUp() override {
    defaultHost()->clear();
    clearLastError();
    conn_ = db_.connection();
    conn_->execute("INSERT INTO Fonctions (Address, [Function Name]) VALUES (122, 'Freinage')");
    conn_->execute("INSERT INTO Cibles (Address, [Target Name], Langue, [Référence]) VALUES (122, 'ABS', 'x', -1)");
    target = TargetItem::create();
    target->setAddress(122);
    target->setTargetid(static_cast<int32_t>(number("SELECT max([Target Id]) FROM Cibles")));
    datas = std::make_shared<DataItems>();
    target->setDatas(datas);
  }

  db::Connection& conn() { return *conn_; }
  std::string tid() const { return std::to_string(target->targetid()); }

  db::Value value(const std::string& sql) {
    auto rs = conn_->execute(sql);
    db::Value v = rs->eof() ? db::Value() : rs->field(0);
    rs->close();
    return v;
  }
  int64_t number(const std::string& sql) {
    auto v = value(sql);
    return v.isNull() ? 0 : v.toInt64();
  }

  Ptr newData(const std::string& name) {
    auto d = datas->Add(0);
    d->setParent(target);
    d->setDataname(name);
    return d;
  }

  test::TempDb db_;
  std::shared_ptr<db::Connection> conn_;
  std::shared_ptr<TargetItem> target;
  std::shared_ptr<DataItems> datas;
};

void expectSameItem(const DataItem& a, const DataItem& b) {
  EXPECT_EQ(a.id(), b.id());
  EXPECT_EQ(a.dataname(), b.dataname());
  EXPECT_EQ(a.NumberBits(), b.NumberBits()) << a.dataname();
  EXPECT_EQ(a.numerique(), b.numerique()) << a.dataname();
  EXPECT_EQ(a.liste(), b.liste()) << a.dataname();
  EXPECT_EQ(a.Unite(), b.Unite()) << a.dataname();
  EXPECT_EQ(a.Signe(), b.Signe()) << a.dataname();
  EXPECT_DOUBLE_EQ(a.CoeffA(), b.CoeffA()) << a.dataname();
  EXPECT_DOUBLE_EQ(a.CoeffB(), b.CoeffB()) << a.dataname();
  EXPECT_DOUBLE_EQ(a.CoeffC(), b.CoeffC()) << a.dataname();
  EXPECT_EQ(a.DataFormat(), b.DataFormat()) << a.dataname();
  EXPECT_EQ(a.Ascii(), b.Ascii()) << a.dataname();
  EXPECT_EQ(a.Mnemo(), b.Mnemo()) << a.dataname();
  EXPECT_EQ(a.Description(), b.Description()) << a.dataname();
  EXPECT_EQ(a.Fiche(), b.Fiche()) << a.dataname();
}

std::vector<std::pair<int32_t, std::string>> entries(const DataItem& d) {
  std::vector<std::pair<int32_t, std::string>> out;
  for (const auto& e : *d.DataListes()) out.emplace_back(e->Valeur(), e->libelle() + "|" + e->Info());
  return out;
}

TEST(DataItem, NewItemAndClear) {
  auto d = std::make_shared<DataItem>();
  ASSERT_NE(d->DataListes(), nullptr);
  EXPECT_EQ(d->DataListes()->Count(), 0);
  EXPECT_EQ(d->DataPositions(), nullptr);

  auto list = d->DataListes();
  list->Add(1)->setParent(d);
  d->clear();
  EXPECT_EQ(list->Count(), 0);
  EXPECT_EQ(d->DataListes(), nullptr);
  EXPECT_EQ(d->parent(), nullptr);
}

TEST(DataItems, NameLookupsIgnoreCaseAndFollowRenames) {
  DataItems c;
  auto a = c.Add(1);
  a->setDataname("Vitesse");
  auto b = c.Add(2);
  b->setDataname("VITESSE");
  EXPECT_EQ(c.ItemName("vitesse"), a);
  EXPECT_EQ(c.ItemName("Régime"), nullptr);
  EXPECT_EQ(c.ItemDuplicate(a), b);
  EXPECT_EQ(c.ItemDuplicate(b), a);

  // The index follows a rename and a removal.
  a->setDataname("Régime");
  EXPECT_EQ(c.ItemName("vitesse"), b);
  EXPECT_EQ(c.ItemName("RéGIME"), a);
  EXPECT_EQ(c.ItemDuplicate(b), nullptr);
  c.Remove(1);
  EXPECT_EQ(c.ItemName("régime"), nullptr);

  // Same id, same name: not a duplicate of itself, but of a later one.
  auto twin = c.Add(2);
  twin->setDataname("vitesse");
  EXPECT_EQ(c.ItemDuplicate(twin), nullptr);
  auto third = c.Add(3);
  third->setDataname("Vitesse");
  EXPECT_EQ(c.ItemDuplicate(twin), third);
}

TEST_F(DataDb, WholeTargetReadGivesBackWhatWasInserted) {
  auto scaled = newData("Température eau");
  scaled->setNumberBits(10);
  scaled->setSigne(true);
  scaled->setUnite("°C");
  scaled->setCoeffA(0.5);
  scaled->setCoeffB(-40);
  scaled->setCoeffC(3);
  scaled->setDataFormat("0.0");
  scaled->setMnemo("TEAU");
  scaled->setDescription("Capteur d'eau");
  scaled->setFiche("Vérifier le capteur");

  auto listed = newData("Etat moteur");
  listed->setListe(true);
  for (int v : {5, -1, 3}) {
    auto e = listed->DataListes()->Add(v);
    e->setParent(listed);
    e->setLibelle("état " + std::to_string(v));
    if (v == 3) e->setInfo("info trois");
  }

  auto bytes = newData("VIN");
  bytes->setNumerique(false);
  bytes->setNumberBits(136);
  bytes->setAscii(true);

  auto quoted = newData("l'avance");

  datas->DbInsertAll(conn());
  EXPECT_TRUE(defaultHost()->messageBoxes().empty());
  for (const auto& d : *datas) EXPECT_GT(d->id(), 0);

  auto read = std::make_shared<DataItems>();
  read->dbReadAll(conn(), target);
  ASSERT_EQ(read->Count(), 4);
  // Ordered by name, letter case ignored.
  EXPECT_EQ(read->Item(1)->dataname(), "Etat moteur");
  EXPECT_EQ(read->Item(2)->dataname(), "l'avance");
  for (const auto& d : *read) {
    EXPECT_EQ(d->parent(), target);
    expectSameItem(*d, *datas->ItemName(d->dataname()));
  }
  auto readListed = read->ItemName("etat moteur");
  using E = std::vector<std::pair<int32_t, std::string>>;
  EXPECT_EQ(entries(*readListed), (E{{-1, "état -1|"}, {3, "état 3|info trois"}, {5, "état 5|"}}));
  for (const auto& e : *readListed->DataListes()) {
    EXPECT_FALSE(e->ValueChanged());
    EXPECT_EQ(e->parent(), readListed);
  }
  EXPECT_EQ(read->ItemName("VIN")->DataListes()->Count(), 0);

  // The plain read takes neither sheets nor lists; re-reading an item takes
  // its sheet again.
  auto plain = std::make_shared<DataItems>();
  plain->DbRead(conn(), target);
  ASSERT_EQ(plain->Count(), 4);
  auto plainScaled = plain->ItemName("température eau");
  EXPECT_EQ(plainScaled->Fiche(), "");
  EXPECT_EQ(plain->ItemName("etat moteur")->DataListes()->Count(), 0);
  plainScaled->dbReReadAll(conn());
  expectSameItem(*plainScaled, *scaled);
}

TEST_F(DataDb, NullColumnsReadAsDefaults) {
  conn().execute("INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, " + tid() + ", 'Nue')");
  datas->dbReadAll(conn(), target);
  ASSERT_EQ(datas->Count(), 1);
  DataItem expected;
  expected.setId(datas->Item(1)->id());
  expected.setDataname("Nue");
  expectSameItem(*datas->Item(1), expected);
}

TEST_F(DataDb, ItemMethodsWriteTheirRows) {
  auto d = newData("Vitesse");
  d->setFiche("fiche");
  d->setListe(true);
  auto e = d->DataListes()->Add(1);
  e->setParent(d);
  e->setLibelle("un");
  d->DbInsertAll(conn());
  const std::string id = std::to_string(d->id());
  EXPECT_EQ(number("SELECT count(*) FROM Listes WHERE [Data Id]=" + id), 1);
  EXPECT_EQ(value("SELECT Fiche FROM [Fiches Diag] WHERE [Data Id]=" + id).toText(), "fiche");

  // dbUpdate writes 1/0 for Numérique and Signé, booleans for Liste.
  d->setSigne(true);
  d->setUnite("");
  d->setDescription("desc");
  d->dbUpdate(conn());
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(number("SELECT Numérique FROM Données WHERE [Data Id]=" + id), 1);
  EXPECT_EQ(number("SELECT Signé FROM Données WHERE [Data Id]=" + id), 1);
  EXPECT_EQ(number("SELECT Liste FROM Données WHERE [Data Id]=" + id), -1);
  EXPECT_TRUE(value("SELECT Unité FROM Données WHERE [Data Id]=" + id).isNull());

  // dbUpdateAll rewrites the list whole and deletes an emptied sheet.
  d->DataListes()->Remove(1);
  auto e2 = d->DataListes()->Add(2);
  e2->setParent(d);
  d->setFiche("");
  d->dbUpdateAll(conn());
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(number("SELECT Valeur FROM Listes WHERE [Data Id]=" + id), 2);
  EXPECT_EQ(number("SELECT count(*) FROM Listes WHERE [Data Id]=" + id), 1);
  EXPECT_EQ(number("SELECT count(*) FROM [Fiches Diag] WHERE [Data Id]=" + id), 0);

  // A sheet with text and no row is inserted, then rewritten; dbReadFiche
  // leaves the text alone when there is no row.
  d->setFiche("neuve");
  d->dbUpdateFiche(conn());
  d->setFiche("changée");
  d->dbUpdateFiche(conn());
  EXPECT_EQ(value("SELECT Fiche FROM [Fiches Diag] WHERE [Data Id]=" + id).toText(), "changée");
  d->dbDeleteFiche(conn());
  d->dbReadFiche(conn());
  EXPECT_EQ(d->Fiche(), "changée");

  // A row that is gone: nothing happens, nothing is reported.
  auto ghost = newData("Fantôme");
  ghost->setId(999999);
  ghost->dbUpdate(conn());
  EXPECT_FALSE(lastError().pending());

  // No parent: refused before anything is tried.
  auto orphan = std::make_shared<DataItem>();
  for (auto call : {&DataItem::dbInsert, &DataItem::dbUpdate}) {
    try {
      ((*orphan).*call)(conn());
      ADD_FAILURE() << "no error";
    } catch (const Error& err) {
      EXPECT_EQ(err.number(), 100);
      EXPECT_EQ(err.description(), "Parent not defined");
    }
  }
  EXPECT_THROW(orphan->dbRename(conn(), "x"), Error);
}

TEST_F(DataDb, RenameRefusals) {
  auto a = newData("Vitesse");
  auto b = newData("Régime");
  a->dbInsert(conn());
  b->dbInsert(conn());

  // The database compares names without letter case.
  b->dbRename(conn(), "VITESSE");
  EXPECT_EQ(lastError().number, 2);
  EXPECT_EQ(lastError().description, "Duplicate name");
  EXPECT_EQ(b->dataname(), "Régime");

  b->dbRename(conn(), "Régime moteur");
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(b->dataname(), "Régime moteur");
  EXPECT_EQ(value("SELECT [Data Name] FROM Données WHERE [Data Id]=" + std::to_string(b->id())).toText(),
            "Régime moteur");
  EXPECT_EQ(datas->ItemName("régime moteur"), b);

  auto ghost = newData("Fantôme");
  ghost->setId(999999);
  ghost->dbRename(conn(), "Autre");
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(lastError().description, "Data not found");
  EXPECT_EQ(ghost->dataname(), "Fantôme");
}

TEST_F(DataDb, DeleteTakesDisplaysAlongAndReportsRefusals) {
  auto d = newData("l'avance");
  d->dbInsert(conn());
  conn().execute("INSERT INTO Requêtes ([Target Id], Address, [Request Name]) VALUES (" + tid() + ", 122, 'Req')");
  conn().execute("INSERT INTO [Emplacement Donnée] (Address, [Target Id], [Request Name], [Data Name]) VALUES (122, " +
                 tid() + ", 'Req', 'l''avance')");
  conn().execute("INSERT INTO Catégories ([Target Id], [Category Name]) VALUES (" + tid() + ", 'C')");
  conn().execute("INSERT INTO Ecrans ([Target Id], [Category Id], [Screen Name]) VALUES (" + tid() +
                 ", (SELECT max([Category Id]) FROM Catégories), 'E')");
  conn().execute("INSERT INTO Affichages ([Target Id], [Screen Id]) VALUES (" + tid() +
                 ", (SELECT max([Screen Id]) FROM Ecrans))");
  conn().execute(
      "INSERT INTO Données_Aff ([Target Id], [Display Id], [Data Name], [Request Name]) VALUES (" + tid() +
      ", (SELECT max([Display Id]) FROM Affichages), 'l''avance', 'Req')");

  // The reference data of the target are read through Donnée_Ref.
  conn().execute("INSERT INTO Donnée_Ref (Address, [Target Id], [Data Name], [Request Name]) VALUES (122, " + tid() +
                 ", 'l''avance', 'Req')");
  auto refs = std::make_shared<DataItems>();
  refs->DbReadRef(conn(), target);
  ASSERT_EQ(refs->Count(), 1);
  expectSameItem(*refs->Item(1), *d);

  d->dbDelete(conn());
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  EXPECT_EQ(number("SELECT count(*) FROM Données"), 0);
  EXPECT_EQ(number("SELECT count(*) FROM Affichages"), 0);

  // A data item used by an organ is refused; nothing is deleted.
  auto used = newData("Pression");
  used->dbInsert(conn());
  conn().execute("INSERT INTO Organes (Address, [Target Id], [Organe Name]) VALUES (122, " + tid() + ", 'Pompe')");
  conn().execute("INSERT INTO Lien_Données_ds_Organe (Address, [Target Id], [Data Name], [Organe Name]) VALUES (122, " +
                 tid() + ", 'Pression', 'Pompe')");
  used->dbDelete(conn());
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(lastError().description, "Impossible to delete the data 'Pression'");
  EXPECT_EQ(number("SELECT count(*) FROM Données"), 1);
}

TEST_F(DataDb, BulkInsertShortensLongLabelsAndSkipsDuplicateValues) {
  auto d = newData("Etat");
  d->setListe(true);
  const std::string longLabel(75, 'x');
  auto add = [&](int32_t v, const std::string& label) {
    auto e = d->DataListes()->Add(v);
    e->setParent(d);
    e->setLibelle(label);
  };
  add(10, longLabel);
  add(3, "trois");
  add(3, "encore trois");
  add(4, "quatre");
  auto next = newData("Suivante");

  datas->DbInsertAll(conn());
  auto boxes = defaultHost()->messageBoxes();
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0].text, "Libellé trop long pour la base mdb\r\n10 = " + longLabel);
  EXPECT_EQ(boxes[1].text, "Erreur de doublon 3 = encore trois");

  const std::string id = std::to_string(d->id());
  const std::string stored = value("SELECT Libellé FROM Listes WHERE Valeur=10 AND [Data Id]=" + id).toText();
  EXPECT_EQ(stored, std::string(65, 'x') + " 000A");
  EXPECT_EQ(value("SELECT Libellé FROM Listes WHERE Valeur=3 AND [Data Id]=" + id).toText(), "trois");
  EXPECT_EQ(number("SELECT count(*) FROM Listes WHERE [Data Id]=" + id), 3);
  EXPECT_GT(next->id(), 0);
  EXPECT_EQ(number("SELECT count(*) FROM Données"), 2);
}

TEST_F(DataDb, BulkInsertKeepsGoingPastARefusedItem) {
  newData("Vitesse");
  newData("VITESSE");
  auto last = newData("Régime");
  EXPECT_THROW(datas->DbInsertAll(conn()), Error);
  EXPECT_EQ(number("SELECT count(*) FROM Données"), 2);
  EXPECT_GT(last->id(), 0);
  EXPECT_EQ(defaultHost()->events().size(), 1u);
}

// ---- XML

std::string dataXml(const std::shared_ptr<DataItems>& c) {
  xml::Document doc;
  auto root = doc.appendElement("Datas");
  c->createXMLnode(doc, root);
  return doc.toString();
}

std::shared_ptr<DataItems> loadDatas(const std::string& text, const std::shared_ptr<TargetItem>& t = nullptr) {
  xml::Document doc;
  EXPECT_TRUE(doc.loadString(text)) << doc.parseError().reason;
  auto c = std::make_shared<DataItems>();
  c->loadXml(doc, doc.documentElement(), t);
  return c;
}

TEST(DataItemXml, EveryKindWritesOnlyWhatDiffersAndReadsBack) {
  auto c = std::make_shared<DataItems>();
  auto plain = c->Add(0);
  plain->setDataname("Défaut");

  auto scaled = c->Add(0);
  scaled->setDataname("Température");
  scaled->setNumberBits(12);
  scaled->setSigne(true);
  scaled->setUnite("°C");
  scaled->setCoeffA(0.1);
  scaled->setCoeffB(-40);
  scaled->setCoeffC(2);
  scaled->setDataFormat("0.0");
  scaled->setMnemo("TEMP");
  scaled->setDescription("  ligne 1\r\nligne 2  ");
  scaled->setFiche("fiche <b>");

  auto listed = c->Add(0);
  listed->setDataname("Etat");
  listed->setListe(true);
  listed->setUnite("ignored");
  auto e = listed->DataListes()->Add(2);
  e->setLibelle("deux");
  e->setInfo("détail");
  listed->DataListes()->Add(1)->setLibelle("un");

  auto bits12 = c->Add(0);
  bits12->setDataname("Octets");
  bits12->setNumerique(false);
  bits12->setNumberBits(12);

  auto ascii = c->Add(0);
  ascii->setDataname("VIN");
  ascii->setNumerique(false);
  ascii->setNumberBits(136);
  ascii->setAscii(true);

  const std::string text = dataXml(c);
  EXPECT_NE(text.find("<Data Name=\"Défaut\">\n<Bits/>\n</Data>"), std::string::npos) << text;
  EXPECT_NE(text.find("<Bits count=\"12\" signed=\"1\"><Scaled Unit=\"°C\" Step=\"0.1\" Offset=\"-40\" DivideBy=\"2\" "
                      "Format=\"0.0\"/></Bits>"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("<Comment><![CDATA[ligne 1\r\nligne 2]]></Comment>"), std::string::npos) << text;
  EXPECT_NE(text.find("<Description><![CDATA[fiche <b>]]></Description>"), std::string::npos) << text;
  EXPECT_NE(text.find("<Bits><List>\n<Item Value=\"2\" Text=\"deux\"><![CDATA[détail]]></Item>\n<Item Value=\"1\" "
                      "Text=\"un\"/></List></Bits>"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("<Bytes count=\"1.5\"/>"), std::string::npos) << text;
  EXPECT_NE(text.find("<Bytes count=\"17\" ascii=\"1\"/>"), std::string::npos) << text;

  auto back = loadDatas(text);
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  ASSERT_EQ(back->Count(), c->Count());
  listed->setUnite("");  // a listed item carries no scaling in XML
  scaled->setDescription("ligne 1\r\nligne 2");
  for (int i = 1; i <= c->Count(); ++i) expectSameItem(*back->Item(i), *c->Item(i));
  auto backList = back->Item(3)->DataListes();
  ASSERT_EQ(backList->Count(), 2);
  EXPECT_EQ(backList->Item(1)->Info(), "détail");
  EXPECT_EQ(backList->Item(2)->libelle(), "un");
  EXPECT_EQ(backList->Item(1)->parent(), back->Item(3));
  EXPECT_TRUE(backList->Item(1)->ValueChanged());
}

TEST(DataItemXml, LoadingEdgeCases) {
  defaultHost()->clear();
  clearLastError();
  const std::string longName(71, 'n');
  auto t = TargetItem::create();
  auto c = loadDatas("<Datas>"
                     "<Data Name=\"" + longName + "\"><!-- note --><Bits count=\"4\"/></Data>"
                     "<Data><Bytes count=\"2\"/></Data>"
                     "<Data Name=\"Nue\"/>"
                     "</Datas>",
                     t);
  ASSERT_EQ(c->Count(), 3);
  EXPECT_FALSE(lastError().pending());

  auto boxes = defaultHost()->messageBoxes();
  ASSERT_EQ(boxes.size(), 1u);
  EXPECT_EQ(boxes[0].title, "Builder importation");
  EXPECT_EQ(boxes[0].icon, MessageIcon::Exclamation);
  EXPECT_EQ(boxes[0].text, "Data name '" + longName +
                               "' too long , MDB database max length = 70 characters\r\nname is truncated to 70 car");
  EXPECT_EQ(c->Item(1)->dataname(), longName.substr(0, 70));
  EXPECT_EQ(c->Item(1)->Description(), "note");
  EXPECT_EQ(c->Item(1)->NumberBits(), 4);
  EXPECT_EQ(c->Item(1)->parent(), t);

  // Without a name nothing else is read, but the item is kept.
  EXPECT_EQ(c->Item(2)->dataname(), "");
  EXPECT_EQ(c->Item(2)->NumberBits(), 8);
  EXPECT_TRUE(c->Item(2)->numerique());

  // Neither Bits nor Bytes: numeric, 8 bits.
  EXPECT_TRUE(c->Item(3)->numerique());
  EXPECT_EQ(c->Item(3)->NumberBits(), 8);

  // Reading resets what the element leaves out.
  auto d = c->Item(1);
  d->setUnite("%");
  d->setAscii(true);
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<Data Name=\"x\"><Bytes count=\"1.5\"/></Data>"));
  d->loadXml(doc, doc.documentElement());
  EXPECT_FALSE(d->numerique());
  EXPECT_EQ(d->NumberBits(), 12);
  EXPECT_EQ(d->Unite(), "");
  EXPECT_FALSE(d->Ascii());
  EXPECT_EQ(d->Description(), "");
}

// ---- older layout

TEST(DataItemsOlderLayout, ReadCorrectsPercentagesDerivesBitsAndKeepsDuplicates) {
  defaultHost()->clear();
  test::TempDir dir;
  const std::string path = dir.file("old.sqlite");
  test::createOlderLayoutDb(path);
  auto conn = db::openConnection(path);
  conn->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (122, 'ABS')");
  auto row = [&](const std::string& values) {
    conn->execute("INSERT INTO Données (Address, [Target Id], [Data Name], Numérique, Liste, Param, Length, NumBitFort, "
                  "NumBitFaible, Masque, Unité, CoeffA, CoeffB, CoeffC, NumberBits) VALUES (122, 1, " +
                  values + ")");
  };
  row("'Charge', -1, 0, 0, 1, 7, 0, NULL, '%', 2, 5, 100, 99");
  row("'Bit', -1, 0, 0, 1, 3, 3, NULL, NULL, NULL, NULL, NULL, NULL");
  row("'Inverse', -1, 0, 0, 1, 0, 2, NULL, NULL, NULL, NULL, NULL, NULL");
  row("'Masqué', -1, 0, 0, 2, NULL, NULL, 4088, NULL, NULL, NULL, NULL, NULL");  // bits 11..3 of two bytes
  row("'Sans longueur', -1, 0, 0, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL");
  row("'Chaîne', 0, 0, 0, 4, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL");
  row("'Mode', -1, -1, 0, 1, 7, 0, NULL, NULL, NULL, NULL, NULL, NULL");
  row("'mode', -1, -1, -1, 1, 7, 0, NULL, NULL, NULL, NULL, NULL, NULL");
  row("'Mode', -1, -1, -1, 0, 7, 0, NULL, NULL, NULL, NULL, NULL, NULL");  // a further placement: skipped
  conn->execute("INSERT INTO Listes ([Data Id], Valeur, Numérique, Liste, Libellé) VALUES (7, 1, -1, -1, 'marche')");
  conn->execute("INSERT INTO [Fiches Diag] ([Data Id], Fiche) VALUES (1, 'fiche')");

  auto session = KavrelDatabase::create();
  std::vector<std::pair<std::string, std::string>> warnings;
  session->WarningInfo.subscribe(
      [&](const std::string& cls, const std::string& msg) { warnings.emplace_back(cls, msg); });
  auto target = TargetItem::create();
  target->setParent(session);
  target->setAddress(122);
  target->setTargetid(1);
  auto datas = std::make_shared<DataItems>();
  datas->dbReadKVR(*conn, target);

  ASSERT_EQ(datas->Count(), 8);
  auto charge = datas->ItemName("charge");
  EXPECT_EQ(charge->CoeffC(), 1.0);
  EXPECT_EQ(charge->CoeffA(), 2.0);
  EXPECT_EQ(charge->NumberBits(), 8);
  EXPECT_EQ(charge->Fiche(), "fiche");
  EXPECT_EQ(datas->ItemName("bit")->NumberBits(), 1);
  EXPECT_EQ(datas->ItemName("inverse")->NumberBits(), -1);
  EXPECT_EQ(datas->ItemName("masqué")->NumberBits(), 9);
  EXPECT_EQ(datas->ItemName("sans longueur")->NumberBits(), 8);
  EXPECT_FALSE(datas->ItemName("chaîne")->numerique());
  EXPECT_EQ(datas->ItemName("chaîne")->NumberBits(), 32);

  // Rows of a name: the reading one (Param false) first keeps the name.
  auto first = datas->ItemName("mode");
  EXPECT_EQ(first->id(), 7);
  ASSERT_EQ(first->DataListes()->Count(), 1);
  EXPECT_EQ(first->DataListes()->Item(1)->libelle(), "marche");
  EXPECT_NE(datas->ItemName("mode - ecriture"), nullptr);

  using W = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ(warnings, (W{{"Read Kavrel97 Data auto-correct",
                          "data : Charge Unit = '%'(2 * X + 5) / 100 change to (2 * X + 5) / 1"},
                         {"Read Kavrel97 Data auto-correct", "Inverse - lNumBitFort (0) < lNumBitFaible (2) : length=1"}}));
}

}  // namespace
}  // namespace kavrel
