// Private parts of the .mdb backend.
#pragma once

#include <memory>
#include <string>

#include "kavrel/platform/db.h"
#include "platform/mdb/mdb_backend.h"

namespace kavrel::db::mdb {

// Wraps the memory database loaded from the file at `path` so that every
// change is refused with kErrReadOnly (reads pass through unchanged).
std::shared_ptr<Connection> makeReadOnly(std::shared_ptr<Connection> memory, const std::string& path);

}  // namespace kavrel::db::mdb
