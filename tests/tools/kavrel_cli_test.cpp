// The `kavrel` command end to end: the built binary is run in a temporary
// folder and judged by its exit status, its output and the files it leaves.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/checks.h"
#include "support/temp_db.h"

namespace {

namespace fs = std::filesystem;
using kavrel::test::contains;
using kavrel::test::readBytes;
using kavrel::test::writeBytes;

std::string sourceFile(const std::string& relative) { return std::string(KAVREL_SOURCE_DIR) + "/" + relative; }

std::string shellQuote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

struct Outcome {
  int status = -1;
  std::string out;
  std::string err;
};

class KavrelCli : public ::testing::Test {
 protected:
  void SetUp() override {
    // The tool is built next to this test binary unless told otherwise.
    const char* bin = std::getenv("KAVREL_BIN_DIR");
    const fs::path folder = bin && *bin ? fs::path(bin) : fs::read_symlink("/proc/self/exe").parent_path();
    binary_ = folder / "kavrel";
    ASSERT_TRUE(fs::exists(binary_)) << binary_;
    db_ = file("defs.sqlite");
  }

  std::string file(const std::string& name) const { return dir_.file(name); }

  Outcome run(const std::vector<std::string>& args) {
    std::string cmd = "cd " + shellQuote(dir_.path().string()) + " && " + shellQuote(binary_.string());
    for (const auto& a : args) cmd += " " + shellQuote(a);
    cmd += " >" + shellQuote(file("stdout.txt")) + " 2>" + shellQuote(file("stderr.txt"));
    const int raw = std::system(cmd.c_str());
    Outcome r;
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.out = readBytes(file("stdout.txt"));
    r.err = readBytes(file("stderr.txt"));
    return r;
  }

  // A database seeded with the example parameters.
  void init() {
    const Outcome r = run({"init", db_, "--parameters", sourceFile("examples/parameters.xml")});
    ASSERT_EQ(r.status, 0) << r.err;
  }

  kavrel::test::TempDir dir_;
  fs::path binary_;
  std::string db_;
};

TEST_F(KavrelCli, UsageErrorsExitWithTwoAndHelpWithZero) {
  EXPECT_EQ(run({"--help"}).status, 0);
  for (const char* sub : {"init", "check", "targets", "export", "import", "export-parameters", "delete"}) {
    const Outcome r = run({sub, "--help"});
    EXPECT_EQ(r.status, 0) << sub;
    EXPECT_TRUE(contains(r.out, "Usage")) << sub;
  }
  EXPECT_EQ(run({}).status, 2);
  EXPECT_EQ(run({"frobnicate"}).status, 2);
  EXPECT_EQ(run({"export", db_}).status, 2);
  EXPECT_EQ(run({"check", db_, "--bogus"}).status, 2);
  EXPECT_EQ(run({"export", db_, "T", "--stylesheet", "a.xsl", "--no-stylesheet"}).status, 2);
}

TEST_F(KavrelCli, InitAndCheck) {
  init();
  Outcome r = run({"check", db_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "schema version 4"));

  r = run({"init", db_});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "already exists"));

  // Not a database: refused with the library's numbered error.
  writeBytes(file("notes.txt"), "not a database\n");
  r = run({"check", file("notes.txt")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("error ", 0), 0u) << r.err;

  // A database of another schema version is refused with the session's error.
  {
    kavrel::test::TempDb old;
    old.connection()->execute("UPDATE [system] SET [value]='3' WHERE [parameter]='version'");
    old.connection()->close();
    r = run({"check", old.path()});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "error 5 (KavrelDatabase.IsKavrelDatabase): Bad version"));
    r = run({"targets", old.path()});
    EXPECT_EQ(r.status, 1);
  }

  r = run({"check", file("missing.sqlite")});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "missing.sqlite"));
  EXPECT_FALSE(fs::exists(file("missing.sqlite")));

  // A failed init leaves no file behind.
  r = run({"init", file("other.sqlite"), "--parameters", file("notes.txt")});
  EXPECT_EQ(r.status, 1);
  EXPECT_FALSE(fs::exists(file("other.sqlite")));
}

TEST_F(KavrelCli, ImportExportListAndDeleteTheExamples) {
  init();
  for (const char* example : {"examples/kline_target.xml", "examples/can_target.xml"}) {
    const Outcome r = run({"import", db_, sourceFile(example)});
    ASSERT_EQ(r.status, 0) << example << ": " << r.err;
  }
  Outcome r = run({"targets", db_});
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream lines(r.out);
  std::vector<std::string> names;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string name;
    std::getline(fields, name, '\t');
    names.push_back(name);
    std::string rest;
    int count = 0;
    while (std::getline(fields, rest, '\t')) ++count;
    EXPECT_EQ(count, 6) << line;
  }
  ASSERT_EQ(names.size(), 2u) << r.out;

  // Each export gives back the example's bytes, to a file and to stdout.
  for (const auto& name : names) {
    r = run({"export", db_, name, "-o", file("out.xml")});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string written = readBytes(file("out.xml"));
    const bool matches = written == readBytes(sourceFile("examples/kline_target.xml")) ||
                         written == readBytes(sourceFile("examples/can_target.xml"));
    EXPECT_TRUE(matches) << name;
    r = run({"export", db_, name});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, written);
  }

  r = run({"export", db_, names[0], "--no-stylesheet", "--no-namespace", "--encoding", "ISO-8859-1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("<?xml version='1.0' encoding=\"ISO-8859-1\"?>\n<xml>\n<kvr:Target ", 0), 0u) << r.out;

  r = run({"export", db_, "No such target", "-o", file("none.xml")});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "error 1 (KavrelDatabase.ExportNamedUceToXml): Target 'No such target' not found"));
  EXPECT_FALSE(fs::exists(file("none.xml")));

  r = run({"export-parameters", db_, "-o", file("params.xml")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(readBytes(file("params.xml")), "<DeviceTypes>"));

  r = run({"delete", db_, names[0]});
  EXPECT_EQ(r.status, 0) << r.err;
  r = run({"delete", db_, names[0]});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "not found"));
  r = run({"targets", db_});
  EXPECT_EQ(r.out.find(names[0] + "\t"), std::string::npos) << r.out;
  EXPECT_TRUE(contains(r.out, names[1] + "\t"));
}

TEST_F(KavrelCli, ImportRefusalsLeaveTheDatabaseAsItWas) {
  init();
  const std::string example = sourceFile("examples/kline_target.xml");
  ASSERT_EQ(run({"import", db_, example}).status, 0);
  const std::string before = run({"targets", db_}).out;

  Outcome r = run({"import", db_, example});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "already exists"));
  EXPECT_TRUE(contains(r.err, "--replace"));
  EXPECT_EQ(run({"targets", db_}).out, before);

  writeBytes(file("broken.xml"), "<?xml version=\"1.0\"?>\n<xml><kvr:Target Name=\"Broken\">\n");
  r = run({"import", db_, file("broken.xml")});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "error 1 (KavrelDatabase.ImportUceFromXml): Bad xml file"));
  EXPECT_EQ(run({"targets", db_}).out, before);

  writeBytes(file("unnamed.xml"), "<?xml version=\"1.0\"?>\n<xml>\n<kvr:Target>\n</kvr:Target>\n</xml>\n");
  r = run({"import", db_, file("unnamed.xml")});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "without a name"));
  EXPECT_EQ(run({"targets", db_}).out, before);

  r = run({"import", db_, file("absent.xml")});
  EXPECT_EQ(r.status, 1);
  r = run({"import", file("absent.sqlite"), example});
  EXPECT_EQ(r.status, 1);
  EXPECT_FALSE(fs::exists(file("absent.sqlite")));

  // --replace swaps the stored target for the document's: a new id, the
  // same content.
  r = run({"import", db_, example, "--replace"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "replaced"));
  const std::string after = run({"targets", db_}).out;
  EXPECT_NE(after, before);  // the id changed
  ASSERT_EQ(std::count(after.begin(), after.end(), '\n'), 1);
  auto withoutId = [](const std::string& line) {
    std::vector<std::string> f;
    std::istringstream in(line);
    for (std::string s; std::getline(in, s, '\t');) f.push_back(s);
    f.erase(f.begin() + 2);
    return f;
  };
  EXPECT_EQ(withoutId(after), withoutId(before));
  r = run({"export", db_, withoutId(after)[0]});
  EXPECT_EQ(r.out, readBytes(example));

  // A replacement whose insert fails half-way (two data names equal but for
  // letter case) keeps the stored target untouched.
  std::string doubled = readBytes(example);
  const std::string anchor = "<Data Name=\"Tension batterie\">";
  ASSERT_NE(doubled.find(anchor), std::string::npos);
  doubled.insert(doubled.find(anchor), "<Data Name=\"TENSION BATTERIE\">\n<Bits/>\n</Data>\n");
  writeBytes(file("doubled.xml"), doubled);
  r = run({"import", db_, file("doubled.xml"), "--replace"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "nothing was imported"));
  EXPECT_EQ(run({"targets", db_}).out, after);
  EXPECT_EQ(run({"export", db_, withoutId(after)[0]}).out, readBytes(example));
}

}  // namespace
