// Positions, keys, shared elements and clearing of the keyed collections, and
// the per-thread error record behind recorded errors.
#include "kavrel/collections/keyed_collection.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "support/checks.h"

namespace kavrel {
namespace {

struct Element {
  int id = 0;
  std::vector<int>* cleared = nullptr;
  void clear() {
    if (cleared) cleared->push_back(id);
  }
};

class Elements : public KeyedCollection<Element> {
 public:
  Ptr Add(int id, std::string_view sKey = {}) {
    return addNew(sKey, [&](Element& e) { e.id = id; });
  }
};

std::vector<int> ids(const Elements& c) {
  std::vector<int> out;
  for (const auto& e : c) out.push_back(e->id);
  return out;
}

template <class F>
void expectError(int32_t number, F&& f) {
  Error e = test::thrownBy(f);
  EXPECT_EQ(e.number(), number);
  EXPECT_EQ(e.source(), kLibraryName);
}

TEST(KeyedCollection, PositionsKeysRefusalsAndModificationCount) {
  Elements c;
  const auto m0 = c.modificationCount();
  c.Add(1, "one");
  c.Add(2);
  c.Add(2);  // equal ids coexist; an empty key adds without a key
  c.Add(3, "three");
  EXPECT_EQ(ids(c), (std::vector<int>{1, 2, 2, 3}));
  EXPECT_EQ(c.Item(1)->id, 1);
  EXPECT_EQ(c.Item("three")->id, 3);
  EXPECT_EQ(c.Item(std::string("one"))->id, 1);
  EXPECT_EQ(c.keyAt(2), "");
  c.Remove(1);  // the former second element moves to position 1
  EXPECT_EQ(ids(c), (std::vector<int>{2, 2, 3}));
  expectError(5, [&] { c.Item("one"); });  // its key went with it
  c.Remove("three");
  c.Add(4, "three");  // the key is free again
  EXPECT_EQ(c.Item("three")->id, 4);
  EXPECT_EQ(c.modificationCount(), m0 + 7);  // each add and remove
  for (int32_t bad : {0, 4}) expectError(5, [&] { c.Item(bad); });
  expectError(5, [&] { c.Item("missing"); });
  expectError(5, [&] { c.Remove(-1); });
  expectError(5, [&] { c.Remove("missing"); });
  expectError(457, [&] { c.Add(9, "three"); });
  expectError(457, [&] { c.AddData(std::make_shared<Element>(), "three"); });
  EXPECT_EQ(c.Count(), 3);  // the refused elements were not added
}

TEST(KeyedCollection, SharedElementsAndClearInOrder) {
  Elements a, b;
  std::vector<int> order;
  auto e = a.Add(7, "x");
  e->cleared = &order;
  b.AddData(e);  // shared, not copied
  EXPECT_EQ(b.Item(1).get(), e.get());
  a.Remove("x");
  EXPECT_EQ(b.Item(1)->id, 7);  // still alive in the other owner
  EXPECT_TRUE(order.empty());   // Remove does not clear
  std::vector<std::shared_ptr<Element>> held;
  for (int i = 0; i < 3000; ++i) {
    held.push_back(a.Add(i, i % 2 ? "k" + std::to_string(i) : ""));
    held.back()->cleared = &order;
  }
  a.AddData(held[10]);  // listed twice: cleared twice, as each entry is
  const auto mods = a.modificationCount();
  a.clear();
  EXPECT_EQ(a.Count(), 0);
  EXPECT_EQ(a.modificationCount(), mods + 3001);
  ASSERT_EQ(order.size(), 3001u);
  for (int i = 0; i < 3000; ++i) ASSERT_EQ(order[static_cast<size_t>(i)], i);
  EXPECT_EQ(order.back(), 10);
  a.AddData(held[1], "k1");  // keys were released
  EXPECT_EQ(a.Item("k1"), held[1]);
}

TEST(ErrorRecord, TrapRecordsAndRaisePendingRethrows) {
  EXPECT_TRUE(trap([] {}));
  EXPECT_FALSE(lastError().pending());
  EXPECT_FALSE(trap([] { raise(101, "", "Enable to execute sql"); }));
  EXPECT_EQ(lastError().reportedSource(), kLibraryName);
  Error e = test::thrownBy([] { raisePending(); });
  EXPECT_EQ(e.number(), 101);
  EXPECT_EQ(e.description(), "Enable to execute sql");
  EXPECT_STREQ(e.what(), "error 101 (KavrelBuilderLibrary): Enable to execute sql");
  EXPECT_FALSE(trap([] { throw std::runtime_error("boom"); }));
  EXPECT_TRUE(test::recorded(kErrUnexpected, "boom"));
}

}  // namespace
}  // namespace kavrel
