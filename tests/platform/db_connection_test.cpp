// Connection strings, data-link files and database creation.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/temp_db.h"

namespace kavrel::test {
namespace {


// The description of the DbError that `f` throws (empty if none).
template <class F>
std::string failure(F&& f) {
  try {
    f();
  } catch (const DbError& e) {
    return e.description();
  }
  return {};
}

bool opensVersionFour(const std::shared_ptr<db::Connection>& c) {
  auto rs = c->execute("SELECT [value] FROM [system] WHERE [parameter]='version'");
  return !rs->eof() && rs->field(0).toText() == "4";
}

void writeBytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary);
  out << bytes;
}

std::string utf16le(const std::string& ascii) {
  std::string out = "\xFF\xFE";
  for (char c : ascii) {
    out += c;
    out += '\0';
  }
  return out;
}

TEST(DbConnection, OpensABarePathAndKeyValueForms) {
  TempDb db;
  EXPECT_TRUE(opensVersionFour(db::openConnection(db.path())));
  EXPECT_TRUE(opensVersionFour(db::openConnection("Provider=SQLite;Data Source=" + db.path())));
  EXPECT_TRUE(opensVersionFour(db::openConnection("data source = \"" + db.path() + "\" ; Mode=ReadWrite")));
  auto c = db::openConnection("Data source=" + db.path());
  EXPECT_TRUE(c->isOpen());
  EXPECT_EQ(c->description(), "Data source=" + db.path());
  c->close();
  EXPECT_FALSE(c->isOpen());
  EXPECT_THROW(c->execute("SELECT 1"), DbError);
}

TEST(DbConnection, OpeningNeverCreatesAndNamesTheMissingFile) {
  TempDir dir;
  std::string missing = dir.file("absent.sqlite");
  EXPECT_NE(failure([&] { db::openConnection(missing); }).find(missing), std::string::npos);
  EXPECT_NE(failure([&] { db::openConnection("Provider=SQLite;Data Source=" + missing); }).find(missing),
            std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(missing));

  std::string notADatabase = dir.file("notes.txt");
  writeBytes(notADatabase, std::string(2048, 'x'));
  EXPECT_NE(failure([&] { db::openConnection(notADatabase); }).find(notADatabase), std::string::npos);
}

TEST(DbConnection, TheLegacyEngineIsRefusedNamingTheFile) {
  std::string d = failure([] {
    db::openConnection("Provider=Microsoft.Jet.OLEDB.4.0;Mode=ReadWrite;Data source=C:\\Bases\\X.mdb");
  });
  EXPECT_NE(d.find("legacy database engine"), std::string::npos) << d;
  EXPECT_NE(d.find("C:\\Bases\\X.mdb"), std::string::npos) << d;
  EXPECT_NE(failure([] { db::openConnection("Provider=Other.Engine;Data Source=a.db"); }).find("Other.Engine"),
            std::string::npos);
}

TEST(DbConnection, DataLinkFilesInUtf16AndUtf8) {
  TempDir dir;
  std::string dbPath = dir.file("Définitions.sqlite");
  db::createDatabase(dbPath);

  // UTF-16 LE with its byte-order mark, as such files are written; the data
  // source holds a non-ASCII character, so it is encoded by hand.
  std::string initString = "Provider=SQLite;Data Source=" + dbPath;
  std::string body = "[oledb]\r\n; Everything after this line is an OLE DB initstring\r\n";
  std::string wide = utf16le(body);
  for (size_t i = 0; i < initString.size(); ++i) {
    auto c = static_cast<unsigned char>(initString[i]);
    if (c == 0xC3) {  // é = C3 A9 -> U+00E9
      wide += static_cast<char>(0xE9);
      wide += '\0';
      ++i;
    } else {
      wide += static_cast<char>(c);
      wide += '\0';
    }
  }
  wide += utf16le("\r\n").substr(2);
  std::string wideLink = dir.file("wide.udl");
  writeBytes(wideLink, wide);
  EXPECT_TRUE(opensVersionFour(db::openConnection("File name=" + wideLink)));

  // UTF-8, with a data source relative to the link file's folder.
  std::string narrowLink = dir.file("narrow.udl");
  writeBytes(narrowLink, "[oledb]\n; comment\nData Source=Définitions.sqlite\n");
  EXPECT_TRUE(opensVersionFour(db::openConnection("File name=" + narrowLink)));

  // A link naming another link is followed; one naming the legacy engine is
  // refused with the file it names.
  std::string chained = dir.file("chained.udl");
  writeBytes(chained, "[oledb]\n; comment\nFile Name=" + wideLink + "\n");
  EXPECT_TRUE(opensVersionFour(db::openConnection("File name=" + chained)));
  std::string jet = dir.file("jet.udl");
  writeBytes(jet, "[oledb]\n; comment\nProvider=Microsoft.Jet.OLEDB.4.0;Data Source=C:\\old.mdb;Persist Security Info=False\n");
  EXPECT_NE(failure([&] { db::openConnection("File name=" + jet); }).find("C:\\old.mdb"), std::string::npos);

  std::string missing = dir.file("missing.udl");
  EXPECT_NE(failure([&] { db::openConnection("File name=" + missing); }).find(missing), std::string::npos);
  std::string empty = dir.file("empty.udl");
  writeBytes(empty, "[oledb]\n; nothing follows\n");
  EXPECT_NE(failure([&] { db::openConnection("File name=" + empty); }).find(empty), std::string::npos);
}

TEST(DbConnection, CreateDatabaseRefusesAnExistingFile) {
  TempDb db;
  try {
    db::createDatabase(db.path());
    FAIL() << "overwrote an existing file";
  } catch (const DbError& e) {
    EXPECT_EQ(e.number(), 58);
    EXPECT_NE(e.description().find(db.path()), std::string::npos);
  }
  EXPECT_TRUE(opensVersionFour(db.connection()));  // untouched

  TempDir dir;
  EXPECT_THROW(db::createDatabase(dir.file("no/such/folder/x.sqlite")), DbError);
  EXPECT_FALSE(db::schemaSql().empty());
}

}  // namespace
}  // namespace kavrel::test
