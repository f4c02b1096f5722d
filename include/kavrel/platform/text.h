// Text conversions with the legacy semantics the documents and SQL texts
// rely on. Texts are UTF-8; lengths count characters, not bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kavrel::text {

// Integer of a text: optional blanks and sign, digits, optionally a decimal
// part ("." separator) rounded half to even. Anything else throws error 13
// "Type mismatch"; out of 32-bit range throws error 6 "Overflow".
int32_t toInt(std::string_view s);

// Number read up to the first character that is not part of one; leading
// blanks skipped; "12,5" reads 12; no number at all reads 0. Never throws.
double val(std::string_view s);

// A decimal with "," taken as "." rounded half to even: "10,6" gives 11,
// " 10" gives 10, "2.5" gives 2. Not a number: error 13.
int32_t toRoundedInt(std::string_view s);

// Boolean of a text: "True"/"False" (any letter case) or a number (non-zero
// is true, so "1" and "-1" are true, "0" false). Anything else: error 13.
bool toBool(std::string_view s);

// Number-to-text with a leading blank for a non-negative number and "." as
// decimal point: 12.5 -> " 12.5", 10 -> " 10", -3 -> "-3".
std::string numberToText(double v);

// The general decimal text of a double: the shortest text that reads back
// as the same value ("1.5", "0.1", "1e-05", "12").
std::string decimalText(double v);

// Character (code point) helpers for UTF-8 texts.
size_t length(std::string_view s);
// The first n characters.
std::string left(std::string_view s, size_t n);
// The last n characters.
std::string right(std::string_view s, size_t n);
// Blanks (spaces) removed at both ends, like the legacy Trim.
std::string trim(std::string_view s);
// The same, reusing the text's own storage.
std::string trim(std::string&& s);
std::string trim(const char* s);
// ASCII letters lowered; other characters as they are, except the Latin-1
// supplement capitals (À..Þ) which are lowered too.
std::string lower(std::string_view s);
std::string upper(std::string_view s);
// Case-insensitive equality in the sense of lower().
bool iequals(std::string_view a, std::string_view b);
// Replaces every occurrence of `from` by `to`.
std::string replaceAll(std::string_view s, std::string_view from, std::string_view to);
// Appends the UTF-8 encoding of one code point.
void appendUtf8(std::string& out, char32_t cp);
// Upper-case hexadecimal of a 32-bit value, no leading zeros ("A", "FF").
std::string hex(int32_t v);

}  // namespace kavrel::text
