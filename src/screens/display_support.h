// Internal helpers shared by the display, display-link and threshold classes
// (not part of the public interface).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "kavrel/platform/db.h"
#include "kavrel/screens/display_items.h"

namespace kavrel::detail {

// The screen, category and target a display belongs to (any may be null).
struct DisplayOwners {
  std::shared_ptr<ScreenItem> screen;
  std::shared_ptr<TargetItem> target;
  int32_t screenId = 0;
  int32_t targetid = 0;
  int32_t address = 0;
};
DisplayOwners displayOwners(const DisplayItem& d);
// The same, throwing error 100 `description` when the chain up to the
// target is incomplete.
DisplayOwners displayOwnersOrRaise(const DisplayItem& d, const char* description);

// The target's requests reached from a display (null when none).
std::shared_ptr<RequestItems> requestsOf(const DisplayOwners& o);

// Threshold values: a leading blank before a non-negative number, "." as
// decimal point, and the double's shortest digits so that an equality in SQL
// matches the stored value ("12.5" -> " 12.5").
std::string thresholdText(double v);

// The record sets' SELECT texts (updatable, for inserts).
extern const char* const kDisplayColumns;
extern const char* const kDataLinkColumns;
extern const char* const kExtraLinkColumns;
extern const char* const kRangeColumns;

// What a link row names: a data link without a position throws error 91,
// a request link without a request error 1 (the refusal text).
std::shared_ptr<DataPositionItem> linkedPosition(const DisplayDataItem& link);
std::shared_ptr<RequestItem> linkedRequest(const DisplayExtraItem& link);

// Field setters of new rows (the caller adds and updates the row).
void setDisplayRow(db::UpdatableRecordset& rs, const DisplayItem& d, int32_t targetid, int32_t screenId);
void setDataLinkRow(db::UpdatableRecordset& rs, const DataPositionItem& pos, const DisplayItem& d,
                    const DisplayOwners& o);
void setExtraLinkRow(db::UpdatableRecordset& rs, const RequestItem& request, bool param, const DisplayItem& d,
                     const DisplayOwners& o);
void setRangeRow(db::UpdatableRecordset& rs, const RangeItem& r, int32_t displayId);
// Writes the pending row; on failure drops it and rethrows.
void updateOrCancel(db::UpdatableRecordset& rs);

// While one lives on a thread, the display reads of its target (and
// connection) take their rows from four target-wide result sets, each
// fetched by one query on first use and filtered per screen or display,
// instead of one query per screen and three per display. Filtering keeps
// each query's order, so the orders are those of the per-display queries.
// Rows of a table that could not be fetched make the read that needed them
// fail as the per-display query would have. A batch given a screen id holds
// that screen's rows only (a single screen's read).
class DisplayReadBatch {
 public:
  DisplayReadBatch(db::Connection& conn, int32_t targetid, int32_t screenId = -1);
  ~DisplayReadBatch();
  DisplayReadBatch(const DisplayReadBatch&) = delete;
  DisplayReadBatch& operator=(const DisplayReadBatch&) = delete;

  // The batch for that connection and target on this thread, if any.
  static DisplayReadBatch* activeFor(const db::Connection& conn, int32_t targetid) noexcept;

  // The result sets, positioned on the rows of one screen / display (a
  // throw from the first fetch reaches the caller).
  db::ClientRecordset& displaysOfScreen(int32_t screenId);
  db::ClientRecordset& rangesOfDisplay(int32_t displayId);
  db::ClientRecordset& dataLinksOfDisplay(int32_t displayId);
  db::ClientRecordset& extraLinksOfDisplay(int32_t displayId);

 private:
  // The text of a whole-target statement (target_read.h), built on first use.
  using StatementOf = std::string (*)(int32_t targetid, int32_t screenId);
  db::ClientRecordset& filtered(std::unique_ptr<db::ClientRecordset>& rs, StatementOf sql, const char* column,
                                int32_t value);
  db::Connection& conn_;
  int32_t targetid_;
  int32_t screenId_;
  std::unique_ptr<db::ClientRecordset> displays_, ranges_, dataLinks_, extraLinks_;
  DisplayReadBatch* previous_;
};

}  // namespace kavrel::detail
