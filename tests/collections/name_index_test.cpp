// Lookups by name stay those of a scan in collection order while the index
// behind them is kept up to date piecemeal: renames inside the collection,
// appends between lookups, removals, shared elements, many renames at once.
#include <gtest/gtest.h>

#include <random>

#include "kavrel/collections/name_index.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/data_position_items.h"
#include "kavrel/requests/request_items.h"

namespace kavrel {
namespace {

// The reference: first item in order whose name equals without letter case.
std::shared_ptr<DataItem> scan(const DataItems& c, const std::string& name) {
  for (const auto& d : c)
    if (d && text::iequals(d->dataname(), name)) return d;
  return nullptr;
}

std::shared_ptr<DataItem> added(DataItems& c, const std::string& name, int32_t id = 0) {
  auto d = c.Add(id);
  d->setDataname(name);
  return d;
}

TEST(DataNameIndex, FirstMatchIgnoringCaseFollowsRenamesAndRemovals) {
  DataItems c;
  auto a = added(c, "Speed", 1);
  auto b = added(c, "SPEED", 2);
  auto x = added(c, "Other", 3);
  EXPECT_EQ(c.ItemName("speed"), a);
  EXPECT_EQ(c.ItemName("Régime"), nullptr);
  a->setDataname("Engine speed");
  EXPECT_EQ(c.ItemName("speed"), b);  // the next one of that name now
  EXPECT_EQ(c.ItemName("ENGINE SPEED"), a);
  x->setDataname("speed");  // later in order: b stays first
  EXPECT_EQ(c.ItemName("Speed"), b);
  a->setDataname("Speed");  // back in front
  EXPECT_EQ(c.ItemName("speed"), a);
  c.Remove(1);
  EXPECT_EQ(c.ItemName("speed"), b);
  b->setDataname("Gone");
  x->setDataname("RÉGIME");
  EXPECT_EQ(c.ItemName("speed"), nullptr);
  EXPECT_EQ(c.ItemName("régime"), x);
}

TEST(DataNameIndex, DuplicateLooksPastItemsOfTheSameIdInOrder) {
  DataItems c;
  auto a = added(c, "Temp", 5);
  auto b = added(c, "temp", 5);
  auto d = added(c, "TEMP", 6);
  EXPECT_EQ(c.ItemDuplicate(a), d);
  EXPECT_EQ(c.ItemDuplicate(d), a);
  d->setDataname("Other");
  EXPECT_EQ(c.ItemDuplicate(a), nullptr);
  EXPECT_EQ(c.ItemDuplicate(b), nullptr);
}

TEST(DataNameIndex, InterleavedAddsRenamesRemovalsAgreeWithAScan) {
  // A loop that names items while it looks names up, as bulk builders do.
  DataItems c;
  std::mt19937 rng(7);
  std::vector<std::string> names;
  for (int i = 0; i < 40; ++i) names.push_back("Name " + std::to_string(i));
  auto pick = [&] { return names[rng() % names.size()]; };
  for (int step = 0; step < 3000; ++step) {
    switch (rng() % 6) {
      case 0:
      case 1: added(c, pick()); break;
      case 2:
        if (c.Count() > 0) c.Item(static_cast<int32_t>(rng() % c.Count()) + 1)->setDataname(pick());
        break;
      case 3:
        if (c.Count() > 0 && rng() % 4 == 0) c.Remove(static_cast<int32_t>(rng() % c.Count()) + 1);
        break;
      case 4: {
        // Named before it joins: the journal also holds items of no collection.
        auto d = std::make_shared<DataItem>();
        d->setDataname(pick());
        c.AddData(d);
        break;
      }
      default: break;
    }
    const std::string probe = text::upper(pick());
    ASSERT_EQ(c.ItemName(probe), scan(c, probe)) << "step " << step << " name " << probe;
  }
}

TEST(DataNameIndex, ManyRenamesItemsListedTwiceAndItemsInTwoCollections) {
  DataItems c;
  std::vector<std::shared_ptr<DataItem>> items;
  for (int i = 0; i < 100; ++i) items.push_back(added(c, "D" + std::to_string(i)));
  EXPECT_EQ(c.ItemName("d50"), items[50]);
  // One item through many names, looked up after each: the names it left
  // find nothing, and coming back to an old name finds it again.
  for (int k = 0; k < 300; ++k) {
    items[9]->setDataname("Step " + std::to_string(k));
    ASSERT_EQ(c.ItemName("STEP " + std::to_string(k)), items[9]);
    if (k > 0) {
      ASSERT_EQ(c.ItemName("step " + std::to_string(k - 1)), nullptr);
    }
  }
  items[9]->setDataname("D9");
  EXPECT_EQ(c.ItemName("d9"), items[9]);
  // More renames than the journal keeps: the index starts over.
  for (size_t round = 0; round < detail::NameJournal::kCapacity / items.size() + 2; ++round)
    for (size_t i = 0; i < items.size(); ++i)
      items[i]->setDataname("R" + std::to_string(round) + "-" + std::to_string(i));
  EXPECT_EQ(c.ItemName("d50"), nullptr);
  EXPECT_EQ(c.ItemName(items[7]->dataname()), items[7]);
  // The same item twice, and a null entry, in one collection.
  c.AddData(items[3]);
  c.AddData(nullptr);
  items[3]->setDataname("Twice");
  EXPECT_EQ(c.ItemName("twice"), items[3]);
  items[2]->setDataname("Twice");
  EXPECT_EQ(c.ItemName("twice"), items[2]);
  // One item in two collections is found under its new name in both.
  DataItems other;
  added(other, "Twice");
  other.AddData(items[1]);
  const std::string oldName = items[1]->dataname();
  EXPECT_EQ(other.ItemName(oldName), items[1]);
  items[1]->setDataname("twice");
  EXPECT_EQ(c.ItemName("TWICE"), items[1]);
  EXPECT_NE(other.ItemName("twice"), items[1]);  // the older one comes before it there
  EXPECT_EQ(other.ItemName(oldName), nullptr);
}

TEST(RequestNameIndex, FollowsTheNameRuleAndRenames) {
  RequestItems c;
  auto a = c.Add(1);
  a->setRequestName("Écriture");
  auto b = c.Add(2);
  b->setRequestName("Lecture");
  EXPECT_EQ(c.ItemName("LECTURE"), b);
  EXPECT_EQ(c.ItemName("écriture"), a);
  EXPECT_EQ(c.ItemName("Ecriture"), nullptr);  // accents count
  EXPECT_EQ(c.ItemName("Lecture "), nullptr);
  a->setRequestName("lecture");  // now first of that name
  EXPECT_EQ(c.ItemName("Lecture"), a);
  EXPECT_EQ(c.ItemName("ÉCRITURE"), nullptr);
  c.Remove(1);
  EXPECT_EQ(c.ItemName("lecture"), b);
  // A position by request name and data name, both by the rule; the exact
  // spelling of a data name wins over a case variant.
  auto p = b->DataPositions()->Add();
  p->setDataname("Régime");
  auto q = b->DataPositions()->Add();
  q->setDataname("RÉGIME");
  EXPECT_EQ(c.ItemDataPositionName("LECTURE", "régime"), p);
  EXPECT_EQ(c.ItemDataPositionName("lecture", "RÉGIME"), q);
  EXPECT_EQ(c.ItemDataPositionName("lecture", "Regime"), nullptr);
  EXPECT_EQ(c.ItemDataPositionName("Autre", "Régime"), nullptr);
  c.clear();
}

}  // namespace
}  // namespace kavrel
