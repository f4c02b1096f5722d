// A connection that hands every call to another one, for tests that wrap a
// real connection to count, fail or change a few of its calls. Batched
// writes are not passed on: through it, every row is written at once.
#pragma once

#include "kavrel/platform/db.h"

namespace kavrel::test {

class ForwardingConnection : public db::Connection {
 public:
  explicit ForwardingConnection(db::Connection& real) : real_(real) {}
  std::unique_ptr<db::Recordset> execute(std::string_view sql) override { return real_.execute(sql); }
  int64_t recordsAffected() const override { return real_.recordsAffected(); }
  std::unique_ptr<db::ClientRecordset> openClient(std::string_view sql) override { return real_.openClient(sql); }
  std::unique_ptr<db::UpdatableRecordset> openUpdatable(std::string_view sql) override {
    return real_.openUpdatable(sql);
  }
  void begin() override { real_.begin(); }
  void commit() override { real_.commit(); }
  void rollback() override { real_.rollback(); }
  int transactionDepth() const override { return real_.transactionDepth(); }
  void deferConstraintChecks() override { real_.deferConstraintChecks(); }
  const std::vector<DbError>& errors() const override { return real_.errors(); }
  void clearErrors() override { real_.clearErrors(); }
  bool isOpen() const override { return real_.isOpen(); }
  void close() override { real_.close(); }
  std::string description() const override { return real_.description(); }

 protected:
  db::Connection& real_;
};

}  // namespace kavrel::test
