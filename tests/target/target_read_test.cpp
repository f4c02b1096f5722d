// A whole-target read next to another target whose ids lie among its own
// (two targets stored at once): each item gets its own list entries and
// thresholds only, in their order, on either engine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

class InterleavedTargets : public test::EngineTest {};

TEST_P(InterleavedTargets, EachTargetReadsOnlyItsOwnEntriesAndThresholds) {
  test::TempDb tdb;
  {
    auto& c = *tdb.connection();
    db::Transaction tx(c);
    for (const char* sql : {
             "INSERT INTO [Type Panne] VALUES (0, 'Aucune')",
             "INSERT INTO Fonctions ([Address], [Function Name]) VALUES (122, 'Moteur'), (123, 'Boite')",
             "INSERT INTO Cibles ([Target Id], Address, [Target Name]) VALUES (7, 122, 'Moteur'), (8, 123, 'Boite')",
             "INSERT INTO [Paramètres UCE] ([Ecu Id], [Type Panne Id]) VALUES (7, 0), (8, 0)",
             // Data ids 1 and 3 are the engine's, 2 the gearbox's.
             "INSERT INTO Données ([Data Id], Address, [Target Id], [Data Name], Liste) VALUES "
             "(1, 122, 7, 'Régime', -1), (2, 123, 8, 'Rapport', -1), (3, 122, 7, 'État', -1)",
             "INSERT INTO Listes ([Data Id], Valeur, Numérique, Liste, Libellé) VALUES "
             "(3, 2, 0, 0, 'chaud'), (1, 5, 0, 0, 'haut'), (2, 1, 0, 0, 'première'), (1, 0, 0, 0, 'bas'), "
             "(3, 1, 0, 0, 'froid'), (2, 2, 0, 0, 'seconde')",
             "INSERT INTO Catégories ([Category Id], [Target Id], [Category Name]) VALUES (1, 7, 'Mesures'), "
             "(2, 8, 'Mesures')",
             "INSERT INTO Ecrans ([Screen Id], [Target Id], [Category Id], [Screen Name]) VALUES (1, 7, 1, 'Vue'), "
             "(2, 8, 2, 'Vue')",
             // Display ids 1 and 3 are the engine's, 2 the gearbox's.
             "INSERT INTO Affichages ([Display Id], [Target Id], [Screen Id], [Type Affich], [Left]) VALUES "
             "(1, 7, 1, 0, 10), (2, 8, 2, 0, 10), (3, 7, 1, 0, 20)",
             "INSERT INTO Seuils ([Display Id], Seuil, Couleur) VALUES (3, 9.5, 1), (2, 1, 2), (1, 4, 3), "
             "(1, 2, 4), (2, 3, 5), (3, 0.5, 6)",
         })
      c.execute(sql);
    tx.commit();
    c.close();
  }
  auto s = KavrelDatabase::create();
  s->DbOpen(tdb.path());
  s->DbRead();
  auto t = s->NewTarget();
  ASSERT_TRUE(t->dbReadTargetAll(*s->DbConnection(), 122, 7));

  std::vector<std::string> entries;
  for (const auto& d : *t->datas()) {
    std::string e = d->dataname() + ":";
    for (const auto& l : *d->DataListes()) e += " " + l->libelle();
    entries.push_back(e);
  }
  EXPECT_EQ(entries, (std::vector<std::string>{"État: froid chaud", "Régime: bas haut"}));

  std::vector<std::string> thresholds;
  auto screen = t->Categories()->Item(1)->Screens()->Item(1);
  for (const auto& d : *screen->DisplayItems()) {
    std::string e = std::to_string(d->id()) + ":";
    for (const auto& r : *d->RangeItems()) e += " " + std::to_string(r->Couleur());
    thresholds.push_back(e);
  }
  EXPECT_EQ(thresholds, (std::vector<std::string>{"1: 4 3", "3: 6 1"}));
}

KAVREL_ON_ENGINES(InterleavedTargets);

}  // namespace
}  // namespace kavrel
