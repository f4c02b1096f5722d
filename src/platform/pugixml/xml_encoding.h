// Byte encodings of XML files: detection and decoding on load, encoding on
// save. The DOM itself always holds UTF-8.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kavrel::xml::detail {

enum class Encoding { Utf8, Utf16LE, Utf16BE, Latin1, Windows1252, Ascii };

// The encoding of a name as found in declarations ("UTF-8", "utf-16",
// "ISO-8859-1", "latin1", "windows-1252", "US-ASCII"...), letter case and
// surrounding blanks ignored. "UTF-16" means little-endian.
std::optional<Encoding> encodingFromName(std::string_view name);

// The value of the encoding pseudo-attribute in the data of an "xml"
// declaration (empty when there is none).
std::string declaredEncoding(std::string_view declarationData);

// Codes reported by the decoder (beyond the XML parser's own codes).
inline constexpr int kCodeUnsupportedEncoding = 100;
inline constexpr int kCodeInvalidCharacter = 101;

struct Decoded {
  std::string utf8;  // on failure: the text decoded before the fault
  int code = 0;
  std::string reason;
};

// Turns the bytes of a file into UTF-8: a byte-order mark wins, then the
// layout of "<?" (UTF-16 without mark), then the declaration's encoding;
// UTF-8 when nothing says otherwise. UTF-8 input is validated.
Decoded decodeDocument(std::string_view bytes);
// The same, taking over the buffer when the bytes are already UTF-8.
Decoded decodeDocument(std::string&& bytes);
// Validates UTF-8 text, dropping a leading byte-order mark.
Decoded decodeUtf8(std::string_view bytes);

// Encodes the UTF-8 text of a serialised document. Characters the target
// encoding lacks become character references in text and attribute values
// (and in CDATA sections, which are closed around them); in names, comments
// and processing instructions they throw kavrel::Error 5. UTF-16 output
// starts with a byte-order mark. Bytes that are not valid UTF-8 are taken
// as Latin-1 characters.
std::string encodeDocument(std::string_view utf8, Encoding encoding);

// Checks that the UTF-8 text of a document holds only characters an XML
// document may hold, written or referred to ("&#0;", "&#xD800;", a raw
// control character or U+FFFE are not): the parser would take them, and the
// values made of them could neither be stored faithfully (a NUL ends a
// value) nor written back. References inside CDATA sections, comments,
// processing instructions and the document type are literal text and are
// not read. Returns true when the text is clean; else false with the byte
// offset of the fault and a reason naming the character and where it
// stands (element and attribute, or the element whose text holds it).
bool checkXmlCharacters(std::string_view utf8, size_t& offset, std::string& reason);

// Line and column (1-based, column in characters) of a byte offset in UTF-8 text.
void lineColumn(std::string_view utf8, size_t offset, long& line, long& column);

}  // namespace kavrel::xml::detail
