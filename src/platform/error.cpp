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

thread_local ErrorRecord tlsLastError;

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

ErrorRecord& lastError() noexcept { return tlsLastError; }

void clearLastError() noexcept {
  tlsLastError.number = 0;
  tlsLastError.source.clear();
  tlsLastError.description.clear();
}

void recordError(int32_t number, std::string source, std::string description) {
  tlsLastError.number = number;
  tlsLastError.source = std::move(source);
  tlsLastError.description = std::move(description);
}

void recordError(const Error& e) { recordError(e.number(), e.rawSource(), e.description()); }

void raise(int32_t number, std::string source, std::string description) {
  throw Error(number, std::move(source), std::move(description));
}

void raisePending() {
  const ErrorRecord& r = tlsLastError;
  throw Error(r.number, r.source, r.description);
}

}  // namespace kavrel
