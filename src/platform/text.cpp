#include "kavrel/platform/text.h"

#include <cfloat>
#include <charconv>
#include <cmath>
#include <type_traits>
#include <cstdlib>
#include <optional>

#include "kavrel/error.h"

namespace kavrel::text {
namespace {

[[noreturn]] void typeMismatch() { throw Error(kErrTypeMismatch, "", "Type mismatch"); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isBlank(char c) { return c == ' ' || c == '\t'; }

// The longest number at the start of `s`: [sign] digits [. digits]
// [e [sign] digits], with at least one digit before the exponent. Returns
// its length (0 when there is none) and its value.
size_t scanNumber(std::string_view s, double& value) {
  size_t i = 0;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  const size_t mantissaBegin = i;
  size_t digits = 0;
  while (i < s.size() && isDigit(s[i])) ++i, ++digits;
  const size_t integerDigits = digits;
  if (i < s.size() && s[i] == '.') {
    ++i;
    while (i < s.size() && isDigit(s[i])) ++i, ++digits;
  }
  if (digits == 0) return 0;
  size_t end = i;
  long exponent = 0;
  if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
    size_t k = i + 1;
    bool expNegative = false;
    if (k < s.size() && (s[k] == '+' || s[k] == '-')) expNegative = s[k++] == '-';
    if (k < s.size() && isDigit(s[k])) {
      while (k < s.size() && isDigit(s[k])) {
        if (exponent < 100000) exponent = exponent * 10 + (s[k] - '0');
        ++k;
      }
      if (expNegative) exponent = -exponent;
      end = k;
    }
  }
  // from_chars takes no '+' and no lone "." forms like "5." or ".5" in
  // every library, so give it a normalised copy.
  std::string text;
  text.reserve(end - mantissaBegin + 2);
  for (size_t k = mantissaBegin; k < end; ++k) {
    if (s[k] == '.' && (k + 1 >= end || !isDigit(s[k + 1]))) continue;
    if (s[k] == '.' && k == mantissaBegin) text += '0';
    text += s[k];
  }
  double v = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), v, std::chars_format::general);
  if (result.ec == std::errc::result_out_of_range) {
    // Too large or too small for a double: decide by the magnitude.
    v = static_cast<long>(integerDigits) + exponent > 0 ? HUGE_VAL : 0.0;
  }
  value = negative ? -v : v;
  return end;
}

// A whole text as a number (blanks around allowed), or nothing.
std::optional<double> wholeNumber(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  double v = 0;
  const size_t n = scanNumber(s, v);
  if (n == 0 || n != s.size()) return std::nullopt;
  return v;
}

int32_t roundHalfEven(double x) {
  double r = std::floor(x);
  const double fraction = x - r;
  if (fraction > 0.5 || (fraction == 0.5 && std::fmod(r, 2.0) != 0.0)) r += 1.0;
  if (!(r >= -2147483648.0 && r <= 2147483647.0)) throw Error(kErrOverflow, "", "Overflow");
  return static_cast<int32_t>(r);
}

// The shortest digits of a value laid out like the general format: fixed
// for decimal exponents -5 < e < 15, otherwise scientific ("1e-05",
// "1.5e+20").
template <class T>
std::string generalText(T v) {
  if (v == 0) return "0";
  char buffer[64];
  // Whole doubles below 10^15 are exact and their shortest round trip is
  // all their digits: printed as integers directly. (Not floats: those are
  // spaced wider than 1 long before that.)
  if constexpr (std::is_same_v<T, double>) {
    if (std::trunc(v) == v && std::abs(v) < 1e15) {
      const auto whole = std::to_chars(buffer, buffer + sizeof buffer, static_cast<long long>(v));
      return std::string(buffer, whole.ptr);
    }
  }
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, v, std::chars_format::scientific);
  std::string_view s(buffer, static_cast<size_t>(result.ptr - buffer));
  std::string out;
  if (s.front() == '-') {
    out += '-';
    s.remove_prefix(1);
  }
  const size_t e = s.find('e');
  std::string digits;
  for (char c : s.substr(0, e))
    if (c != '.') digits += c;
  const int exponent = std::atoi(std::string(s.substr(e + 1)).c_str());
  if (exponent < -4 || exponent >= 15) {
    out += digits[0];
    if (digits.size() > 1) out += "." + digits.substr(1);
    const int magnitude = std::abs(exponent);
    out += exponent < 0 ? "e-" : "e+";
    if (magnitude < 10) out += '0';
    out += std::to_string(magnitude);
  } else if (exponent < 0) {
    out += "0." + std::string(static_cast<size_t>(-exponent - 1), '0') + digits;
  } else {
    const size_t integerDigits = static_cast<size_t>(exponent) + 1;
    if (digits.size() <= integerDigits) {
      out += digits + std::string(integerDigits - digits.size(), '0');
    } else {
      out += digits.substr(0, integerDigits) + "." + digits.substr(integerDigits);
    }
  }
  return out;
}

std::string specialText(double v) {
  if (std::isnan(v)) return "NaN";
  return v < 0 ? "-Infinity" : "Infinity";
}

// Length of the UTF-8 character at s[i]; a byte that does not start a
// well-formed sequence counts as one character. `cp` gets the code point
// (the byte value for such a byte).
size_t charAt(std::string_view s, size_t i, char32_t& cp) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  cp = b0;
  size_t n;
  char32_t min;
  if (b0 < 0x80) return 1;
  if (b0 >= 0xC2 && b0 <= 0xDF) n = 2, min = 0x80;
  else if (b0 >= 0xE0 && b0 <= 0xEF) n = 3, min = 0x800;
  else if (b0 >= 0xF0 && b0 <= 0xF4) n = 4, min = 0x10000;
  else return 1;
  if (i + n > s.size()) return 1;
  char32_t v = b0 & (0x7F >> n);
  for (size_t k = 1; k < n; ++k) {
    const auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xC0) != 0x80) return 1;
    v = (v << 6) | (b & 0x3F);
  }
  if (v < min || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF)) return 1;
  cp = v;
  return n;
}

char32_t foldLower(char32_t cp) {
  if (cp >= 'A' && cp <= 'Z') return cp + 32;
  if (cp >= 0xC0 && cp <= 0xDE && cp != 0xD7) return cp + 0x20;
  return cp;
}

char32_t foldUpper(char32_t cp) {
  if (cp >= 'a' && cp <= 'z') return cp - 32;
  if (cp >= 0xE0 && cp <= 0xFE && cp != 0xF7) return cp - 0x20;
  return cp;
}

// Maps the letters of a text; characters the mapping keeps are copied
// byte for byte (so malformed bytes pass through unchanged).
template <class Fold>
std::string mapCase(std::string_view s, Fold fold) {
  // ASCII texts (names, mostly) map byte for byte into a text of the same size.
  size_t ascii = 0;
  while (ascii < s.size() && static_cast<unsigned char>(s[ascii]) < 0x80) ++ascii;
  std::string out(s.substr(0, ascii));
  for (char& c : out) c = static_cast<char>(fold(static_cast<unsigned char>(c)));
  if (ascii == s.size()) return out;
  out.reserve(s.size());
  for (size_t i = ascii; i < s.size();) {
    const auto b = static_cast<unsigned char>(s[i]);
    if (b < 0x80) {  // ASCII, the usual case: no decoding needed
      out += static_cast<char>(fold(b));
      ++i;
      continue;
    }
    char32_t cp;
    const size_t n = charAt(s, i, cp);
    const char32_t mapped = (n == 1 && cp >= 0x80) ? cp : fold(cp);
    if (mapped == cp) {
      out.append(s.substr(i, n));
    } else if (mapped < 0x80) {
      out += static_cast<char>(mapped);
    } else {  // Latin-1 letters: two bytes in, two bytes out
      out += static_cast<char>(0xC0 | (mapped >> 6));
      out += static_cast<char>(0x80 | (mapped & 0x3F));
    }
    i += n;
  }
  return out;
}

}  // namespace

int32_t toInt(std::string_view s) {
  // Plain short integers (nearly every attribute of a document) need no
  // general number scan: up to nine digits always fit.
  {
    std::string_view t = s;
    while (!t.empty() && isBlank(t.front())) t.remove_prefix(1);
    while (!t.empty() && isBlank(t.back())) t.remove_suffix(1);
    const bool negative = !t.empty() && t.front() == '-';
    if (!t.empty() && (t.front() == '-' || t.front() == '+')) t.remove_prefix(1);
    if (!t.empty() && t.size() <= 9) {
      int32_t v = 0;
      bool digits = true;
      for (char c : t) {
        if (!isDigit(c)) {
          digits = false;
          break;
        }
        v = v * 10 + (c - '0');
      }
      if (digits) return negative ? -v : v;
    }
  }
  const auto v = wholeNumber(s);
  if (!v) typeMismatch();
  return roundHalfEven(*v);
}

double val(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r' || s[i] == '\n')) ++i;
  double v = 0;
  return scanNumber(s.substr(i), v) == 0 ? 0.0 : v;
}

int32_t toRoundedInt(std::string_view s) { return toInt(replaceAll(s, ",", ".")); }

bool toBool(std::string_view s) {
  std::string_view t = s;
  while (!t.empty() && isBlank(t.front())) t.remove_prefix(1);
  while (!t.empty() && isBlank(t.back())) t.remove_suffix(1);
  if (iequals(t, "true")) return true;
  if (iequals(t, "false")) return false;
  const auto v = wholeNumber(t);
  if (!v) typeMismatch();
  return *v != 0.0;
}

std::string numberToText(double v) {
  if (!std::isfinite(v)) return (v > 0 ? " " : "") + specialText(v);
  // A fractional value that is exactly a single-precision float (font sizes
  // are) is written with the float's shortest digits: 8.3f gives "8.3", not
  // "8.300000190734863". Other values, whole numbers included, get the
  // double's shortest digits.
  std::string body;
  if (std::fabs(v) < 1e15 && v != std::trunc(v) && static_cast<double>(static_cast<float>(v)) == v)
    body = generalText(static_cast<float>(v));
  else
    body = generalText(v);
  return v < 0 ? body : " " + body;
}

std::string decimalText(double v) {
  if (!std::isfinite(v)) return specialText(v);
  return generalText(v);
}

size_t length(std::string_view s) {
  size_t i = 0;
  while (i < s.size() && static_cast<unsigned char>(s[i]) < 0x80) ++i;  // ASCII: one byte each
  size_t count = i;
  char32_t cp;
  for (; i < s.size(); i += charAt(s, i, cp)) ++count;
  return count;
}

std::string left(std::string_view s, size_t n) {
  size_t i = 0;
  char32_t cp;
  for (size_t count = 0; i < s.size() && count < n; ++count) i += charAt(s, i, cp);
  return std::string(s.substr(0, i));
}

std::string right(std::string_view s, size_t n) {
  const size_t total = length(s);
  if (n >= total) return std::string(s);
  size_t i = 0;
  char32_t cp;
  for (size_t count = 0; count < total - n; ++count) i += charAt(s, i, cp);
  return std::string(s.substr(i));
}

std::string trim(std::string_view s) {
  while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return std::string(s);
}

std::string trim(std::string&& s) {
  const size_t last = s.find_last_not_of(' ');
  if (last == std::string::npos) return {};
  s.erase(last + 1);
  s.erase(0, s.find_first_not_of(' '));
  return std::move(s);
}

std::string trim(const char* s) { return trim(std::string_view(s)); }

// Lambdas, not the functions themselves: the fold is then inlined into the
// loop (names are lowered for every lookup).
std::string lower(std::string_view s) {
  return mapCase(s, [](char32_t c) { return foldLower(c); });
}

std::string upper(std::string_view s) {
  return mapCase(s, [](char32_t c) { return foldUpper(c); });
}

bool iequals(std::string_view a, std::string_view b) {
  size_t i = 0, j = 0;
  while (i < a.size() && j < b.size()) {
    const auto ba = static_cast<unsigned char>(a[i]), bb = static_cast<unsigned char>(b[j]);
    if (ba < 0x80 && bb < 0x80) {  // ASCII on both sides: compare without decoding
      if (foldLower(ba) != foldLower(bb)) return false;
      ++i;
      ++j;
      continue;
    }
    char32_t ca, cb;
    const size_t na = charAt(a, i, ca);
    const size_t nb = charAt(b, j, cb);
    // A malformed byte only equals the same malformed byte.
    const bool rawA = na == 1 && ca >= 0x80, rawB = nb == 1 && cb >= 0x80;
    if (rawA != rawB) return false;
    if (rawA ? ca != cb : foldLower(ca) != foldLower(cb)) return false;
    i += na;
    j += nb;
  }
  return i == a.size() && j == b.size();
}

std::string replaceAll(std::string_view s, std::string_view from, std::string_view to) {
  if (from.empty()) return std::string(s);
  std::string out;
  out.reserve(s.size());
  size_t start = 0;
  for (size_t pos = s.find(from); pos != std::string_view::npos; pos = s.find(from, start)) {
    out.append(s.substr(start, pos - start));
    out.append(to);
    start = pos + from.size();
  }
  out.append(s.substr(start));
  return out;
}

std::string hex(int32_t v) {
  static const char digits[] = "0123456789ABCDEF";
  auto u = static_cast<uint32_t>(v);
  std::string out;
  do {
    out.insert(out.begin(), digits[u & 0xF]);
    u >>= 4;
  } while (u != 0);
  return out;
}

void appendUtf8(std::string& out, char32_t cp) {
  if (cp < 0x80) {
    out += static_cast<char>(cp);
  } else if (cp < 0x800) {
    out += static_cast<char>(0xC0 | (cp >> 6));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += static_cast<char>(0xE0 | (cp >> 12));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (cp >> 18));
    out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (cp & 0x3F));
  }
}

}  // namespace kavrel::text
