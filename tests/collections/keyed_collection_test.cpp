#include "kavrel/collections/keyed_collection.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

#include <string>
#include <vector>

namespace {

struct Element {
  int id = 0;
  int clears = 0;
  void clear() { ++clears; }
};

class Elements : public kavrel::KeyedCollection<Element> {
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

void expectError(int number, const std::function<void()>& f) {
  try {
    f();
    FAIL() << "no error";
  } catch (const kavrel::Error& e) {
    EXPECT_EQ(e.number(), number);
    EXPECT_EQ(e.source(), "KavrelBuilderLibrary");
  }
}

TEST(KeyedCollection, PositionsKeysOrderAndModificationCount) {
  Elements c;
  const auto m0 = c.modificationCount();
  c.Add(1, "one");
  c.Add(2);
  c.Add(2);  // equal ids coexist; an empty key adds without a key
  c.Add(3, "three");
  EXPECT_EQ(c.Count(), 4);
  EXPECT_EQ(ids(c), (std::vector<int>{1, 2, 2, 3}));
  EXPECT_EQ(c.Item(1)->id, 1);
  EXPECT_EQ(c.Item("three")->id, 3);
  EXPECT_EQ(c.Item(std::string("one"))->id, 1);
  EXPECT_EQ(c.keyAt(2), "");

  c.Remove(1);  // the former second element moves to position 1
  EXPECT_EQ(ids(c), (std::vector<int>{2, 2, 3}));
  expectError(5, [&] { c.Item("one"); });  // its key went with it
  c.Remove("three");
  EXPECT_EQ(ids(c), (std::vector<int>{2, 2}));
  c.Add(4, "three");  // the key is free again
  EXPECT_EQ(c.Item("three")->id, 4);
  EXPECT_EQ(c.modificationCount(), m0 + 7);  // each add and remove
}

TEST(KeyedCollection, BadPositionsUnknownKeysAndDuplicates) {
  Elements c;
  c.Add(1, "k");
  expectError(5, [&] { c.Item(0); });
  expectError(5, [&] { c.Item(2); });
  expectError(5, [&] { c.Item("missing"); });
  expectError(5, [&] { c.Remove(-1); });
  expectError(5, [&] { c.Remove("missing"); });
  expectError(457, [&] { c.Add(2, "k"); });
  EXPECT_EQ(c.Count(), 1);  // the refused element was not added
  auto shared = std::make_shared<Element>();
  expectError(457, [&] { c.AddData(shared, "k"); });
  EXPECT_EQ(c.Count(), 1);
}

TEST(KeyedCollection, SharedElementsAndClear) {
  Elements a, b;
  auto e = a.Add(7, "x");
  b.AddData(e);  // shared, not copied
  EXPECT_EQ(b.Item(1).get(), e.get());
  a.Remove("x");
  EXPECT_EQ(b.Item(1)->id, 7);  // still alive in the other owner
  EXPECT_EQ(e->clears, 0);      // Remove does not clear

  a.Add(1);
  a.Add(2, "two");
  a.AddData(e);
  std::vector<std::shared_ptr<Element>> held(a.begin(), a.end());
  a.clear();
  EXPECT_EQ(a.Count(), 0);
  for (const auto& h : held) EXPECT_EQ(h->clears, 1);
  a.Add(3, "two");  // keys were released by clear
  EXPECT_EQ(a.Count(), 1);
}

TEST(ErrorRecord, TrapRecordsAndRaisePendingRethrows) {
  EXPECT_TRUE(kavrel::trap([] {}));
  EXPECT_FALSE(kavrel::lastError().pending());
  EXPECT_FALSE(kavrel::trap([] { kavrel::raise(101, "", "Enable to execute sql"); }));
  EXPECT_EQ(kavrel::lastError().number, 101);
  EXPECT_EQ(kavrel::lastError().reportedSource(), "KavrelBuilderLibrary");
  try {
    kavrel::raisePending();
    FAIL();
  } catch (const kavrel::Error& e) {
    EXPECT_EQ(e.number(), 101);
    EXPECT_EQ(e.description(), "Enable to execute sql");
    EXPECT_STREQ(e.what(), "error 101 (KavrelBuilderLibrary): Enable to execute sql");
  }
  EXPECT_FALSE(kavrel::trap([] { throw std::runtime_error("boom"); }));
  EXPECT_EQ(kavrel::lastError().description, "boom");
}

}  // namespace
