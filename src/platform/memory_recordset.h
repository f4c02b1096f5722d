// Result-set parts that do not depend on an engine: field names, the errors
// a result set raises by itself, and the client-side (in-memory, filterable)
// result set. An engine supplies its rows; nothing here talks to a database.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "kavrel/platform/db.h"

namespace kavrel::db::memory {

inline constexpr const char* kRecordsetSource = "Recordset";
inline constexpr int32_t kErrNoCurrentRow = 3021;
inline constexpr int32_t kErrBadArguments = 3001;
inline constexpr int32_t kErrNotSupported = 3251;
inline constexpr int32_t kErrItemNotFound = 3265;
inline constexpr int32_t kErrObjectClosed = 3704;

[[noreturn]] void throwNoCurrentRow();
[[noreturn]] void throwItemNotFound(std::string_view name);
[[noreturn]] void throwClosed();
[[noreturn]] void throwRecordsetError(int32_t number, std::string description);

// Field names: matched without letter case (ASCII and Latin-1 capitals) and
// without enclosing brackets or blanks.
std::string foldName(std::string_view name);
class FieldNames {
 public:
  void add(std::string name);
  int size() const { return static_cast<int>(names_.size()); }
  const std::string& name(int i) const { return names_[static_cast<size_t>(i)]; }
  // -1 when no field has that name; the first of equal names wins.
  int find(std::string_view name) const;
  // As find(), but throws error 3265 for an unknown name. Names asked for
  // before are found again by their exact text, in the order they were
  // asked for (a reading loop asks for the same names row after row).
  int require(std::string_view name) const;
  void checkIndex(int index) const;

 private:
  std::vector<std::string> names_;
  std::vector<std::string> folded_;
  struct Asked {
    std::string name;  // as the caller wrote it
    int index;
  };
  mutable std::vector<Asked> asked_;
  mutable size_t nextAsked_ = 0;
};

// Fills the next row's values (as many as there are fields) and returns
// true, or returns false at the end. May throw; nothing is kept then.
using RowSource = std::function<bool(Value* out)>;

// Reads every row at once; filters then work on memory only.
std::unique_ptr<ClientRecordset> makeClientRecordset(FieldNames names, const RowSource& next);

// The cells of a result an engine already holds in memory, read one at a
// time when asked for: rows are numbered 0..rowCount()-1 in the result set's
// order, columns as the field names. For a large result this spares a copy
// of every cell (and an allocation per long text) that the reading code may
// never look at.
class CellSource {
 public:
  virtual ~CellSource() = default;
  virtual size_t rowCount() const = 0;
  // Sets `out` to the cell's value. Must not throw (the position is valid).
  virtual void read(size_t row, int column, Value& out) const = 0;
  // True when read() gives every cell of the column as an Integer or Null:
  // filters then index it through integerAt(), without a Value per cell.
  virtual bool integerColumn(int column) const {
    (void)column;
    return false;
  }
  // For such a column: false for Null, else true with the cell's integer.
  virtual bool integerAt(size_t row, int column, int64_t& out) const {
    (void)row, (void)column, (void)out;
    return false;
  }
};

// A client-side result set over `cells`, which it owns. A value field()
// gives stays valid until the next move, filter or close (as on a
// forward-only result set): each column keeps the one value last read.
std::unique_ptr<ClientRecordset> makeClientRecordset(FieldNames names, std::unique_ptr<CellSource> cells);

}  // namespace kavrel::db::memory
