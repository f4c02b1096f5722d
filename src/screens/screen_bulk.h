// The record sets of a whole-target screen insert (ScreenItems::DbInsertAll)
// and the hook through which a screen's displays join that pass.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"

namespace kavrel {

class ScreenItem;

// One updatable record set per table, opened in this order (members are
// declared in the same order).
struct ScreenBulkSets {
  std::unique_ptr<db::UpdatableRecordset> Ecrans;
  std::unique_ptr<db::UpdatableRecordset> Affichages;
  std::unique_ptr<db::UpdatableRecordset> DonneesAff;  // [Données_Aff]
  std::unique_ptr<db::UpdatableRecordset> ExtraAff;    // [Extra_Aff]
  std::unique_ptr<db::UpdatableRecordset> Seuils;
  std::unique_ptr<db::UpdatableRecordset> Titres;
  std::unique_ptr<db::UpdatableRecordset> Boutons;
  std::unique_ptr<db::UpdatableRecordset> Scenarios;

  // Opens the eight sets (throws the database's error when one cannot be opened).
  void open(db::Connection& conn);
  void close();
};

// Writes the prepared new row of `rs`. A refusal is logged to the host's
// event log as "<who> : <what> not inserted : <description>", the row is
// dropped and false returned.
inline bool commitBulkRow(db::UpdatableRecordset& rs, std::string_view who, const std::string& what) {
  try {
    rs.update();
    return true;
  } catch (const Error& e) {
    // Only a row the database's rules refuse is skipped; a fault of the
    // engine or the disk ends the whole insert.
    if (!db::isRowRefusal(e)) throw;
    try {
      rs.cancelUpdate();
    } catch (const Error&) {
    }
    host().logEvent(EventType::Error, std::string(who) + " : " + what + " not inserted : " + e.description());
    return false;
  }
}

// Adds the rows of the screen's displays (and of their links and
// thresholds) to `sets`, right after the screen's own row, whose id is
// screen.screenId().
void insertDisplaysBulk(ScreenItem& screen, int32_t targetId, ScreenBulkSets& sets);

}  // namespace kavrel
