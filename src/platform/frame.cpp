#include "kavrel/platform/frame.h"

#include "kavrel/error.h"

namespace kavrel {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Blanks of any kind (a frame typed in an XML file may span lines) and the
// usual byte separators.
bool isSeparator(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == ',' || c == '-' || c == ':';
}

// 1-based character position of a byte index (texts are UTF-8).
size_t charPos(const std::string& s, size_t byteIndex) {
  size_t pos = 1;
  for (size_t k = 0; k < byteIndex && k < s.size(); ++k)
    if ((static_cast<unsigned char>(s[k]) & 0xC0) != 0x80) ++pos;
  return pos;
}

[[noreturn]] void badFrame(const std::string& text, const std::string& why) {
  raise(kErrTypeMismatch, "ByteFrame",
        "Invalid byte frame '" + text + "' : " + why + " (expected hexadecimal pairs such as \"21 0A\")");
}

}  // namespace

std::shared_ptr<ByteFrame> ByteFrame::fromStored(const db::Value& stored) {
  auto f = std::make_shared<ByteFrame>();
  if (!stored.isNull()) {
    f->text_ = stored.toText();
    f->null_ = false;
  }
  return f;
}

std::shared_ptr<ByteFrame> ByteFrame::fromText(std::string_view text) {
  auto f = std::make_shared<ByteFrame>();
  f->text_ = std::string(text);
  // An empty element cannot tell an empty text from a missing frame: both
  // are stored as Null.
  f->null_ = text.empty();
  return f;
}

db::Value ByteFrame::storedValue() const {
  if (null_) return db::Value();
  return db::Value(text_);
}

std::vector<uint8_t> ByteFrame::bytes() const {
  std::vector<uint8_t> out;
  out.reserve(text_.size() / 2);
  size_t i = 0;
  const size_t n = text_.size();
  while (i < n) {
    if (isSeparator(text_[i])) {
      ++i;
      continue;
    }
    // A run of hexadecimal digits up to the next separator: one or more
    // whole pairs.
    size_t start = i;
    while (i < n && !isSeparator(text_[i])) {
      if (hexDigit(text_[i]) < 0) {
        // Name the whole character, not one byte of it.
        size_t end = i + 1;
        while (end < n && (static_cast<unsigned char>(text_[end]) & 0xC0) == 0x80) ++end;
        badFrame(text_, "character '" + text_.substr(i, end - i) + "' at position " + std::to_string(charPos(text_, i)) +
                            " is not a hexadecimal digit");
      }
      ++i;
    }
    size_t len = i - start;
    if (len % 2 != 0)
      badFrame(text_, "'" + text_.substr(start, len) + "' at position " + std::to_string(charPos(text_, start)) +
                          " has an odd number of digits");
    for (size_t k = start; k < i; k += 2)
      out.push_back(static_cast<uint8_t>(hexDigit(text_[k]) * 16 + hexDigit(text_[k + 1])));
  }
  return out;
}

std::shared_ptr<ByteFrame> ByteFrame::fromBytes(const std::vector<uint8_t>& bytes) {
  static const char digits[] = "0123456789ABCDEF";
  std::string t;
  t.reserve(bytes.size() * 3);
  for (size_t k = 0; k < bytes.size(); ++k) {
    if (k) t.push_back(' ');
    t.push_back(digits[bytes[k] >> 4]);
    t.push_back(digits[bytes[k] & 0x0F]);
  }
  return fromText(t);
}

}  // namespace kavrel
