// The `kavrel` command on a shared server database: several processes
// importing and exporting at once, and a whole database moved between the
// engines and back.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <set>

#include "kavrel/platform/db.h"
#include "support/checks.h"
#include "support/engines.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

namespace fs = std::filesystem;

std::string shellQuote(const std::string& s) {
  std::string out = "'";
  for (char c : s) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

class KavrelOnServer : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* bin = std::getenv("KAVREL_BIN_DIR");
    binary_ = ((bin && *bin) ? fs::path(bin) : fs::read_symlink("/proc/self/exe").parent_path()) / "kavrel";
    ASSERT_TRUE(fs::exists(binary_)) << binary_;
  }
  std::string kavrel(const std::string& args) const { return shellQuote(binary_.string()) + " " + args; }
  // Runs a shell script; its exit status.
  int sh(const std::string& script) const {
    const int raw = std::system(("cd " + shellQuote(dir_.path().string()) + " && { " + script + "\n}").c_str());
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  }
  std::string file(const std::string& name) const { return dir_.file(name); }
  // The CAN example as another target: its own name and address.
  std::string targetDocument(int i) const {
    std::string doc = readBytes(std::string(KAVREL_SOURCE_DIR) + "/examples/can_target.xml");
    doc = replaced(doc, "Name=\"Injection diesel CAN\"", "Name=\"Cible " + std::to_string(i) + "\"");
    doc = replaced(doc, "Address=\"123\"", "Address=\"" + std::to_string(20 + i) + "\"");
    const std::string path = file("t" + std::to_string(i) + ".xml");
    writeBytes(path, doc);
    return path;
  }
  static std::string replaced(std::string s, const std::string& from, const std::string& to) {
    size_t at = s.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    if (at != std::string::npos) s.replace(at, from.size(), to);
    return s;
  }

  fs::path binary_;
  TempDir dir_;
};

TEST_F(KavrelOnServer, EightImportersAndTwoExportersAtOnceStoreEveryTargetWholeOnce) {
  const std::string server = createServerDatabase();
  const std::string uri = shellQuote(server);
  ASSERT_EQ(sh(kavrel("init " + uri + " --parameters " + std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml") +
               " >/dev/null && " + kavrel("import " + uri + " " + targetDocument(0)) + " >/dev/null"),
            0);
  // Eight targets imported at once, and the one stored before exported
  // again and again meanwhile; then the same name imported twice at once.
  std::string script;
  for (int i = 1; i <= 8; ++i) script += kavrel("import " + uri + " " + targetDocument(i)) + " >/dev/null & pids=\"$pids $!\"; ";
  for (int e = 0; e < 2; ++e) {
    script += "(for k in 1 2 3 4 5; do " + kavrel("export " + uri + " 'Cible 0' -o e" + std::to_string(e) + "_$k.xml") +
              " >/dev/null || exit 1; done) & pids=\"$pids $!\"; ";
  }
  script += "fail=0; for p in $pids; do wait $p || fail=1; done; exit $fail";
  ASSERT_EQ(sh(script), 0);
  const std::string twin = targetDocument(9);
  EXPECT_EQ(sh("(" + kavrel("import " + uri + " " + twin) + " >/dev/null 2>a.err & " + kavrel("import " + uri + " " + twin) +
               " >/dev/null 2>b.err & wait) ; cat a.err b.err > both.err"),
            0);
  EXPECT_TRUE(contains(readBytes(file("both.err")), "'Cible 9' already exists")) << readBytes(file("both.err"));

  auto conn = db::openConnection(server);
  std::set<std::string> names;
  for (auto rs = conn->execute("SELECT [Target Name], [Target Id] FROM Cibles"); !rs->eof(); rs->moveNext()) {
    EXPECT_TRUE(names.insert(rs->field(0).toText()).second) << "stored twice: " << rs->field(0).toText();
    const std::string id = rs->field(1).toText();
    // Whole: as many rows of each kind as the one imported alone.
    for (const char* table : {"Requêtes", "Données", "[Emplacement Donnée]", "Organes"}) {
      EXPECT_EQ(conn->execute(std::string("SELECT count(*) FROM ") + table + " WHERE [Target Id]=" + id)->field(0).toInt64(),
                conn->execute(std::string("SELECT count(*) FROM ") + table + " WHERE [Target Id]=1")->field(0).toInt64())
          << table << " of " << rs->field(0).toText();
    }
  }
  EXPECT_EQ(names.size(), 10u);
  // Every export saw the whole target, never a part of one being written.
  const std::string first = readBytes(file("e0_1.xml"));
  EXPECT_FALSE(first.empty());
  for (int e = 0; e < 2; ++e)
    for (int k = 1; k <= 5; ++k) EXPECT_EQ(readBytes(file("e" + std::to_string(e) + "_" + std::to_string(k) + ".xml")), first);
  conn->close();
  dropServerDatabase(server);
}

TEST_F(KavrelOnServer, ConvertMovesADatabaseToTheServerAndBackWithItsIdsAndLeavesNothingOnFailure) {
  const std::string sqlite = file("a.db"), back = file("b.db");
  ASSERT_EQ(sh(kavrel("init a.db --parameters " + std::string(KAVREL_SOURCE_DIR) + "/examples/parameters.xml") +
               " >/dev/null && " + kavrel("import a.db " + targetDocument(1)) + " >/dev/null && " +
               kavrel("import a.db " + targetDocument(2)) + " >/dev/null && " + kavrel("delete a.db 'Cible 1'") +
               " >/dev/null && " + kavrel("import a.db " + targetDocument(3)) + " >/dev/null"),
            0);
  const std::string server = createServerDatabase();
  ASSERT_EQ(sh(kavrel("convert a.db " + shellQuote(server)) + " >/dev/null"), 0);
  ASSERT_EQ(sh(kavrel("convert " + shellQuote(server) + " b.db") + " >/dev/null"), 0);
  ASSERT_EQ(sh(kavrel("targets a.db") + " >a.txt && " + kavrel("targets " + shellQuote(server)) + " >s.txt && " +
               kavrel("targets b.db") + " >b.txt"),
            0);
  EXPECT_EQ(readBytes(file("s.txt")), readBytes(file("a.txt")));  // ids 2 and 3 kept
  EXPECT_EQ(readBytes(file("b.txt")), readBytes(file("a.txt")));
  // The next target on the server gets a new id after the copied ones.
  ASSERT_EQ(sh(kavrel("import " + shellQuote(server) + " " + targetDocument(4)) + " >out.txt"), 0);
  EXPECT_TRUE(contains(readBytes(file("out.txt")), "id 4)")) << readBytes(file("out.txt"));
  ASSERT_EQ(sh(kavrel("export " + shellQuote(server) + " 'Cible 2' -o s.xml") + " >/dev/null && " +
               kavrel("export a.db 'Cible 2' -o a.xml") + " >/dev/null"),
            0);
  EXPECT_EQ(readBytes(file("s.xml")), readBytes(file("a.xml")));  // the same export on both engines
  // A database that already holds tables is refused and left as it was;
  // a failed copy leaves no table behind.
  EXPECT_EQ(sh(kavrel("convert a.db " + shellQuote(server)) + " >/dev/null 2>err.txt"), 1);
  EXPECT_TRUE(contains(readBytes(file("err.txt")), "already holds tables"));
  auto kept = db::openConnection(server);
  EXPECT_EQ(kept->execute("SELECT count(*) FROM Cibles")->field(0).toInt64(), 3);
  kept->close();
  const std::string empty = createServerDatabase();
  // The last table missing: every other table was copied when it fails.
  fs::copy_file(sqlite, file("bad.db"));
  db::openConnection(file("bad.db"))->execute("DROP TABLE Seuils");
  EXPECT_EQ(sh(kavrel("convert bad.db " + shellQuote(empty)) + " >/dev/null 2>err.txt"), 1);
  EXPECT_TRUE(contains(readBytes(file("err.txt")), "Seuils")) << readBytes(file("err.txt"));
  auto left = db::openConnection(empty);
  EXPECT_EQ(left->execute("SELECT count(*) FROM pg_tables WHERE schemaname = current_schema()")->field(0).toInt64(), 0);
  left->close();
  dropServerDatabase(server);
  dropServerDatabase(empty);
}

}  // namespace
}  // namespace kavrel::test
