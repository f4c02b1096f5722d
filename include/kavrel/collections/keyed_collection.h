// The common part of every collection class: an ordered, 1-based list of
// shared element references, each with an optional unique string key.
//
// Contract:
//  - Item(i) / Remove(i) take a position 1..Count(); Item(key) / Remove(key)
//    a key. A bad position or unknown key throws kavrel::Error 5
//    ("Invalid procedure call or argument").
//  - AddData with a key already present throws kavrel::Error 457 and adds
//    nothing. An empty key adds the element without a key.
//  - Elements are shared, never copied: removing one does not destroy it
//    while another owner holds it. Add/AddData never set an element's parent.
//  - clear() empties the collection from the front, calling each element's
//    own clear() exactly once before removing it.
//  - Iteration (range-for) yields the elements in order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kavrel/error.h"

namespace kavrel {

namespace detail {
[[noreturn]] void throwBadCollectionArgument();
[[noreturn]] void throwDuplicateCollectionKey();
// A process-wide counter bumped whenever an element's name changes, so that
// collections keeping a name index know when to rebuild it.
uint64_t nameVersion() noexcept;
void bumpNameVersion() noexcept;
}  // namespace detail

template <class T>
class KeyedCollection {
 public:
  using Element = T;
  using Ptr = std::shared_ptr<T>;

  class const_iterator {
   public:
    using Inner = typename std::vector<Ptr>::const_iterator;
    using iterator_category = std::forward_iterator_tag;
    using value_type = Ptr;
    using difference_type = std::ptrdiff_t;
    using pointer = const Ptr*;
    using reference = const Ptr&;

    const_iterator() = default;
    explicit const_iterator(Inner it) : it_(it) {}
    const Ptr& operator*() const { return *it_; }
    const Ptr* operator->() const { return &*it_; }
    const_iterator& operator++() {
      ++it_;
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator old = *this;
      ++it_;
      return old;
    }
    bool operator!=(const const_iterator& o) const { return it_ != o.it_; }
    bool operator==(const const_iterator& o) const { return it_ == o.it_; }

   private:
    Inner it_;
  };

  KeyedCollection() = default;
  virtual ~KeyedCollection() = default;
  KeyedCollection(const KeyedCollection&) = delete;
  KeyedCollection& operator=(const KeyedCollection&) = delete;

  // Appends an existing element (shared, not copied); returns it.
  Ptr AddData(Ptr d, std::string_view sKey = {}) {
    if (!sKey.empty()) {
      std::string key(sKey);
      if (keys_ && keys_->byKey.count(key)) detail::throwDuplicateCollectionKey();
      if (!keys_) keys_ = std::make_unique<Keys>();
      keys_->byPosition.resize(entries_.size());
      keys_->byKey.emplace(key, d);
      entries_.push_back(d);
      keys_->byPosition.push_back(std::move(key));
    } else {
      entries_.push_back(d);
      if (keys_) keys_->byPosition.emplace_back();
    }
    ++modificationCount_;
    return d;
  }

  // The element at a position or under a key, returned by value: it stays
  // valid whatever happens to the collection afterwards (Add, Remove, clear).
  Ptr Item(int32_t index) const {
    if (index < 1 || static_cast<size_t>(index) > entries_.size()) detail::throwBadCollectionArgument();
    return entries_[static_cast<size_t>(index - 1)];
  }
  Ptr Item(std::string_view key) const {
    if (!keys_) detail::throwBadCollectionArgument();
    auto it = keys_->byKey.find(std::string(key));
    if (it == keys_->byKey.end()) detail::throwBadCollectionArgument();
    return it->second;
  }
  // Avoids a string literal choosing the position overload's conversion.
  Ptr Item(const char* key) const { return Item(std::string_view(key)); }
  Ptr Item(const std::string& key) const { return Item(std::string_view(key)); }

  int32_t Count() const { return static_cast<int32_t>(entries_.size()); }
  bool empty() const { return entries_.empty(); }
  // Makes room for n elements in all (readers that know how many follow).
  void reserve(size_t n) { entries_.reserve(n); }

  void Remove(int32_t index) {
    if (index < 1 || static_cast<size_t>(index) > entries_.size()) detail::throwBadCollectionArgument();
    const auto at = static_cast<std::ptrdiff_t>(index - 1);
    if (keys_) {
      auto& byPosition = keys_->byPosition;
      if (!byPosition[static_cast<size_t>(at)].empty()) keys_->byKey.erase(byPosition[static_cast<size_t>(at)]);
      byPosition.erase(byPosition.begin() + at);
    }
    entries_.erase(entries_.begin() + at);
    ++modificationCount_;
  }
  void Remove(std::string_view key) {
    if (!keys_) detail::throwBadCollectionArgument();
    auto k = keys_->byKey.find(std::string(key));
    if (k == keys_->byKey.end()) detail::throwBadCollectionArgument();
    auto& byPosition = keys_->byPosition;
    for (size_t i = 0; i < byPosition.size(); ++i) {
      if (byPosition[i] == k->first) {
        entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
        byPosition.erase(byPosition.begin() + static_cast<std::ptrdiff_t>(i));
        break;
      }
    }
    keys_->byKey.erase(k);
    ++modificationCount_;
  }
  void Remove(const char* key) { Remove(std::string_view(key)); }
  void Remove(const std::string& key) { Remove(std::string_view(key)); }

  // Empties the collection, clearing each element first (from the front).
  // The elements are dropped together once all are cleared: removing them
  // one by one from the front made clearing a large collection quadratic.
  void clear() {
    size_t cleared = 0;
    try {
      for (; cleared < entries_.size(); ++cleared) {
        Ptr e = entries_[cleared];
        if (e) e->clear();
      }
    } catch (...) {
      dropFront(cleared);  // the ones cleared so far are gone, as before
      throw;
    }
    dropFront(entries_.size());
  }

  const_iterator begin() const { return const_iterator(entries_.begin()); }
  const_iterator end() const { return const_iterator(entries_.end()); }

  // Changes on every add or remove: lets a collection keep a lookup index and
  // know when to rebuild it.
  uint64_t modificationCount() const { return modificationCount_; }

  // The key an element was stored under ("" when none), by position.
  const std::string& keyAt(int32_t index) const {
    if (index < 1 || static_cast<size_t>(index) > entries_.size()) detail::throwBadCollectionArgument();
    static const std::string kNoKey;
    const auto at = static_cast<size_t>(index - 1);
    return keys_ ? keys_->byPosition[at] : kNoKey;
  }

 protected:
  // Helper for the collections' Add: creates the element, lets `init` set its
  // identifying values, then appends it under sKey.
  template <class Init>
  Ptr addNew(std::string_view sKey, Init&& init) {
    Ptr e = std::make_shared<T>();
    init(*e);
    return AddData(e, sKey);
  }

 private:
  // Removes the first n entries (and their keys) in one step.
  void dropFront(size_t n) {
    if (keys_) {
      auto& byPosition = keys_->byPosition;
      for (size_t i = 0; i < n; ++i)
        if (!byPosition[i].empty()) keys_->byKey.erase(byPosition[i]);
      byPosition.erase(byPosition.begin(), byPosition.begin() + static_cast<std::ptrdiff_t>(n));
    }
    entries_.erase(entries_.begin(), entries_.begin() + static_cast<std::ptrdiff_t>(n));
    modificationCount_ += n;
  }

  // Keys, made on the first element added under one: most collections have
  // none, and a target holds a hundred thousand collections.
  struct Keys {
    std::vector<std::string> byPosition;  // parallel to entries_ ("" = no key)
    std::unordered_map<std::string, Ptr> byKey;
  };

  std::vector<Ptr> entries_;
  std::unique_ptr<Keys> keys_;
  uint64_t modificationCount_ = 0;
};

}  // namespace kavrel
