// Entry points of the SQLite backend for the backend-neutral layer
// (src/platform/db.cpp). Holds no SQLite type, so it may be included above
// the backend.
//
// Journal: a file on a local disk is kept in write-ahead-log mode (files
// "<db>-wal" and "<db>-shm" beside it while it is open), so that readers
// never wait for a writer and a read transaction sees one snapshot. That
// mode needs memory shared between the processes, which a network file
// system (NFS, SMB/CIFS, 9P, AFS, ...) does not give: a file found on one is
// switched to the rollback journal when it is opened alone. There, readers
// wait for a writer's commit (up to the lock timeout) and safety rests on
// the network file system's byte-range locks; several machines writing one
// file at once is not advised.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "kavrel/platform/db.h"

namespace kavrel::db::sqlite {

// Opens an existing database file (never creates one). `description` is what
// the connection reports as having been opened (for messages).
std::shared_ptr<Connection> openDatabase(const std::string& path, const std::string& description);

// Opens a new, empty database held in memory (gone when closed), set up as
// openDatabase sets up a file. `description` is what the connection reports.
std::shared_ptr<Connection> openMemoryDatabase(const std::string& description);

// Copies the whole of `source` into `destination`, page by page, when both
// are connections of this backend outside any transaction and their schemas
// are the same text (so nothing of the source can be lost). Returns false,
// having done nothing, otherwise. One write transaction on the destination:
// on failure it throws and the destination is as it was.
bool copyWholeDatabase(Connection& source, Connection& destination);

// Creates the file and runs `script` (several statements) in one transaction.
// The file must not exist; on failure nothing is left behind.
void createDatabase(const std::string& path, std::string_view script);

}  // namespace kavrel::db::sqlite
