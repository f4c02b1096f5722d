// Value lists: lookups, row identity (data, value and both flags) and XML.
#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "support/request_fixture.h"

namespace kavrel {
namespace {

TEST(DataListeItems, LookupsAndChangeMarks) {
  DataListeItems list;
  auto a = list.Add(-5);
  EXPECT_EQ(list.ValueMax(), 0);  // never below 0
  auto b = list.Add(7);
  auto c = list.Add(7);
  b->setLibelle("marche");
  c->setLibelle("Marche");
  EXPECT_EQ(list.ValueMax(), 7);
  EXPECT_EQ(list.ItemValue(7), b);
  EXPECT_EQ(list.ItemValue(8), nullptr);
  EXPECT_EQ(list.ItemLabel("Marche"), c);
  EXPECT_EQ(list.ItemLabel("MARCHE"), nullptr);
  list.RemoveItem(c);  // the first entry of that value goes
  ASSERT_EQ(list.Count(), 2);
  EXPECT_EQ(list.Item(2), c);
  EXPECT_TRUE(list.ValueChanged());
  list.setValueChanged(false);
  EXPECT_FALSE(a->ValueChanged() || list.ValueChanged());
  a->setInfo(a->Info());  // writing the same value still marks the entry
  EXPECT_TRUE(list.ValueChanged());
}

class DataListeItemsDb : public ::kavrel::test::EngineTest {};

TEST_P(DataListeItemsDb, RowsFollowTheirFourColumnIdentity) {
  test::StoredTarget t;
  db::Connection& conn = t.conn();
  auto data = t.addData("Etat", false);
  data->setListe(true);
  data->dbInsert(conn);
  auto entry = [&](int32_t v, const std::string& label) {
    auto e = data->DataListes()->Add(v);
    e->setParent(data);
    e->setLibelle(label);
    return e;
  };
  auto rows = [&](const std::string& where) { return t.count("SELECT count(*) FROM Listes" + where); };
  auto label = [&](int32_t v) { return t.value("SELECT Libellé FROM Listes WHERE Valeur=" + std::to_string(v)).toText(); };
  auto one = entry(1, std::string(85, 'L'));
  auto two = entry(2, "deux");
  data->DataListes()->DbInsertAll(conn);
  EXPECT_EQ(label(1), std::string(80, 'L'));
  EXPECT_FALSE(one->ValueChanged());
  EXPECT_EQ(rows(" WHERE Numérique=-1 AND Liste=-1"), 2);
  // Unchanged: nothing is written, even if the row differs; changed and its
  // row gone: inserted.
  conn.execute("UPDATE Listes SET Libellé='autre' WHERE Valeur=2");
  two->dbUpdate(conn);
  EXPECT_EQ(label(2), "autre");
  conn.execute("DELETE FROM Listes WHERE Valeur=2");
  two->setLibelle("deux bis");
  two->dbUpdate(conn);
  EXPECT_EQ(label(2), "deux bis");
  EXPECT_FALSE(two->ValueChanged());
  // Read back in value order with the item's flags.
  entry(0, "zéro")->dbInsert(conn);
  DataListeItems read;
  read.DbRead(conn, data);
  ASSERT_EQ(read.Count(), 3);
  EXPECT_EQ(read.Item(1)->Valeur(), 0);
  EXPECT_EQ(read.Item(3)->libelle(), "deux bis");
  EXPECT_FALSE(read.Item(1)->ValueChanged());
  EXPECT_EQ(read.Item(1)->parent(), data);
  // Other flags: the stored rows are out of reach of update and delete...
  data->setNumerique(false);
  two->setLibelle("changé");
  two->dbUpdate(conn);  // inserts a second row under the new flags
  EXPECT_EQ(rows(" WHERE Valeur=2"), 2);
  one->dbDelete(conn);
  EXPECT_EQ(rows(" WHERE Valeur=1"), 1);
  DataListeItems none;
  none.DbRead(conn, data);
  EXPECT_EQ(none.Count(), 1);
  // ... but not of dbDeleteAll.
  data->DataListes()->dbDeleteAll(conn, data);
  EXPECT_EQ(rows(""), 0);
  data->setNumerique(true);
  auto three = entry(3, "trois");
  three->dbInsert(conn);
  three->dbDelete(conn);
  EXPECT_EQ(rows(""), 0);
}

TEST(DataListeItemsXml, WritesInfoAsCDataAndKeepsBadEntries) {
  DataListeItems list;
  auto e = list.Add(3);
  e->setLibelle("trois & plus");
  e->setInfo("info");
  list.Add(4);
  xml::Document doc;
  list.createXMLnode(doc, doc.appendElement("List"));
  EXPECT_EQ(doc.toString(), "<List>\n<Item Value=\"3\" Text=\"trois &amp; plus\"><![CDATA[info]]></Item>\n"
                            "<Item Value=\"4\" Text=\"\"/></List>\n");
  xml::Document in;
  ASSERT_TRUE(in.loadString("<List><Item Value=\"5\">  texte  </Item><Item Text=\"x\" Value=\"abc\"/></List>"));
  auto owner = std::make_shared<DataItem>();
  DataListeItems read;
  read.loadXml(in, in.documentElement(), owner);
  ASSERT_EQ(read.Count(), 2);
  EXPECT_EQ(read.Item(1)->Valeur(), 5);
  EXPECT_EQ(read.Item(1)->Info(), "texte");
  EXPECT_EQ(read.Item(1)->parent(), owner);
  EXPECT_EQ(read.Item(2)->libelle(), "x");
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(lastError().description, "Type mismatch");
}

KAVREL_ON_ENGINES(DataListeItemsDb);

}  // namespace
}  // namespace kavrel
