// Helpers shared by the screen files: the parent chain up to the target,
// font sizes as text, and tolerant reads of attributes and fields.
#pragma once

#include <charconv>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/text.h"
#include "kavrel/platform/xml.h"
#include "kavrel/screens/category_items.h"
#include "kavrel/screens/screen_items.h"
#include "kavrel/target/target_item.h"

namespace kavrel::screens {

inline std::string num(int32_t v) { return std::to_string(v); }
inline const char* bit(bool v) { return v ? "1" : "0"; }

// The target of a screen through its category; throws 100 "Parent not
// defined" when a link is missing.
inline std::shared_ptr<TargetItem> requireTarget(const std::shared_ptr<ScreenItem>& screen) {
  auto target = screen ? screen->target() : nullptr;
  if (!target) raise(100, "", "Parent not defined");
  return target;
}
inline std::shared_ptr<ScreenItem> requireScreen(const std::shared_ptr<ScreenItem>& screen) {
  if (!screen) raise(100, "", "Parent not defined");
  return screen;
}

// A font size as the SQL texts and documents write it: a leading blank
// before a non-negative number, "." as decimal point, a float's shortest
// digits (8.25 -> " 8.25", 12 -> " 12").
inline std::string sizeText(float v) { return text::numberToText(static_cast<double>(v)); }

// A decimal number with "," taken as "."; blanks around are allowed.
// Anything else throws error 13 "Type mismatch".
inline float parseSize(std::string_view s) {
  std::string t = text::trim(text::replaceAll(s, ",", "."));
  double v = 0;
  const char* first = t.data();
  const char* last = t.data() + t.size();
  if (first != last && *first == '+') ++first;
  auto [end, ec] = std::from_chars(first, last, v);
  if (t.empty() || ec != std::errc() || end != last) raise(kErrTypeMismatch, "", "Type mismatch");
  return static_cast<float>(v);
}

// Attribute reads that leave `out` alone when the attribute is missing or
// does not convert (the conversion error is recorded).
inline void attrInt(const xml::Node& el, std::string_view name, int32_t& out) {
  if (el.isNull()) return;
  if (auto v = el.attribute(name)) trap([&] { out = text::toInt(*v); });
}
inline void attrBool(const xml::Node& el, std::string_view name, bool& out) {
  if (el.isNull()) return;
  if (auto v = el.attribute(name)) trap([&] { out = text::toBool(*v); });
}
inline void attrSize(const xml::Node& el, std::string_view name, float& out) {
  if (el.isNull()) return;
  if (auto v = el.attribute(name)) trap([&] { out = parseSize(*v); });
}
inline void attrText(const xml::Node& el, std::string_view name, std::string& out) {
  if (el.isNull()) return;
  if (auto v = el.attribute(name)) out = std::move(*v);
}

// Field reads where a Null keeps the property's value.
inline void fieldInt(db::Recordset& rs, int index, int32_t& out) {
  const db::Value& v = rs.field(index);
  if (!v.isNull()) out = v.toInt32();
}
inline void fieldBool(db::Recordset& rs, int index, bool& out) {
  const db::Value& v = rs.field(index);
  if (!v.isNull()) out = v.toBool();
}
inline void fieldFloat(db::Recordset& rs, int index, float& out) {
  const db::Value& v = rs.field(index);
  if (!v.isNull()) out = static_cast<float>(v.toDouble());
}
inline void fieldText(db::Recordset& rs, int index, std::string& out) {
  const db::Value& v = rs.field(index);
  if (!v.isNull()) out = v.toText();
}

// Keeps the error pending when a loader starts and drops what the loader
// itself left pending: a collection's loadXml signals per element, and its
// caller only ever sees what was pending before.
class KeepPendingError {
 public:
  KeepPendingError() : saved_(lastError()) {}
  ~KeepPendingError() { lastError() = saved_; }
  KeepPendingError(const KeepPendingError&) = delete;
  KeepPendingError& operator=(const KeepPendingError&) = delete;

 private:
  ErrorRecord saved_;
};

inline db::Value textOrNull(const std::string& s) { return s.empty() ? db::Value() : db::Value(s); }
// Booleans of the screen tables are stored as 1/0.
inline db::Value flag(bool v) { return db::Value(int32_t{v ? 1 : 0}); }

}  // namespace kavrel::screens

namespace kavrel::detail {
// One row of the label SELECT (column order of Titres' read) into `l`.
void readLabelRow(db::Recordset& rs, LabelItem& l);
// One row of the button SELECT ([Button Id] first) into `b`.
void readButtonRow(db::Recordset& rs, ButtonItem& b);
// One row of the scenario SELECT ([Index], [Address], [Ecu Id], [Request
// Name], [Delay]) as a new step of `button`, linked to the target's request.
void readScenarioRow(db::Recordset& rs, const std::shared_ptr<ButtonItem>& button,
                     const std::shared_ptr<TargetItem>& target);
// Makes `button` its screen's initial button when it is the first whose id
// equals the screen's InitId.
void linkInitButton(ScreenItem& screen, const std::shared_ptr<ButtonItem>& button);
}  // namespace kavrel::detail
