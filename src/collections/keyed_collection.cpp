#include "kavrel/collections/keyed_collection.h"

#include <atomic>

namespace kavrel::detail {

void throwBadCollectionArgument() { raise(kErrInvalidArgument, "", "Invalid procedure call or argument"); }

void throwDuplicateCollectionKey() {
  raise(kErrDuplicateKey, "", "This key is already associated with an element of this collection");
}

namespace {
std::atomic<uint64_t> gNameVersion{0};
}

uint64_t nameVersion() noexcept { return gNameVersion.load(std::memory_order_relaxed); }
void bumpNameVersion() noexcept { gNameVersion.fetch_add(1, std::memory_order_relaxed); }

}  // namespace kavrel::detail
