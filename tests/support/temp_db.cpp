#include "support/temp_db.h"

#include <atomic>
#include <chrono>
#include <random>
#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace kavrel::test {

TempDir::TempDir() {
  static std::atomic<unsigned> counter{0};
  std::random_device rd;
  const auto base = std::filesystem::temp_directory_path();
  for (int attempt = 0; attempt < 100; ++attempt) {
    auto name = "kavrel-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter++) + "-" +
                std::to_string(rd() % 1000000);
    auto candidate = base / name;
    std::error_code ec;
    if (std::filesystem::create_directory(candidate, ec)) {
      path_ = candidate;
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary folder under " + base.string());
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::file(std::string_view name) const {
  // Paths are byte strings here, so UTF-8 names pass through unchanged.
  return (path_ / std::string(name)).string();
}

TempDb::TempDb() : path_(dir_.file("kavrel.sqlite")) { db::createDatabase(path_); }

TempDb::~TempDb() {
  if (conn_) {
    try {
      conn_->close();
    } catch (...) {
    }
    conn_.reset();
  }
}

std::shared_ptr<db::Connection> TempDb::connection() {
  if (!conn_ || !conn_->isOpen()) conn_ = db::openConnection(path_);
  return conn_;
}

std::shared_ptr<db::Connection> TempDb::openAnother() const { return db::openConnection(path_); }

}  // namespace kavrel::test
