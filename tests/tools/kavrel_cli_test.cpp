// The `kavrel` command end to end: the built binary is run in a temporary
// folder and judged by its exit status, its output and the files it leaves.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "support/checks.h"
#include "support/temp_db.h"

namespace {

namespace fs = std::filesystem;
using kavrel::test::contains;
using kavrel::test::readBytes;
using kavrel::test::writeBytes;

std::string sourceFile(const std::string& relative) { return std::string(KAVREL_SOURCE_DIR) + "/" + relative; }
const std::string kKline = sourceFile("examples/kline_target.xml");
const std::string kCan = sourceFile("examples/can_target.xml");

std::string shellQuote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// The tab-separated fields of a line.
std::vector<std::string> fields(const std::string& line) {
  std::vector<std::string> f;
  std::istringstream in(line);
  for (std::string s; std::getline(in, s, '\t');) f.push_back(s);
  return f;
}

struct Outcome {
  int status = -1;
  std::string out, err;
};

class KavrelCli : public ::testing::Test {
 protected:
  void SetUp() override {
    // The tool is built next to this test binary unless told otherwise.
    const char* bin = std::getenv("KAVREL_BIN_DIR");
    binary_ = (bin && *bin ? fs::path(bin) : fs::read_symlink("/proc/self/exe").parent_path()) / "kavrel";
    ASSERT_TRUE(fs::exists(binary_)) << binary_;
  }
  std::string file(const std::string& name) const { return dir_.file(name); }
  Outcome run(const std::vector<std::string>& args) {
    std::string cmd = "cd " + shellQuote(dir_.path().string()) + " && " + shellQuote(binary_.string());
    for (const auto& a : args) cmd += " " + shellQuote(a);
    cmd += " >" + shellQuote(file("stdout.txt")) + " 2>" + shellQuote(file("stderr.txt"));
    const int raw = std::system(cmd.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readBytes(file("stdout.txt")), readBytes(file("stderr.txt"))};
  }
  // The command fails with status 1 and an error text holding `part`.
  ::testing::AssertionResult fails(const std::vector<std::string>& args, const std::string& part = "") {
    const Outcome r = run(args);
    if (r.status == 1 && r.err.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "status " << r.status << ", stderr: " << r.err;
  }
  std::string targets() { return run({"targets", db_}).out; }
  // A database seeded with the example parameters.
  void init() {
    const Outcome r = run({"init", db_, "--parameters", sourceFile("examples/parameters.xml")});
    ASSERT_EQ(r.status, 0) << r.err;
  }
  kavrel::test::TempDir dir_;
  fs::path binary_;
  std::string db_ = file("defs.sqlite");
};

TEST_F(KavrelCli, UsageErrorsExitWithTwoAndHelpWithZero) {
  EXPECT_EQ(run({"--help"}).status, 0);
  for (const char* sub : {"init", "check", "targets", "export", "import", "export-parameters", "delete", "convert"}) {
    const Outcome r = run({sub, "--help"});
    EXPECT_EQ(r.status, 0) << sub;
    EXPECT_TRUE(contains(r.out, "Usage")) << sub;
  }
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"frobnicate"}, {"export", db_}, {"check", db_, "--bogus"},
           {"export", db_, "T", "--stylesheet", "a.xsl", "--no-stylesheet"}})
    EXPECT_EQ(run(args).status, 2) << args.size();
}

TEST_F(KavrelCli, InitAndCheck) {
  init();
  Outcome r = run({"check", db_});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "schema version 4"));
  EXPECT_TRUE(fails({"init", db_}, "already exists"));
  // Not a database: refused with the library's numbered error.
  writeBytes(file("notes.txt"), "not a database\n");
  r = run({"check", file("notes.txt")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err.rfind("error ", 0), 0u) << r.err;
  // A database of another schema version is refused with the session's error.
  kavrel::test::TempDb old;
  old.connection()->execute("UPDATE [system] SET [value]='3' WHERE [parameter]='version'");
  old.connection()->close();
  EXPECT_TRUE(fails({"check", old.path()}, "error 5 (KavrelDatabase.IsKavrelDatabase): Bad version"));
  EXPECT_TRUE(fails({"targets", old.path()}));
  EXPECT_TRUE(fails({"check", file("missing.sqlite")}, "missing.sqlite"));
  EXPECT_FALSE(fs::exists(file("missing.sqlite")));
  // A failed init leaves no file behind.
  EXPECT_TRUE(fails({"init", file("other.sqlite"), "--parameters", file("notes.txt")}));
  EXPECT_FALSE(fs::exists(file("other.sqlite")));
}

TEST_F(KavrelCli, ImportExportListAndDeleteTheExamples) {
  init();
  for (const auto& example : {kKline, kCan}) {
    const Outcome r = run({"import", db_, example});
    ASSERT_EQ(r.status, 0) << example << ": " << r.err;
  }
  std::vector<std::string> names;
  std::istringstream lines(targets());
  for (std::string line; std::getline(lines, line);) {
    names.push_back(fields(line)[0]);
    EXPECT_EQ(fields(line).size(), 7u) << line;
  }
  ASSERT_EQ(names.size(), 2u);
  // Each export gives back the example's bytes, to a file and to stdout.
  for (const auto& name : names) {
    Outcome r = run({"export", db_, name, "-o", file("out.xml")});
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string written = readBytes(file("out.xml"));
    EXPECT_TRUE(written == readBytes(kKline) || written == readBytes(kCan)) << name;
    r = run({"export", db_, name});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, written);
  }
  Outcome r = run({"export", db_, names[0], "--no-stylesheet", "--no-namespace", "--encoding", "ISO-8859-1"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out.rfind("<?xml version='1.0' encoding=\"ISO-8859-1\"?>\n<xml>\n<kvr:Target ", 0), 0u) << r.out;
  EXPECT_TRUE(fails({"export", db_, "No such target", "-o", file("none.xml")},
                    "error 1 (KavrelDatabase.ExportNamedUceToXml): Target 'No such target' not found"));
  EXPECT_FALSE(fs::exists(file("none.xml")));
  EXPECT_EQ(run({"export-parameters", db_, "-o", file("params.xml")}).status, 0);
  EXPECT_TRUE(contains(readBytes(file("params.xml")), "<DeviceTypes>"));
  EXPECT_EQ(run({"delete", db_, names[0]}).status, 0);
  EXPECT_TRUE(fails({"delete", db_, names[0]}, "not found"));
  EXPECT_FALSE(contains(targets(), names[0] + "\t"));
  EXPECT_TRUE(contains(targets(), names[1] + "\t"));
}

TEST_F(KavrelCli, ImportRefusalsLeaveTheDatabaseAsItWas) {
  init();
  ASSERT_EQ(run({"import", db_, kKline}).status, 0);
  const std::string before = targets();
  Outcome r = run({"import", db_, kKline});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "already exists") && contains(r.err, "--replace")) << r.err;
  writeBytes(file("broken.xml"), "<?xml version=\"1.0\"?>\n<xml><kvr:Target Name=\"Broken\">\n");
  EXPECT_TRUE(fails({"import", db_, file("broken.xml")}, "error 1 (KavrelDatabase.ImportUceFromXml): Bad xml file"));
  writeBytes(file("unnamed.xml"), "<?xml version=\"1.0\"?>\n<xml>\n<kvr:Target>\n</kvr:Target>\n</xml>\n");
  EXPECT_TRUE(fails({"import", db_, file("unnamed.xml")}, "without a name"));
  EXPECT_TRUE(fails({"import", db_, file("absent.xml")}));
  EXPECT_EQ(targets(), before);
  EXPECT_TRUE(fails({"import", file("absent.sqlite"), kKline}));
  EXPECT_FALSE(fs::exists(file("absent.sqlite")));
  // --replace swaps the stored target for the document's: a new id, the
  // same content.
  r = run({"import", db_, kKline, "--replace"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "replaced"));
  const std::string after = targets();
  ASSERT_EQ(std::count(after.begin(), after.end(), '\n'), 1);
  auto withoutId = [](const std::string& line) {
    auto f = fields(line);
    f.erase(f.begin() + 2);
    return f;
  };
  EXPECT_NE(fields(after)[2], fields(before)[2]);
  EXPECT_EQ(withoutId(after), withoutId(before));
  EXPECT_EQ(run({"export", db_, fields(after)[0]}).out, readBytes(kKline));
  // A replacement whose insert fails half-way (two data names equal but for
  // letter case) keeps the stored target untouched.
  std::string doubled = readBytes(kKline);
  const std::string anchor = "<Data Name=\"Tension batterie\">";
  ASSERT_NE(doubled.find(anchor), std::string::npos);
  doubled.insert(doubled.find(anchor), "<Data Name=\"TENSION BATTERIE\">\n<Bits/>\n</Data>\n");
  writeBytes(file("doubled.xml"), doubled);
  EXPECT_TRUE(fails({"import", db_, file("doubled.xml"), "--replace"}, "nothing was imported"));
  EXPECT_EQ(targets(), after);
  EXPECT_EQ(run({"export", db_, fields(after)[0]}).out, readBytes(kKline));
}

TEST_F(KavrelCli, LegacyAccessFilesAreReadExportedAndConverted) {
  const std::string legacy = sourceFile("../shared/fixtures/legacy/");
  for (const char* name : {"definitions-v2000.mdb", "definitions-v2003.mdb"}) {
    const std::string mdb = legacy + name;
    EXPECT_TRUE(contains(run({"check", mdb}).out, "schema version 4")) << name;
    const std::string listed = run({"targets", mdb}).out;
    EXPECT_TRUE(contains(listed, "Injection diesel CAN\t123\t2\t5\t8\t4\t0\n")) << name;
    EXPECT_EQ(run({"export", mdb, "Injection diesel CAN"}).out, readBytes(kCan)) << name;
    EXPECT_EQ(run({"export", mdb, "Injection essence KWP 5 bauds"}).out, readBytes(kKline)) << name;
    // Writes are refused naming the file, and say what to do.
    EXPECT_TRUE(fails({"import", mdb, kCan, "--replace"}, "error 3027 (Access)"));
    EXPECT_TRUE(fails({"delete", mdb, "Injection diesel CAN"}, "convert it first"));
    const std::string out = file(std::string(name) + ".db");
    const Outcome r = run({"convert", mdb, out});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 28);
    EXPECT_TRUE(contains(r.out, "Requêtes: 10 rows read, 10 written\n"));
    EXPECT_TRUE(contains(r.out, "(schema version 4, 142 rows)"));
    EXPECT_EQ(run({"export", out, "Injection diesel CAN"}).out, readBytes(kCan));
    EXPECT_TRUE(fails({"convert", mdb, out}, "already exists"));
  }
  EXPECT_TRUE(fails({"convert", file("absent.mdb"), file("x.db")}, "error 53 (Access)"));
  EXPECT_FALSE(fs::exists(file("x.db")));
}

}  // namespace
