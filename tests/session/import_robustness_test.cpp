// Imports of hostile or broken documents: deep nesting, characters and
// numbers that cannot be stored faithfully, links to missing items when a
// stored target is replaced, and the error record at process exit.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/temp_db.h"
#include "support/engines.h"

namespace kavrel {
namespace {

using test::readBytes;
using test::writeBytes;

std::string example() { return readBytes(std::string(KAVREL_SOURCE_DIR) + "/examples/can_target.xml"); }

// The example with its first `from` replaced by `to` (which must be there).
std::string edited(const std::string& from, const std::string& to) {
  std::string text = example();
  const size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

class ImportRobustness : public ::kavrel::test::EngineTest {
 protected:
  void SetUp() override {
    session_->DbOpen(db_.path());
    session_->importParametersFromXml(std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml");
    session_->DbRead();
  }
  std::string write(const std::string& name, const std::string& text) {
    const std::string path = db_.dir().file(name);
    writeBytes(path, text);
    return path;
  }
  int64_t count(const std::string& sql) {
    auto rs = session_->DbConnection()->execute(sql);
    return rs->field(0).toInt64();
  }
  test::TempDb db_;
  std::shared_ptr<KavrelDatabase> session_ = KavrelDatabase::create();
};
KAVREL_ON_ENGINES(ImportRobustness);

// An unknown element nested far deeper than any recursion could follow,
// inside each element whose readers drop what they have read.
TEST_P(ImportRobustness, DeepNestingIsReadAndFreedWithoutRecursion) {
  const std::string deep = [] {
    std::string open, close;
    for (int i = 0; i < 200000; ++i) open += "<a>", close += "</a>";
    return open + close;
  }();
  const struct {
    const char* where;
    const char* before;
  } cases[] = {{"Data", "<Mnemonic>EGRCONS</Mnemonic>"},
               {"Request", "<Sent>"},
               {"list Item", "<![CDATA[Maintien"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.where);
    const std::string path = write("deep.xml", edited(c.before, deep + c.before));
    session_->ImportUceFromXml(path);
    EXPECT_EQ(session_->ActiveTarget()->name(), "Injection diesel CAN");
    EXPECT_EQ(session_->ActiveTarget()->datas()->Count(), 8);
  }
}

// Characters a document may not hold are refused where they stand, written
// as references or raw; the same references inside CDATA are plain text.
TEST_P(ImportRobustness, CharactersThatCannotBeStoredAreRefused) {
  const struct {
    const char* from;
    const char* to;
    const char* named;  // what the reason must name
  } refused[] = {
      {"Name=\"Injection diesel CAN\"", "Name=\"Inj &#xD800; x\"", "attribute \"Name\" of element \"kvr:Target\""},
      {"Name=\"Injection diesel CAN\"", "Name=\"Inj &#0; x\"", "\"&#0;\""},
      {"<Mnemonic>EGRCONS</Mnemonic>", "<Mnemonic>EGR&#x1;</Mnemonic>", "text of element \"Mnemonic\""},
      {"<Mnemonic>EGRCONS</Mnemonic>", "<Mnemonic>EGR\x02</Mnemonic>", "U+0002"},
      {"Unit=\"%\"", "Unit=\"&#xFFFE;\"", "attribute \"Unit\" of element \"Scaled\""},
      {"Unit=\"%\"", "Unit=\"\xEF\xBF\xBF\"", "U+FFFF"},
      {"Unit=\"%\"", "Unit=\"&#1114112;\"", "&#1114112;"},
  };
  for (const auto& c : refused) {
    SCOPED_TRACE(c.to);
    const std::string path = write("bad.xml", edited(c.from, c.to));
    xml::Document doc;
    EXPECT_FALSE(doc.load(path));
    EXPECT_NE(doc.parseError().reason.find(c.named), std::string::npos) << doc.parseError().reason;
    EXPECT_GT(doc.parseError().line, 1);
    try {
      session_->ImportUceFromXml(path);
      ADD_FAILURE() << "imported";
    } catch (const Error& e) {
      EXPECT_EQ(e.number(), 1);
    }
  }
  const std::string fine =
      write("fine.xml", edited("<Mnemonic>EGRCONS</Mnemonic>", "<Mnemonic>&#xE9;&#x1F600;<![CDATA[&#0;]]></Mnemonic>"));
  session_->ImportUceFromXml(fine);
  EXPECT_EQ(session_->ActiveTarget()->datas()->ItemName("Consigne vanne EGR")->Mnemo(), "\xC3\xA9\xF0\x9F\x98\x80&#0;");
}

// Coefficients too large for a number are refused naming their attribute;
// the reading up to the first character that is not a number stays.
TEST_P(ImportRobustness, NumbersThatOverflowAreRefused) {
  const struct {
    const char* from;
    const char* to;
    const char* attribute;
  } refused[] = {{"Step=\"0.125\"", "Step=\"1e400\"", "\"Step\" of element \"Scaled\""},
                 {"Step=\"0.125\"", "Step=\"0.125\" Offset=\"-1e999\"", "\"Offset\""},
                 {"DivideBy=\"3.6\"", "DivideBy=\"9e9999x\"", "\"DivideBy\""},
                 {"<Bytes count=\"4\"", "<Bytes count=\"1e400\"", "\"count\" of element \"Bytes\""}};
  for (const auto& c : refused) {
    SCOPED_TRACE(c.to);
    try {
      session_->ImportUceFromXml(write("inf.xml", edited(c.from, c.to)));
      ADD_FAILURE() << "imported";
    } catch (const Error& e) {
      EXPECT_EQ(e.number(), kErrOverflow);
      EXPECT_NE(e.description().find(c.attribute), std::string::npos) << e.description();
    }
  }
  session_->ImportUceFromXml(write("comma.xml", edited("Step=\"0.125\"", "Step=\"12,5\"")));
  auto regime = session_->ActiveTarget()->datas()->ItemName("Régime moteur");
  EXPECT_EQ(regime->CoeffA(), 12.0);
}

// Replacing a stored target runs the deletion (relations checked at its
// end) and the insertion in one transaction: links to missing items are
// dropped and logged as by a plain import, and the whole commits.
TEST_P(ImportRobustness, ReplacingDropsLinksToMissingItemsAsAPlainImportDoes) {
  db::Connection& conn = *session_->DbConnection();
  const struct {
    const char* from;
    const char* to;
    const char* table;
  } cases[] = {{"FreezeFrame=\"Lecture mesures moteur\"", "FreezeFrame=\"Absente\"", "Lien_DTC_ReqContext"},
               {"<DeviceData Name=\"Pression rail\"", "<DeviceData Name=\"Absente\"", "Lien_Données_ds_Organe"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.to);
    const std::string path = write("links.xml", edited(c.from, c.to));
    std::vector<int64_t> stored;
    for (bool replace : {false, true}) {
      defaultHost()->clear();
      db::Transaction tx(conn);
      if (replace) {
        int32_t address = 0, id = 0;
        ASSERT_TRUE(session_->DbFindUceByName("Injection diesel CAN", address, id));
        session_->NewTarget()->DbRead(conn, address, id);
        session_->ActiveTarget()->setTargetid(id);
        session_->DbDeleteUce();
      }
      session_->ImportUceFromXml(path);
      clearLastError();
      session_->ActiveTarget()->dbInsertTargetAll(conn);
      ASSERT_NO_THROW(tx.commit());
      EXPECT_EQ(defaultHost()->events().size(), 1u);
      stored.push_back(count(std::string("SELECT COUNT(*) FROM [") + c.table + "]"));
    }
    EXPECT_EQ(stored[0], stored[1]);
    EXPECT_EQ(count("SELECT COUNT(*) FROM Cibles"), 1);
    session_->DbDeleteUce();
  }

  // A nested level that defers the checks and leaves a relation broken
  // cannot commit; the enclosing transaction is then checked per statement.
  db::Transaction outer(conn);
  {
    db::Transaction inner(conn);
    conn.deferConstraintChecks();
    conn.execute("INSERT INTO Lien_DTC_ReqContext (Address, [Target Id], [Request Name], [Organe Name]) "
                 "VALUES (1, 999, 'r', 'o')");
    EXPECT_THROW(inner.commit(), DbError);
  }
  EXPECT_THROW(conn.execute("INSERT INTO Lien_DTC_ReqContext (Address, [Target Id], [Request Name], [Organe Name]) "
                            "VALUES (1, 999, 'r', 'o')"),
               DbError);
  outer.commit();
}

// A session held by a static is destroyed after the thread's own objects:
// the error record must still be there for it.
TEST(ErrorRecordLifetime, StaticSessionClosingAfterAnErrorAtExit) {
  test::TempDb db;
  EXPECT_EXIT(
      {
        static std::shared_ptr<KavrelDatabase> session = KavrelDatabase::create();
        session->DbOpen(db.path());
        recordError(1, "a source long enough not to fit in place", "a description long enough not to fit in place");
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace kavrel
