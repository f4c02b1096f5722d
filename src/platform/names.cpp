#include "kavrel/platform/names.h"

#include <unicode/ucol.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>

namespace kavrel::names {
namespace {

constexpr char lowerAscii(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

bool isAscii(std::string_view s) {
  for (char c : s)
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  return true;
}

std::string asciiLowered(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = lowerAscii(c);
  return out;
}

int sign(int v) { return (v > 0) - (v < 0); }

int compareBytes(std::string_view a, std::string_view b) { return sign(a.compare(b)); }

// One collator per thread: the library itself is single-threaded, but the
// SQLite collation may be called from any thread a client uses.
struct CollatorHandle {
  UCollator* collator = nullptr;
  CollatorHandle() {
    UErrorCode status = U_ZERO_ERROR;
    collator = ucol_open("fr", &status);
    if (U_FAILURE(status)) {
      if (collator) ucol_close(collator);
      collator = nullptr;  // no collation data: keys compare by bytes
    }
  }
  ~CollatorHandle() {
    if (collator) ucol_close(collator);
  }
  CollatorHandle(const CollatorHandle&) = delete;
  CollatorHandle& operator=(const CollatorHandle&) = delete;
};

UCollator* collator() {
  thread_local CollatorHandle handle;
  return handle.collator;
}

// Fast path for printable ASCII (0x20..0x7E): each such character, once
// lowered, has exactly one collation weight of its own, so two such names
// compare as the sequences of their characters' ranks, shorter prefix first.
// The table is built from the collator itself and only used when it proves
// that every character differs from every other at the first level alone.
struct AsciiRanks {
  std::array<uint8_t, 128> rank{};  // 0: not covered (controls)
  bool usable = false;

  AsciiRanks() {
    UCollator* c = collator();
    if (!c) return;
    std::string chars;
    for (int ch = 0x20; ch <= 0x7E; ++ch)
      if (!(ch >= 'A' && ch <= 'Z')) chars += static_cast<char>(ch);
    UErrorCode status = U_ZERO_ERROR;
    auto less = [&](char x, char y) { return ucol_strcollUTF8(c, &x, 1, &y, 1, &status) == UCOL_LESS; };
    std::sort(chars.begin(), chars.end(), less);
    // Sort keys: primary weights, 01, secondary, 01, tertiary. The part
    // after the primary weights must be the same for every character.
    std::string commonTail;
    for (size_t i = 0; i < chars.size(); ++i) {
      if (i > 0 && !less(chars[i - 1], chars[i])) return;
      const UChar u = static_cast<unsigned char>(chars[i]);
      uint8_t buf[64];
      const int32_t n = ucol_getSortKey(c, &u, 1, buf, sizeof buf);
      if (n <= 0 || n > static_cast<int32_t>(sizeof buf)) return;
      const auto* sep = static_cast<const uint8_t*>(std::memchr(buf, 1, static_cast<size_t>(n)));
      if (!sep) return;
      std::string tail(reinterpret_cast<const char*>(sep), static_cast<size_t>(buf + n - sep));
      if (i == 0) commonTail = tail;
      else if (tail != commonTail) return;
    }
    if (U_FAILURE(status)) return;
    for (size_t i = 0; i < chars.size(); ++i)
      rank[static_cast<unsigned char>(chars[i])] = static_cast<uint8_t>(i + 1);
    for (int ch = 'A'; ch <= 'Z'; ++ch) rank[static_cast<size_t>(ch)] = rank[static_cast<size_t>(ch + ('a' - 'A'))];
    usable = true;
  }
};

const AsciiRanks& asciiRanks() {
  static const AsciiRanks ranks;
  return ranks;
}

// Compares two printable-ASCII names (case-insensitively, by rank); returns
// false when either holds a character the table does not cover.
bool compareAscii(std::string_view a, std::string_view b, int& result) {
  const AsciiRanks& r = asciiRanks();
  if (!r.usable) return false;
  const size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    const auto ca = static_cast<unsigned char>(a[i]);
    const auto cb = static_cast<unsigned char>(b[i]);
    if (ca >= 0x80 || cb >= 0x80) return false;
    const uint8_t ra = r.rank[ca];
    const uint8_t rb = r.rank[cb];
    if (ra == 0 || rb == 0) return false;
    if (ra != rb) {
      result = ra < rb ? -1 : 1;
      return true;
    }
  }
  for (size_t i = n; i < a.size(); ++i)
    if (static_cast<unsigned char>(a[i]) >= 0x80 || r.rank[static_cast<unsigned char>(a[i])] == 0) return false;
  for (size_t i = n; i < b.size(); ++i)
    if (static_cast<unsigned char>(b[i]) >= 0x80 || r.rank[static_cast<unsigned char>(b[i])] == 0) return false;
  result = a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
  return true;
}

// Runs an ICU UTF-16 transformation with a growing buffer.
template <class F>
bool transform(const std::u16string& in, std::u16string& out, F&& f) {
  out.resize(in.size() + 8);
  for (int attempt = 0; attempt < 2; ++attempt) {
    UErrorCode status = U_ZERO_ERROR;
    const int32_t n = f(out.data(), static_cast<int32_t>(out.size()), &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
      out.resize(static_cast<size_t>(n));
      continue;
    }
    if (U_FAILURE(status)) return false;
    out.resize(static_cast<size_t>(n));
    return true;
  }
  return false;
}

bool unicodeKey(std::string_view name, std::string& result) {
  std::u16string utf16(name.size(), u'\0');
  int32_t len = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(reinterpret_cast<UChar*>(utf16.data()), static_cast<int32_t>(utf16.size()), &len, name.data(),
                static_cast<int32_t>(name.size()), &status);
  if (U_FAILURE(status)) return false;  // not valid UTF-8
  utf16.resize(static_cast<size_t>(len));

  std::u16string lowered;
  if (!transform(utf16, lowered, [&](char16_t* dst, int32_t cap, UErrorCode* st) {
        return u_strToLower(reinterpret_cast<UChar*>(dst), cap, reinterpret_cast<const UChar*>(utf16.data()),
                            static_cast<int32_t>(utf16.size()), "", st);
      }))
    return false;

  status = U_ZERO_ERROR;
  const UNormalizer2* nfc = unorm2_getNFCInstance(&status);
  if (U_FAILURE(status)) return false;
  std::u16string normalized;
  if (!transform(lowered, normalized, [&](char16_t* dst, int32_t cap, UErrorCode* st) {
        return unorm2_normalize(nfc, reinterpret_cast<const UChar*>(lowered.data()),
                                static_cast<int32_t>(lowered.size()), reinterpret_cast<UChar*>(dst), cap, st);
      }))
    return false;

  status = U_ZERO_ERROR;
  int32_t bytes = 0;
  u_strToUTF8(nullptr, 0, &bytes, reinterpret_cast<const UChar*>(normalized.data()),
              static_cast<int32_t>(normalized.size()), &status);
  if (status != U_BUFFER_OVERFLOW_ERROR && U_FAILURE(status)) return false;
  result.assign(static_cast<size_t>(bytes), '\0');
  status = U_ZERO_ERROR;
  u_strToUTF8(result.data(), bytes, &bytes, reinterpret_cast<const UChar*>(normalized.data()),
              static_cast<int32_t>(normalized.size()), &status);
  return U_SUCCESS(status);
}

}  // namespace

std::string key(std::string_view name) {
  if (isAscii(name)) return asciiLowered(name);
  std::string result;
  if (unicodeKey(name, result)) return result;
  return asciiLowered(name);  // invalid UTF-8: its bytes, ASCII letters lowered
}

bool equal(std::string_view a, std::string_view b) {
  if (isAscii(a) && isAscii(b)) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
      if (lowerAscii(a[i]) != lowerAscii(b[i])) return false;
    return true;
  }
  return key(a) == key(b);
}

int compareKeys(std::string_view keyA, std::string_view keyB) {
  int result = 0;
  if (compareAscii(keyA, keyB, result)) return result;
  if (UCollator* c = collator()) {
    UErrorCode status = U_ZERO_ERROR;
    const UCollationResult r = ucol_strcollUTF8(c, keyA.data(), static_cast<int32_t>(keyA.size()), keyB.data(),
                                                static_cast<int32_t>(keyB.size()), &status);
    if (U_SUCCESS(status) && r != UCOL_EQUAL) return r == UCOL_LESS ? -1 : 1;
  }
  return compareBytes(keyA, keyB);
}

int compare(std::string_view a, std::string_view b) {
  int result = 0;
  if (compareAscii(a, b, result)) return result;
  return compareKeys(key(a), key(b));
}

}  // namespace kavrel::names
