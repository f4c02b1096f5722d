// Host services: the modal message boxes and application event-log entries
// that some imports and bulk writes produce. The library never prints; it
// hands these to the client's HostServices. By default they are kept in a
// bounded in-memory log that clients and tests read.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace kavrel {

enum class MessageIcon { None, Information, Exclamation, Critical };
enum class EventType { Error, Warning, Information };

struct HostEntry {
  enum class Kind { MessageBox, EventLog };
  Kind kind = Kind::MessageBox;
  std::string title;  // message boxes only
  std::string text;
  MessageIcon icon = MessageIcon::None;
  EventType eventType = EventType::Error;  // event-log entries only
};

class HostServices {
 public:
  virtual ~HostServices() = default;
  // A modal message box with an OK button (never blocks in this library's
  // own implementations).
  virtual void messageBox(std::string_view text, std::string_view title, MessageIcon icon) = 0;
  // An entry in the host application's event log.
  virtual void logEvent(EventType type, std::string_view text) = 0;
};

// Keeps the newest `capacity` entries in order.
class MemoryHost : public HostServices {
 public:
  explicit MemoryHost(size_t capacity = 10000) : capacity_(capacity) {}
  void messageBox(std::string_view text, std::string_view title, MessageIcon icon) override;
  void logEvent(EventType type, std::string_view text) override;

  std::vector<HostEntry> entries() const;
  std::vector<HostEntry> messageBoxes() const;
  std::vector<HostEntry> events() const;
  void clear();

 private:
  void push(HostEntry e);
  size_t capacity_;
  mutable std::mutex mutex_;
  std::deque<HostEntry> entries_;
};

// The services in use (process-wide). setHost(nullptr) restores the default
// memory log.
HostServices& host();
void setHost(std::shared_ptr<HostServices> services);
// The default in-memory log (always exists, even while another host is set).
std::shared_ptr<MemoryHost> defaultHost();

}  // namespace kavrel
