// Entry points of the PostgreSQL backend for the backend-neutral layer
// (src/platform/db.cpp). Holds no client-library type, so it may be included
// above the backend.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kavrel/platform/db.h"

namespace kavrel::db::postgres {

// The backend code of a DbError for a deadlock or a serialization failure:
// the embedded engine's "busy" in its low byte (a fault, not a refused row),
// marked as a conflict above it.
inline constexpr int kConflictCode = 5 | (4 << 8);
// The source of this engine's errors.
inline constexpr const char* kErrorSource = "PostgreSQL";

// True for "postgresql://..." and "postgres://..." (any letter case).
bool isUri(std::string_view s);
// True for a provider name that means this engine.
bool isProvider(std::string_view provider);
// True for a key of a key/value connection string that this engine takes.
bool isKey(std::string_view loweredKey);

// The client library's connection text for key/value pairs (keys lower
// case): Host/Server/Data Source, Port, Database/Initial Catalog, User
// ID/User, Password, SSL Mode, Connect Timeout, Application Name.
std::string conninfoFromPairs(const std::vector<std::pair<std::string, std::string>>& pairs);
// The connection text without its password, for messages.
std::string redact(std::string_view connectionText);

// Opens a connection (a URI or a key=value text of the client library).
// The password may come from the text, PGPASSWORD or ~/.pgpass; it is never
// part of an error or of description().
std::shared_ptr<Connection> openDatabase(const std::string& conninfo, const std::string& description);

// Creates the schema and runs `extra` (the version row) in one transaction
// in an existing database that holds no table yet; refuses a database that
// already holds tables. On failure nothing is left.
void createDatabase(const std::string& conninfo, const std::string& description, std::string_view legacySchema,
                    std::string_view extra);

// Drops the schema's tables (and the name collation) from the database, in
// one transaction; tables already gone are skipped.
void removeSchema(const std::string& conninfo, const std::string& description, const std::vector<std::string>& tables);

// What the read-ahead (Connection::readAhead) of a connection of this engine
// did since it was opened: statements sent, results handed out, statements
// dropped unused (run again when asked). For tests; zeros for a connection
// of another engine.
struct ReadAheadCounts {
  int64_t sent = 0, used = 0, dropped = 0;
};
ReadAheadCounts readAheadCounts(const Connection& conn);

// The schema text the engine runs, generated from the one schema text.
std::string schemaFor(std::string_view legacySchema);

}  // namespace kavrel::db::postgres
