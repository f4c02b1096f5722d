#include "platform/pugixml/xml_encoding.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/text.h"

namespace kavrel::xml::detail {
namespace {

// Characters of windows-1252 bytes 0x80..0x9F; 0 marks the five undefined
// bytes, which are read as the C1 control of the same value.
constexpr std::array<char16_t, 32> kCp1252High = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178};

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Length of the well-formed UTF-8 sequence at s[i] and its code point; 0
// when the bytes there are not one.
size_t decodeUtf8At(std::string_view s, size_t i, char32_t& cp) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  if (b0 < 0x80) {
    cp = b0;
    return 1;
  }
  size_t n;
  char32_t min;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    n = 2, cp = b0 & 0x1F, min = 0x80;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    n = 3, cp = b0 & 0x0F, min = 0x800;
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    n = 4, cp = b0 & 0x07, min = 0x10000;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    const auto b = static_cast<unsigned char>(s[i + k]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
  return n;
}

Decoded decodeUtf16(std::string_view bytes, bool bigEndian) {
  Decoded d;
  d.utf8.reserve(bytes.size() / 2);
  auto unitAt = [&](size_t i) -> char32_t {
    const auto a = static_cast<unsigned char>(bytes[i]);
    const auto b = static_cast<unsigned char>(bytes[i + 1]);
    return bigEndian ? (char32_t(a) << 8 | b) : (char32_t(b) << 8 | a);
  };
  size_t i = 0;
  for (; i + 1 < bytes.size(); i += 2) {
    char32_t u = unitAt(i);
    if (u >= 0xD800 && u <= 0xDBFF && i + 3 < bytes.size()) {
      const char32_t low = unitAt(i + 2);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        text::appendUtf8(d.utf8, 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00));
        i += 2;
        continue;
      }
    }
    if (u >= 0xD800 && u <= 0xDFFF) {
      d.code = kCodeInvalidCharacter;
      d.reason = "Invalid UTF-16 text (unpaired surrogate)";
      return d;
    }
    text::appendUtf8(d.utf8, u);
  }
  if (i < bytes.size()) {
    d.code = kCodeInvalidCharacter;
    d.reason = "Invalid UTF-16 text (odd number of bytes)";
  }
  return d;
}

Decoded decodeSingleByte(std::string_view bytes, Encoding encoding) {
  Decoded d;
  d.utf8.reserve(bytes.size() + bytes.size() / 8);
  for (char c : bytes) {
    const auto b = static_cast<unsigned char>(c);
    char32_t cp = b;
    if (encoding == Encoding::Windows1252 && b >= 0x80 && b <= 0x9F && kCp1252High[b - 0x80] != 0)
      cp = kCp1252High[b - 0x80];
    text::appendUtf8(d.utf8, cp);
  }
  return d;
}

// The byte of a character in a single-byte encoding, or -1.
int singleByteOf(char32_t cp, Encoding encoding) {
  switch (encoding) {
    case Encoding::Ascii:
      return cp < 0x80 ? static_cast<int>(cp) : -1;
    case Encoding::Latin1:
      return cp < 0x100 ? static_cast<int>(cp) : -1;
    case Encoding::Windows1252:
      if (cp < 0x80 || (cp >= 0xA0 && cp < 0x100)) return static_cast<int>(cp);
      if (cp >= 0x80 && cp <= 0x9F) return kCp1252High[cp - 0x80] == 0 ? static_cast<int>(cp) : -1;
      for (size_t k = 0; k < kCp1252High.size(); ++k)
        if (kCp1252High[k] != 0 && kCp1252High[k] == cp) return static_cast<int>(0x80 + k);
      return -1;
    default:
      return -1;
  }
}

const char* encodingName(Encoding encoding) {
  switch (encoding) {
    case Encoding::Utf8: return "UTF-8";
    case Encoding::Utf16LE: return "UTF-16";
    case Encoding::Utf16BE: return "UTF-16BE";
    case Encoding::Latin1: return "ISO-8859-1";
    case Encoding::Windows1252: return "windows-1252";
    case Encoding::Ascii: return "US-ASCII";
  }
  return "";
}

std::string encodeUtf16(std::string_view s, bool bigEndian) {
  std::string out;
  out.reserve(2 + s.size() * 2);
  auto unit = [&](char32_t u) {
    const char hi = static_cast<char>((u >> 8) & 0xFF), lo = static_cast<char>(u & 0xFF);
    out += bigEndian ? hi : lo;
    out += bigEndian ? lo : hi;
  };
  unit(0xFEFF);
  for (size_t i = 0; i < s.size();) {
    char32_t cp;
    size_t n = decodeUtf8At(s, i, cp);
    if (n == 0) cp = static_cast<unsigned char>(s[i]), n = 1;
    if (cp >= 0x10000) {
      unit(0xD800 + ((cp - 0x10000) >> 10));
      unit(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      unit(cp);
    }
    i += n;
  }
  return out;
}

std::string hexCodePoint(char32_t cp) {
  static const char digits[] = "0123456789ABCDEF";
  std::string h;
  for (int shift = cp > 0xFFFF ? 20 : 12; shift >= 0; shift -= 4) h += digits[(cp >> shift) & 0xF];
  return "U+" + h;
}

// Walks the serialised markup so that each character not in the encoding is
// written in the form its context allows.
std::string encodeSingleByte(std::string_view s, Encoding encoding) {
  enum class Ctx { Text, Tag, Attr, CData, Comment, Pi, Doctype };
  Ctx ctx = Ctx::Text;
  char quote = 0;
  int depth = 0;
  std::string out;
  out.reserve(s.size());
  size_t i = 0;
  auto at = [&](std::string_view marker) { return s.substr(i, marker.size()) == marker; };
  auto take = [&](std::string_view marker, Ctx next) {
    out += marker;
    i += marker.size();
    ctx = next;
  };
  while (i < s.size()) {
    const char c = s[i];
    switch (ctx) {
      case Ctx::Text:
        if (c == '<') {
          if (at("<![CDATA[")) take("<![CDATA[", Ctx::CData);
          else if (at("<!--")) take("<!--", Ctx::Comment);
          else if (at("<?")) take("<?", Ctx::Pi);
          else if (at("<!")) depth = 0, take("<!", Ctx::Doctype);
          else take("<", Ctx::Tag);
          continue;
        }
        break;
      case Ctx::Tag:
        if (c == '"' || c == '\'') quote = c, ctx = Ctx::Attr;
        else if (c == '>') ctx = Ctx::Text;
        break;
      case Ctx::Attr:
        if (c == quote) ctx = Ctx::Tag;
        break;
      case Ctx::CData:
        if (at("]]>")) {
          take("]]>", Ctx::Text);
          continue;
        }
        break;
      case Ctx::Comment:
        if (at("-->")) {
          take("-->", Ctx::Text);
          continue;
        }
        break;
      case Ctx::Pi:
        if (at("?>")) {
          take("?>", Ctx::Text);
          continue;
        }
        break;
      case Ctx::Doctype:
        if (c == '[') ++depth;
        else if (c == ']') --depth;
        else if (c == '>' && depth <= 0) ctx = Ctx::Text;
        break;
    }
    char32_t cp;
    size_t n = decodeUtf8At(s, i, cp);
    if (n == 0) cp = static_cast<unsigned char>(c), n = 1;
    i += n;
    const int byte = singleByteOf(cp, encoding);
    if (byte >= 0) {
      out += static_cast<char>(byte);
    } else if (ctx == Ctx::Text || ctx == Ctx::Attr) {
      out += "&#" + std::to_string(static_cast<uint32_t>(cp)) + ";";
    } else if (ctx == Ctx::CData) {
      out += "]]>&#" + std::to_string(static_cast<uint32_t>(cp)) + ";<![CDATA[";
    } else {
      throw Error(kErrInvalidArgument, "",
                  "Character " + hexCodePoint(cp) + " cannot be written in " + encodingName(encoding) +
                      " in a name, comment or processing instruction");
    }
  }
  return out;
}

}  // namespace

std::optional<Encoding> encodingFromName(std::string_view name) {
  while (!name.empty() && isBlank(name.front())) name.remove_prefix(1);
  while (!name.empty() && isBlank(name.back())) name.remove_suffix(1);
  std::string up(name);
  for (char& c : up)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  if (up == "UTF-8" || up == "UTF8") return Encoding::Utf8;
  if (up == "UTF-16" || up == "UTF16" || up == "UTF-16LE" || up == "UTF16LE") return Encoding::Utf16LE;
  if (up == "UTF-16BE" || up == "UTF16BE") return Encoding::Utf16BE;
  if (up == "ISO-8859-1" || up == "ISO8859-1" || up == "ISO_8859-1" || up == "LATIN1" || up == "LATIN-1")
    return Encoding::Latin1;
  if (up == "WINDOWS-1252" || up == "CP1252") return Encoding::Windows1252;
  if (up == "US-ASCII" || up == "ASCII") return Encoding::Ascii;
  return std::nullopt;
}

std::string declaredEncoding(std::string_view data) {
  for (size_t pos = data.find("encoding"); pos != std::string_view::npos;
       pos = data.find("encoding", pos + 1)) {
    size_t i = pos + 8;
    while (i < data.size() && isBlank(data[i])) ++i;
    if (i >= data.size() || data[i] != '=') continue;
    ++i;
    while (i < data.size() && isBlank(data[i])) ++i;
    if (i >= data.size() || (data[i] != '"' && data[i] != '\'')) continue;
    const size_t end = data.find(data[i], i + 1);
    if (end == std::string_view::npos) continue;
    return std::string(data.substr(i + 1, end - i - 1));
  }
  return {};
}

namespace {

// Length of the longest valid UTF-8 prefix of `bytes`.
size_t validUtf8Prefix(std::string_view bytes) {
  size_t i = 0;
  while (i < bytes.size()) {
    // Documents are mostly ASCII: skip it eight bytes at a time.
    while (i + 8 <= bytes.size()) {
      uint64_t chunk;
      std::memcpy(&chunk, bytes.data() + i, sizeof chunk);
      if (chunk & 0x8080808080808080ull) break;
      i += 8;
    }
    if (i >= bytes.size()) break;
    char32_t cp;
    const size_t n = decodeUtf8At(bytes, i, cp);
    if (n == 0) return i;
    i += n;
  }
  return bytes.size();
}

template <class Text>
Decoded validatedUtf8(Text&& bytes) {
  std::string_view view(bytes);
  const size_t bom = view.substr(0, 3) == "\xEF\xBB\xBF" ? 3 : 0;
  view.remove_prefix(bom);
  Decoded d;
  const size_t valid = validUtf8Prefix(view);
  if (valid != view.size()) {
    d.utf8.assign(view.substr(0, valid));
    d.code = kCodeInvalidCharacter;
    d.reason = "Invalid UTF-8 byte sequence; the text is not in the encoding it declares";
    return d;
  }
  if constexpr (std::is_same_v<std::decay_t<Text>, std::string>) {
    // The file's own buffer becomes the text: no copy of a large document.
    d.utf8 = std::move(bytes);
    if (bom) d.utf8.erase(0, bom);
  } else {
    d.utf8.assign(view);
  }
  return d;
}

template <class Text>
Decoded decodeAny(Text&& text) {
  const std::string_view bytes(text);
  auto starts = [&](std::string_view p) { return bytes.substr(0, p.size()) == p; };
  if (starts("\xEF\xBB\xBF")) return validatedUtf8(std::forward<Text>(text));
  if (starts("\xFF\xFE")) return decodeUtf16(bytes.substr(2), false);
  if (starts("\xFE\xFF")) return decodeUtf16(bytes.substr(2), true);
  if (starts(std::string_view("<\0?\0", 4))) return decodeUtf16(bytes, false);
  if (starts(std::string_view("\0<\0?", 4))) return decodeUtf16(bytes, true);

  std::string name;
  if (starts("<?xml") && bytes.size() > 5 && isBlank(bytes[5])) {
    const size_t end = bytes.substr(0, 4096).find("?>");
    if (end != std::string_view::npos) name = declaredEncoding(bytes.substr(5, end - 5));
  }
  if (name.empty()) return validatedUtf8(std::forward<Text>(text));
  const auto encoding = encodingFromName(name);
  if (!encoding) {
    Decoded d;
    d.code = kCodeUnsupportedEncoding;
    d.reason = "Encoding \"" + name + "\" is not supported";
    return d;
  }
  switch (*encoding) {
    case Encoding::Latin1:
    case Encoding::Windows1252:
      return decodeSingleByte(bytes, *encoding);
    default:
      // A UTF-16 declaration over single-byte text: the bytes tell the truth.
      return validatedUtf8(std::forward<Text>(text));
  }
}

}  // namespace

Decoded decodeUtf8(std::string_view bytes) { return validatedUtf8(bytes); }

Decoded decodeDocument(std::string_view bytes) { return decodeAny(bytes); }

Decoded decodeDocument(std::string&& bytes) { return decodeAny(std::move(bytes)); }

std::string encodeDocument(std::string_view utf8, Encoding encoding) {
  switch (encoding) {
    case Encoding::Utf8:
      return std::string(utf8);
    case Encoding::Utf16LE:
      return encodeUtf16(utf8, false);
    case Encoding::Utf16BE:
      return encodeUtf16(utf8, true);
    default:
      return encodeSingleByte(utf8, encoding);
  }
}

namespace {

// The XML character production.
bool isXmlChar(uint32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
         (c >= 0x10000 && c <= 0x10FFFF);
}

// Skips from `i` (at "<!--", "<![CDATA[", "<?" or "<!") past the end of the
// construct; returns the text's size when it is not closed.
size_t skipLiteral(std::string_view t, size_t i) {
  auto past = [&](std::string_view close) {
    const size_t e = t.find(close, i);
    return e == std::string_view::npos ? t.size() : e + close.size();
  };
  if (t.compare(i, 4, "<!--") == 0) return past("-->");
  if (t.compare(i, 9, "<![CDATA[") == 0) return past("]]>");
  if (t.compare(i, 2, "<?") == 0) return past("?>");
  // A document type: its internal subset in brackets may hold '>'.
  size_t k = i + 2;
  int brackets = 0;
  for (; k < t.size(); ++k) {
    if (t[k] == '[') ++brackets;
    if (t[k] == ']') --brackets;
    if (t[k] == '>' && brackets <= 0) return k + 1;
  }
  return t.size();
}

bool isNameEnd(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '>' || c == '/' || c == '='; }

// Where the byte at `offset` stands, for a message: walks the tags before
// it with a stack of open elements (only on the path of a refused document).
std::string placeOf(std::string_view t, size_t offset) {
  std::vector<std::string_view> open;
  size_t i = 0;
  while (i < offset) {
    if (t[i] != '<') {
      ++i;
      continue;
    }
    if (t.compare(i, 2, "<!") == 0 || t.compare(i, 2, "<?") == 0) {
      const size_t end = skipLiteral(t, i);
      if (end > offset) {
        const bool cdata = t.compare(i, 9, "<![CDATA[") == 0;
        const std::string inside = open.empty() ? "" : " of element \"" + std::string(open.back()) + "\"";
        return cdata ? "in a CDATA section" + inside : "in a comment, instruction or document type" + inside;
      }
      i = end;
      continue;
    }
    const bool closing = t.compare(i, 2, "</") == 0;
    size_t n = i + (closing ? 2 : 1);
    const size_t nameBegin = n;
    while (n < t.size() && !isNameEnd(t[n])) ++n;
    const std::string_view name = t.substr(nameBegin, n - nameBegin);
    // The end of the tag, quotes respected.
    char quote = 0;
    size_t e = n;
    for (; e < t.size(); ++e) {
      if (quote != 0) {
        if (t[e] == quote) quote = 0;
      } else if (t[e] == '"' || t[e] == '\'') {
        quote = t[e];
      } else if (t[e] == '>') {
        break;
      }
    }
    if (e >= offset) {
      // Inside this tag: the attribute is the name before the '=' that
      // opens the value holding the offset.
      size_t q = offset;
      while (q > n && t[q] != '"' && t[q] != '\'') --q;
      size_t a = q;
      while (a > n && t[a - 1] != '=') --a;
      if (a > n) --a;
      while (a > n && (t[a - 1] == ' ' || t[a - 1] == '\t' || t[a - 1] == '\r' || t[a - 1] == '\n')) --a;
      size_t b = a;
      while (b > n && !(t[b - 1] == ' ' || t[b - 1] == '\t' || t[b - 1] == '\r' || t[b - 1] == '\n')) --b;
      return "in attribute \"" + std::string(t.substr(b, a - b)) + "\" of element \"" + std::string(name) + "\"";
    }
    if (closing) {
      if (!open.empty()) open.pop_back();
    } else if (!(e > 0 && t[e - 1] == '/')) {
      open.push_back(name);
    }
    i = e + 1;
  }
  return open.empty() ? "outside the root element" : "in the text of element \"" + std::string(open.back()) + "\"";
}

std::string codePointText(uint32_t c) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, "U+%04X", static_cast<unsigned>(c));
  return buffer;
}

}  // namespace

bool checkXmlCharacters(std::string_view t, size_t& offset, std::string& reason) {
  const auto refuse = [&](size_t at, std::string what) {
    offset = at;
    reason = std::move(what) + " " + placeOf(t, at) + " is not a character an XML document may hold";
    return false;
  };
  size_t i = 0;
  const size_t size = t.size();
  while (i < size) {
    const auto b = static_cast<unsigned char>(t[i]);
    if (b >= 0x20 && b != '&' && b != '<' && b != 0xEF) {
      ++i;
      continue;
    }
    if (b < 0x20) {
      if (b != '\t' && b != '\n' && b != '\r') return refuse(i, "The control character " + codePointText(b));
      ++i;
    } else if (b == 0xEF) {
      // U+FFFE and U+FFFF (EF BF BE, EF BF BF); the text is valid UTF-8.
      if (i + 2 < size && static_cast<unsigned char>(t[i + 1]) == 0xBF &&
          (static_cast<unsigned char>(t[i + 2]) & 0xFE) == 0xBE)
        return refuse(i, "The character " + codePointText(0xFFFEu + (static_cast<unsigned char>(t[i + 2]) & 1u)));
      ++i;
    } else if (b == '<') {
      // Literal constructs: references there are text. Control characters
      // are still looked for, so they are walked byte by byte.
      if (i + 1 < size && (t[i + 1] == '!' || t[i + 1] == '?')) {
        const size_t end = skipLiteral(t, i);
        for (size_t k = i; k < end; ++k) {
          const auto c = static_cast<unsigned char>(t[k]);
          if (c < 0x20 && c != '\t' && c != '\n' && c != '\r')
            return refuse(k, "The control character " + codePointText(c));
        }
        i = end;
      } else {
        ++i;
      }
    } else {  // '&'
      if (i + 1 < size && t[i + 1] == '#') {
        size_t k = i + 2;
        const bool hexadecimal = k < size && t[k] == 'x';
        if (hexadecimal) ++k;
        uint32_t c = 0;
        bool digits = false;
        for (; k < size; ++k) {
          const char d = t[k];
          int v = -1;
          if (d >= '0' && d <= '9') v = d - '0';
          else if (hexadecimal && d >= 'a' && d <= 'f') v = d - 'a' + 10;
          else if (hexadecimal && d >= 'A' && d <= 'F') v = d - 'A' + 10;
          if (v < 0) break;
          digits = true;
          c = c > 0x10FFFF ? c : c * (hexadecimal ? 16 : 10) + static_cast<uint32_t>(v);
        }
        // A malformed reference is left to the parser's own message.
        if (digits && k < size && t[k] == ';' && !isXmlChar(c))
          return refuse(i, "The character reference \"" + std::string(t.substr(i, k + 1 - i)) + "\"");
        i = k;
      } else {
        ++i;
      }
    }
  }
  return true;
}

void lineColumn(std::string_view utf8, size_t offset, long& line, long& column) {
  if (offset > utf8.size()) offset = utf8.size();
  line = 1;
  column = 1;
  for (size_t i = 0; i < offset; ++i) {
    const auto b = static_cast<unsigned char>(utf8[i]);
    if (b == '\n') {
      ++line;
      column = 1;
    } else if ((b & 0xC0) != 0x80) {
      ++column;
    }
  }
}

}  // namespace kavrel::xml::detail
