// Fault injection: a write that fails at any step of a whole-target insert
// (an engine or disk fault, not a row refused by the database's rules)
// leaves the database file exactly as it was and reports that one error.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "kavrel/kavrel.h"
#include "support/forwarding_connection.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

constexpr int kDiskFault = 10;  // the engine's number for an I/O failure

// Counts every write made through it and fails the `failAt`-th one.
class FaultyConnection : public test::ForwardingConnection {
 public:
  FaultyConnection(db::Connection& real, int failAt) : ForwardingConnection(real), failAt_(failAt) {}
  int steps() const { return steps_; }
  void step() {
    if (++steps_ == failAt_) throw DbError(kDiskFault, "SQLite", "disk I/O error", kDiskFault, "disk I/O error");
  }

  std::unique_ptr<db::Recordset> execute(std::string_view sql) override {
    if (text::upper(text::trim(sql)).rfind("SELECT", 0) != 0) step();
    return real_.execute(sql);
  }
  std::unique_ptr<db::UpdatableRecordset> openUpdatable(std::string_view sql) override;
  void commit() override {
    step();
    real_.commit();
  }

 private:
  int failAt_;
  int steps_ = 0;
};

class FaultyRecordset : public db::UpdatableRecordset {
 public:
  FaultyRecordset(std::unique_ptr<db::UpdatableRecordset> real, FaultyConnection& conn)
      : real_(std::move(real)), conn_(conn) {}
  bool eof() override { return real_->eof(); }
  void moveNext() override { real_->moveNext(); }
  int fieldCount() override { return real_->fieldCount(); }
  std::string fieldName(int index) override { return real_->fieldName(index); }
  const db::Value& field(int index) override { return real_->field(index); }
  const db::Value& field(std::string_view name) override { return real_->field(name); }
  void close() override { real_->close(); }
  void addNew() override { real_->addNew(); }
  void addNew(const std::vector<std::string>& fields, const std::vector<db::Value>& values) override {
    conn_.step();
    real_->addNew(fields, values);
  }
  void setField(std::string_view name, db::Value value) override { real_->setField(name, std::move(value)); }
  void update() override {
    conn_.step();
    real_->update();
  }
  void cancelUpdate() override { real_->cancelUpdate(); }
  void deleteCurrent() override {
    conn_.step();
    real_->deleteCurrent();
  }

 private:
  std::unique_ptr<db::UpdatableRecordset> real_;
  FaultyConnection& conn_;
};

std::unique_ptr<db::UpdatableRecordset> FaultyConnection::openUpdatable(std::string_view sql) {
  return std::make_unique<FaultyRecordset>(real_.openUpdatable(sql), *this);
}

TEST(InsertFaults, AFailingWriteAtAnyStepLeavesTheFileAsItWas) {
  test::TempDb db;
  auto session = KavrelDatabase::create();
  session->DbOpen(db.path());
  session->importParametersFromXml(std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml");
  session->DbRead();
  db::Connection& real = *session->DbConnection();

  for (const char* example : {"examples/can_target.xml", "examples/kline_target.xml"}) {
    SCOPED_TRACE(example);
    const std::string before = test::readBytes(db.path());
    int failAt = 1;
    for (;; ++failAt) {
      SCOPED_TRACE("failing write " + std::to_string(failAt));
      session->ImportUceFromXml(std::string(KAVREL_SOURCE_DIR) + "/" + example);
      FaultyConnection conn(real, failAt);
      clearLastError();
      bool threw = false;
      try {
        session->ActiveTarget()->dbInsertTargetAll(conn);
      } catch (const Error& e) {
        threw = true;
        EXPECT_EQ(e.number(), kDiskFault) << e.what();
        EXPECT_NE(e.description().find("disk I/O error"), std::string::npos) << e.description();
      }
      if (conn.steps() < failAt) break;  // every write done: nothing failed
      EXPECT_TRUE(threw) << "the fault was not reported";
      ASSERT_EQ(real.transactionDepth(), 0);
      EXPECT_TRUE(test::readBytes(db.path()) == before) << "the database file changed";
      EXPECT_EQ(session->ActiveTarget()->targetid(), 0) << "the target looks stored";
      ASSERT_LT(failAt, 10000);
    }
    EXPECT_GT(failAt, 20) << "too few writes seen to be a whole target";
    // The last round stored it whole, once.
    EXPECT_FALSE(lastError().pending()) << lastError().description;
    auto rs = real.execute("SELECT COUNT(*) FROM Cibles");
    EXPECT_GE(rs->field(0).toInt64(), 1);
  }
}

}  // namespace
}  // namespace kavrel
