// Large target documents are imported in pieces (KAVREL_PIECEWISE_BYTES
// lowered here so that small documents take that way too): the imported
// target, exported again, and what the import reported are the same as
// after a whole-tree import.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/temp_db.h"
#include "synthetic_target.h"

namespace kavrel {
namespace {

using test::readBytes;
using test::writeBytes;

// Sets the piecewise size for its lifetime.
class PiecewiseBytes {
 public:
  explicit PiecewiseBytes(bool pieces) {
    if (pieces)
      ::setenv("KAVREL_PIECEWISE_BYTES", "0", 1);
    else
      ::unsetenv("KAVREL_PIECEWISE_BYTES");
  }
  ~PiecewiseBytes() { ::unsetenv("KAVREL_PIECEWISE_BYTES"); }
  PiecewiseBytes(const PiecewiseBytes&) = delete;
  PiecewiseBytes& operator=(const PiecewiseBytes&) = delete;
};

struct Imported {
  std::string exported;
  std::string report;  // what the import reported, in order
  std::string error;
};

class ImportPiecewise : public ::testing::Test {
 protected:
  std::shared_ptr<KavrelDatabase> session() {
    auto s = KavrelDatabase::create();
    s->DbOpen(db_.path());
    s->DbRead();
    return s;
  }
  void SetUp() override {
    auto s = KavrelDatabase::create();
    s->DbOpen(db_.path());
    s->importParametersFromXml(std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml");
  }
  Imported import(const std::string& file, bool pieces) {
    const PiecewiseBytes size(pieces);
    auto report = std::make_shared<ImportReport>(nullptr, 1000);
    const ScopedHost scoped(report);
    Imported out;
    auto s = session();
    try {
      s->ImportUceFromXml(file);
    } catch (const Error& e) {
      out.error = std::to_string(e.number()) + " " + e.description();
      return out;
    }
    const std::string exported = db_.dir().file("exported.xml");
    s->ExportUceToXml(exported);
    out.exported = readBytes(exported);
    for (const auto& e : report->kept()) out.report += e.path + ": " + e.text + "\n";
    return out;
  }
  // Returns the whole-tree import.
  Imported expectSameBothWays(const std::string& file) {
    const Imported whole = import(file, false);
    const Imported pieces = import(file, true);
    EXPECT_EQ(pieces.error, whole.error);
    EXPECT_EQ(pieces.report, whole.report);
    EXPECT_TRUE(pieces.exported == whole.exported) << "exports differ";
    return whole;
  }
  std::string write(const std::string& name, const std::string& text) {
    const std::string path = db_.dir().file(name);
    writeBytes(path, text);
    return path;
  }
  test::TempDb db_;
};

TEST_F(ImportPiecewise, ExamplesAndSyntheticTargetGiveTheSameExport) {
  for (const char* name : {"can_target.xml", "kline_target.xml"}) {
    SCOPED_TRACE(name);
    const Imported whole = expectSameBothWays(std::string(KAVREL_SOURCE_DIR) + "/examples/" + name);
    EXPECT_EQ(whole.error, "");
    EXPECT_GT(whole.exported.size(), 10000u);
  }
  const std::string synthetic = db_.dir().file("synthetic.xml");
  {
    auto s = session();
    bench::buildSyntheticTarget(*s, bench::sizeS(), s->functions()->Item(1)->Address());
    s->ExportUceToXml(synthetic);
  }
  SCOPED_TRACE("synthetic S");
  const Imported whole = expectSameBothWays(synthetic);
  EXPECT_EQ(whole.error, "");
  EXPECT_GT(whole.exported.size(), 1000000u);
}

// Unknown children of the target and of records, names too long for their
// column (reported with their element's path) and a document refused.
TEST_F(ImportPiecewise, UnknownChildrenReportsAndRefusalsAlike) {
  std::string text = readBytes(std::string(KAVREL_SOURCE_DIR) + "/examples/can_target.xml");
  const std::string plain = import(write("plain.xml", text), false).exported;
  ASSERT_FALSE(plain.empty());
  text.insert(text.find("<Datas>"), "<Unknown><Data Name=\"ghost\"/></Unknown>\n<e/>\n");
  const std::string firstData = "<Data Name=\"Consigne vanne EGR\">";
  text.insert(text.find(firstData) + firstData.size(), "<Foo Name=\"x\"><Bits/></Foo><!-- c -->");
  const std::string padded = write("padded.xml", text);
  EXPECT_EQ(import(padded, false).exported, plain);
  expectSameBothWays(padded);

  std::string longName = text;
  longName.replace(longName.find("Débit carburant"), 15, std::string(90, 'n'));
  expectSameBothWays(write("long.xml", longName));
  EXPECT_NE(import(db_.dir().file("long.xml"), true).report.find("/Datas/Data[@Name='nnn"), std::string::npos);

  std::string broken = text;
  broken.insert(broken.find("</Datas>"), "<Data Name=\"b\"><Bits></Data>");
  expectSameBothWays(write("broken.xml", broken));
  EXPECT_FALSE(import(db_.dir().file("broken.xml"), true).error.empty());
}

}  // namespace
}  // namespace kavrel
