// Internal helpers shared by the request and data-position readers and
// writers (not part of the public interface).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kavrel/platform/db.h"
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
void linkPositionToData(const std::shared_ptr<DataPositionItem>& pos);
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
