// Read-ahead: the SELECTs of a whole-target read are sent in one pipeline
// and a thread of ours receives their results while the caller builds its
// objects from the earlier ones, so that the server, the client library
// and the caller work at the same time instead of taking turns.
//
// While the reader runs it alone uses the connection: every other use goes
// through Database::handle(), which ends the read-ahead first (waiting for
// the rest of the results and dropping those not taken). A failed statement
// makes the server skip the rest up to the pipeline's sync; none of their
// results is handed out, so each runs again when asked, on its own, and
// fails or succeeds then as it would have without the read-ahead.

#include <algorithm>
#include <cctype>

#include "platform/postgres/pg_internal.h"

namespace kavrel::db::postgres {

namespace {

bool isSelect(std::string_view sql) {
  size_t i = 0;
  while (i < sql.size() && std::isspace(static_cast<unsigned char>(sql[i]))) ++i;
  if (sql.size() - i < 6) return false;
  std::string word(sql.substr(i, 6));
  for (char& ch : word) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));
  return word == "select";
}

// The next result of the pipeline and the null that ends a statement's
// results; null when the connection gave nothing.
Result nextResult(PGconn* c) {
  Result r(PQgetResult(c));
  if (r && PQresultStatus(r.get()) != PGRES_PIPELINE_SYNC) {
    while (PGresult* extra = PQgetResult(c)) PQclear(extra);
  }
  return r;
}

void receive(PGconn* c, ReadAheadState& s) {
  bool failed = false;
  bool broken = false;
  if (s.savepoint) {
    Result r = nextResult(c);
    broken = !r;
    failed = broken || !succeeded(r);
  }
  for (size_t k = 0; k < s.statements.size() && !broken; ++k) {
    Result r = nextResult(c);
    broken = !r;
    if (broken || PQresultStatus(r.get()) != PGRES_TUPLES_OK) failed = true;
    // The client sort is worked out here, off the caller's thread, while
    // the server still answers the later statements.
    std::optional<std::vector<int>> order;
    if (!failed && !s.statements[k].terms.empty()) {
      try {
        order = clientOrder(r.get(), s.statements[k].terms);
      } catch (...) {
        order.reset();  // the statement then runs again when asked
      }
    }
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!failed) {
      s.statements[k].result = std::move(r);
      s.statements[k].order = std::move(order);
    }
    s.received = k + 1;
    s.arrived.notify_all();
  }
  if (s.savepoint && !broken) {
    Result r = nextResult(c);
    broken = !r;
    failed = failed || broken || !succeeded(r);
  }
  while (!broken) {
    Result r(PQgetResult(c));
    if (!r || PQresultStatus(r.get()) == PGRES_PIPELINE_SYNC) break;
  }
  if (!broken) PQexitPipelineMode(c);
  std::lock_guard<std::mutex> lock(s.mutex);
  s.failed = failed || broken;
  s.received = s.statements.size();
  s.finished = true;
  s.arrived.notify_all();
}

}  // namespace

void Database::beginReadAhead(const std::vector<std::string>& statements) noexcept {
  if (ahead_) endReadAhead();
  if (!conn_ || PQpipelineStatus(conn_.get()) != PQ_PIPELINE_OFF) return;
  auto state = std::make_unique<ReadAheadState>();
  try {
    for (const std::string& text : statements) {
      ClientSortedSelect select = adaptSelect(text);
      if (!isSelect(select.sql)) continue;
      ReadAheadState::Statement st;
      st.text = text;
      st.sent = std::move(select.sql);
      st.terms = std::move(select.terms);
      state->statements.push_back(std::move(st));
    }
  } catch (...) {
    // A text the dialect refuses runs (and is refused) when asked; so does
    // the rest when memory runs short.
  }
  if (state->statements.empty()) return;
  PGconn* c = conn_.get();
  if (!PQenterPipelineMode(c)) return;
  // Inside a transaction a failure must not end it: the statements run
  // under a savepoint that endReadAhead() undoes after a failure.
  state->savepoint = transactionDepth > 0;
  bool sent = !state->savepoint || PQsendQueryParams(c, "SAVEPOINT kavrel_ahead", 0, nullptr, nullptr, nullptr,
                                                     nullptr, 0) == 1;
  for (const auto& st : state->statements) {
    if (!sent) break;
    sent = PQsendQueryParams(c, st.sent.c_str(), 0, nullptr, nullptr, nullptr, nullptr, 0) == 1;
  }
  if (sent && state->savepoint) {
    sent = PQsendQueryParams(c, "RELEASE kavrel_ahead", 0, nullptr, nullptr, nullptr, nullptr, 0) == 1;
  }
  if (sent) sent = PQpipelineSync(c) == 1;
  if (!sent) {
    // Only a broken connection refuses to send; the next statement reports it.
    PQexitPipelineMode(c);
    return;
  }
  aheadCounts_.sent += static_cast<int64_t>(state->statements.size());
  try {
    ReadAheadState* s = state.get();
    state->reader = std::thread([c, s] { receive(c, *s); });
  } catch (...) {
    receive(c, *state);  // no thread to be had: received here and now
  }
  ahead_ = std::move(state);
}

std::optional<Database::AheadRows> Database::takeReadAhead(std::string_view sql) {
  if (!ahead_) return std::nullopt;
  ReadAheadState& s = *ahead_;
  auto it = std::find_if(s.statements.begin(), s.statements.end(),
                         [&](const ReadAheadState::Statement& st) { return !st.taken && st.text == sql; });
  if (it == s.statements.end()) return std::nullopt;
  const size_t index = static_cast<size_t>(it - s.statements.begin());
  std::unique_lock<std::mutex> lock(s.mutex);
  s.arrived.wait(lock, [&] { return s.received > index || s.finished; });
  if (!it->result) return std::nullopt;
  it->taken = true;
  ++aheadCounts_.used;
  if (!it->terms.empty() && !it->order) return std::nullopt;  // the server must sort
  AheadRows rows{std::move(it->result), static_cast<int>(it->terms.size()), std::move(it->order)};
  return rows;
}

void Database::endReadAhead() noexcept {
  if (!ahead_) return;
  std::unique_ptr<ReadAheadState> s = std::move(ahead_);
  if (s->reader.joinable()) s->reader.join();
  for (const auto& st : s->statements) {
    if (!st.taken) ++aheadCounts_.dropped;
  }
  if (s->failed && s->savepoint && conn_) {
    Result undo(PQexec(conn_.get(), "ROLLBACK TO kavrel_ahead; RELEASE kavrel_ahead"));
  }
}

}  // namespace kavrel::db::postgres
