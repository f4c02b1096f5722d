#include "kavrel/platform/host.h"

#include <atomic>
#include <utility>
#include <variant>
#include <vector>

#include "platform/host_hold.h"

namespace kavrel {

void MemoryHost::push(HostEntry e) {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.push_back(std::move(e));
  while (entries_.size() > capacity_) entries_.pop_front();
}

void MemoryHost::messageBox(std::string_view text, std::string_view title, MessageIcon icon) {
  HostEntry e;
  e.kind = HostEntry::Kind::MessageBox;
  e.title = std::string(title);
  e.text = std::string(text);
  e.icon = icon;
  push(std::move(e));
}

void MemoryHost::logEvent(EventType type, std::string_view text) {
  HostEntry e;
  e.kind = HostEntry::Kind::EventLog;
  e.text = std::string(text);
  e.eventType = type;
  push(std::move(e));
}

std::vector<HostEntry> MemoryHost::entries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return {entries_.begin(), entries_.end()};
}

std::vector<HostEntry> MemoryHost::messageBoxes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<HostEntry> out;
  for (const auto& e : entries_)
    if (e.kind == HostEntry::Kind::MessageBox) out.push_back(e);
  return out;
}

std::vector<HostEntry> MemoryHost::events() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<HostEntry> out;
  for (const auto& e : entries_)
    if (e.kind == HostEntry::Kind::EventLog) out.push_back(e);
  return out;
}

void MemoryHost::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  entries_.clear();
}

namespace {
std::mutex hostMutex;
std::shared_ptr<HostServices>& currentHost() {
  static std::shared_ptr<HostServices> h = defaultHost();
  return h;
}
}  // namespace

std::shared_ptr<MemoryHost> defaultHost() {
  static std::shared_ptr<MemoryHost> h = std::make_shared<MemoryHost>();
  return h;
}

// The innermost hold of the calling thread, or null.
static thread_local HostServices* heldBy = nullptr;

HostServices& host() {
  if (heldBy) return *heldBy;
  std::lock_guard<std::mutex> lock(hostMutex);
  return *currentHost();
}

class HostHold::Holder final : public HostServices {
 public:
  struct Box {
    std::string text, title;
    MessageIcon icon;
  };
  struct Entry {
    EventType type;
    std::string text;
  };
  using Call = std::variant<Box, Entry, ImportEvent>;

  void messageBox(std::string_view text, std::string_view title, MessageIcon icon) override {
    calls.push_back(Box{std::string(text), std::string(title), icon});
  }
  void logEvent(EventType type, std::string_view text) override { calls.push_back(Entry{type, std::string(text)}); }
  void importEvent(const ImportEvent& event) override { calls.push_back(event); }

  std::vector<Call> calls;
  HostServices* outer = nullptr;
};

HostHold::HostHold() : holder_(std::make_unique<Holder>()) {
  holder_->outer = heldBy;
  heldBy = holder_.get();
}

HostHold::~HostHold() {
  if (holder_ && heldBy == holder_.get()) heldBy = holder_->outer;
}

void HostHold::release() {
  if (!holder_ || heldBy != holder_.get()) return;
  heldBy = holder_->outer;
  std::unique_ptr<Holder> h = std::move(holder_);
  HostServices& to = host();
  for (const auto& call : h->calls) {
    if (const auto* b = std::get_if<Holder::Box>(&call)) {
      to.messageBox(b->text, b->title, b->icon);
    } else if (const auto* e = std::get_if<Holder::Entry>(&call)) {
      to.logEvent(e->type, e->text);
    } else {
      to.importEvent(std::get<ImportEvent>(call));
    }
  }
}

void setHost(std::shared_ptr<HostServices> services) {
  std::lock_guard<std::mutex> lock(hostMutex);
  currentHost() = services ? std::move(services) : defaultHost();
}

std::shared_ptr<HostServices> sharedHost() {
  std::lock_guard<std::mutex> lock(hostMutex);
  return currentHost();
}

ScopedHost::ScopedHost(std::shared_ptr<HostServices> services) : previous_(sharedHost()) {
  setHost(std::move(services));
}

ScopedHost::~ScopedHost() { setHost(std::move(previous_)); }

// ---- import report

void HostServices::importEvent(const ImportEvent&) {}

const char* importEventKindName(ImportEventKind kind) {
  switch (kind) {
    case ImportEventKind::TruncatedName: return "truncated name";
    case ImportEventKind::DroppedLink: return "dropped link";
    case ImportEventKind::UnknownRequest: return "unknown request";
    case ImportEventKind::RefusedRow: return "refused row";
    case ImportEventKind::Other: return "other";
  }
  return "other";
}

ImportReport::ImportReport(std::shared_ptr<HostServices> next, size_t keep) : next_(std::move(next)), keep_(keep) {}

void ImportReport::add(ImportEvent event, bool announced) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (announced) lastText_ = event.text;
  const auto k = static_cast<size_t>(event.kind);
  if (counts_[k]++ < keep_) kept_.push_back(std::move(event));
}

void ImportReport::importEvent(const ImportEvent& event) {
  add(event, true);
  if (next_) next_->importEvent(event);
}

void ImportReport::messageBox(std::string_view text, std::string_view title, MessageIcon icon) {
  bool repeated;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    repeated = !lastText_.empty() && text == lastText_;
    lastText_.clear();
  }
  if (!repeated) {
    // The boxes the library shows on its own are about names or labels too
    // long for their column ("too long", "trop long") or about rows refused.
    const bool tooLong =
        text.find("too long") != std::string_view::npos || text.find("trop long") != std::string_view::npos;
    const bool duplicate = text.find("doublon") != std::string_view::npos;
    add({tooLong ? ImportEventKind::TruncatedName : duplicate ? ImportEventKind::RefusedRow : ImportEventKind::Other,
         "", std::string(text)},
        false);
  }
  if (next_) next_->messageBox(text, title, icon);
}

void ImportReport::logEvent(EventType type, std::string_view text) {
  bool repeated;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    repeated = !lastText_.empty() && text == lastText_;
    lastText_.clear();
  }
  if (!repeated && type != EventType::Information)
    add({type == EventType::Error ? ImportEventKind::RefusedRow : ImportEventKind::Other, "", std::string(text)},
        false);
  if (next_) next_->logEvent(type, text);
}

bool ImportReport::empty() const { return total() == 0; }

size_t ImportReport::total() const {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = 0;
  for (size_t c : counts_) n += c;
  return n;
}

size_t ImportReport::count(ImportEventKind kind) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return counts_[static_cast<size_t>(kind)];
}

std::vector<ImportEvent> ImportReport::kept() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return kept_;
}

void ImportReport::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (size_t& c : counts_) c = 0;
  kept_.clear();
  lastText_.clear();
}

}  // namespace kavrel
