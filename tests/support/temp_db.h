// Test helpers: a temporary folder removed at the end of the test, and a
// fresh definitions database (whole schema, [system] version row) inside one.
//
//   kavrel::test::TempDb db;              // new database file with the schema
//   auto conn = db.connection();          // shared connection, opened once
//   db.path();                            // the file, e.g. to reopen it
//   kavrel::test::TempDir dir;            // empty folder
//   std::string f = dir.file("out.xml");  // a path inside it (not created)
#pragma once

#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string_view>

#include "kavrel/platform/db.h"
#include "support/engines.h"

namespace kavrel::test {

// A new empty folder under the system's temporary folder; removed with
// everything in it on destruction.
class TempDir {
 public:
  TempDir() {
    static std::atomic<unsigned> counter{0};
    std::random_device rd;
    const auto base = std::filesystem::temp_directory_path();
    for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
      auto candidate = base / ("kavrel-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + "-" +
                               std::to_string(rd() % 1000000));
      std::error_code ec;
      if (std::filesystem::create_directory(candidate, ec)) path_ = candidate;
    }
    if (path_.empty()) throw std::runtime_error("cannot create a temporary folder under " + base.string());
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::filesystem::path& path() const { return path_; }
  // The UTF-8 path of `name` inside the folder (the file is not created);
  // paths are byte strings here, so UTF-8 names pass through unchanged.
  std::string file(std::string_view name) const { return (path_ / std::string(name)).string(); }
 private:
  std::filesystem::path path_;
};

// A database created with kavrel::db::createDatabase: a file in its own
// TempDir, or, while a test runs on the server engine (see engines.h), a new
// database on the test server (path() is then its URI).
class TempDb {
 public:
  explicit TempDb(Engine engine = currentEngine()) {
    if (engine == Engine::PostgreSQL) {
      path_ = createServerDatabase();
      onServer_ = true;
    }
    db::createDatabase(path_);
  }
  ~TempDb() {
    try {
      if (conn_) conn_->close();  // before the folder goes
      if (onServer_) dropServerDatabase(path_);
    } catch (...) {
    }
  }
  TempDb(const TempDb&) = delete;
  TempDb& operator=(const TempDb&) = delete;
  const std::string& path() const { return path_; }
  const TempDir& dir() const { return dir_; }
  // The shared connection on the file, opened on first use (and again after
  // it was closed).
  std::shared_ptr<db::Connection> connection() {
    if (!conn_ || !conn_->isOpen()) conn_ = db::openConnection(path_);
    return conn_;
  }
  // Another, independent connection on the same file (e.g. a second process).
  std::shared_ptr<db::Connection> openAnother() const { return db::openConnection(path_); }
 private:
  TempDir dir_;
  std::string path_ = dir_.file("kavrel.sqlite");
  bool onServer_ = false;
  std::shared_ptr<db::Connection> conn_;
};

// The first field of each row of `sql`, as texts joined by `separator`
// (the engines have no aggregate for this in common).
inline std::string joinedRows(db::Connection& conn, const std::string& sql, const std::string& separator = ",") {
  std::string out;
  bool first = true;
  for (auto rs = conn.execute(sql); !rs->eof(); rs->moveNext(), first = false) {
    out += (first ? "" : separator) + rs->field(0).toText();
  }
  return out;
}

}  // namespace kavrel::test
