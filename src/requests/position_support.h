// Internal helpers shared by the request and data-position readers and
// writers (not part of the public interface).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kavrel/platform/db.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/data_position_items.h"

namespace kavrel::detail {

// Column values with the defaults of the object model for Null.
inline int32_t intOr(const db::Value& v, int32_t def) { return v.isNull() ? def : v.toInt32(); }
inline bool boolOr(const db::Value& v, bool def) { return v.isNull() ? def : v.toBool(); }
inline std::optional<int32_t> optInt(const db::Value& v) {
  if (v.isNull()) return std::nullopt;
  return v.toInt32();
}

// A position is listed under its request and under its data item: adds it
// to the data item's DataPositions (created when the item has none), once.
// Within a batch of deferred links (below) for its target's data, a
// position without Data is handed to the batch instead.
void linkPositionToData(const std::shared_ptr<DataPositionItem>& pos);
// While one lives on a thread, the positions read for the data items it
// names are linked to their data all at once when it is resolved (or
// destroyed), instead of one by one as they are read: a whole-target import
// links tens of thousands of positions, and in one pass the lookups overlap
// their memory reads and each data item's list is built in one go. Until
// then those positions have a name and no Data.
class DeferredPositionLinks {
 public:
  explicit DeferredPositionLinks(std::shared_ptr<DataItems> datas);
  ~DeferredPositionLinks();
  DeferredPositionLinks(const DeferredPositionLinks&) = delete;
  DeferredPositionLinks& operator=(const DeferredPositionLinks&) = delete;

  // The batch collecting positions of `datas` on this thread, if any.
  static DeferredPositionLinks* activeFor(const DataItems* datas) noexcept;
  // Takes a position read for those data items (its name set).
  void add(const std::shared_ptr<DataPositionItem>& pos);
  // Links what was taken (Data and the data item's DataPositions, as
  // setDataname and linkPositionToData do) and stops collecting.
  void resolve();

 private:
  std::shared_ptr<DataItems> datas_;
  std::vector<std::shared_ptr<DataPositionItem>> positions_;
  std::vector<std::string> names_;
  DeferredPositionLinks* previous_;
  bool active_ = true;
};

// Removes it from its data item's DataPositions (the request is going away).
void unlinkPositionFromData(const std::shared_ptr<DataPositionItem>& pos);

// Sets the fields of a new [Emplacement Donnée] row (the caller adds and
// updates the row).
void setPositionRow(db::UpdatableRecordset& rs, int32_t address, int32_t targetid, const std::string& requestName,
                    const DataPositionItem& pos);
// Sets the fields of a new Donnée_Ref row.
void setReferenceRow(db::UpdatableRecordset& rs, int32_t address, int32_t targetid, const std::string& requestName,
                     const DataPositionItem& pos);

// Where a data item of the older single-table layout lies in its request.
//
// That layout gives the first byte (Start), the number of bytes (Length) and
// the lowest and highest bit numbers of the field (NumBitFaible in the
// least significant byte, NumBitFort in the most significant one), or a bit
// mask (Masque) over the Length bytes of the field instead of the two bit
// numbers. A decoder takes Length bytes from StartOctet, assembles them in
// the position's byte order, shifts right by StartBit and keeps bitCount
// bits; hence StartOctet = Start, StartBit = NumBitFaible and bitCount =
// (NumBitFort - NumBitFaible) + 8 * Length - 7 (the data item's NumberBits),
// and Length is given back as ceil((StartBit + bitCount) / 8). A missing bit
// number comes from the mask (bit 0 = low bit of the least significant
// byte; fields of up to 4 bytes) when it gives one inside a byte, else the
// whole byte (low 0, high 7); a missing Length is one byte. Byte strings
// start on a byte boundary and have 8 * Length bits.
struct OlderPlacement {
  int32_t StartOctet = 1;
  int32_t StartBit = 0;
  int32_t bitCount = 8;
};
OlderPlacement olderLayoutPlacement(std::optional<int32_t> Start, std::optional<int32_t> Length,
                                    std::optional<int32_t> Masque, std::optional<int32_t> NumBitFort,
                                    std::optional<int32_t> NumBitFaible, bool numeric);

}  // namespace kavrel::detail
