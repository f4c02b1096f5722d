// First-match lookup by name over a keyed collection, kept up to date
// incrementally.
//
// Whole-target reads and imports link tens of thousands of positions and
// device data to data items by name, while names keep being set on other
// elements. Rebuilding an index on every name change made those loops
// quadratic, so instead:
//  - every element kind has a journal of the elements whose name changed;
//    an index re-files just those elements (by their current name) when it
//    is next consulted;
//  - elements appended to the collection since the last lookup are filed
//    on their own; only a removal (or a journal that overflowed) rebuilds
//    the whole index.
// The lookup result is exactly that of a scan in collection order: the
// first element whose key equals the key asked for.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "kavrel/collections/keyed_collection.h"

namespace kavrel::detail {

// The elements of one kind whose name changed, most recent last. Only the
// last kCapacity changes are kept; an index further behind rebuilds.
class NameJournal {
 public:
  static constexpr size_t kCapacity = 4096;

  // Notes that `element` has a new name.
  void record(const void* element) noexcept;
  uint64_t version() const noexcept { return version_.load(std::memory_order_acquire); }
  // Appends to `out` the elements changed from version `from` on and sets
  // `to` to the version they lead to; false when some were already dropped.
  bool changesSince(uint64_t from, std::vector<const void*>& out, uint64_t& to) const;

 private:
  mutable std::mutex mutex_;
  std::array<const void*, kCapacity> ring_{};
  std::atomic<uint64_t> version_{0};
};

// One journal per element kind whose collections look elements up by name.
NameJournal& dataNameJournal() noexcept;
NameJournal& requestNameJournal() noexcept;

// The positions (0-based, ascending) of the elements filed under one key;
// the first is held inline since most keys name a single element.
struct NamePositions {
  uint32_t first = 0;
  std::vector<uint32_t> more;

  size_t size() const { return 1 + more.size(); }
  uint32_t at(size_t i) const { return i == 0 ? first : more[i - 1]; }
  void insert(uint32_t p) {
    if (p < first) {
      more.insert(more.begin(), first);
      first = p;
    } else {
      more.insert(std::lower_bound(more.begin(), more.end(), p), p);
    }
  }
  // False when p was the only position left.
  bool erase(uint32_t p) {
    if (p == first) {
      if (more.empty()) return false;
      first = more.front();
      more.erase(more.begin());
    } else {
      more.erase(std::lower_bound(more.begin(), more.end(), p));
    }
    return true;
  }
};

template <class T>
class NameIndex {
 public:
  using KeyOf = std::string (*)(const T&);

  NameIndex(NameJournal& journal, KeyOf keyOf) : journal_(&journal), keyOf_(keyOf) {}

  // The positions of the elements filed under `key`, or null when none.
  const NamePositions* find(const KeyedCollection<T>& c, const std::string& key) {
    sync(c);
    const uint32_t e = lookup(key, hashOf(key));
    return e == kNone || !entries_[e].live ? nullptr : &entries_[e].positions;
  }

  // For each key, the position of the first element filed under it, or
  // kNone: many lookups at once, for bulk loaders. Each lookup reads a
  // slot and an entry, both usually cache misses; here they are fetched a
  // few keys ahead so that the misses overlap instead of being waited for
  // one after the other.
  static constexpr uint32_t kNone = UINT32_MAX;
  std::vector<uint32_t> firstPositions(const KeyedCollection<T>& c, const std::vector<std::string>& keys) {
    sync(c);
    const size_t n = keys.size();
    std::vector<uint32_t> out(n, kNone);
    if (slots_.empty()) return out;
    constexpr size_t kAhead = 16;
    const size_t mask = slots_.size() - 1;
    std::vector<uint32_t> hashes(n);
    for (size_t i = 0; i < n; ++i) hashes[i] = hashOf(keys[i]);
    // The entry named by each key's first slot, when its hash matches.
    std::vector<uint32_t> candidate(n, kNone);
    for (size_t i = 0; i < n; ++i) {
      if (i + kAhead < n) __builtin_prefetch(&slots_[hashes[i + kAhead] & mask]);
      const uint64_t slot = slots_[hashes[i] & mask];
      if (slot != 0 && static_cast<uint32_t>(slot >> 32) == hashes[i]) candidate[i] = static_cast<uint32_t>(slot) - 1;
    }
    for (size_t i = 0; i < n; ++i) {
      if (i + kAhead < n && candidate[i + kAhead] != kNone) __builtin_prefetch(&entries_[candidate[i + kAhead]]);
      uint32_t e = candidate[i];
      if (e == kNone || entries_[e].key != keys[i]) e = lookup(keys[i], hashes[i]);  // probed further, rare
      if (e != kNone && entries_[e].live) out[i] = entries_[e].positions.first;
    }
    return out;
  }

  // The first element filed under `key`, or null.
  std::shared_ptr<T> first(const KeyedCollection<T>& c, const std::string& key) {
    const NamePositions* positions = find(c, key);
    return positions ? c.Item(static_cast<int32_t>(positions->first) + 1) : nullptr;
  }

 private:
  // The keys live in `entries_`, found through an open-addressing table of
  // (hash, entry) slots: a lookup reads one slot and one entry, where a
  // node-based map chases two or three pointers (large targets link tens
  // of thousands of elements by name, and each pointer is a cache miss).
  // An entry whose last element left stays in place, dead, until its key
  // comes back or the index is rebuilt.
  struct Entry {
    std::string key;
    uint32_t hash = 0;
    bool live = true;
    NamePositions positions;
  };

  static uint32_t hashOf(const std::string& key) {
    const size_t h = std::hash<std::string>{}(key);
    return static_cast<uint32_t>(h ^ (h >> 32));
  }

  // The entry of `key`, live or dead, or kNone.
  uint32_t lookup(const std::string& key, uint32_t hash) const {
    if (slots_.empty()) return kNone;
    const size_t mask = slots_.size() - 1;
    for (size_t i = hash & mask;; i = (i + 1) & mask) {
      const uint64_t slot = slots_[i];
      if (slot == 0) return kNone;
      if (static_cast<uint32_t>(slot >> 32) != hash) continue;
      const auto e = static_cast<uint32_t>(slot) - 1;
      if (entries_[e].key == key) return e;
    }
  }

  void placeSlot(uint32_t hash, uint32_t entry) {
    const size_t mask = slots_.size() - 1;
    size_t i = hash & mask;
    while (slots_[i] != 0) i = (i + 1) & mask;
    slots_[i] = (static_cast<uint64_t>(hash) << 32) | (entry + 1);
  }

  // At most half full, so that probes stay short.
  void reserveSlots(size_t entries) {
    if (entries * 2 <= slots_.size()) return;
    size_t size = 16;
    while (size < entries * 2) size *= 2;
    slots_.assign(size, 0);
    for (uint32_t e = 0; e < entries_.size(); ++e) placeSlot(entries_[e].hash, e);
  }

  // Files position p under `key`: the entry of that key, made (or revived)
  // as needed.
  uint32_t fileUnder(std::string&& key, uint32_t p) {
    const uint32_t hash = hashOf(key);
    uint32_t e = lookup(key, hash);
    if (e != kNone && entries_[e].live) {
      entries_[e].positions.insert(p);
      return e;
    }
    if (e == kNone) {
      reserveSlots(entries_.size() + 1);
      e = static_cast<uint32_t>(entries_.size());
      entries_.push_back(Entry{std::move(key), hash, true, {}});
      placeSlot(hash, e);
    }
    Entry& entry = entries_[e];
    if (!entry.live) --dead_;
    entry.live = true;
    entry.positions = NamePositions{p, {}};
    return e;
  }

  void sync(const KeyedCollection<T>& c) {
    const uint64_t mods = c.modificationCount();
    const auto count = static_cast<uint32_t>(c.Count());
    const uint64_t version = journal_->version();
    if (built_ && mods == mods_ && version == version_) return;
    // Every add counts one modification and one more element; a removal
    // counts a modification and one element less: equal differences mean
    // appends only.
    const bool appendsOnly = built_ && count >= filed_.size() && mods - mods_ == count - filed_.size();
    if (!appendsOnly) return rebuild(c, version);
    if (version != version_) {
      std::vector<const void*> changed;
      uint64_t reached = version_;
      if (!journal_->changesSince(version_, changed, reached)) return rebuild(c, version);
      if (!changed.empty() && !refileChanged(changed)) return rebuild(c, version);
      version_ = reached;
    }
    for (auto p = static_cast<uint32_t>(filed_.size()); p < count; ++p)
      append(c.Item(static_cast<int32_t>(p) + 1).get());
    mods_ = mods;
  }

  // Refiles the filed elements among `changed`; false when an element is
  // listed twice (then everything is refiled).
  bool refileChanged(const std::vector<const void*>& changed) {
    if (!positionsKnown_) {
      // Only needed once names change after filing: built on first use.
      positionOf_.reserve(filed_.size());
      for (uint32_t p = 0; p < filed_.size(); ++p)
        if (filed_[p] != kNone && !positionOf_.try_emplace(elements_[p], p).second) shared_ = true;
      positionsKnown_ = true;
    }
    for (const void* e : changed) {
      auto it = positionOf_.find(static_cast<const T*>(e));
      if (it == positionOf_.end()) continue;  // not in this collection (or not filed yet)
      if (shared_) return false;
      refile(it->second, *it->first);
    }
    // Keys renamed away stay as dead entries: once they are most of the
    // table, start afresh.
    return dead_ <= entries_.size() / 2 + 16;
  }

  void rebuild(const KeyedCollection<T>& c, uint64_t version) {
    entries_.clear();
    slots_.clear();
    dead_ = 0;
    filed_.clear();
    elements_.clear();
    positionOf_.clear();
    positionsKnown_ = false;
    shared_ = false;
    const auto n = static_cast<size_t>(c.Count());
    entries_.reserve(n);
    reserveSlots(n);
    filed_.reserve(n);
    elements_.reserve(n);
    // The elements are read for their keys in turn: fetched a few ahead.
    constexpr size_t kAhead = 8;
    for (size_t i = 0; i < n; ++i) {
      if (i + kAhead < n)
        if (const T* next = c.Item(static_cast<int32_t>(i + kAhead) + 1).get()) __builtin_prefetch(next);
      append(c.Item(static_cast<int32_t>(i) + 1).get());
    }
    mods_ = c.modificationCount();
    version_ = version;
    built_ = true;
  }

  void append(const T* e) {
    const auto p = static_cast<uint32_t>(filed_.size());
    elements_.push_back(e);
    if (!e) {
      filed_.push_back(kNone);
      return;
    }
    if (positionsKnown_ && !positionOf_.try_emplace(e, p).second) shared_ = true;
    filed_.push_back(fileUnder(keyOf_(*e), p));  // ascending positions: appended at the end
  }

  // Moves the element at position p to the bucket of its current key.
  void refile(uint32_t p, const T& e) {
    std::string key = keyOf_(e);
    const uint32_t old = filed_[p];
    if (old != kNone && entries_[old].key == key) return;
    if (old != kNone && !entries_[old].positions.erase(p)) {
      entries_[old].live = false;
      ++dead_;
    }
    filed_[p] = fileUnder(std::move(key), p);
  }

  NameJournal* journal_;
  KeyOf keyOf_;
  bool built_ = false;
  bool positionsKnown_ = false;
  bool shared_ = false;
  size_t dead_ = 0;  // entries without elements
  uint64_t mods_ = 0;
  uint64_t version_ = 0;
  std::vector<Entry> entries_;
  std::vector<uint64_t> slots_;       // (hash << 32) | (entry + 1); 0 = free
  std::vector<uint32_t> filed_;       // by position: the entry the element is filed in, or kNone
  std::vector<const T*> elements_;    // by position: the element
  std::unordered_map<const T*, uint32_t> positionOf_;  // built when names change after filing
};

}  // namespace kavrel::detail
