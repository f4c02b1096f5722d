// Legacy Access definitions databases (.mdb files), read-only.
//
// Design: at open, every table of the file is read once through the mdbtools
// reader library (libmdb) into a database held in memory by the SQLite
// backend, and every statement of the session is then served by that
// backend. So the item classes run the same SQL on an .mdb file as on an
// SQLite file, and reading costs one pass over the file.
//
//  - A table of the file whose columns include every column the schema
//    gives it is built from the schema (types, keys, indexes, relations);
//    the file's extra columns, if any, are added. Any other table (an older
//    layout's, another application's) is built from the file's own columns.
//    Tables the file does not have are not created, so the identity checks
//    see the file as it is (no [system] table: not a definitions database).
//  - Values: Yes/No gives -1 / 0; Byte, Integer and Long Integer give
//    integers; Single, Double and Currency give reals (a Single as the exact
//    double of its float); Text and Memo give UTF-8 text, an empty text and
//    Null kept apart (the row's null mask); Date/Time gives the text
//    "YYYY-MM-DD hh:mm:ss"; Decimal and Replication ID give their text;
//    Binary gives the bytes; OLE objects are not read (Null).
//  - The connection is read-only: any statement that would change the
//    database, and any change through an updatable result set, is refused
//    with error kErrReadOnly naming the file and saying to convert it first.
//    Transactions may be opened and closed (there is nothing to write).
//  - Opening fails with a numbered error naming the file and changes
//    nothing: kErrFileNotFound (missing), kErrFile (a folder, unreadable),
//    kErrUnrecognized (not an Access file, damaged or truncated: a table
//    whose rows cannot all be read, a Memo text that cannot be followed).
//
// The reader library does not ask for the database password of a
// password-protected file: such a file opens like any other.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "kavrel/platform/db.h"

namespace kavrel::db::mdb {

inline constexpr const char* kSource = "Access";
// The legacy runtime's and engine's numbers, so clients see familiar values.
inline constexpr int32_t kErrFileNotFound = 53;
inline constexpr int32_t kErrReadOnly = 3027;
inline constexpr int32_t kErrUnrecognized = 3343;

// Opens the .mdb file at `path` (see above). `description` is what the
// connection reports as having been opened (for messages).
std::shared_ptr<Connection> openDatabase(const std::string& path, const std::string& description);

// The in-memory database behind a connection of this backend (read it only),
// or null for another backend's connection.
Connection* loadedDatabaseOf(Connection& conn);

}  // namespace kavrel::db::mdb
