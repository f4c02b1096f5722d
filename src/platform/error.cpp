#include "kavrel/error.h"

namespace kavrel {
namespace {

std::string composeWhat(int32_t number, const std::string& source, const std::string& description) {
  return "error " + std::to_string(number) + " (" + (source.empty() ? kLibraryName : source) +
         "): " + description;
}

const std::string& libraryNameString() {
  static const std::string name = kLibraryName;
  return name;
}

// The calling thread's record lives on the heap, reached through a
// trivially destructible pointer, so it can be used at any point of the
// thread's life: a session held by a static or by another thread_local may
// be destroyed (and clear the record) after this file's thread_local owner
// has gone. The owner frees the record when the thread ends; a record asked
// for after that is made again and lives until the process ends (it stays
// reachable from the pointer, and this happens at most once per thread).
thread_local ErrorRecord* tlsRecord = nullptr;
thread_local bool tlsOwnerGone = false;

struct RecordOwner {
  RecordOwner() noexcept = default;
  ~RecordOwner() {
    delete tlsRecord;
    tlsRecord = nullptr;
    tlsOwnerGone = true;
  }
};
thread_local RecordOwner tlsOwner;

ErrorRecord& threadRecord() noexcept {
  if (tlsRecord == nullptr) {
    // Touching the owner registers its destructor for this thread (never
    // again once it has run).
    if (!tlsOwnerGone) (void)&tlsOwner;
    tlsRecord = new ErrorRecord();
  }
  return *tlsRecord;
}

}  // namespace

Error::Error(int32_t number, std::string source, std::string description)
    : std::runtime_error(composeWhat(number, source, description)),
      number_(number),
      source_(std::move(source)),
      description_(std::move(description)) {}

const std::string& Error::source() const noexcept {
  return source_.empty() ? libraryNameString() : source_;
}

DbError::DbError(int32_t number, std::string source, std::string description, int backendCode,
                 std::string backendMessage)
    : Error(number, std::move(source), std::move(description)),
      backendCode_(backendCode),
      backendMessage_(std::move(backendMessage)) {}

ErrorRecord& lastError() noexcept { return threadRecord(); }

void clearLastError() noexcept {
  ErrorRecord& r = threadRecord();
  r.number = 0;
  r.source.clear();
  r.description.clear();
}

void recordError(int32_t number, std::string source, std::string description) {
  ErrorRecord& r = threadRecord();
  r.number = number;
  r.source = std::move(source);
  r.description = std::move(description);
}

void recordError(const Error& e) { recordError(e.number(), e.rawSource(), e.description()); }

void raise(int32_t number, std::string source, std::string description) {
  throw Error(number, std::move(source), std::move(description));
}

void raisePending() {
  const ErrorRecord& r = threadRecord();
  throw Error(r.number, r.source, r.description);
}

}  // namespace kavrel
