// The database engines the tests run on, and the throwaway server.
//
// Suites that touch a database derive from EngineTest and run once per
// engine (TEST_P, instantiated with KAVREL_ON_ENGINES(Suite)); every TempDb
// made while such a test runs is on that test's engine.
//
// The server: KAVREL_TEST_POSTGRES=<URI or key=value conninfo> names an
// existing one; otherwise the file KAVREL_TEST_POSTGRES_FILE names (written by
// the test run's start-up step, see tests/CMakeLists.txt); otherwise the
// process starts its own and stops it at exit. Each TempDb gets a new
// database of its own, dropped with it. When no server can be had at all,
// the server half of a suite fails with the reason.
#pragma once

#include <gtest/gtest.h>

#include <string>

namespace kavrel::test {

enum class Engine { SQLite, PostgreSQL };

// The engine of the test being run (SQLite outside an engine suite).
Engine currentEngine();
void setCurrentEngine(Engine e);

// The server's base URI, or empty with `why` set when there is none.
std::string serverUri(std::string* why = nullptr);
// A new empty database on the server (its URI) and its removal.
std::string createServerDatabase();
void dropServerDatabase(const std::string& uri);

class EngineTest : public ::testing::TestWithParam<Engine> {
 protected:
  EngineTest() { setCurrentEngine(GetParam()); }
  ~EngineTest() override { setCurrentEngine(Engine::SQLite); }
  bool onServer() const { return GetParam() == Engine::PostgreSQL; }
};

inline std::string engineLabel(const ::testing::TestParamInfo<Engine>& info) {
  return info.param == Engine::SQLite ? "SQLite" : "PostgreSQL";
}

}  // namespace kavrel::test

#define KAVREL_ON_ENGINES(Suite)                                                                                \
  INSTANTIATE_TEST_SUITE_P(Engines, Suite,                                                                      \
                           ::testing::Values(::kavrel::test::Engine::SQLite, ::kavrel::test::Engine::PostgreSQL), \
                           ::kavrel::test::engineLabel)
