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

// What a lenient import skipped or changed instead of refusing the document.
enum class ImportEventKind {
  TruncatedName,   // a name longer than its column, cut
  DroppedLink,     // a reference to an element the target does not have, not stored
  UnknownRequest,  // a request named where the target defines none of that name
  RefusedRow,      // a row the database refused during the insert, left out
  Other,           // any other warning shown during the import
};

struct ImportEvent {
  ImportEventKind kind = ImportEventKind::Other;
  // The element concerned, e.g. "/xml/kvr:Target/Datas/Data[@Name='x']"
  // (each step named by its Name attribute where it has one); empty when
  // the event arises in the database, away from the document.
  std::string path;
  std::string text;
};

// "truncated name", "dropped link", "unknown request", "refused row", "other".
const char* importEventKindName(ImportEventKind kind);

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
  // Something an import skipped or changed. Where the library also shows a
  // message box or logs an entry for it, that comes right after, with the
  // same text. The default ignores it.
  virtual void importEvent(const ImportEvent& event);
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

// The report of one import: install it (ScopedHost) around
// ImportUceFromXml and TargetItem::dbInsertTargetAll, then read what the
// import skipped or changed. It counts every event by kind and keeps the
// first `keep` of each kind in order. Message boxes and event-log entries
// that come without an event of their own count too (an error entry as a
// refused row, a box about a name too long as a truncated name, any other
// as "other"); one that repeats the event just reported is not counted
// twice. Every call is also passed on to `next` (none: nothing is shown).
class ImportReport : public HostServices {
 public:
  explicit ImportReport(std::shared_ptr<HostServices> next = nullptr, size_t keep = 5);
  void messageBox(std::string_view text, std::string_view title, MessageIcon icon) override;
  void logEvent(EventType type, std::string_view text) override;
  void importEvent(const ImportEvent& event) override;

  bool empty() const;
  size_t total() const;
  size_t count(ImportEventKind kind) const;
  // The events kept, in the order they came.
  std::vector<ImportEvent> kept() const;
  void clear();

 private:
  // `announced`: an event a message box or log entry may repeat next.
  void add(ImportEvent event, bool announced);
  std::shared_ptr<HostServices> next_;
  size_t keep_;
  mutable std::mutex mutex_;
  size_t counts_[5] = {};
  std::vector<ImportEvent> kept_;
  std::string lastText_;
};

// The services in use (process-wide). setHost(nullptr) restores the default
// memory log.
HostServices& host();
void setHost(std::shared_ptr<HostServices> services);
// The services in use, shared (to pass on or to restore later).
std::shared_ptr<HostServices> sharedHost();

// Installs `services` for its lifetime, then restores the ones it found.
class ScopedHost {
 public:
  explicit ScopedHost(std::shared_ptr<HostServices> services);
  ~ScopedHost();
  ScopedHost(const ScopedHost&) = delete;
  ScopedHost& operator=(const ScopedHost&) = delete;

 private:
  std::shared_ptr<HostServices> previous_;
};
// The default in-memory log (always exists, even while another host is set).
std::shared_ptr<MemoryHost> defaultHost();

}  // namespace kavrel
