// Synthetic targets of a given size, using every kind of row the library has.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace kavrel {
class KavrelDatabase;
class TargetItem;
}  // namespace kavrel

namespace kavrel::bench {

struct SyntheticSize {
  std::string label;
  int requests = 0;
  int dataItems = 0;
  int positions = 0;
  int listEntries = 0;
  int organs = 0;
  int categories = 0;
  int screens = 0;
  int labels = 0;
  int buttons = 0;
  int steps = 0;
  int displays = 0;
  int thresholds = 0;
};

inline SyntheticSize sizeS() { return {"S", 300, 1500, 3000, 5000, 50, 20, 200, 1000, 600, 2000, 2000, 4000}; }
inline SyntheticSize scaled(const SyntheticSize& s, int factor, std::string label) {
  return {std::move(label),        s.requests * factor, s.dataItems * factor, s.positions * factor,
          s.listEntries * factor,  s.organs * factor,   s.categories * factor, s.screens * factor,
          s.labels * factor,       s.buttons * factor,  s.steps * factor,      s.displays * factor,
          s.thresholds * factor};
}

// Builds the target as the session's active target. `functionAddress` must
// name a function of the session's catalogue.
std::shared_ptr<TargetItem> buildSyntheticTarget(KavrelDatabase& session, const SyntheticSize& size,
                                                 int32_t functionAddress);

}  // namespace kavrel::bench
