#include "kavrel/collections/name_index.h"

namespace kavrel::detail {

void NameJournal::record(const void* element) noexcept {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    const uint64_t v = version_.load(std::memory_order_relaxed);
    ring_[v % kCapacity] = element;
    version_.store(v + 1, std::memory_order_release);
  }
  bumpNameVersion();
}

bool NameJournal::changesSince(uint64_t from, std::vector<const void*>& out, uint64_t& to) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const uint64_t v = version_.load(std::memory_order_relaxed);
  if (from > v || v - from > kCapacity) return false;
  out.reserve(out.size() + static_cast<size_t>(v - from));
  for (uint64_t k = from; k < v; ++k) out.push_back(ring_[k % kCapacity]);
  to = v;
  return true;
}

NameJournal& dataNameJournal() noexcept {
  static NameJournal journal;
  return journal;
}

NameJournal& requestNameJournal() noexcept {
  static NameJournal journal;
  return journal;
}

}  // namespace kavrel::detail
