// The session's XML documents: frame, encodings, save and load failures,
// and round trips of whole targets through the documents and the database.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "kavrel/kavrel.h"
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
  size_t line = 1, start = 0, i = 0;
  for (; i < a.size() && i < b.size() && a[i] == b[i]; ++i)
    if (a[i] == '\n') {
      ++line;
      start = i + 1;
    }
  auto lineAt = [start](const std::string& s) { return s.substr(start, s.find('\n', start) - start); };
  return "line " + std::to_string(line) + ":\n  " + lineAt(a) + "\n  " + lineAt(b);
}

std::string sourceFile(const std::string& relative) { return std::string(KAVREL_SOURCE_DIR) + "/" + relative; }

const char* const kExamples[] = {"examples/kline_target.xml", "examples/can_target.xml"};

// A session on a fresh database whose catalogues come from the example
// parameters document.
class XmlDocuments : public ::testing::Test {
 protected:
  void SetUp() override {
    session_ = KavrelDatabase::create();
    session_->DbOpen(db_.path());
    session_->importParametersFromXml(sourceFile("examples/parameters.xml"));
    clearLastError();
    session_->DbRead();
    ASSERT_FALSE(lastError().pending()) << lastError().description;
    warningToken_ = session_->WarningInfo.subscribe(
        [this](const std::string& c, const std::string& m) { warnings_.emplace_back(c, m); });
  }

  std::string file(const std::string& name) const { return db_.dir().file(name); }
  db::Connection& conn() { return *session_->DbConnection(); }

  std::string exportActive(const std::string& name) {
    clearLastError();
    session_->ExportUceToXml(file(name));
    EXPECT_FALSE(lastError().pending()) << lastError().description;
    return readBytes(file(name));
  }

  // The K-line example, renamed, as the active target.
  void importExample(const std::string& name) {
    session_->ImportUceFromXml(sourceFile(kExamples[0]));
    session_->ActiveTarget()->setName(name);
  }

  // Imports `path` and returns the export of the imported target.
  std::string importThenExport(const std::string& path, const std::string& name) {
    session_->ImportUceFromXml(path);
    return exportActive(name);
  }

  // Stores the active target and reads it back from the database as the new
  // active target.
  void storeAndReadBack() {
    auto imported = session_->ActiveTarget();
    imported->dbInsertTargetAll(conn());
    const int32_t address = imported->Address();
    const int32_t id = imported->targetid();
    auto target = session_->NewTarget();
    ASSERT_TRUE(target->dbReadTargetAll(conn(), address, id));
  }

  test::TempDb db_;
  std::shared_ptr<KavrelDatabase> session_;
  std::vector<std::pair<std::string, std::string>> warnings_;
  size_t warningToken_ = 0;
};

TEST_F(XmlDocuments, TargetFrameFollowsTheSessionSettings) {
  importExample("Frame");
  const std::string text = exportActive("frame.xml");
  const std::string head = "<?xml version='1.0' encoding=\"UTF-8\"?>\n<?xml-stylesheet type=\"text/xsl\" href=\"" +
                           session_->xmlStyleSheet() + "\"?>\n<xml xmlns:kvr=\"" + session_->xmlns() +
                           "\">\n<kvr:Target Name=\"Frame\"";
  EXPECT_EQ(text.substr(0, head.size()), head);
  EXPECT_EQ(text.substr(text.size() - 7), "</xml>\n");

  session_->setXmlStyleSheet("");
  session_->setXmlns("");
  const std::string bare = exportActive("bare.xml");
  const std::string bareHead = "<?xml version='1.0' encoding=\"UTF-8\"?>\n<xml>\n<kvr:Target Name=\"Frame\"";
  EXPECT_EQ(bare.substr(0, bareHead.size()), bareHead);
  EXPECT_EQ(bare.find("xml-stylesheet"), std::string::npos);
  EXPECT_EQ(bare.find("xmlns:kvr"), std::string::npos);
  // Such a document still imports.
  session_->ImportUceFromXml(file("bare.xml"));
  EXPECT_EQ(session_->ActiveTarget()->name(), "Frame");
}

TEST_F(XmlDocuments, ExamplesSurviveDocumentAndDatabase) {
  for (const char* example : kExamples) {
    SCOPED_TRACE(example);
    const std::string original = readBytes(sourceFile(example));
    ASSERT_FALSE(original.empty());
    const std::string direct = importThenExport(sourceFile(example), "direct.xml");
    EXPECT_EQ(difference(direct, original), "") << "the example is not in the layout the library writes";
    EXPECT_EQ(difference(importThenExport(file("direct.xml"), "again.xml"), direct), "");
    storeAndReadBack();
    EXPECT_EQ(difference(exportActive("stored.xml"), direct), "");
  }
  // Changed through the object model to the other line kinds, the K-line
  // target survives the same way.
  for (int32_t mode : {0, 2}) {
    SCOPED_TRACE(mode);
    importExample("Mode " + std::to_string(mode));
    session_->ActiveTarget()->Parametres()->setInitMode(mode);
    const std::string built = exportActive("built.xml");
    EXPECT_EQ(difference(importThenExport(file("built.xml"), "once.xml"), built), "");
    storeAndReadBack();
    EXPECT_EQ(difference(exportActive("stored.xml"), built), "");
  }
}

TEST_F(XmlDocuments, EachEncodingIsWrittenAndReadBack) {
  importExample("Encodé €");
  const std::string utf8 = exportActive("utf8.xml");

  struct Case {
    const char* encoding;
    std::string expectedStart;
  };
  const Case cases[] = {
      {"UTF-16", std::string("\xFF\xFE<\0?\0x\0m\0l\0", 12)},
      {"ISO-8859-1", "<?xml version='1.0' encoding=\"ISO-8859-1\"?>"},
      {"UTF-8", "<?xml version='1.0' encoding=\"UTF-8\"?>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.encoding);
    session_->setXmlEncoding(c.encoding);
    const std::string bytes = exportActive("enc.xml");
    EXPECT_EQ(bytes.substr(0, c.expectedStart.size()), c.expectedStart);
    if (std::string(c.encoding) == "ISO-8859-1") {
      EXPECT_NE(bytes.find("Encod\xE9 &#8364;"), std::string::npos);  // é in Latin-1, € as a reference
      EXPECT_NE(bytes.find("Fran\xE7" "ais"), std::string::npos);
    }
    session_->ImportUceFromXml(file("enc.xml"));
    EXPECT_EQ(session_->ActiveTarget()->name(), "Encodé €");
    session_->setXmlEncoding("UTF-8");
    EXPECT_EQ(difference(exportActive("back.xml"), utf8), "");
  }
}

TEST_F(XmlDocuments, ImportRefusesADocumentWithoutTheXmlRoot) {
  importExample("Before");
  const std::string bad[] = {
      "<?xml version=\"1.0\"?>\n<document>\n<kvr:Target Name=\"X\"/>\n</document>\n",
      "<?xml version=\"1.0\"?>\n<xml><kvr:Target Name=\"X\">\n",  // malformed
      "",
  };
  for (const auto& text : bad) {
    writeBytes(file("bad.xml"), text);
    EXPECT_TRUE(test::throws([&] { session_->ImportUceFromXml(file("bad.xml")); }, 1,
                             "Bad xml file, RootNode \"xml\" not found", "KavrelDatabase.ImportUceFromXml"));
    auto t = session_->ActiveTarget();
    ASSERT_TRUE(t);
    EXPECT_EQ(t->name(), "");
    EXPECT_FALSE(t->datas());
    EXPECT_FALSE(t->Requests());
  }
  EXPECT_THROW(session_->ImportUceFromXml(file("missing.xml")), Error);
}

TEST_F(XmlDocuments, ImportRaisesWhatLoadingTheTargetLeftPending) {
  // A list entry without its value is reported by the list as error 1; the
  // import passes it on instead of storing a half-read target silently.
  std::string text = readBytes(sourceFile(kExamples[0]));
  const std::string entry = "<Item Value=\"1\" Text=";
  ASSERT_NE(text.find(entry), std::string::npos);
  text.replace(text.find(entry), entry.size(), "<Item Text=");
  writeBytes(file("novalue.xml"), text);
  EXPECT_EQ(test::thrownBy([&] { session_->ImportUceFromXml(file("novalue.xml")); }).number(), 1);
}

TEST_F(XmlDocuments, UnwritablePathWarnsAndRecordsWithoutThrowing) {
  importExample("Nowhere");
  const std::string path = file("no/such/folder/t.xml");
  clearLastError();
  EXPECT_NO_THROW(session_->ExportUceToXml(path));
  ASSERT_TRUE(lastError().pending());
  const int32_t number = lastError().number;
  EXPECT_EQ(number, kErrFile);
  EXPECT_EQ(lastError().source, "");
  ASSERT_EQ(warnings_.size(), 1u);
  EXPECT_EQ(warnings_[0].first, "ExportParametersToXml");
  EXPECT_EQ(warnings_[0].second, "Save error (number : " + std::to_string(number) + ")");
  EXPECT_FALSE(std::filesystem::exists(path));

  clearLastError();
  EXPECT_NO_THROW(session_->ExportParametersToXml(path));
  EXPECT_EQ(lastError().number, kErrFile);
  ASSERT_EQ(warnings_.size(), 2u);
  EXPECT_EQ(warnings_[1], warnings_[0]);

  // Without an active target the export throws and writes nothing.
  session_->ClearTarget();
  EXPECT_THROW(session_->ExportUceToXml(file("none.xml")), Error);
  EXPECT_FALSE(std::filesystem::exists(file("none.xml")));
}

TEST_F(XmlDocuments, ParametersDocumentFrameAndRoundTrip) {
  session_->ExportParametersToXml(file("p.xml"));
  ASSERT_FALSE(lastError().pending()) << lastError().description;
  const std::string text = readBytes(file("p.xml"));
  const std::string head = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xml xmlns:kvr=\"" + session_->xmlns() +
                           "\">\n<Functions>\n<Function ";
  EXPECT_EQ(text.substr(0, head.size()), head);
  EXPECT_EQ(text.find("xml-stylesheet"), std::string::npos);
  for (const char* part : {"</Functions>\n<Protocols>\n", "</Protocols>\n<Failures>\n", "</Failures>\n<DeviceTypes>\n"})
    EXPECT_NE(text.find(part), std::string::npos) << part;
  EXPECT_EQ(text.substr(text.size() - 22), "</DeviceTypes>\n</xml>\n");

  // The encoding argument names the declaration's encoding and the bytes'.
  session_->ExportParametersToXml(file("latin.xml"), std::string("ISO-8859-1"));
  const std::string latin = readBytes(file("latin.xml"));
  EXPECT_EQ(latin.rfind("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n", 0), 0u);
  EXPECT_NE(latin.find("Entr\xE9" "e"), std::string::npos);

  // A database seeded from the exported document exports the same bytes.
  test::TempDb other;
  auto second = KavrelDatabase::create();
  second->DbOpen(other.path());
  second->importParametersFromXml(file("latin.xml"));
  second->DbRead();
  second->ExportParametersToXml(file("p2.xml"));
  EXPECT_EQ(difference(readBytes(file("p2.xml")), text), "");
}

TEST_F(XmlDocuments, ExportNamedUceOpensExportsAndClosesAgain) {
  importExample("Named");
  storeAndReadBack();
  const std::string stored = exportActive("stored.xml");
  session_->DbClose();

  auto exporter = KavrelDatabase::create();
  clearLastError();
  exporter->ExportNamedUceToXml(db_.path(), "Named", file("named.xml"));
  EXPECT_FALSE(lastError().pending()) << lastError().description;
  EXPECT_EQ(difference(readBytes(file("named.xml")), stored), "");
  EXPECT_FALSE(exporter->DbConnection());
  EXPECT_FALSE(exporter->ActiveTarget());

  // An unknown name: a recorded error, no file, the database closed again.
  exporter->ExportNamedUceToXml(db_.path(), "Unknown", file("unknown.xml"));
  EXPECT_EQ(lastError().number, 1);
  EXPECT_EQ(lastError().description, "Target 'Unknown' not found");
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

}  // namespace
}  // namespace kavrel
