// Names through the public API, as a client meets them: a target found by
// any letter case, lists read in French order, positions linked to the right
// data item, and renames onto a case variant refused.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/temp_db.h"
#include "support/engines.h"

namespace kavrel {
namespace {

template <class Collection, class Name>
std::vector<std::string> namesOf(const Collection& c, Name name) {
  std::vector<std::string> out;
  for (const auto& e : c) out.push_back(name(*e));
  return out;
}

struct StoredNames {
  test::TempDb tdb;
  std::shared_ptr<KavrelDatabase> s = KavrelDatabase::create();
  std::shared_ptr<TargetItem> t;

  StoredNames() {
    auto& c = *tdb.connection();
    db::Transaction tx(c);
    for (const char* sql : {
             "INSERT INTO [Type Panne] VALUES (0, 'Aucune')",
             "INSERT INTO [Type Organe] VALUES (1, 'Sortie'), (2, 'Entrée'), (3, 'électrovanne')",
             "INSERT INTO Protocoles VALUES ('Vitesse lente', 0, 0), ('ÉTENDU', 1, 0), ('Etendu', 2, 0)",
             "INSERT INTO Fonctions ([Address], [Function Name]) VALUES (1, 'Vitesse'), (2, 'Éclairage'), "
             "(3, 'eclairage avant'), (122, 'Moteur')",
             "INSERT INTO Cibles ([Target Id], Address, [Target Name]) VALUES (7, 122, 'Moteur'), "
             "(8, 123, 'Éclairage'), (9, 124, 'Vitesse')",
             "INSERT INTO [Paramètres UCE] ([Ecu Id], [Type Panne Id]) VALUES (7, 0)",
             "INSERT INTO Requêtes (Address, [Target Id], [Request Name]) VALUES (122, 7, 'Lecture VIN'), "
             "(122, 7, 'Écriture'), (122, 7, 'lecture mesures')",
             "INSERT INTO Données (Address, [Target Id], [Data Name]) VALUES (122, 7, 'Vitesse'), "
             "(122, 7, 'état batterie'), (122, 7, 'Écart de richesse'), (122, 7, 'Tension')",
             // Positions may spell a data or request name in any letter case.
             "INSERT INTO [Emplacement Donnée] (Address, [Target Id], [Request Name], [Data Name], StartOctet) "
             "VALUES (122, 7, 'LECTURE MESURES', 'ÉCART DE RICHESSE', 4), (122, 7, 'lecture mesures', 'vitesse', 6)",
             "INSERT INTO Organes (Address, [Target Id], [Organe Name], [Type Organe Id]) VALUES "
             "(122, 7, 'Pompe', 1), (122, 7, 'Électrovanne EGR', 3), (122, 7, 'injecteur', 1)",
         })
      c.execute(sql);
    tx.commit();
    c.close();
    s->DbOpen(tdb.path());
    s->DbRead();
    int32_t address = -1, id = -1;
    EXPECT_TRUE(s->DbFindUceByName("MOTEUR", address, id));
    t = s->NewTarget();
    EXPECT_TRUE(t->dbReadTargetAll(*s->DbConnection(), address, id));
  }
  db::Connection& conn() { return *s->DbConnection(); }
};

class NamesScenario : public ::kavrel::test::EngineTest {};
KAVREL_ON_ENGINES(NamesScenario);

TEST_P(NamesScenario, CataloguesTargetsAndListsReadInFrenchOrder) {
  StoredNames n;
  EXPECT_EQ(namesOf(*n.s->functions(), [](const FunctionItem& f) { return f.functionName(); }),
            (std::vector<std::string>{"Éclairage", "eclairage avant", "Moteur", "Vitesse"}));
  EXPECT_EQ(namesOf(*n.s->protocols(), [](const ProtocolItem& p) { return p.protocolName(); }),
            (std::vector<std::string>{"Etendu", "ÉTENDU", "Vitesse lente"}));
  EXPECT_EQ(namesOf(*n.s->typeOrganes(), [](const TypeOrganeItem& o) { return o.libelle(); }),
            (std::vector<std::string>{"électrovanne", "Entrée", "Sortie"}));
  EXPECT_EQ(namesOf(*n.t->Requests(), [](const RequestItem& r) { return r.requestName(); }),
            (std::vector<std::string>{"Écriture", "lecture mesures", "Lecture VIN"}));
  EXPECT_EQ(namesOf(*n.t->datas(), [](const DataItem& d) { return d.dataname(); }),
            (std::vector<std::string>{"Écart de richesse", "état batterie", "Tension", "Vitesse"}));
  EXPECT_EQ(namesOf(*n.t->Organes(), [](const OrganeItem& o) { return o.organeName(); }),
            (std::vector<std::string>{"Électrovanne EGR", "injecteur", "Pompe"}));
  // Lookups agree with the database: any letter case, accents kept.
  EXPECT_EQ(n.s->protocols()->ItemName("étendu")->initMode(), 1);
  EXPECT_EQ(n.s->protocols()->ItemName("ETENDU")->initMode(), 2);
  EXPECT_EQ(n.t->Organes()->ItemName("ÉLECTROVANNE EGR")->organeName(), "Électrovanne EGR");
  EXPECT_EQ(n.t->Organes()->ItemName("Electrovanne EGR"), nullptr);
  int32_t address = 0, id = 0;
  EXPECT_TRUE(n.s->DbFindUceByName("éclairage", address, id));
  EXPECT_EQ(id, 8);
  EXPECT_FALSE(n.s->DbFindUceByName("eclairage", address, id));
}

TEST_P(NamesScenario, PositionsLinkToTheirOwnDataWhateverTheSpelling) {
  StoredNames n;
  auto read = n.t->Requests()->ItemName("LECTURE MESURES");
  ASSERT_NE(read, nullptr);
  ASSERT_EQ(read->DataPositions()->Count(), 2);
  for (const auto& pos : *read->DataPositions()) {
    ASSERT_NE(pos->Data(), nullptr) << pos->dataname();
    EXPECT_EQ(pos->Data(), n.t->datas()->ItemName(pos->dataname()));
  }
  EXPECT_EQ(n.t->Requests()->ItemDataPositionName("lecture MESURES", "écart de richesse")->StartOctet(), 4);
}

TEST_P(NamesScenario, RenamesAndInsertsOntoACaseVariantAreRefused) {
  StoredNames n;
  // Data: error 2, the item keeps its name, the database its rows.
  auto tension = n.t->datas()->ItemName("Tension");
  clearLastError();
  tension->dbRename(n.conn(), "ÉTAT BATTERIE");
  EXPECT_TRUE(test::recorded(2, "Duplicate name"));
  EXPECT_EQ(tension->dataname(), "Tension");
  // A rename onto its own case variant is a change of spelling.
  auto etat = n.t->datas()->ItemName("ÉTAT BATTERIE");
  clearLastError();
  etat->dbRename(n.conn(), "État batterie");
  EXPECT_FALSE(lastError().pending());
  EXPECT_EQ(n.conn().execute("SELECT [Data Name] FROM Données WHERE [Data Id]=" + std::to_string(etat->id()))
                ->field(0)
                .toText(),
            "État batterie");
  // A second data item of the same name is not stored.
  auto twin = n.t->datas()->Add(0);
  twin->setParent(n.t);
  twin->setDataname("ÉCART DE RICHESSE");
  clearLastError();
  try {
    twin->dbInsert(n.conn());
  } catch (const Error&) {
  }
  EXPECT_EQ(n.conn().execute("SELECT count(*) FROM Données WHERE [Data Name]='écart de richesse'")->field(0).toInt64(),
            1);
  // Organs: error 2 with their own text.
  auto pompe = n.t->Organes()->ItemName("pompe");
  clearLastError();
  pompe->dbRename(n.conn(), "INJECTEUR");
  EXPECT_TRUE(test::recorded(2, "Duplicate device name"));
  EXPECT_EQ(pompe->organeName(), "Pompe");
  // Requests: the rename is refused by the database and reaches the caller.
  auto ecriture = n.t->Requests()->ItemName("écriture");
  Error e = test::thrownBy([&] { ecriture->dbRename(n.conn(), "LECTURE VIN"); });
  EXPECT_TRUE(test::contains(e.description(), "Error rename request : "));
  EXPECT_EQ(ecriture->requestName(), "Écriture");
}

}  // namespace
}  // namespace kavrel
