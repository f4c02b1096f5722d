// Entry points of the SQLite backend for the backend-neutral layer
// (src/platform/db.cpp). Holds no SQLite type, so it may be included above
// the backend.
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

// Creates the file and runs `script` (several statements) in one transaction.
// The file must not exist; on failure nothing is left behind.
void createDatabase(const std::string& path, std::string_view script);

}  // namespace kavrel::db::sqlite
