// A thin owning wrapper over the client library's connection and result
// handles: each is released exactly once, whatever path leaves the scope.
#pragma once

#include <libpq-fe.h>

#include <memory>
#include <string>

namespace kavrel::db::postgres {

struct ConnCloser {
  void operator()(PGconn* c) const noexcept { PQfinish(c); }
};
struct ResultClearer {
  void operator()(PGresult* r) const noexcept { PQclear(r); }
};

using ConnHandle = std::unique_ptr<PGconn, ConnCloser>;
using Result = std::unique_ptr<PGresult, ResultClearer>;

inline ExecStatusType statusOf(const Result& r) { return r ? PQresultStatus(r.get()) : PGRES_FATAL_ERROR; }
inline bool succeeded(const Result& r) {
  ExecStatusType s = statusOf(r);
  return s == PGRES_COMMAND_OK || s == PGRES_TUPLES_OK || s == PGRES_PIPELINE_SYNC;
}
// The five-character state of a failed result ("" when none).
inline std::string sqlState(const Result& r) {
  const char* s = r ? PQresultErrorField(r.get(), PG_DIAG_SQLSTATE) : nullptr;
  return s ? s : "";
}

}  // namespace kavrel::db::postgres
