// Copies a definitions database table by table through the backend-neutral
// interface, so that either side may be any backend. Between two SQLite
// databases of the same schema (a file, or the memory database a legacy file
// is loaded into) the pages are copied whole instead: the same rows, without
// inserting them one by one.
#include <algorithm>
#include <cctype>
#include <set>
#include <string>
#include <vector>

#include "kavrel/platform/db.h"
#include "platform/mdb/mdb_backend.h"
#include "platform/sqlite/sqlite_backend.h"

namespace kavrel::db {

namespace {

constexpr const char* kSource = "copyDatabase";
constexpr int32_t kErrCopy = 3001;

[[noreturn]] void copyError(const std::string& description) { raise(kErrCopy, kSource, description); }

std::string bracket(const std::string& name) { return "[" + name + "]"; }

// Column names as the legacy engine compares them: ASCII letter case aside.
std::string folded(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::vector<std::string> columnsOf(Connection& conn, const std::string& table) {
  auto rs = conn.execute("SELECT * FROM " + bracket(table) + " WHERE 1=0");
  std::vector<std::string> cols;
  for (int i = 0; i < rs->fieldCount(); ++i) cols.push_back(rs->fieldName(i));
  rs->close();
  return cols;
}

int64_t countRows(Connection& conn, const std::string& table) {
  auto rs = conn.execute("SELECT count(*) FROM " + bracket(table));
  int64_t n = rs->eof() ? 0 : rs->field(0).toInt64();
  rs->close();
  return n;
}

// Runs `step`; a failure gets the table's name in front of its description.
template <class F>
void forTable(const std::string& table, F&& step) {
  try {
    step();
  } catch (const DbError& e) {
    throw DbError(e.number(), e.rawSource(), "Table " + table + ": " + e.description(), e.backendCode(),
                  e.backendMessage());
  } catch (const Error& e) {
    throw Error(e.number(), e.rawSource(), "Table " + table + ": " + e.description());
  }
}

}  // namespace

std::vector<std::string> schemaTables() {
  std::vector<std::string> tables;
  std::string_view s = schemaSql();
  const std::string_view key = "CREATE TABLE ";
  for (size_t at = s.find(key); at != std::string_view::npos; at = s.find(key, at + 1)) {
    // Only statements that start a line (not the words inside a comment).
    if (at > 0 && s[at - 1] != '\n') continue;
    size_t i = at + key.size();
    std::string name;
    if (i < s.size() && s[i] == '[') {
      size_t close = s.find(']', i);
      if (close == std::string_view::npos) break;
      name = std::string(s.substr(i + 1, close - i - 1));
    } else {
      size_t end = s.find_first_of(" (\n", i);
      name = std::string(s.substr(i, end - i));
    }
    tables.push_back(std::move(name));
  }
  return tables;
}

std::vector<TableCopy> copyDatabase(Connection& source, Connection& destination,
                                    const std::function<void(const TableCopy&)>& progress) {
  const std::vector<std::string> tables = schemaTables();
  std::vector<TableCopy> result;
  Connection* loaded = mdb::loadedDatabaseOf(source);
  if (sqlite::copyWholeDatabase(loaded ? *loaded : source, destination)) {
    for (const std::string& table : tables) {
      TableCopy copy;
      copy.table = table;
      forTable(table, [&] {
        const int64_t held = countRows(source, table);
        const int64_t stored = countRows(destination, table);
        if (held != stored) {
          copyError("the source holds " + std::to_string(held) + " rows and the destination " +
                    std::to_string(stored));
        }
        copy.rowsRead = held;
        copy.rowsWritten = stored;
      });
      result.push_back(copy);
      if (progress) progress(copy);
    }
    return result;
  }
  Transaction tx(destination);
  destination.deferConstraintChecks();
  for (auto t = tables.rbegin(); t != tables.rend(); ++t) {
    forTable(*t, [&] { destination.execute("DELETE FROM " + bracket(*t)); });
  }
  // Any refused row fails the whole copy, so the rows may go in batches
  // (an engine that batches writes each table's rows at the count below).
  BatchedWrites batched(destination);
  for (const std::string& table : tables) {
    TableCopy copy;
    copy.table = table;
    forTable(table, [&] {
      const std::vector<std::string> columns = columnsOf(destination, table);
      std::set<std::string> wanted;
      for (const auto& c : columns) wanted.insert(folded(c));
      std::set<std::string> present;
      for (const auto& c : columnsOf(source, table)) {
        if (!wanted.count(folded(c))) {
          copyError("the source's column [" + c + "] is not a column of the definitions schema; it would be lost");
        }
        present.insert(folded(c));
      }
      for (const auto& c : columns) {
        if (!present.count(folded(c))) copyError("the source has no column [" + c + "]");
      }
      std::string list;
      for (const auto& c : columns) list += (list.empty() ? "" : ",") + bracket(c);
      const std::string select = "SELECT " + list + " FROM " + bracket(table);

      auto out = destination.openUpdatable(select);
      auto in = source.execute(select);
      std::vector<Value> values(columns.size());
      for (; !in->eof(); in->moveNext()) {
        for (size_t i = 0; i < columns.size(); ++i) values[i] = in->field(static_cast<int>(i));
        ++copy.rowsRead;
        out->addNew(columns, values);
        ++copy.rowsWritten;
      }
      in->close();
      out->close();
      const int64_t held = countRows(source, table);
      const int64_t stored = countRows(destination, table);
      if (held != copy.rowsRead || stored != copy.rowsRead) {
        copyError("the source holds " + std::to_string(held) + " rows, " + std::to_string(copy.rowsRead) +
                  " were read and the destination holds " + std::to_string(stored));
      }
      copy.rowsWritten = stored;
    });
    result.push_back(copy);
    if (progress) progress(copy);
  }
  batched.end();
  tx.commit();
  return result;
}

}  // namespace kavrel::db
