// Small checks shared by the tests.
//
//   EXPECT_TRUE(test::contains(text, "<Bits/>"));       // the text is shown on failure
//   EXPECT_TRUE(test::recorded(2, "Duplicate name"));   // the pending error, exactly
//   EXPECT_TRUE(test::throws([&] { f(); }, 100, "Parent not defined"));  // optional 4th: the source
//   Error e = test::thrownBy([&] { f(); });             // fails the test if nothing is thrown
//   test::readBytes(path); test::writeBytes(path, bytes); test::repeat("é", 70);
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string_view>
#include <type_traits>

#include "kavrel/error.h"

namespace kavrel::test {

inline std::string readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeBytes(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

// The document with its screen tree emptied ("ds:Categories" left as an
// empty element): what a database without screens exports for a target
// document that has them.
inline std::string withoutScreens(std::string xml) {
  const size_t open = xml.find("<ds:Categories");
  if (open == std::string::npos) return xml;
  const size_t tagEnd = xml.find('>', open);
  if (tagEnd == std::string::npos || xml[tagEnd - 1] == '/') return xml;
  const std::string close = "</ds:Categories>";
  const size_t end = xml.find(close, tagEnd);
  if (end == std::string::npos) return xml;
  return xml.replace(tagEnd, end + close.size() - tagEnd, "/>");
}

inline std::string repeat(std::string_view unit, size_t n) {
  std::string s;
  for (size_t i = 0; i < n; ++i) s += unit;
  return s;
}

inline ::testing::AssertionResult contains(const std::string& text, std::string_view part) {
  if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "\"" << part << "\" not found in:\n" << text;
}

inline ::testing::AssertionResult recorded(int32_t number, std::string_view description) {
  const ErrorRecord& e = lastError();
  if (e.number == number && e.description == description) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "pending error " << e.number << " \"" << e.description << "\"";
}

template <class E = Error, class F>
E thrownBy(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e;
  }
  ADD_FAILURE() << "no error thrown";
  if constexpr (std::is_same_v<E, DbError>) {
    return DbError(0, "", "", 0, "");
  } else {
    return E(0, "", "");
  }
}

template <class F>
::testing::AssertionResult throws(F&& f, int32_t number, std::string_view description, std::string_view source = {}) {
  try {
    f();
  } catch (const Error& e) {
    if (e.number() == number && e.description() == description && (source.empty() || e.source() == source))
      return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "threw " << e.number() << " (" << e.source() << ") \"" << e.description()
                                         << "\"";
  }
  return ::testing::AssertionFailure() << "nothing thrown";
}

}  // namespace kavrel::test
