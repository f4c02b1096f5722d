// Data items against a real database file and real XML documents.
#include "kavrel/requests/data_items.h"

#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "support/checks.h"
#include "support/older_layout.h"
#include "support/request_fixture.h"

namespace kavrel {
namespace {

// Every stored property of a data item on one line, reals written exactly,
// then its list entries.
std::string describe(const DataItem& d) {
  auto n = [](double v) { return text::decimalText(v); };
  std::string s = d.dataname() + "|" + std::to_string(d.NumberBits()) + "|" + std::to_string(d.numerique()) +
                  std::to_string(d.liste()) + std::to_string(d.Signe()) + std::to_string(d.Ascii()) + "|" +
                  d.Unite() + "|" + n(d.CoeffA()) + "|" + n(d.CoeffB()) + "|" + n(d.CoeffC()) + "|" +
                  d.DataFormat() + "|" + d.Mnemo() + "|" + d.Description() + "|" + d.Fiche();
  if (d.DataListes())
    for (const auto& e : *d.DataListes()) s += "|" + std::to_string(e->Valeur()) + "=" + e->libelle() + "/" + e->Info();
  return s;
}

// A scaled, a listed and a 12-bit byte-string data item added to `datas`
// (the other kinds are in the example documents).
void addEveryKind(DataItems& datas, const std::shared_ptr<TargetItem>& parent) {
  auto scaled = datas.Add(0);
  scaled->setDataname("Température");
  scaled->setNumberBits(12);
  scaled->setSigne(true);
  scaled->setUnite("°C");
  scaled->setCoeffA(0.1);
  scaled->setCoeffB(-40);
  scaled->setCoeffC(2);
  scaled->setDataFormat("0.0");
  scaled->setMnemo("TEMP");
  scaled->setDescription("Capteur d'eau");
  scaled->setFiche("fiche <b>");
  auto listed = datas.Add(0);
  listed->setDataname("Etat");
  listed->setListe(true);
  for (int v : {5, -1, 3}) {
    auto e = listed->DataListes()->Add(v);
    e->setParent(listed);
    e->setLibelle("état " + std::to_string(v));
    if (v == 3) e->setInfo("détail");
  }
  auto bytes12 = datas.Add(0);
  bytes12->setDataname("octets");
  bytes12->setNumerique(false);
  bytes12->setNumberBits(12);
  for (const auto& d : datas) d->setParent(parent);
}

class DataDb : public ::kavrel::test::EngineTest {
 protected:
  std::string text(const std::string& sql) { return t.value(sql).toText(); }
  test::StoredTarget t;
  std::shared_ptr<DataItems> datas = t.target->datas();
};

TEST_P(DataDb, WholeTargetReadGivesBackWhatWasInserted) {
  addEveryKind(*datas, t.target);
  datas->DbInsertAll(t.conn());
  EXPECT_TRUE(defaultHost()->messageBoxes().empty());
  for (const auto& d : *datas) EXPECT_GT(d->id(), 0);
  // A row whose columns are Null reads as the defaults.
  t.conn().execute("INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, " + t.tid() + ", 'Nue')");
  auto read = std::make_shared<DataItems>();
  read->dbReadAll(t.conn(), t.target);
  ASSERT_EQ(read->Count(), 4);
  DataItem bare;
  bare.setDataname("Nue");
  // Ordered by name, letter case ignored; list entries by value.
  EXPECT_EQ(describe(*read->Item(1)), "Etat|8|1100||1|0|1|||||-1=état -1/|3=état 3/détail|5=état 5/");
  for (const auto& [i, orig] : {std::pair{2, &bare}, {3, datas->Item(3).get()}, {4, datas->Item(1).get()}})
    EXPECT_EQ(describe(*read->Item(i)), describe(*orig));
  for (int32_t i : {1, 3, 4}) EXPECT_EQ(read->Item(i)->id(), datas->ItemName(read->Item(i)->dataname())->id());
  for (const auto& d : *read) EXPECT_EQ(d->parent(), t.target);
  for (const auto& e : *read->Item(1)->DataListes()) {
    EXPECT_FALSE(e->ValueChanged());
    EXPECT_EQ(e->parent(), read->Item(1));
  }
  // The plain read takes neither sheets nor lists; re-reading an item takes
  // its sheet again.
  auto plain = std::make_shared<DataItems>();
  plain->DbRead(t.conn(), t.target);
  ASSERT_EQ(plain->Count(), 4);
  EXPECT_EQ(plain->ItemName("etat")->DataListes()->Count(), 0);
  auto scaled = plain->ItemName("température");
  EXPECT_EQ(scaled->Fiche(), "");
  scaled->dbReReadAll(t.conn());
  EXPECT_EQ(describe(*scaled), describe(*datas->Item(1)));
}

TEST_P(DataDb, ItemMethodsWriteTheirRowsAndRefuse) {
  auto d = t.addData("Vitesse", false);
  d->setFiche("fiche");
  d->setListe(true);
  auto e = d->DataListes()->Add(1);
  e->setParent(d);
  d->DbInsertAll(t.conn());
  const std::string where = " WHERE [Data Id]=" + std::to_string(d->id());
  EXPECT_EQ(t.count("SELECT count(*) FROM Listes" + where), 1);
  EXPECT_EQ(text("SELECT Fiche FROM [Fiches Diag]" + where), "fiche");
  // dbUpdate writes 1/0 for Numérique and Signé, booleans for Liste.
  d->setSigne(true);
  d->setUnite("");
  d->dbUpdate(t.conn());
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(text("SELECT Numérique || ' ' || Signé || ' ' || Liste || ' ' || coalesce(Unité, 'null') FROM Données" +
                 where),
            "1 1 -1 null");
  // dbUpdateAll rewrites the list whole and deletes an emptied sheet.
  d->DataListes()->Remove(1);
  d->DataListes()->Add(2)->setParent(d);
  d->setFiche("");
  d->dbUpdateAll(t.conn());
  EXPECT_EQ(test::joinedRows(t.conn(), "SELECT Valeur FROM Listes" + where), "2");
  EXPECT_EQ(t.count("SELECT count(*) FROM [Fiches Diag]" + where), 0);
  // A sheet with text and no row is inserted, then rewritten; dbReadFiche
  // leaves the text alone when there is no row.
  d->setFiche("neuve");
  d->dbUpdateFiche(t.conn());
  d->setFiche("changée");
  d->dbUpdateFiche(t.conn());
  EXPECT_EQ(text("SELECT Fiche FROM [Fiches Diag]" + where), "changée");
  d->dbDeleteFiche(t.conn());
  d->dbReadFiche(t.conn());
  EXPECT_EQ(d->Fiche(), "changée");
  // Renames: the database compares names without letter case.
  auto b = t.addData("Régime");
  b->dbRename(t.conn(), "VITESSE");
  EXPECT_TRUE(test::recorded(2, "Duplicate name"));
  EXPECT_EQ(b->dataname(), "Régime");
  b->dbRename(t.conn(), "Régime moteur");
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(text("SELECT [Data Name] FROM Données WHERE [Data Id]=" + std::to_string(b->id())), "Régime moteur");
  EXPECT_EQ(datas->ItemName("régime moteur"), b);
  // A row that is gone: an update does nothing and reports nothing, a
  // rename is refused.
  b->setId(999999);
  b->dbUpdate(t.conn());
  EXPECT_FALSE(lastError().pending());
  b->dbRename(t.conn(), "Autre");
  EXPECT_TRUE(test::recorded(1, "Data not found"));
  EXPECT_EQ(b->dataname(), "Régime moteur");
  // No parent: refused before anything is tried.
  auto orphan = std::make_shared<DataItem>();
  EXPECT_TRUE(test::throws([&] { orphan->dbInsert(t.conn()); }, 100, "Parent not defined"));
  EXPECT_TRUE(test::throws([&] { orphan->dbUpdate(t.conn()); }, 100, "Parent not defined"));
  EXPECT_THROW(orphan->dbRename(t.conn(), "x"), Error);
  // Clearing an item releases its list and its parent.
  auto list = d->DataListes();
  d->clear();
  EXPECT_EQ(list->Count(), 0);
  EXPECT_EQ(d->DataListes(), nullptr);
  EXPECT_EQ(d->parent(), nullptr);
}

TEST_P(DataDb, DeleteTakesDisplaysAlongAndReportsRefusals) {
  auto d = t.addData("l'avance");
  t.conn().execute("INSERT INTO Requêtes ([Target Id], Address, [Request Name]) VALUES (" + t.tid() + ", 122, 'Req')");
  t.conn().execute("INSERT INTO [Emplacement Donnée] (Address, [Target Id], [Request Name], [Data Name]) "
                   "VALUES (122, " + t.tid() + ", 'Req', 'l''avance')");
  t.addDisplayOf("Req", "l'avance");
  // The reference data of the target are read through Donnée_Ref.
  t.conn().execute("INSERT INTO Donnée_Ref (Address, [Target Id], [Data Name], [Request Name]) VALUES (122, " +
                   t.tid() + ", 'l''avance', 'Req')");
  auto refs = std::make_shared<DataItems>();
  refs->DbReadRef(t.conn(), t.target);
  ASSERT_EQ(refs->Count(), 1);
  EXPECT_EQ(describe(*refs->Item(1)), describe(*d));
  d->dbDelete(t.conn());
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  EXPECT_EQ(t.count("SELECT count(*) FROM Données") + t.count("SELECT count(*) FROM Affichages"), 0);
  // A data item used by an organ is refused; nothing is deleted.
  auto used = t.addData("Pression");
  t.conn().execute("INSERT INTO Organes (Address, [Target Id], [Organe Name]) VALUES (122, " + t.tid() + ", 'Pompe')");
  t.conn().execute("INSERT INTO Lien_Données_ds_Organe (Address, [Target Id], [Data Name], [Organe Name]) "
                   "VALUES (122, " + t.tid() + ", 'Pression', 'Pompe')");
  used->dbDelete(t.conn());
  EXPECT_TRUE(test::recorded(1, "Impossible to delete the data 'Pression'"));
  EXPECT_EQ(t.count("SELECT count(*) FROM Données"), 1);
}

TEST_P(DataDb, BulkInsertShortensLongLabelsSkipsDuplicateValuesAndPassesRefusedItems) {
  auto d = t.addData("Etat", false);
  d->setListe(true);
  const std::string longLabel(75, 'x');
  for (auto [v, label] : {std::pair{10, longLabel}, {3, "trois"}, {3, "encore trois"}, {4, "quatre"}}) {
    auto e = d->DataListes()->Add(v);
    e->setParent(d);
    e->setLibelle(label);
  }
  auto next = t.addData("Suivante", false);
  datas->DbInsertAll(t.conn());
  auto boxes = defaultHost()->messageBoxes();
  ASSERT_EQ(boxes.size(), 2u);
  EXPECT_EQ(boxes[0].text, "Libellé trop long pour la base mdb\r\n10 = " + longLabel);
  EXPECT_EQ(boxes[1].text, "Erreur de doublon 3 = encore trois");
  EXPECT_EQ(test::joinedRows(t.conn(), "SELECT Valeur || '=' || Libellé AS v FROM Listes WHERE "
                 "[Data Id]=" + std::to_string(d->id()) + " ORDER BY Valeur", ";"),
            "3=trois;4=quatre;10=" + std::string(65, 'x') + " 000A");
  EXPECT_GT(next->id(), 0);
  // A refused item (a name equal but for letter case) is logged and thrown
  // at the end; the items after it are stored.
  defaultHost()->clear();
  auto collection = std::make_shared<DataItems>();
  t.target->setDatas(collection);
  t.addData("Vitesse", false);
  t.addData("VITESSE", false);
  auto last = t.addData("Régime", false);
  EXPECT_THROW(collection->DbInsertAll(t.conn()), Error);
  EXPECT_EQ(t.count("SELECT count(*) FROM Données"), 4);
  EXPECT_GT(last->id(), 0);
  EXPECT_EQ(defaultHost()->events().size(), 1u);
}

// ---- XML

std::shared_ptr<DataItems> loadDatas(const std::string& text, const std::shared_ptr<TargetItem>& t = nullptr) {
  xml::Document doc;
  EXPECT_TRUE(doc.loadString(text)) << doc.parseError().reason;
  auto c = std::make_shared<DataItems>();
  c->loadXml(doc, doc.documentElement(), t);
  return c;
}

TEST(DataItemXml, EveryKindWritesOnlyWhatDiffersAndReadsBack) {
  auto c = std::make_shared<DataItems>();
  addEveryKind(*c, nullptr);
  c->Item(1)->setDescription("  ligne 1\r\nligne 2  ");
  c->Item(2)->setUnite("ignored");
  xml::Document doc;
  c->createXMLnode(doc, doc.appendElement("Datas"));
  const std::string text = doc.toString();
  // (The layout of each kind is checked byte for byte against the example
  // documents; here what they do not show.)
  EXPECT_TRUE(test::contains(text, "<Bits count=\"12\" signed=\"1\"><Scaled Unit=\"°C\" Step=\"0.1\" Offset=\"-40\" "
                                   "DivideBy=\"2\" Format=\"0.0\"/></Bits>"));
  EXPECT_TRUE(test::contains(text, "<Comment><![CDATA[ligne 1\r\nligne 2]]></Comment>"));
  EXPECT_TRUE(test::contains(text, "<Bits><List>\n<Item Value=\"5\" Text=\"état 5\"/>"));  // no unit
  EXPECT_TRUE(test::contains(text, "<Bytes count=\"1.5\"/>"));
  auto back = loadDatas(text);
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  ASSERT_EQ(back->Count(), c->Count());
  c->Item(2)->setUnite("");  // a listed item carries no scaling in XML
  c->Item(1)->setDescription("ligne 1\r\nligne 2");
  for (int i = 1; i <= c->Count(); ++i) EXPECT_EQ(describe(*back->Item(i)), describe(*c->Item(i)));
  auto entry = back->Item(2)->DataListes()->Item(1);
  EXPECT_EQ(entry->parent(), back->Item(2));
  EXPECT_TRUE(entry->ValueChanged());
}

TEST(DataItemXml, LoadingEdgeCases) {
  const std::string longName(71, 'n');
  auto t = TargetItem::create();
  auto c = loadDatas("<Datas><Data Name=\"" + longName + "\"><!-- note --><Bits count=\"4\"/></Data>"
                     "<Data><Bytes count=\"2\"/></Data><Data Name=\"Nue\"/></Datas>", t);
  ASSERT_EQ(c->Count(), 3);
  EXPECT_FALSE(lastError().pending());
  EXPECT_TRUE(test::longNameBoxShown(longName));
  EXPECT_EQ(describe(*c->Item(1)), longName.substr(0, 70) + "|4|1000||1|0|1|||note|");
  EXPECT_EQ(c->Item(1)->parent(), t);
  // Without a name nothing else is read, but the item is kept; neither Bits
  // nor Bytes: numeric, 8 bits.
  EXPECT_EQ(describe(*c->Item(2)), "|8|1000||1|0|1||||");
  EXPECT_EQ(describe(*c->Item(3)), "Nue|8|1000||1|0|1||||");
  // Reading resets what the element leaves out.
  auto d = c->Item(1);
  d->setUnite("%");
  d->setAscii(true);
  xml::Document doc;
  ASSERT_TRUE(doc.loadString("<Data Name=\"x\"><Bytes count=\"1.5\"/></Data>"));
  d->loadXml(doc, doc.documentElement());
  EXPECT_EQ(describe(*d), "x|12|0000||1|0|1||||");
}

// ---- older layout

class DataItemsOlderLayout : public ::kavrel::test::EngineTest {};

TEST_P(DataItemsOlderLayout, ReadCorrectsPercentagesDerivesBitsAndKeepsDuplicates) {
  test::OlderLayoutDb old;
  old.conn->execute("INSERT INTO Cibles (Address, [Target Name]) VALUES (122, 'ABS')");
  // Name, numeric, list, param, length, high bit, low bit, mask, unit, a, b, c, bits.
  for (const char* values : {
           "'Charge', -1, 0, 0, 1, 7, 0, NULL, '%', 2, 5, 100, 99",
           "'Bit', -1, 0, 0, 1, 3, 3, NULL, NULL, NULL, NULL, NULL, NULL",
           "'Inverse', -1, 0, 0, 1, 0, 2, NULL, NULL, NULL, NULL, NULL, NULL",
           "'Masqué', -1, 0, 0, 2, NULL, NULL, 4088, NULL, NULL, NULL, NULL, NULL",  // bits 11..3 of two bytes
           "'Sans longueur', -1, 0, 0, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL",
           "'Chaîne', 0, 0, 0, 4, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL",
           "'Mode', -1, -1, 0, 1, 7, 0, NULL, NULL, NULL, NULL, NULL, NULL",
           "'mode', -1, -1, -1, 1, 7, 0, NULL, NULL, NULL, NULL, NULL, NULL",
           "'Mode', -1, -1, -1, 0, 7, 0, NULL, NULL, NULL, NULL, NULL, NULL"})  // a further placement: skipped
    old.conn->execute("INSERT INTO Données (Address, [Target Id], [Data Name], Numérique, Liste, Param, Length, "
                      "NumBitFort, NumBitFaible, Masque, Unité, CoeffA, CoeffB, CoeffC, NumberBits) VALUES (122, 1, " +
                      std::string(values) + ")");
  old.conn->execute("INSERT INTO Listes ([Data Id], Valeur, Numérique, Liste, Libellé) VALUES (7, 1, -1, -1, 'marche')");
  old.conn->execute("INSERT INTO [Fiches Diag] ([Data Id], Fiche) VALUES (1, 'fiche')");
  auto session = KavrelDatabase::create();
  std::vector<std::pair<std::string, std::string>> warnings;
  session->WarningInfo.subscribe(
      [&](const std::string& cls, const std::string& msg) { warnings.emplace_back(cls, msg); });
  auto target = TargetItem::create();
  target->setParent(session);
  target->setAddress(122);
  target->setTargetid(1);
  auto datas = std::make_shared<DataItems>();
  datas->dbReadKVR(*old.conn, target);
  ASSERT_EQ(datas->Count(), 8);
  EXPECT_EQ(describe(*datas->ItemName("charge")), "Charge|8|1000|%|2|5|1||||fiche");
  for (auto [name, bits] : {std::pair{"bit", 1}, {"inverse", -1}, {"masqué", 9}, {"sans longueur", 8}, {"chaîne", 32}})
    EXPECT_EQ(datas->ItemName(name)->NumberBits(), bits) << name;
  EXPECT_FALSE(datas->ItemName("chaîne")->numerique());
  // Rows of a name: the reading one (Param false) first keeps the name.
  auto first = datas->ItemName("mode");
  EXPECT_EQ(first->id(), 7);
  EXPECT_EQ(describe(*first), "Mode|8|1100||1|0|1|||||1=marche/");
  EXPECT_NE(datas->ItemName("mode - ecriture"), nullptr);
  using W = std::vector<std::pair<std::string, std::string>>;
  const std::string kind = "Read Kavrel97 Data auto-correct";
  EXPECT_EQ(warnings, (W{{kind, "data : Charge Unit = '%'(2 * X + 5) / 100 change to (2 * X + 5) / 1"},
                         {kind, "Inverse - lNumBitFort (0) < lNumBitFaible (2) : length=1"}}));
}

KAVREL_ON_ENGINES(DataDb);
KAVREL_ON_ENGINES(DataItemsOlderLayout);

}  // namespace
}  // namespace kavrel
