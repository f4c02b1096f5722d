// Test helpers: a temporary folder removed at the end of the test, and a
// fresh definitions database (whole schema, [system] version row) inside one.
//
//   kavrel::test::TempDb db;              // new database file with the schema
//   auto conn = db.connection();          // shared connection, opened once
//   conn->execute("INSERT INTO Cibles ...");
//   db.path();                            // the file, e.g. to reopen it
//
//   kavrel::test::TempDir dir;            // empty folder
//   std::string f = dir.file("out.xml");  // a path inside it (not created)
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "kavrel/platform/db.h"

namespace kavrel::test {

// A new empty folder under the system's temporary folder; removed with
// everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // The UTF-8 path of `name` inside the folder (the file is not created).
  std::string file(std::string_view name) const;

 private:
  std::filesystem::path path_;
};

// A database file created with kavrel::db::createDatabase in its own TempDir.
class TempDb {
 public:
  TempDb();
  ~TempDb();
  TempDb(const TempDb&) = delete;
  TempDb& operator=(const TempDb&) = delete;

  const std::string& path() const { return path_; }
  const TempDir& dir() const { return dir_; }
  // The shared connection on the file, opened on first use and closed before
  // the file is removed.
  std::shared_ptr<db::Connection> connection();
  // Another, independent connection on the same file (e.g. a second process).
  std::shared_ptr<db::Connection> openAnother() const;

 private:
  TempDir dir_;
  std::string path_;
  std::shared_ptr<db::Connection> conn_;
};

}  // namespace kavrel::test
