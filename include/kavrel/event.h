// Events the client subscribes to (WarningInfo, ValueChanged): a list of
// callbacks raised in subscription order on the caller's thread.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

namespace kavrel {

template <class... Args>
class Event {
 public:
  using Handler = std::function<void(Args...)>;

  // Returns a token for unsubscribe().
  size_t subscribe(Handler h) {
    handlers_.emplace_back(++lastToken_, std::move(h));
    return lastToken_;
  }
  void unsubscribe(size_t token) {
    for (auto it = handlers_.begin(); it != handlers_.end(); ++it)
      if (it->first == token) {
        handlers_.erase(it);
        return;
      }
  }
  void raise(Args... args) const {
    // A copy, so a handler may unsubscribe while being called.
    auto copy = handlers_;
    for (auto& [token, h] : copy) h(args...);
  }
  size_t subscriberCount() const { return handlers_.size(); }

 private:
  std::vector<std::pair<size_t, Handler>> handlers_;
  size_t lastToken_ = 0;
};

}  // namespace kavrel
