// The session's XML documents: frame, encodings, save and load failures,
// and round trips of whole targets through the documents and the database.
#include <gtest/gtest.h>

#include <filesystem>

#include "kavrel/kavrel.h"
#include "support/engines.h"
#include "platform/postgres/pg_backend.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

using test::readBytes;
using test::writeBytes;

// Empty when equal; otherwise the first differing line of each document, so
// that a failure names the spot instead of printing two whole documents.
std::string difference(const std::string& a, const std::string& b) {
  if (a == b) return {};
  size_t line = 1, start = 0;
  for (size_t i = 0; i < a.size() && i < b.size() && a[i] == b[i]; ++i)
    if (a[i] == '\n') ++line, start = i + 1;
  auto lineAt = [start](const std::string& s) { return s.substr(start, s.find('\n', start) - start); };
  return "line " + std::to_string(line) + ":\n  " + lineAt(a) + "\n  " + lineAt(b);
}

std::string sourceFile(const std::string& relative) { return std::string(KAVREL_SOURCE_DIR) + "/" + relative; }

const char* const kExamples[] = {"examples/kline_target.xml", "examples/can_target.xml"};

// A session on a fresh database whose catalogues come from the example
// parameters document.
class XmlDocuments : public ::kavrel::test::EngineTest {
 protected:
  void SetUp() override {
    session_->DbOpen(db_.path());
    session_->importParametersFromXml(sourceFile("examples/parameters.xml"));
    session_->DbRead();
    ASSERT_FALSE(lastError().pending()) << lastError().description;
    session_->WarningInfo.subscribe(
        [this](const std::string& c, const std::string& m) { warnings_.emplace_back(c, m); });
  }
  std::string file(const std::string& name) const { return db_.dir().file(name); }
  std::string exportActive(const std::string& name) {
    clearLastError();
    session_->ExportUceToXml(file(name));
    EXPECT_FALSE(lastError().pending()) << lastError().description;
    return readBytes(file(name));
  }
  // Imports `path` (renamed when a name is given) and returns its export.
  std::string importThenExport(const std::string& path, const std::string& rename = "") {
    session_->ImportUceFromXml(path);
    if (!rename.empty()) session_->ActiveTarget()->setName(rename);
    return exportActive("exported.xml");
  }
  // Stores the active target and reads it back as the new active target.
  void storeAndReadBack() {
    auto imported = session_->ActiveTarget();
    imported->dbInsertTargetAll(*session_->DbConnection());
    const int32_t address = imported->Address(), id = imported->targetid();  // NewTarget clears it
    const auto before = db::postgres::readAheadCounts(*session_->DbConnection());
    ASSERT_TRUE(session_->NewTarget()->dbReadTargetAll(*session_->DbConnection(), address, id));
    const auto after = db::postgres::readAheadCounts(*session_->DbConnection());
    readAhead_ = {after.sent - before.sent, after.used - before.used, after.dropped - before.dropped};
  }
  db::postgres::ReadAheadCounts readAhead_;
  test::TempDb db_;
  std::shared_ptr<KavrelDatabase> session_ = KavrelDatabase::create();
  std::vector<std::pair<std::string, std::string>> warnings_;
};

TEST_P(XmlDocuments, ExamplesSurviveDocumentAndDatabase) {
  for (const char* example : kExamples) {
    SCOPED_TRACE(example);
    const std::string original = readBytes(sourceFile(example));
    ASSERT_FALSE(original.empty());
    const std::string direct = importThenExport(sourceFile(example));
    EXPECT_EQ(difference(direct, original), "") << "the example is not in the layout the library writes";
    EXPECT_EQ(difference(importThenExport(file("exported.xml")), direct), "");
    storeAndReadBack();
    EXPECT_EQ(difference(exportActive("stored.xml"), direct), "");
    if (onServer()) {
      // The server was sent every statement of the read at once, and each
      // was the very one the readers ran.
      EXPECT_GT(readAhead_.sent, 10);
      EXPECT_EQ(readAhead_.used, readAhead_.sent);
      EXPECT_EQ(readAhead_.dropped, 0);
    }
  }
  // Changed through the object model to the other line kinds, the K-line
  // target survives the same way.
  for (int32_t mode : {0, 2}) {
    SCOPED_TRACE(mode);
    importThenExport(sourceFile(kExamples[0]), "Mode " + std::to_string(mode));
    session_->ActiveTarget()->Parametres()->setInitMode(mode);
    const std::string built = exportActive("built.xml");
    EXPECT_EQ(difference(importThenExport(file("built.xml")), built), "");
    storeAndReadBack();
    EXPECT_EQ(difference(exportActive("stored.xml"), built), "");
  }
}

TEST_P(XmlDocuments, FrameFollowsTheSessionSettingsAndEachEncodingIsWrittenAndReadBack) {
  const std::string utf8 = importThenExport(sourceFile(kExamples[0]), "Encodé €");
  const std::string head = "<?xml version='1.0' encoding=\"UTF-8\"?>\n<?xml-stylesheet type=\"text/xsl\" href=\"" +
                           session_->xmlStyleSheet() + "\"?>\n<xml xmlns:kvr=\"" + session_->xmlns() +
                           "\">\n<kvr:Target Name=\"Encodé €\"";
  EXPECT_EQ(utf8.substr(0, head.size()), head);
  EXPECT_EQ(utf8.substr(utf8.size() - 7), "</xml>\n");
  const std::pair<const char*, std::string> cases[] = {
      {"UTF-16", std::string("\xFF\xFE<\0?\0x\0m\0l\0", 12)},
      {"ISO-8859-1", "<?xml version='1.0' encoding=\"ISO-8859-1\"?>"},
  };
  for (const auto& [encoding, start] : cases) {
    SCOPED_TRACE(encoding);
    session_->setXmlEncoding(encoding);
    const std::string bytes = exportActive("enc.xml");
    EXPECT_EQ(bytes.substr(0, start.size()), start);
    if (std::string(encoding) == "ISO-8859-1") {
      EXPECT_TRUE(test::contains(bytes, "Encod\xE9 &#8364;"));  // é in Latin-1, € as a reference
      EXPECT_TRUE(test::contains(bytes, "Fran\xE7" "ais"));
    }
    session_->setXmlEncoding("UTF-8");
    EXPECT_EQ(difference(importThenExport(file("enc.xml")), utf8), "");
  }
  // Without style sheet and name space, neither is written; such a document
  // still imports.
  session_->setXmlStyleSheet("");
  session_->setXmlns("");
  const std::string bare = exportActive("bare.xml");
  const std::string bareHead = "<?xml version='1.0' encoding=\"UTF-8\"?>\n<xml>\n<kvr:Target Name=\"Encodé €\"";
  EXPECT_EQ(bare.substr(0, bareHead.size()), bareHead);
  EXPECT_FALSE(test::contains(bare, "xml-stylesheet") || test::contains(bare, "xmlns:kvr"));
  session_->ImportUceFromXml(file("bare.xml"));
  EXPECT_EQ(session_->ActiveTarget()->name(), "Encodé €");
}

TEST_P(XmlDocuments, ImportRefusesADocumentWithoutTheXmlRootAndRaisesWhatLoadingLeftPending) {
  importThenExport(sourceFile(kExamples[0]), "Before");
  for (const char* text : {"<?xml version=\"1.0\"?>\n<document>\n<kvr:Target Name=\"X\"/>\n</document>\n",
                           "<?xml version=\"1.0\"?>\n<xml><kvr:Target Name=\"X\">\n",  // malformed
                           ""}) {
    writeBytes(file("bad.xml"), text);
    EXPECT_TRUE(test::throws([&] { session_->ImportUceFromXml(file("bad.xml")); }, 1,
                             "Bad xml file, RootNode \"xml\" not found", "KavrelDatabase.ImportUceFromXml"));
    auto t = session_->ActiveTarget();
    ASSERT_TRUE(t);
    EXPECT_TRUE(t->name().empty() && !t->datas() && !t->Requests());
  }
  EXPECT_THROW(session_->ImportUceFromXml(file("missing.xml")), Error);
  // A list entry without its value is reported by the list as error 1; the
  // import passes it on instead of storing a half-read target silently.
  std::string text = readBytes(sourceFile(kExamples[0]));
  const std::string entry = "<Item Value=\"1\" Text=";
  ASSERT_NE(text.find(entry), std::string::npos);
  text.replace(text.find(entry), entry.size(), "<Item Text=");
  writeBytes(file("novalue.xml"), text);
  EXPECT_EQ(test::thrownBy([&] { session_->ImportUceFromXml(file("novalue.xml")); }).number(), 1);
}

TEST_P(XmlDocuments, UnwritablePathWarnsAndRecordsWithoutThrowing) {
  importThenExport(sourceFile(kExamples[0]), "Nowhere");
  const std::string path = file("no/such/folder/t.xml");
  clearLastError();
  EXPECT_NO_THROW(session_->ExportUceToXml(path));
  EXPECT_EQ(lastError().number, kErrFile);
  EXPECT_EQ(lastError().source, "");
  const std::pair<std::string, std::string> warning{"ExportParametersToXml",
                                                    "Save error (number : " + std::to_string(kErrFile) + ")"};
  EXPECT_EQ(warnings_, (std::vector{warning}));
  EXPECT_FALSE(std::filesystem::exists(path));
  clearLastError();
  EXPECT_NO_THROW(session_->ExportParametersToXml(path));
  EXPECT_EQ(lastError().number, kErrFile);
  EXPECT_EQ(warnings_, (std::vector{warning, warning}));
  // Without an active target the export throws and writes nothing.
  session_->ClearTarget();
  EXPECT_THROW(session_->ExportUceToXml(file("none.xml")), Error);
  EXPECT_FALSE(std::filesystem::exists(file("none.xml")));
}

TEST_P(XmlDocuments, ParametersDocumentFrameEncodingAndRoundTrip) {
  session_->ExportParametersToXml(file("p.xml"));
  ASSERT_FALSE(lastError().pending()) << lastError().description;
  const std::string text = readBytes(file("p.xml"));
  const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xml xmlns:kvr=\"" + session_->xmlns() +
                           "\">\n<Functions>\n<Function ";
  EXPECT_EQ(text.substr(0, head.size()), head);
  EXPECT_FALSE(test::contains(text, "xml-stylesheet"));
  for (const char* part : {"</Functions>\n<Protocols>\n", "</Protocols>\n<Failures>\n", "</Failures>\n<DeviceTypes>\n"})
    EXPECT_TRUE(test::contains(text, part));
  EXPECT_EQ(text.substr(text.size() - 22), "</DeviceTypes>\n</xml>\n");
  // The encoding argument names the declaration's encoding and the bytes'.
  session_->ExportParametersToXml(file("latin.xml"), std::string("ISO-8859-1"));
  const std::string latin = readBytes(file("latin.xml"));
  EXPECT_EQ(latin.rfind("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n", 0), 0u);
  EXPECT_TRUE(test::contains(latin, "Entr\xE9" "e"));
  // A database seeded from the exported document exports the same bytes.
  test::TempDb other;
  auto second = KavrelDatabase::create();
  second->DbOpen(other.path());
  second->importParametersFromXml(file("latin.xml"));
  second->DbRead();
  second->ExportParametersToXml(file("p2.xml"));
  EXPECT_EQ(difference(readBytes(file("p2.xml")), text), "");
}

TEST_P(XmlDocuments, ExportNamedUceOpensExportsAndClosesAgain) {
  importThenExport(sourceFile(kExamples[0]), "Named");
  storeAndReadBack();
  const std::string stored = exportActive("stored.xml");
  session_->DbClose();
  auto exporter = KavrelDatabase::create();
  clearLastError();
  exporter->ExportNamedUceToXml(db_.path(), "Named", file("named.xml"));
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  EXPECT_EQ(difference(readBytes(file("named.xml")), stored), "");
  EXPECT_FALSE(exporter->DbConnection() || exporter->ActiveTarget());
  // An unknown name: a recorded error, no file, the database closed again.
  exporter->ExportNamedUceToXml(db_.path(), "Unknown", file("unknown.xml"));
  EXPECT_TRUE(test::recorded(1, "Target 'Unknown' not found"));
  EXPECT_FALSE(std::filesystem::exists(file("unknown.xml")));
  EXPECT_FALSE(exporter->DbConnection());
  // A database that cannot be opened is recorded too, never thrown.
  clearLastError();
  EXPECT_NO_THROW(exporter->ExportNamedUceToXml(file("missing.sqlite"), "Named", file("x.xml")));
  EXPECT_TRUE(lastError().pending());
  EXPECT_FALSE(exporter->DbConnection());
  // A save failure carries the method's name before its source.
  clearLastError();
  exporter->ExportNamedUceToXml(db_.path(), "Named", file("no/folder/x.xml"));
  EXPECT_EQ(lastError().number, kErrFile);
  EXPECT_EQ(lastError().source, std::string("ExportNamedUceToXml ") + kLibraryName);
  EXPECT_FALSE(exporter->DbConnection());
}

KAVREL_ON_ENGINES(XmlDocuments);

}  // namespace
}  // namespace kavrel
