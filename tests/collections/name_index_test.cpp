// Lookups by name stay those of a scan in collection order while the index
// behind them is kept up to date piecemeal: renames inside the collection,
// appends between lookups, removals, shared elements, many renames at once.
#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kavrel/collections/name_index.h"
#include "kavrel/platform/text.h"
#include "kavrel/requests/data_items.h"
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

TEST(DataNameIndex, RenamesInsideTheCollectionMoveTheItemAndKeepFirstMatch) {
  DataItems c;
  auto a = added(c, "Speed", 1);
  auto b = added(c, "SPEED", 2);
  auto x = added(c, "Other", 3);
  EXPECT_EQ(c.ItemName("speed"), a);  // the first of the name

  a->setDataname("Engine speed");
  EXPECT_EQ(c.ItemName("speed"), b);  // the next one of that name now
  EXPECT_EQ(c.ItemName("ENGINE SPEED"), a);

  x->setDataname("speed");  // later in order: b stays first
  EXPECT_EQ(c.ItemName("Speed"), b);
  a->setDataname("Speed");  // back in front
  EXPECT_EQ(c.ItemName("speed"), a);

  b->setDataname("Gone");
  a->setDataname("Gone too");
  x->setDataname("Left");
  EXPECT_EQ(c.ItemName("speed"), nullptr);
  EXPECT_EQ(c.ItemName("left"), x);
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

TEST(DataNameIndex, ManyRenamesBetweenLookupsAndItemsListedTwice) {
  DataItems c;
  std::vector<std::shared_ptr<DataItem>> items;
  for (int i = 0; i < 100; ++i) items.push_back(added(c, "D" + std::to_string(i)));
  EXPECT_EQ(c.ItemName("d50"), items[50]);
  // More renames than the journal keeps: the index starts over.
  for (size_t round = 0; round < detail::NameJournal::kCapacity / items.size() + 2; ++round)
    for (size_t i = 0; i < items.size(); ++i)
      items[i]->setDataname("R" + std::to_string(round) + "-" + std::to_string(i));
  EXPECT_EQ(c.ItemName("d50"), nullptr);
  EXPECT_EQ(c.ItemName(items[7]->dataname()), items[7]);

  // The same item twice, and a null entry, in one collection.
  c.AddData(items[3]);
  c.AddData(nullptr);
  EXPECT_EQ(c.ItemName(items[3]->dataname()), items[3]);
  items[3]->setDataname("Twice");
  EXPECT_EQ(c.ItemName("twice"), items[3]);
  items[2]->setDataname("Twice");
  EXPECT_EQ(c.ItemName("twice"), items[2]);
}

TEST(DataNameIndex, AnItemInTwoCollectionsIsFoundUnderItsNewNameInBoth) {
  DataItems one, two;
  auto shared = added(one, "Shared");
  added(two, "First");
  two.AddData(shared);
  EXPECT_EQ(one.ItemName("shared"), shared);
  EXPECT_EQ(two.ItemName("shared"), shared);
  shared->setDataname("First");
  EXPECT_EQ(one.ItemName("first"), shared);
  EXPECT_NE(two.ItemName("first"), shared);  // the older "First" comes before it there
  EXPECT_EQ(two.ItemName("shared"), nullptr);
}

TEST(RequestNameIndex, CaseSensitiveAndFollowsRenames) {
  RequestItems c;
  auto a = c.Add(1);
  a->setRequestName("Read");
  auto b = c.Add(2);
  b->setRequestName("read");
  EXPECT_EQ(c.ItemName("read"), b);
  EXPECT_EQ(c.ItemName("READ"), nullptr);
  a->setRequestName("read");
  EXPECT_EQ(c.ItemName("read"), a);
  EXPECT_EQ(c.ItemName("Read"), nullptr);
  c.Remove(1);
  EXPECT_EQ(c.ItemName("read"), b);
}

struct Probe {
  std::vector<int>* order = nullptr;
  int id = 0;
  int clears = 0;
  void clear() {
    ++clears;
    order->push_back(id);
  }
};

TEST(KeyedCollectionClear, ClearsEachElementOnceInOrderAndReleasesKeys) {
  KeyedCollection<Probe> c;
  std::vector<int> order;
  std::vector<std::shared_ptr<Probe>> held;
  for (int i = 0; i < 5000; ++i) {
    auto p = std::make_shared<Probe>();
    p->order = &order;
    p->id = i;
    held.push_back(p);
    c.AddData(p, i % 2 ? "k" + std::to_string(i) : "");
  }
  c.AddData(held[10]);  // listed twice: cleared twice, as each entry is
  const auto mods = c.modificationCount();
  c.clear();
  EXPECT_EQ(c.Count(), 0);
  EXPECT_EQ(c.modificationCount(), mods + 5001);
  ASSERT_EQ(order.size(), 5001u);
  for (int i = 0; i < 5000; ++i) EXPECT_EQ(order[static_cast<size_t>(i)], i);
  EXPECT_EQ(held[10]->clears, 2);
  EXPECT_EQ(held[11]->clears, 1);
  c.AddData(held[1], "k1");  // keys were released
  EXPECT_EQ(c.Item("k1"), held[1]);
}

}  // namespace
}  // namespace kavrel
