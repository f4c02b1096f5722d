// Connection strings, data-link files and database creation.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::test {
namespace {

// The description of the DbError that `f` throws.
template <class F>
std::string failure(F&& f) {
  return thrownBy<DbError>(f).description();
}

bool opensVersionFour(const std::shared_ptr<db::Connection>& c) {
  auto rs = c->execute("SELECT [value] FROM [system] WHERE [parameter]='version'");
  return !rs->eof() && rs->field(0).toText() == "4";
}

std::string utf16le(std::u16string_view text) {
  std::string out = "\xFF\xFE";
  for (char16_t c : text) {
    out += static_cast<char>(c & 0xFF);
    out += static_cast<char>(c >> 8);
  }
  return out;
}

TEST(DbConnection, OpensABarePathAndKeyValueForms) {
  TempDb db;
  EXPECT_TRUE(opensVersionFour(db::openConnection(db.path())));
  EXPECT_TRUE(opensVersionFour(db::openConnection("Provider=SQLite;Data Source=" + db.path())));
  EXPECT_TRUE(opensVersionFour(db::openConnection("data source = \"" + db.path() + "\" ; Mode=ReadWrite")));
  auto c = db::openConnection("Data source=" + db.path());
  EXPECT_EQ(c->description(), "Data source=" + db.path());
  c->close();
  EXPECT_FALSE(c->isOpen());
  EXPECT_THROW(c->execute("SELECT 1"), DbError);
}

TEST(DbConnection, RefusalsNameTheFileAndCreateNothing) {
  TempDir dir;
  const std::string missing = dir.file("absent.sqlite");
  EXPECT_TRUE(contains(failure([&] { db::openConnection(missing); }), missing));
  EXPECT_TRUE(contains(failure([&] { db::openConnection("Provider=SQLite;Data Source=" + missing); }), missing));
  EXPECT_FALSE(std::filesystem::exists(missing));
  const std::string notADatabase = dir.file("notes.txt");
  writeBytes(notADatabase, std::string(2048, 'x'));
  EXPECT_TRUE(contains(failure([&] { db::openConnection(notADatabase); }), notADatabase));

  // The legacy engine and unknown providers are refused by name.
  const std::string d = failure([] {
    db::openConnection("Provider=Microsoft.Jet.OLEDB.4.0;Mode=ReadWrite;Data source=C:\\Bases\\X.mdb");
  });
  EXPECT_TRUE(contains(d, "legacy database engine"));
  EXPECT_TRUE(contains(d, "C:\\Bases\\X.mdb"));
  EXPECT_TRUE(contains(failure([] { db::openConnection("Provider=Other.Engine;Data Source=a.db"); }), "Other.Engine"));

  // An existing file is never overwritten.
  TempDb db;
  auto e = thrownBy<DbError>([&] { db::createDatabase(db.path()); });
  EXPECT_EQ(e.number(), 58);
  EXPECT_TRUE(contains(e.description(), db.path()));
  EXPECT_TRUE(opensVersionFour(db.connection()));  // untouched
  EXPECT_THROW(db::createDatabase(dir.file("no/such/folder/x.sqlite")), DbError);
}

TEST(DbConnection, DataLinkFilesInUtf16AndUtf8) {
  TempDir dir;
  db::createDatabase(dir.file("Définitions.sqlite"));

  // UTF-16 LE with its byte-order mark, as such files are written.
  const std::string folder = dir.path().string() + "/";
  const std::string wideLink = dir.file("wide.udl");
  writeBytes(wideLink, utf16le(u"[oledb]\r\n; Everything after this line is an OLE DB initstring\r\n"
                               u"Provider=SQLite;Data Source=") +
                           utf16le(std::u16string(folder.begin(), folder.end())).substr(2) +
                           utf16le(u"Définitions.sqlite\r\n").substr(2));
  EXPECT_TRUE(opensVersionFour(db::openConnection("File name=" + wideLink)));

  // UTF-8, with a data source relative to the link file's folder.
  const std::string narrowLink = dir.file("narrow.udl");
  writeBytes(narrowLink, "[oledb]\n; comment\nData Source=Définitions.sqlite\n");
  EXPECT_TRUE(opensVersionFour(db::openConnection("File name=" + narrowLink)));

  // A link naming another link is followed; one naming the legacy engine is
  // refused with the file it names.
  const std::string chained = dir.file("chained.udl");
  writeBytes(chained, "[oledb]\n; comment\nFile Name=" + wideLink + "\n");
  EXPECT_TRUE(opensVersionFour(db::openConnection("File name=" + chained)));
  const std::string jet = dir.file("jet.udl");
  writeBytes(jet, "[oledb]\n; comment\nProvider=Microsoft.Jet.OLEDB.4.0;Data Source=C:\\old.mdb;"
                  "Persist Security Info=False\n");
  EXPECT_TRUE(contains(failure([&] { db::openConnection("File name=" + jet); }), "C:\\old.mdb"));

  const std::string missing = dir.file("missing.udl");
  EXPECT_TRUE(contains(failure([&] { db::openConnection("File name=" + missing); }), missing));
  const std::string empty = dir.file("empty.udl");
  writeBytes(empty, "[oledb]\n; nothing follows\n");
  EXPECT_TRUE(contains(failure([&] { db::openConnection("File name=" + empty); }), empty));
}

}  // namespace
}  // namespace kavrel::test
