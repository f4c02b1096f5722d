// The byte frames of requests (sent bytes, expected reply bytes). The frame
// is kept exactly as the database column holds it and given back unchanged,
// both as the value to store and as the text written into XML; the library
// never interprets it, except for the one service users need: the bytes of a
// frame written as hexadecimal pairs.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kavrel/platform/db.h"

namespace kavrel {

class ByteFrame {
 public:
  ByteFrame() = default;
  // A frame loaded from a stored column value (Null gives an empty frame).
  static std::shared_ptr<ByteFrame> fromStored(const db::Value& stored);
  // A frame from its XML text.
  static std::shared_ptr<ByteFrame> fromText(std::string_view text);

  // The value to store: the frame as it was loaded (Null for an empty frame).
  db::Value storedValue() const;
  // The text written into XML.
  const std::string& text() const { return text_; }
  bool empty() const { return text_.empty(); }

  // The bytes of a frame written as hexadecimal pairs ("21 0A", "210A",
  // "21,0a" — separators are blanks, commas, dashes or colons). Text that is
  // not such a frame throws kavrel::Error 13 with a description naming it.
  std::vector<uint8_t> bytes() const;
  // A frame holding these bytes as upper-case pairs separated by blanks.
  static std::shared_ptr<ByteFrame> fromBytes(const std::vector<uint8_t>& bytes);

 private:
  std::string text_;
  bool null_ = true;
};

}  // namespace kavrel
