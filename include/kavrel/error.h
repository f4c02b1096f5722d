// The library's one error type, and the per-thread "last error" record that
// error-suppressing methods fill instead of throwing.
//
// Contract:
//  - Every failure the library reports is a kavrel::Error carrying a number,
//    a source and a description. An empty source is reported as the library
//    name "KavrelBuilderLibrary".
//  - Methods documented as "recorded" never throw for the failures they
//    record; they leave them in lastError() (one record per thread) for the
//    caller to test and clear.
//  - Database failures are kavrel::DbError (a kavrel::Error) that also carry
//    the backend's own code and message.
#pragma once

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

namespace kavrel {

inline constexpr const char* kLibraryName = "KavrelBuilderLibrary";

// Numbers used for failures of the conversions and containers themselves
// (the legacy runtime's numbers, so clients see familiar values).
inline constexpr int32_t kErrInvalidArgument = 5;    // bad position / unknown key
inline constexpr int32_t kErrOverflow = 6;
inline constexpr int32_t kErrTypeMismatch = 13;
inline constexpr int32_t kErrInvalidUseOfNull = 94;
inline constexpr int32_t kErrDuplicateKey = 457;
inline constexpr int32_t kErrFile = 75;              // file cannot be read or written
inline constexpr int32_t kErrUnexpected = 51;        // a non-library exception caught in a zone

class Error : public std::runtime_error {
 public:
  Error(int32_t number, std::string source, std::string description);

  int32_t number() const noexcept { return number_; }
  // The source as reported: the library name when none was given.
  const std::string& source() const noexcept;
  // The source exactly as given (possibly empty).
  const std::string& rawSource() const noexcept { return source_; }
  const std::string& description() const noexcept { return description_; }

 private:
  int32_t number_;
  std::string source_;
  std::string description_;
};

// A failure reported by the database backend.
class DbError : public Error {
 public:
  DbError(int32_t number, std::string source, std::string description, int backendCode,
          std::string backendMessage);
  int backendCode() const noexcept { return backendCode_; }
  const std::string& backendMessage() const noexcept { return backendMessage_; }

 private:
  int backendCode_;
  std::string backendMessage_;
};

// The pending error of the current thread. number == 0 means "no error".
struct ErrorRecord {
  int32_t number = 0;
  std::string source;  // as given; may be empty
  std::string description;

  bool pending() const noexcept { return number != 0; }
  // The source as reported (library name when empty).
  std::string reportedSource() const { return source.empty() ? kLibraryName : source; }
};

// The calling thread's last-error record (read/write). It can be used for
// the whole life of the thread, destructors run at thread or process exit
// included (a static session closing after an error was recorded).
ErrorRecord& lastError() noexcept;
void clearLastError() noexcept;
void recordError(int32_t number, std::string source, std::string description);
void recordError(const Error& e);

// Throws kavrel::Error.
[[noreturn]] void raise(int32_t number, std::string source, std::string description);
// Throws the pending error as a kavrel::Error (same number, source, description).
[[noreturn]] void raisePending();

// Runs `step`; a failure it throws is recorded as the pending error instead
// of propagating. Returns true when the step completed. This is the building
// block of "error zones": each statement that may fail is one step, and the
// method goes on with the next.
template <class F>
bool trap(F&& step) {
  try {
    std::forward<F>(step)();
    return true;
  } catch (const Error& e) {
    recordError(e);
  } catch (const std::exception& e) {
    recordError(kErrUnexpected, "", e.what());
  }
  return false;
}

// Runs `step` with a pending error cleared first; returns true when it
// completed without recording anything.
template <class F>
bool trapClean(F&& step) {
  clearLastError();
  return trap(std::forward<F>(step)) && !lastError().pending();
}

}  // namespace kavrel
