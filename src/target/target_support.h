// Helpers shared by the target files: XML layout (one line feed before each
// child element), tolerant attribute reads, Null-tolerant field reads and
// error rethrowing with a prefix.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/platform/xml.h"

namespace kavrel::target {

inline std::string num(int32_t v) { return std::to_string(v); }

// Appends a line feed, then a new child element, so that every child starts
// on its own line.
inline xml::Node addLine(xml::Node parent, std::string_view name) {
  parent.appendText("\n");
  return parent.appendElement(name);
}

// The line feed after the last child of an element.
inline void endLines(xml::Node el) { el.appendText("\n"); }

// Reads an integer attribute. Missing: false, `out` untouched. A text that
// is not a number leaves `out` untouched and records the conversion error.
inline bool attrInt(const xml::Node& el, std::string_view name, int32_t& out, std::string_view where) {
  if (el.isNull()) return false;
  std::optional<std::string> v = el.attribute(name);
  if (!v) return false;
  try {
    out = text::toInt(*v);
    return true;
  } catch (const Error& e) {
    recordError(e.number(), std::string(where),
                el.name() + "/@" + std::string(name) + " \"" + *v + "\": " + e.description());
  }
  return false;
}

inline bool attrBool(const xml::Node& el, std::string_view name, bool& out, std::string_view where) {
  if (el.isNull()) return false;
  std::optional<std::string> v = el.attribute(name);
  if (!v) return false;
  try {
    out = text::toBool(*v);
    return true;
  } catch (const Error& e) {
    recordError(e.number(), std::string(where),
                el.name() + "/@" + std::string(name) + " \"" + *v + "\": " + e.description());
  }
  return false;
}

inline bool attrText(const xml::Node& el, std::string_view name, std::string& out) {
  if (el.isNull()) return false;
  std::optional<std::string> v = el.attribute(name);
  if (!v) return false;
  out = std::move(*v);
  return true;
}

// Field reads where a Null keeps the property's value.
inline void fieldInt(db::Recordset& rs, int index, int32_t& out) {
  const db::Value& v = rs.field(index);
  if (!v.isNull()) out = v.toInt32();
}
inline void fieldInt(db::Recordset& rs, std::string_view name, int32_t& out) {
  const db::Value& v = rs.field(name);
  if (!v.isNull()) out = v.toInt32();
}
inline void fieldBool(db::Recordset& rs, int index, bool& out) {
  const db::Value& v = rs.field(index);
  if (!v.isNull()) out = v.toBool();
}
inline void fieldBool(db::Recordset& rs, std::string_view name, bool& out) {
  const db::Value& v = rs.field(name);
  if (!v.isNull()) out = v.toBool();
}

// Text or Null: an empty text is stored as Null.
inline db::Value textOrNull(const std::string& s) { return s.empty() ? db::Value() : db::Value(s); }

// Throws `e` again with `prefix` before its description, keeping its number
// and source (and, for a database error, the backend's details).
[[noreturn]] inline void rethrowWithPrefix(const Error& e, std::string_view prefix) {
  std::string description = std::string(prefix) + e.description();
  if (auto* dbe = dynamic_cast<const DbError*>(&e))
    throw DbError(e.number(), e.rawSource(), std::move(description), dbe->backendCode(), dbe->backendMessage());
  throw Error(e.number(), e.rawSource(), std::move(description));
}

}  // namespace kavrel::target
