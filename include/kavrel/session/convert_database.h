// Conversion of a definitions database into a new definitions database of
// schema version "4": an SQLite file, or a PostgreSQL database (a URI or
// key/value connection string) that holds no table yet.
//
//   auto tables = kavrel::convertDatabase("definitions.mdb", "definitions.db",
//       [](const kavrel::db::TableCopy& t) { ... one line per table ... });
//
// The source is anything DbOpen opens (a legacy .mdb file, a data link, an
// SQLite file) and is only read. The destination must not exist (error 58)
// and must not end in ".mdb" (error 3001: legacy files are only read); a
// server database must hold no table yet (error 58).
//  - A source of schema version "4" is copied table by table with its ids
//    (db::copyDatabase); each TableCopy gives the rows read and written.
//  - A source of an older layout (its [system] version a whole number below
//    4, e.g. "3") is read target by target through the older-layout readers
//    (the catalogues through dbReadKVR, each target through
//    dbReadTargetAllKVR) and written through the ordinary inserts, so the
//    targets get new ids. Each TableCopy then gives, per table of the
//    schema, the rows of the source's table of that name (-1 when the
//    source has none) and the rows written. Checked: the protocols,
//    targets and requests written equal the source's rows, no function
//    row is lost (a target whose address has none gets one), and
//    each target's requests, data items, data positions and list entries
//    stored equal those read.
//  - Any other source gets the identity check's recorded error, thrown:
//    3 (no [system] table), 4 (no version row), 5 (another version).
// On any failure the error is thrown and no destination file is left (on a
// server: the tables made are dropped again). A copy whose transaction
// another writer's conflict fails (db::isConflict: someone writing into the
// new server database meanwhile) runs again from its start; `progress` then
// hears the tables of the new attempt from the first one again.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "kavrel/platform/db.h"

namespace kavrel {

std::vector<db::TableCopy> convertDatabase(const std::string& source, const std::string& destination,
                                           const std::function<void(const db::TableCopy&)>& progress = {});

}  // namespace kavrel
