#include "kavrel/platform/host.h"

#include <atomic>

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

HostServices& host() {
  std::lock_guard<std::mutex> lock(hostMutex);
  return *currentHost();
}

void setHost(std::shared_ptr<HostServices> services) {
  std::lock_guard<std::mutex> lock(hostMutex);
  currentHost() = services ? std::move(services) : defaultHost();
}

}  // namespace kavrel
