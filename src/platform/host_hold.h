// Holding back what the calling thread sends to the host services, for work
// that may be undone and done again (a batched insert that falls back to
// writing row by row): what the undone attempt showed must not show twice.
#pragma once

#include <memory>

namespace kavrel {

// From construction on, message boxes, event-log entries and import events
// of the calling thread are held (in order) instead of reaching host().
// release() passes them on and stops holding; the destructor (without
// release) drops them. Holds nest: an inner one released passes its entries
// to the outer one. Other threads are not affected.
class HostHold {
 public:
  HostHold();
  ~HostHold();
  HostHold(const HostHold&) = delete;
  HostHold& operator=(const HostHold&) = delete;
  void release();

 private:
  class Holder;
  std::unique_ptr<Holder> holder_;
};

}  // namespace kavrel
