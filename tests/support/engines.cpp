#include "support/engines.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>

#include "kavrel/platform/db.h"

namespace kavrel::test {

namespace {

Engine gEngine = Engine::SQLite;

struct Server {
  std::string uri;
  std::string why;
  std::string ownFile;  // set when this process started the server
  std::shared_ptr<db::Connection> admin;
};

std::string readFirstLine(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  return line;
}

// "key=value key=value" -> URI with the same settings; a URI stays.
std::string asUri(const std::string& conninfo) {
  if (conninfo.rfind("postgres", 0) == 0 && conninfo.find("://") != std::string::npos) return conninfo;
  std::string query;
  size_t i = 0;
  while (i < conninfo.size()) {
    while (i < conninfo.size() && conninfo[i] == ' ') ++i;
    size_t end = conninfo.find(' ', i);
    if (end == std::string::npos) end = conninfo.size();
    if (end > i) query += (query.empty() ? "" : "&") + conninfo.substr(i, end - i);
    i = end;
  }
  return "postgresql:///?" + query;
}

// The URI with another database name.
std::string withDatabase(const std::string& uri, const std::string& name) {
  size_t authority = uri.find("://") + 3;
  size_t path = uri.find('/', authority);
  size_t query = uri.find('?', authority);
  if (path == std::string::npos || (query != std::string::npos && path > query)) path = query;
  std::string head = path == std::string::npos ? uri : uri.substr(0, path);
  std::string tail = query == std::string::npos ? "" : uri.substr(query);
  // A dbname in the query would override the path.
  return head + "/" + name + tail;
}

Server& server() {
  // Never destroyed: the exit handler below still needs it.
  static Server& s = *new Server([] {
    Server r;
    if (const char* given = std::getenv("KAVREL_TEST_POSTGRES"); given && *given) {
      r.uri = asUri(given);
    } else if (const char* file = std::getenv("KAVREL_TEST_POSTGRES_FILE"); file && *file && std::ifstream(file)) {
      r.uri = readFirstLine(file);
    } else {
      r.ownFile = "/tmp/kavrel-pg-" + std::to_string(::getpid()) + ".uri";
      std::string cmd = std::string("\"") + KAVREL_SOURCE_DIR + "/tests/support/pg_server.sh\" start " + r.ownFile;
      if (std::system(cmd.c_str()) == 0) {
        r.uri = readFirstLine(r.ownFile);
        std::atexit([] {
          std::string stop = std::string("\"") + KAVREL_SOURCE_DIR + "/tests/support/pg_server.sh\" stop " +
                             server().ownFile;
          server().admin.reset();
          if (std::system(stop.c_str()) != 0) {
            // Nothing more can be done at exit.
          }
        });
      } else {
        r.why = "no PostgreSQL server could be started (set KAVREL_TEST_POSTGRES to use one)";
      }
    }
    if (!r.uri.empty()) {
      try {
        r.admin = db::openConnection(r.uri);
      } catch (const std::exception& e) {
        r.why = std::string("the test server cannot be reached: ") + e.what();
        r.uri.clear();
      }
    }
    return r;
  }());
  return s;
}

}  // namespace

Engine currentEngine() { return gEngine; }
void setCurrentEngine(Engine e) { gEngine = e; }

std::string serverUri(std::string* why) {
  Server& s = server();
  if (why) *why = s.why;
  return s.uri;
}

std::string createServerDatabase() {
  static std::atomic<unsigned> counter{0};
  Server& s = server();
  if (s.uri.empty()) throw std::runtime_error(s.why);
  std::string name = "kavrel_t" + std::to_string(::getpid()) + "_" + std::to_string(counter++);
  s.admin->execute("DROP DATABASE IF EXISTS " + name);
  s.admin->execute("CREATE DATABASE " + name);
  return withDatabase(s.uri, name);
}

void dropServerDatabase(const std::string& uri) {
  Server& s = server();
  size_t authority = uri.find("://") + 3;
  size_t path = uri.find('/', authority);
  size_t query = uri.find('?', authority);
  std::string name = uri.substr(path + 1, (query == std::string::npos ? uri.size() : query) - path - 1);
  s.admin->execute("DROP DATABASE IF EXISTS " + name + " WITH (FORCE)");
}

}  // namespace kavrel::test
