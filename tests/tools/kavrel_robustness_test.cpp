// The `kavrel` command under hostile conditions: outputs that cannot be
// written or that name the database, processes racing on one file, a full
// disk, names that break lines, and documents the import has to bend.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>
#include <vector>

#include "support/checks.h"
#include "support/temp_db.h"

namespace {

namespace fs = std::filesystem;
using kavrel::test::contains;
using kavrel::test::readBytes;
using kavrel::test::repeat;
using kavrel::test::writeBytes;

std::string sourceFile(const std::string& relative) { return std::string(KAVREL_SOURCE_DIR) + "/" + relative; }
const std::string kKlineName = "Injection essence KWP 5 bauds";

std::string quoted(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

int exitStatus(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1; }

size_t lines(const std::string& text) { return static_cast<size_t>(std::count(text.begin(), text.end(), '\n')); }

// The example target renamed, with `extra` more data items (each with a
// comment `comment` characters long, if any): a target as large as wanted.
std::string targetDocument(const std::string& name, int extra, size_t comment = 0) {
  std::string doc = readBytes(sourceFile("examples/kline_target.xml"));
  const std::string oldName = "Name=\"" + kKlineName + "\"";
  doc.replace(doc.find(oldName), oldName.size(), "Name=\"" + name + "\"");
  std::string more;
  for (int i = 0; i < extra; ++i)
    more += "<Data Name=\"Extra " + std::to_string(i) + "\">\n" +
            (comment ? "<Comment><![CDATA[" + std::string(comment, 'c') + "]]></Comment>\n" : "") +
            "<Bytes count=\"2\"/>\n</Data>\n";
  doc.insert(doc.find("<Datas>\n") + 8, more);
  return doc;
}

class KavrelRobustness : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* bin = std::getenv("KAVREL_BIN_DIR");
    binary_ = (bin && *bin ? fs::path(bin) : fs::read_symlink("/proc/self/exe").parent_path()) / "kavrel";
    ASSERT_TRUE(fs::exists(binary_)) << binary_;
    fs::create_directory(tmp_);
    const Run r = run({"init", db_, "--parameters", sourceFile("examples/parameters.xml")});
    ASSERT_EQ(r.status, 0) << r.err;
  }
  struct Run {
    int status = -1;
    std::string out, err;
  };
  std::string file(const std::string& name) const { return dir_.file(name); }
  // The command line for the tool with `args`, run in the test folder with
  // its own TMPDIR; `redirect` ends it (default: to files named `tag`).
  std::string command(const std::vector<std::string>& args, const std::string& redirect,
                      const std::string& environment = "") const {
    std::string cmd = "cd " + quoted(dir_.path().string()) + " && TMPDIR=" + quoted(tmp_) + " " + environment +
                      quoted(binary_);
    for (const auto& a : args) cmd += " " + quoted(a);
    return cmd + " " + redirect;
  }
  // `environment`: "NAME=value " settings for the tool.
  Run run(const std::vector<std::string>& args, const std::string& tag = "run", const std::string& environment = "") {
    const std::string out = file(tag + ".out"), err = file(tag + ".err");
    const int raw = std::system(command(args, ">" + quoted(out) + " 2>" + quoted(err), environment).c_str());
    return {exitStatus(raw), readBytes(out), readBytes(err)};
  }
  std::string document(const std::string& name, int extra) {
    const std::string path = file(name + ".xml");
    writeBytes(path, targetDocument(name, extra));
    return path;
  }
  bool tmpIsEmpty() const { return fs::is_empty(tmp_); }

  kavrel::test::TempDir dir_;
  fs::path binary_;
  std::string db_ = file("defs.sqlite");
  std::string tmp_ = file("tmp");
};

TEST_F(KavrelRobustness, OutputsNeverReplaceTheDatabaseAndAreReplacedOnlyWhole) {
  ASSERT_EQ(run({"import", db_, sourceFile("examples/kline_target.xml")}).status, 0);
  const std::string database = readBytes(db_);
  fs::create_symlink(db_, file("link.sqlite"));
  fs::create_hard_link(db_, file("hard.sqlite"));
  // The database named directly, by a connection string, or through a data
  // link (whose own file is no output either).
  writeBytes(file("defs.udl"), "[oledb]\nProvider=SQLite;Data Source=defs.sqlite\n");
  const std::string udl = readBytes(file("defs.udl"));
  for (const std::string& source :
       {db_, "Provider=SQLite;Data Source=" + db_, file("defs.udl")}) {
    for (const std::string& out :
         {db_, file("link.sqlite"), file("hard.sqlite"), std::string("./defs.sqlite"), file("defs.udl")}) {
      if (out == file("defs.udl") && source != file("defs.udl")) continue;
      for (const std::vector<std::string>& args : {std::vector<std::string>{"export", source, kKlineName, "-o", out},
                                                   {"export-parameters", source, "-o", out}}) {
        const Run r = run(args);
        EXPECT_EQ(r.status, 1) << args[0] << " " << source << " -o " << out;
        EXPECT_TRUE(contains(r.err, "is the database")) << r.err;
      }
    }
  }
  EXPECT_EQ(readBytes(db_), database);
  EXPECT_EQ(readBytes(file("defs.udl")), udl);
  EXPECT_EQ(run({"check", db_}).status, 0);

  // A failed export leaves the file it would have replaced as it was, and
  // no temporary file beside it.
  writeBytes(file("old.xml"), "previous content\n");
  EXPECT_EQ(run({"export", db_, "No such target", "-o", file("old.xml")}).status, 1);
  EXPECT_EQ(readBytes(file("old.xml")), "previous content\n");
  EXPECT_EQ(run({"export", db_, kKlineName, "-o", file("old.xml")}).status, 0);
  EXPECT_EQ(readBytes(file("old.xml")), readBytes(sourceFile("examples/kline_target.xml")));
  // Through a link, the file it names is replaced and the link stays.
  fs::create_symlink(file("old.xml"), file("to-old.xml"));
  writeBytes(file("old.xml"), "previous content\n");
  EXPECT_EQ(run({"export", db_, kKlineName, "-o", file("to-old.xml")}).status, 0);
  EXPECT_TRUE(fs::is_symlink(file("to-old.xml")));
  EXPECT_EQ(readBytes(file("old.xml")), readBytes(sourceFile("examples/kline_target.xml")));
  for (const auto& entry : fs::directory_iterator(dir_.path()))
    EXPECT_FALSE(contains(entry.path().filename().string(), "kavrel-")) << entry.path();
}

TEST_F(KavrelRobustness, StandardOutputThatCannotBeWrittenIsAnErrorAndLeavesNoTemporaryFile) {
  ASSERT_EQ(run({"import", db_, document("Big", 20000)}).status, 0);
  for (const std::vector<std::string>& args : {std::vector<std::string>{"export", db_, "Big"},
                                               {"export-parameters", db_}, {"targets", db_}, {"check", db_}}) {
    for (const std::string& redirect : {std::string(">/dev/full"), std::string(">&-")}) {
      const std::string err = file("write.err");
      const int status = exitStatus(std::system(command(args, redirect + " 2>" + quoted(err)).c_str()));
      EXPECT_EQ(status, 1) << args[0] << " " << redirect;
      EXPECT_TRUE(contains(readBytes(err), "error 75 (kavrel " + args[0] + "): cannot write to standard output"));
    }
  }
  // A reader that goes away early: the export hears of it.
  const std::string err = file("pipe.err");
  const std::string cmd = "set -o pipefail 2>/dev/null; " + command({"export", db_, "Big"}, "2>" + quoted(err)) +
                          " | head -c 100 >/dev/null";
  EXPECT_EQ(exitStatus(std::system(("bash -c " + quoted(cmd)).c_str())), 1);
  EXPECT_TRUE(contains(readBytes(err), "Broken pipe"));
  EXPECT_TRUE(tmpIsEmpty());
}

TEST_F(KavrelRobustness, OfFourInitsOfOneFileOneSucceedsAndItsDatabaseStays) {
  for (int round = 0; round < 15; ++round) {
    const std::string path = file("same-" + std::to_string(round) + ".sqlite");
    std::atomic<int> created{0};
    std::vector<std::thread> inits;
    for (int i = 0; i < 4; ++i)
      inits.emplace_back([&, i] {
        if (run({"init", path}, "init-" + std::to_string(i)).status == 0) ++created;
      });
    for (auto& t : inits) t.join();
    EXPECT_EQ(created, 1) << "round " << round;
    EXPECT_EQ(run({"check", path}).status, 0) << "round " << round;
  }
}

TEST_F(KavrelRobustness, AFullDiskIsReportedOnceWithTheEnginesErrorAndTheDatabaseKept) {
  ASSERT_EQ(run({"import", db_, sourceFile("examples/kline_target.xml")}).status, 0);
  const std::string before = run({"targets", db_}).out;
  // The target needs more than the engine's page cache holds, so it writes
  // while inserting; the disk gives its database 1 MiB more.
  const std::string full = std::string("LD_PRELOAD=") + KAVREL_FULL_DISK_LIBRARY +
                           " ASAN_OPTIONS=verify_asan_link_order=0 KAVREL_FULL_DISK_MATCH=defs.sqlite "
                           "KAVREL_FULL_DISK_BYTES=1048576 ";
  writeBytes(file("big.xml"), targetDocument("Big", 30000, 150));
  const Run r = run({"import", db_, file("big.xml")}, "full", full);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(lines(r.err), 1u) << r.err;
  EXPECT_EQ(r.err.rfind("error 13 (SQLite): database or disk is full", 0), 0u) << r.err;
  EXPECT_EQ(run({"targets", db_}).out, before);
  EXPECT_EQ(run({"check", db_}).status, 0);
}

TEST_F(KavrelRobustness, TargetsAsTsvOrJsonKeepNamesWithTabsAndLineFeedsApart) {
  // TAB and LF as character references, a backslash and quotes.
  writeBytes(file("odd.xml"), targetDocument("a&#9;b&#10;c\\d &quot;e&quot;", 0));
  ASSERT_EQ(run({"import", db_, file("odd.xml")}).status, 0);
  ASSERT_EQ(run({"import", db_, document("Plain", 0)}).status, 0);

  Run r = run({"targets", db_, "--format", "tsv"});
  ASSERT_EQ(r.status, 0) << r.err;
  std::istringstream tsv(r.out);
  std::vector<std::string> rows;
  for (std::string line; std::getline(tsv, line);) rows.push_back(line);
  ASSERT_EQ(rows.size(), 3u) << r.out;
  EXPECT_EQ(rows[0], "name\taddress\tid\trequests\tdata items\tdevices\tscreens");
  // Names sort without letter case: "a..." before "Plain".
  EXPECT_EQ(rows[1].rfind("a\\tb\\nc\\\\d \"e\"\t122\t", 0), 0u) << rows[1];
  EXPECT_EQ(rows[2].rfind("Plain\t122\t", 0), 0u) << rows[2];
  EXPECT_EQ(std::count(rows[1].begin(), rows[1].end(), '\t'), 6);

  r = run({"targets", db_, "--format", "json"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.out, "{\"name\": \"a\\tb\\nc\\\\d \\\"e\\\"\", \"address\": 122, "));
  EXPECT_TRUE(contains(r.out, "\"dataItems\": 8, \"devices\": 5, \"screens\": 3}"));
  EXPECT_EQ(lines(r.out), 4u) << r.out;
  EXPECT_EQ(run({"targets", db_, "--format", "xml"}).status, 2);
}

TEST_F(KavrelRobustness, AnImportReportsWhatItCutOrCouldNotLinkAndStrictRefusesIt) {
  std::string doc = targetDocument("Bent", 0);
  const std::string longName = repeat("L", 80);
  doc.insert(doc.find("<Datas>\n") + 8, "<Data Name=\"" + longName + "\">\n<Bytes count=\"2\"/>\n</Data>\n");
  const std::string device = "<Device Name=\"";
  const size_t at = doc.find(device);
  ASSERT_NE(at, std::string::npos);
  doc.insert(at, "<Device Name=\"Ghost\" FreezeFrame=\"No such request\">\n<DeviceData Name=\"No such data\"/>\n</Device>\n");
  writeBytes(file("bent.xml"), doc);

  Run r = run({"import", db_, file("bent.xml"), "--strict"});
  EXPECT_EQ(r.status, 1);
  EXPECT_TRUE(contains(r.err, "strict import")) << r.err;
  EXPECT_TRUE(contains(r.err, "nothing was imported"));
  EXPECT_EQ(run({"targets", db_}).out, "");

  r = run({"import", db_, file("bent.xml")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(contains(r.err, "import report for ")) << r.err;
  EXPECT_TRUE(contains(r.err, "1 truncated name"));
  EXPECT_TRUE(contains(r.err, "1 unknown request"));
  EXPECT_TRUE(contains(r.err, "1 dropped link"));
  EXPECT_TRUE(contains(r.err, "truncated name at /xml/kvr:Target[@Name='Bent']/Datas/Data[@Name='" + longName + "']: Data name"));
  EXPECT_TRUE(contains(r.err, "unknown request at /xml/kvr:Target[@Name='Bent']/Devices/Device[@Name='Ghost']/@FreezeFrame"));
  EXPECT_TRUE(contains(r.err, "dropped link at /xml/kvr:Target[@Name='Bent']/Devices/Device[@Name='Ghost']/DeviceData[@Name='No such data']"));
  EXPECT_TRUE(contains(run({"targets", db_}).out, "Bent\t"));
  // A document that needs nothing bent imports quietly.
  r = run({"import", db_, document("Straight", 0), "--strict"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
}

TEST_F(KavrelRobustness, WritersWaitForAnotherWriterAsLongAsTheyAreTold) {
  ASSERT_EQ(run({"import", db_, sourceFile("examples/kline_target.xml")}).status, 0);
  const std::string listed = run({"targets", db_}).out;
  {
    // Another process in the middle of a write.
    auto other = kavrel::db::openConnection(db_);
    kavrel::db::Transaction writing(*other);
    other->execute("DELETE FROM Cibles");
    Run r = run({"import", db_, document("Waiting", 0), "--lock-timeout", "0.2"});
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "database is locked")) << r.err;
    r = run({"delete", db_, kKlineName}, "delete", "KAVREL_LOCK_TIMEOUT=0.2 ");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(contains(r.err, "database is locked")) << r.err;
    // Readers neither wait nor see the unfinished write.
    EXPECT_EQ(run({"targets", db_}, "targets", "KAVREL_LOCK_TIMEOUT=0.2 ").out, listed);
    EXPECT_EQ(run({"export", db_, kKlineName}, "export", "KAVREL_LOCK_TIMEOUT=0.2 ").status, 0);
  }
  EXPECT_EQ(run({"targets", db_}).out, listed);
  EXPECT_EQ(run({"import", db_, file("Waiting.xml"), "--lock-timeout", "0.2"}).status, 0);
}

// Eight importers (each importing its target, then replacing it twice) and
// two exporters on one file at once: every target ends up there once and
// whole, and every export is either a whole target or refused.
TEST_F(KavrelRobustness, EightImportersAndTwoExportersOnOneFile) {
  constexpr int kTargets = 8;
  std::vector<std::string> names, docs;
  for (int i = 0; i < kTargets; ++i) {
    names.push_back("Concurrent " + std::to_string(i));
    docs.push_back(document(names.back(), 4000));
  }
  std::atomic<bool> importing{true};
  constexpr int kRounds = 3;
  std::vector<Run> imports(kRounds * kTargets);
  std::vector<std::vector<std::pair<std::string, Run>>> exports(2);
  std::vector<std::thread> threads;
  for (int i = 0; i < kTargets; ++i)
    threads.emplace_back([&, i] {
      imports[i] = run({"import", db_, docs[i]}, "import-" + std::to_string(i));
      for (int round = 1; round < kRounds; ++round)
        imports[round * kTargets + i] = run({"import", db_, docs[i], "--replace"}, "import-" + std::to_string(i));
    });
  for (int e = 0; e < 2; ++e)
    threads.emplace_back([&, e] {
      for (int n = 0; importing || n < kTargets; ++n) {
        const std::string& name = names[static_cast<size_t>((n * 3 + e) % kTargets)];
        const std::string tag = "export-" + std::to_string(e) + "-" + std::to_string(n);
        exports[e].emplace_back(name, run({"export", db_, name, "-o", file(tag + ".xml")}, tag));
        exports[e].back().second.out = readBytes(file(tag + ".xml"));
      }
    });
  for (int i = 0; i < kTargets; ++i) threads[static_cast<size_t>(i)].join();
  importing = false;
  for (size_t t = kTargets; t < threads.size(); ++t) threads[t].join();

  for (size_t i = 0; i < imports.size(); ++i) EXPECT_EQ(imports[i].status, 0) << i << ": " << imports[i].err;
  const Run listed = run({"targets", db_});
  std::map<std::string, std::string> whole;
  for (const auto& name : names) {
    EXPECT_TRUE(contains(listed.out, name + "\t122\t")) << name;
    const Run r = run({"export", db_, name});
    whole[name] = r.out;
  }
  EXPECT_EQ(lines(listed.out), static_cast<size_t>(kTargets)) << listed.out;  // once each
  EXPECT_TRUE(contains(listed.out, "\t5\t4008\t5\t3\n"));
  size_t complete = 0;
  for (const auto& exporter : exports)
    for (const auto& [name, r] : exporter) {
      if (r.status == 0) {
        EXPECT_TRUE(r.out == whole[name]) << name << ": " << r.out.size() << " bytes of " << whole[name].size();
        ++complete;
      } else {
        EXPECT_EQ(r.status, 1);
        EXPECT_TRUE(contains(r.err, "not found")) << r.err;
      }
    }
  EXPECT_GT(complete, 0u);
}

}  // namespace
