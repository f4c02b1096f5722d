// Helpers shared by the four catalogue files: reading optional attributes
// inside the entries' error-suppressing loadXml, rethrowing database errors
// with a prefix, and the catalogue loadXml loop.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/platform/xml.h"

namespace kavrel::catalogue {

enum class AttrRead { Missing, Read, Bad };

// Reads the value selected by `xpath` (relative to `node`) as an integer.
// A missing value leaves `out` alone. A text that is not a number leaves
// `out` alone too and records the conversion error, naming `where` and the
// path, as the pending error.
inline AttrRead readInt(const xml::Node& node, std::string_view xpath, int32_t& out, std::string_view where) {
  std::optional<std::string> v;
  if (!trap([&] { v = node.selectString(xpath); })) return AttrRead::Bad;
  if (!v) return AttrRead::Missing;
  try {
    out = text::toInt(*v);
    return AttrRead::Read;
  } catch (const Error& e) {
    recordError(e.number(), "",
                std::string(where) + " : " + std::string(xpath) + " \"" + *v + "\": " + e.description());
  }
  return AttrRead::Bad;
}

inline AttrRead readBool(const xml::Node& node, std::string_view xpath, bool& out, std::string_view where) {
  std::optional<std::string> v;
  if (!trap([&] { v = node.selectString(xpath); })) return AttrRead::Bad;
  if (!v) return AttrRead::Missing;
  try {
    out = text::toBool(*v);
    return AttrRead::Read;
  } catch (const Error& e) {
    recordError(e.number(), "",
                std::string(where) + " : " + std::string(xpath) + " \"" + *v + "\": " + e.description());
  }
  return AttrRead::Bad;
}

// Runs `step`; a failure is thrown again with `prefix` before its
// description, keeping number and source (and the backend's details).
template <class F>
void withErrorPrefix(std::string_view prefix, F&& step) {
  try {
    std::forward<F>(step)();
  } catch (const DbError& e) {
    throw DbError(e.number(), e.rawSource(), std::string(prefix) + e.description(), e.backendCode(),
                  e.backendMessage());
  } catch (const Error& e) {
    throw Error(e.number(), e.rawSource(), std::string(prefix) + e.description());
  }
}

// The catalogues' loadXml: each child element named `name` becomes a new
// entry; an entry whose reading left an error pending is not added. The
// first such error is left pending at the end so that a caller sees that
// entries were dropped.
template <class Collection>
void loadEntries(Collection& c, xml::Document& odoc, const xml::Node& parNode, std::string_view name) {
  if (parNode.isNull()) return;
  ErrorRecord firstFailure;
  for (const xml::Node& node : parNode.selectNodes(name)) {
    auto e = std::make_shared<typename Collection::Element>();
    e->loadXml(odoc, node);
    if (!lastError().pending())
      c.AddData(e);
    else if (!firstFailure.pending())
      firstFailure = lastError();
  }
  if (firstFailure.pending()) lastError() = firstFailure;
}

// The catalogues' createXMLnode: a line feed and an element per entry, and
// one more line feed after the last.
template <class Collection>
void writeEntries(const Collection& c, xml::Document& odoc, xml::Node parent, std::string_view name) {
  for (const auto& e : c) {
    parent.appendText("\n");
    xml::Node el = parent.appendElement(name);
    e->createXMLnode(odoc, el);
  }
  parent.appendText("\n");
}

// DbRead of the (id, label) catalogues, with errors suppressed throughout: a
// failing SELECT records error 1 `missingTable` and gives false; a row that
// cannot be read is skipped, its error left pending.
template <class Collection>
bool readIdLabelRows(Collection& c, db::Connection& conn, std::string_view sql, std::string_view idColumn,
                     std::string_view missingTable) {
  clearLastError();
  std::unique_ptr<db::Recordset> rs;
  if (!trap([&] { rs = conn.execute(sql); })) {
    clearLastError();
    recordError(1, "", std::string(missingTable));
    return false;
  }
  for (;;) {
    bool atEnd = true;
    if (!trap([&] { atEnd = rs->eof(); }) || atEnd) break;
    trap([&] { c.Add(rs->field(idColumn).toInt32(), rs->field("Libelle").toText()); });
    // A cursor that cannot move would loop for ever.
    if (!trap([&] { rs->moveNext(); })) break;
  }
  trap([&] { rs->close(); });
  return true;
}

}  // namespace kavrel::catalogue
