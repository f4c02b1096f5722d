// Result sets held in memory, shared by the engines: field names matched
// without letter case, the errors of the result sets themselves, and the
// client-side result set with its filters.
#include "platform/memory_recordset.h"

#include "kavrel/platform/names.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>
#include <unordered_map>

namespace kavrel::db::memory {

namespace {

// Trims blanks and one pair of enclosing brackets.
std::string_view bareName(std::string_view name) {
  auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
  while (!name.empty() && isBlank(name.front())) name.remove_prefix(1);
  while (!name.empty() && isBlank(name.back())) name.remove_suffix(1);
  if (name.size() >= 2 && name.front() == '[' && name.back() == ']') name = name.substr(1, name.size() - 2);
  return name;
}

// Latin-1 supplement capitals U+00C0..U+00DE (but not U+00D7) are encoded
// C3 80..C3 9E; their small letters are 0x20 further in the second byte.
bool isLatin1CapitalTail(unsigned char c) { return c >= 0x80 && c <= 0x9E && c != 0x97; }

// Compares an already folded name with a raw one, folding on the fly: no
// allocation, since field lookups run once per value of a bulk insert.
bool foldedEquals(std::string_view folded, std::string_view raw) {
  if (folded.size() != raw.size()) return false;  // folding keeps byte lengths
  for (size_t i = 0; i < raw.size(); ++i) {
    auto c = static_cast<unsigned char>(raw[i]);
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<unsigned char>(c + 32);
    } else if (c == 0xC3 && i + 1 < raw.size()) {
      auto n = static_cast<unsigned char>(raw[i + 1]);
      if (isLatin1CapitalTail(n)) n = static_cast<unsigned char>(n + 0x20);
      if (static_cast<unsigned char>(folded[i]) != 0xC3 || static_cast<unsigned char>(folded[i + 1]) != n) {
        return false;
      }
      ++i;
      continue;
    }
    if (static_cast<unsigned char>(folded[i]) != c) return false;
  }
  return true;
}

}  // namespace

void throwRecordsetError(int32_t number, std::string description) {
  throw DbError(number, kRecordsetSource, description, 0, description);
}

void throwNoCurrentRow() {
  throwRecordsetError(kErrNoCurrentRow,
                      "Either BOF or EOF is True, or the current record has been deleted. Requested operation "
                      "requires a current record.");
}

void throwItemNotFound(std::string_view name) {
  std::string d = "Item cannot be found in the collection corresponding to the requested name or ordinal.";
  throw DbError(kErrItemNotFound, kRecordsetSource, d, 0, d + " (" + std::string(name) + ")");
}

void throwClosed() {
  throwRecordsetError(kErrObjectClosed, "Operation is not allowed when the object is closed.");
}

std::string foldName(std::string_view name) {
  std::string out(bareName(name));
  for (size_t i = 0; i < out.size(); ++i) {
    auto c = static_cast<unsigned char>(out[i]);
    if (c >= 'A' && c <= 'Z') {
      out[i] = static_cast<char>(c + 32);
    } else if (c == 0xC3 && i + 1 < out.size()) {
      auto n = static_cast<unsigned char>(out[i + 1]);
      if (isLatin1CapitalTail(n)) out[i + 1] = static_cast<char>(n + 0x20);
      ++i;
    }
  }
  return out;
}

void FieldNames::add(std::string name) {
  folded_.push_back(foldName(name));
  names_.push_back(std::move(name));
}

int FieldNames::find(std::string_view name) const {
  std::string_view bare = bareName(name);
  for (size_t i = 0; i < folded_.size(); ++i) {
    if (foldedEquals(folded_[i], bare)) return static_cast<int>(i);
  }
  return -1;
}

int FieldNames::require(std::string_view name) const {
  if (nextAsked_ < asked_.size() && asked_[nextAsked_].name == name) return asked_[nextAsked_++].index;
  for (size_t k = 0; k < asked_.size(); ++k) {
    if (asked_[k].name == name) {
      nextAsked_ = k + 1;
      return asked_[k].index;
    }
  }
  int i = find(name);
  if (i < 0) throwItemNotFound(name);
  constexpr size_t kMaxAsked = 64;  // a bound for callers that build names
  if (asked_.size() < kMaxAsked) asked_.push_back({std::string(name), i});
  nextAsked_ = asked_.size();
  return i;
}

void FieldNames::checkIndex(int index) const {
  if (index < 0 || index >= size()) throwItemNotFound(std::to_string(index));
}


namespace {

// --- filter keys ---------------------------------------------------------------
// Values are indexed by a key text: "n" for Null, "i" + the 8 bytes of an
// integer (also for a real without fraction, so 12 and 12.0 match), "r" + the
// 8 bytes of any other real, "t" + the name key of a text (so texts match
// by the name rule: "Lecture" finds "LECTURE", "e" does not find "é").

std::string integerKey(int64_t v) {
  std::string k(9, 'i');
  std::memcpy(k.data() + 1, &v, sizeof v);
  return k;
}

std::string realKey(double d) {
  if (std::isfinite(d) && d == std::trunc(d) && d >= -9.2e18 && d <= 9.2e18) {
    return integerKey(static_cast<int64_t>(d));
  }
  std::string k(9, 'r');
  std::memcpy(k.data() + 1, &d, sizeof d);
  return k;
}

std::string textKey(std::string_view t) {
  std::string k = "t";
  k.append(names::key(t));
  return k;
}

// The key of a value, written into `key` (a buffer reused from row to row:
// indexing a column then allocates only for the keys it keeps).
void setValueKey(std::string& key, const Value& v) {
  switch (v.type()) {
    case Value::Type::Null: key = "n"; return;
    case Value::Type::Integer: key = integerKey(v.rawInteger()); return;
    case Value::Type::Real: key = realKey(v.rawReal()); return;
    case Value::Type::Text:
      key.assign(1, 't');
      key.append(names::key(v.rawText()));
      return;
  }
  key = "n";
}

// The key of a number written in a filter or held by a text, or empty when
// the text is not a plain decimal number.
std::string numberKey(std::string_view s) {
  if (s.empty()) return {};
  std::string_view digits = s;
  bool negative = false;
  if (digits.front() == '-' || digits.front() == '+') {
    negative = digits.front() == '-';
    digits.remove_prefix(1);
  }
  if (digits.empty() || !(std::isdigit(static_cast<unsigned char>(digits.front())) || digits.front() == '.')) {
    return {};
  }
  int64_t i = 0;
  auto [p, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), i);
  if (ec == std::errc() && p == digits.data() + digits.size()) return integerKey(negative ? -i : i);
  double d = 0;
  auto [q, ec2] = std::from_chars(digits.data(), digits.data() + digits.size(), d);
  if (ec2 != std::errc() || q != digits.data() + digits.size()) return {};
  return realKey(negative ? -d : d);
}

struct FilterTerm {
  std::string column;
  std::vector<std::string> keys;  // a row matches any of them
};

[[noreturn]] void badFilter(std::string_view expression, std::string_view why) {
  throwRecordsetError(kErrBadArguments, "Invalid filter '" + std::string(expression) + "': " + std::string(why) +
                                            " (expected [Column]='text' or [Column]=number, joined by AND)");
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Parses "[A]='x' AND B=12 AND [C]=Null".
std::vector<FilterTerm> parseFilter(std::string_view e) {
  std::vector<FilterTerm> terms;
  size_t i = 0;
  auto skip = [&] {
    while (i < e.size() && isBlank(e[i])) ++i;
  };
  for (;;) {
    FilterTerm term;
    skip();
    if (i < e.size() && e[i] == '[') {
      size_t close = e.find(']', i);
      if (close == std::string_view::npos) badFilter(e, "unclosed bracket");
      term.column = std::string(e.substr(i + 1, close - i - 1));
      i = close + 1;
    } else {
      size_t start = i;
      while (i < e.size() && e[i] != '=' && e[i] != '\'' && e[i] != '<' && e[i] != '>') ++i;
      std::string_view name = e.substr(start, i - start);
      while (!name.empty() && isBlank(name.back())) name.remove_suffix(1);
      term.column = std::string(name);
    }
    if (term.column.empty()) badFilter(e, "no column name");
    skip();
    if (i >= e.size() || e[i] != '=') badFilter(e, "only equality is supported");
    ++i;
    skip();
    if (i < e.size() && e[i] == '\'') {
      std::string text;
      size_t k = i + 1;
      for (;; ++k) {
        if (k >= e.size()) badFilter(e, "unclosed quote");
        if (e[k] == '\'') {
          if (k + 1 < e.size() && e[k + 1] == '\'') {
            text += '\'';
            ++k;
            continue;
          }
          break;
        }
        text += e[k];
      }
      i = k + 1;
      term.keys.push_back(textKey(text));
      // A number written as text also finds the number.
      std::string n = numberKey(text);
      if (!n.empty()) term.keys.push_back(std::move(n));
    } else {
      size_t start = i;
      while (i < e.size() && !isBlank(e[i])) ++i;
      std::string_view literal = e.substr(start, i - start);
      std::string lowered;
      for (char c : literal) lowered += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (lowered == "null") {
        term.keys.push_back("n");
      } else {
        std::string n = numberKey(literal);
        if (n.empty()) badFilter(e, "a value must be a quoted text or a number");
        term.keys.push_back(std::move(n));
        term.keys.push_back(textKey(literal));  // a text column holding the number
      }
    }
    terms.push_back(std::move(term));
    skip();
    if (i >= e.size()) break;
    if (i + 3 <= e.size() && std::tolower(static_cast<unsigned char>(e[i])) == 'a' &&
        std::tolower(static_cast<unsigned char>(e[i + 1])) == 'n' &&
        std::tolower(static_cast<unsigned char>(e[i + 2])) == 'd' && i + 3 < e.size() && isBlank(e[i + 3])) {
      i += 3;
      continue;
    }
    badFilter(e, "terms must be joined by AND");
  }
  return terms;
}

std::vector<uint32_t> mergeSorted(const std::vector<uint32_t>& a, const std::vector<uint32_t>& b) {
  std::vector<uint32_t> out;
  out.reserve(a.size() + b.size());
  std::set_union(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
  return out;
}

std::vector<uint32_t> intersectSorted(const std::vector<uint32_t>& a, const std::vector<uint32_t>& b) {
  std::vector<uint32_t> out;
  std::set_intersection(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
  return out;
}

class ClientRecordsetImpl final : public ClientRecordset {
 public:
  ClientRecordsetImpl(FieldNames names, const RowSource& next) : names_(std::move(names)) {
    // Rows are stored in blocks of a few hundred (no allocation per row: a
    // whole target's positions or list entries are read this way, and no
    // huge array to grow either).
    const auto n = static_cast<size_t>(names_.size());
    rowsPerBlock_ = std::max<size_t>(1, kBlockBytes / (std::max<size_t>(1, n) * sizeof(Value)));
    for (;;) {
      if (rowCount_ % rowsPerBlock_ == 0) blocks_.push_back(std::make_unique<Value[]>(rowsPerBlock_ * n));
      Value* out = blocks_.back().get() + (rowCount_ % rowsPerBlock_) * n;
      if (!next(out)) break;
      ++rowCount_;
    }
    indexes_.resize(n);
  }

  ClientRecordsetImpl(FieldNames names, std::unique_ptr<CellSource> cells)
      : names_(std::move(names)), cells_(std::move(cells)) {
    rowCount_ = cells_->rowCount();
    const auto n = static_cast<size_t>(names_.size());
    slots_.resize(n);
    slotRows_.assign(n, kNoRow);
    indexes_.resize(n);
  }

  bool eof() override {
    checkOpen();
    return pos_ >= visibleCount();
  }

  void moveNext() override {
    checkOpen();
    if (pos_ >= visibleCount()) throwNoCurrentRow();
    ++pos_;
  }

  int fieldCount() override {
    checkOpen();
    return names_.size();
  }

  std::string fieldName(int index) override {
    checkOpen();
    names_.checkIndex(index);
    return names_.name(index);
  }

  const Value& field(int index) override {
    checkOpen();
    names_.checkIndex(index);
    return cell(currentRow(), index);
  }

  const Value& field(std::string_view name) override {
    checkOpen();
    int index = names_.require(name);
    return cell(currentRow(), index);
  }

  void close() override {
    closed_ = true;
    blocks_.clear();
    cells_.reset();
    slots_.clear();
    slotRows_.clear();
    rowCount_ = 0;
    indexes_.clear();
    visible_.clear();
  }

  void filter(std::string_view expression) override {
    checkOpen();
    pos_ = 0;
    std::string_view trimmed = expression;
    while (!trimmed.empty() && isBlank(trimmed.front())) trimmed.remove_prefix(1);
    while (!trimmed.empty() && isBlank(trimmed.back())) trimmed.remove_suffix(1);
    if (trimmed.empty()) {
      filtered_ = false;
      visible_.clear();
      return;
    }
    if (filterOnInteger(trimmed)) return;
    std::vector<uint32_t> result;
    bool first = true;
    for (const FilterTerm& term : parseFilter(trimmed)) {
      const Index& index = indexOf(names_.require(term.column));
      std::vector<uint32_t> matches;
      for (const std::string& key : term.keys) {
        std::vector<uint32_t> found = index.rowsOf(key);
        if (!found.empty()) matches = matches.empty() ? std::move(found) : mergeSorted(matches, found);
      }
      result = first ? std::move(matches) : intersectSorted(result, matches);
      first = false;
    }
    filtered_ = true;
    visible_ = std::move(result);
  }

  void moveFirst() override {
    checkOpen();
    pos_ = 0;
  }

  int64_t recordCount() override {
    checkOpen();
    return static_cast<int64_t>(visibleCount());
  }

 private:
  // Row numbers (ascending, so in query order) by value key. A column of
  // integers (and Nulls), the usual filter on ids, is kept as (value, row)
  // pairs in one sorted array instead: no node per value to allocate and
  // chase, and a lookup is a binary search.
  struct Index {
    bool integers = false;
    std::unordered_map<std::string, std::vector<uint32_t>> byKey;
    std::vector<std::pair<int64_t, uint32_t>> sorted;
    std::vector<uint32_t> nulls;

    std::vector<uint32_t> rowsOf(const std::string& key) const {
      if (!integers) {
        auto it = byKey.find(key);
        return it == byKey.end() ? std::vector<uint32_t>() : it->second;
      }
      if (key == "n") return nulls;
      if (key.size() != 9 || key[0] != 'i') return {};  // only integers are here
      int64_t v = 0;
      std::memcpy(&v, key.data() + 1, sizeof v);
      auto first = std::lower_bound(sorted.begin(), sorted.end(), std::make_pair(v, uint32_t{0}));
      std::vector<uint32_t> rows;
      for (; first != sorted.end() && first->first == v; ++first) rows.push_back(first->second);
      return rows;
    }
  };

  void checkOpen() const {
    if (closed_) throwClosed();
  }

  // The usual filter, "[Column]=integer" on a column of integers (a child
  // table read whole and filtered per parent), without the general parse:
  // the rows come straight from the column's sorted index. False, with
  // nothing changed, for any other filter or column, which the general
  // path then takes (with the same result for this one).
  bool filterOnInteger(std::string_view e) {
    std::string_view column;
    size_t i = 0;
    if (!e.empty() && e.front() == '[') {
      i = e.find(']');
      if (i == std::string_view::npos) return false;
      column = e.substr(1, i - 1);
      ++i;
    } else {
      while (i < e.size() && e[i] != '=' && e[i] != '\'' && e[i] != '<' && e[i] != '>' && e[i] != '[') ++i;
      column = e.substr(0, i);
      while (!column.empty() && isBlank(column.back())) column.remove_suffix(1);
    }
    if (column.empty()) return false;
    while (i < e.size() && isBlank(e[i])) ++i;
    if (i >= e.size() || e[i] != '=') return false;
    ++i;
    while (i < e.size() && isBlank(e[i])) ++i;
    std::string_view literal = e.substr(i);
    bool negative = false;
    if (!literal.empty() && (literal.front() == '-' || literal.front() == '+')) {
      negative = literal.front() == '-';
      literal.remove_prefix(1);
    }
    if (literal.empty() || !std::all_of(literal.begin(), literal.end(), [](char c) { return c >= '0' && c <= '9'; })) {
      return false;
    }
    int64_t value = 0;
    auto [end, ec] = std::from_chars(literal.data(), literal.data() + literal.size(), value);
    if (ec != std::errc() || end != literal.data() + literal.size()) return false;
    if (negative) value = -value;
    if (column != lastFilterColumn_) {
      lastFilterIndex_ = names_.require(column);
      lastFilterColumn_.assign(column);
    }
    const Index& index = indexOf(lastFilterIndex_);
    if (!index.integers) return false;
    auto first = std::lower_bound(index.sorted.begin(), index.sorted.end(), std::make_pair(value, uint32_t{0}));
    visible_.clear();
    for (; first != index.sorted.end() && first->first == value; ++first) visible_.push_back(first->second);
    filtered_ = true;
    return true;
  }

  size_t visibleCount() const { return filtered_ ? visible_.size() : rowCount_; }

  // The first value of row r (rows held in blocks).
  const Value* row(size_t r) const {
    return blocks_[r / rowsPerBlock_].get() + (r % rowsPerBlock_) * static_cast<size_t>(names_.size());
  }

  size_t currentRow() const {
    if (pos_ >= visibleCount()) throwNoCurrentRow();
    return filtered_ ? visible_[pos_] : pos_;
  }

  // The value of a cell as field() gives it: held, or read into its
  // column's slot (read once however often the row's field is asked for).
  const Value& cell(size_t r, int column) {
    if (!cells_) return row(r)[column];
    const auto c = static_cast<size_t>(column);
    if (slotRows_[c] != r) {
      cells_->read(r, column, slots_[c]);
      slotRows_[c] = r;
    }
    return slots_[c];
  }

  // The value of a cell for an index, without touching the slots (a value
  // field() gave stays as it was).
  const Value& cellForIndex(size_t r, int column, Value& scratch) const {
    if (!cells_) return row(r)[column];
    cells_->read(r, column, scratch);
    return scratch;
  }

  const Index& indexOf(int column) {
    auto& slot = indexes_[static_cast<size_t>(column)];
    if (!slot) {
      slot = std::make_unique<Index>();
      slot->integers = true;
      Value scratch;
      const bool integerCells = cells_ && cells_->integerColumn(column);
      if (integerCells) {
        slot->sorted.reserve(rowCount_);
        int64_t v = 0;
        for (size_t r = 0; r < rowCount_; ++r) {
          if (cells_->integerAt(r, column, v)) {
            slot->sorted.emplace_back(v, static_cast<uint32_t>(r));
          } else {
            slot->nulls.push_back(static_cast<uint32_t>(r));
          }
        }
      }
      for (size_t r = 0; r < rowCount_ && slot->integers && !integerCells; ++r) {
        const Value& v = cellForIndex(r, column, scratch);
        if (v.type() == Value::Type::Integer) {
          slot->sorted.emplace_back(v.rawInteger(), static_cast<uint32_t>(r));
        } else if (v.isNull()) {
          slot->nulls.push_back(static_cast<uint32_t>(r));
        } else {
          slot->integers = false;
        }
      }
      if (slot->integers) {
        // Rows come in ascending order, so sorting by value alone (stably)
        // gives (value, row) order; a column often is in order already.
        auto byValue = [](const std::pair<int64_t, uint32_t>& a, const std::pair<int64_t, uint32_t>& b) {
          return a.first < b.first;
        };
        if (!std::is_sorted(slot->sorted.begin(), slot->sorted.end(), byValue)) {
          std::stable_sort(slot->sorted.begin(), slot->sorted.end(), byValue);
        }
        return *slot;
      }
      slot->sorted = {};
      slot->nulls = {};
      std::string key;
      for (size_t r = 0; r < rowCount_; ++r) {
        setValueKey(key, cellForIndex(r, column, scratch));
        auto it = slot->byKey.find(key);
        if (it == slot->byKey.end()) it = slot->byKey.emplace(key, std::vector<uint32_t>()).first;
        it->second.push_back(static_cast<uint32_t>(r));
      }
    }
    return *slot;
  }

  FieldNames names_;
  static constexpr size_t kBlockBytes = 64 * 1024;
  std::vector<std::unique_ptr<Value[]>> blocks_;  // rowsPerBlock_ rows of names_.size() values each
  size_t rowsPerBlock_ = 1;
  size_t rowCount_ = 0;
  // Or the cells, read on demand into one slot per column.
  static constexpr size_t kNoRow = static_cast<size_t>(-1);
  std::unique_ptr<CellSource> cells_;
  std::vector<Value> slots_;
  std::vector<size_t> slotRows_;
  std::vector<std::unique_ptr<Index>> indexes_;
  bool filtered_ = false;
  std::vector<uint32_t> visible_;
  std::string lastFilterColumn_;  // as the last integer filter wrote it
  int lastFilterIndex_ = -1;
  size_t pos_ = 0;
  bool closed_ = false;
};

}  // namespace

std::unique_ptr<ClientRecordset> makeClientRecordset(FieldNames names, const RowSource& next) {
  return std::make_unique<ClientRecordsetImpl>(std::move(names), next);
}

std::unique_ptr<ClientRecordset> makeClientRecordset(FieldNames names, std::unique_ptr<CellSource> cells) {
  return std::make_unique<ClientRecordsetImpl>(std::move(names), std::move(cells));
}

}  // namespace kavrel::db::memory
