// The session's XML documents: frame, encodings, save and load failures,
// and round trips of whole targets through the documents and the database.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "kavrel/kavrel.h"
#include "support/temp_db.h"

namespace kavrel {
namespace {

std::string readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeBytes(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

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

// A target made through the object model, sorted the way the database reads
// it back (requests, data, positions and organs by name).
std::shared_ptr<TargetItem> buildTarget(KavrelDatabase& session, const std::string& name, int32_t address,
                                        int32_t initMode) {
  auto t = session.NewTarget();
  t->setName(name);
  t->setAddress(address);
  t->setLangue("Français");
  auto p = t->Parametres();
  p->setInitMode(initMode);
  p->setBaudRate(initMode == 3 ? 500000 : 10400);
  p->setKey1(0xE9);
  p->setKey2(0x8F);
  p->setTesterPresentDelay(2000);
  p->setLittleEndian(initMode == 3);
  p->setComment("Generated \"test\" target & <friends>");
  p->setReprogrammable("Flash 2 Mo");
  p->setDateOfficialisation("12/05/2003");
  p->setTypePanneId(3);

  t->setAutoIdents(std::make_shared<AutoIdentItems>());
  t->AutoIdents()->Add(12, "F07", "SW-4.2", "C", t);
  t->AutoIdents()->Add(13, "F07", "SW-4.3", "A", t);

  t->setDatas(std::make_shared<DataItems>());
  auto battery = t->datas()->Add(0);
  battery->setParent(t);
  battery->setDataname("Battery voltage");
  battery->setUnite("V");
  battery->setCoeffA(0.08);
  battery->setCoeffB(-1.5);
  battery->setCoeffC(2);
  battery->setDataFormat("0.00");
  battery->setMnemo("UBAT");
  battery->setDescription("Supply seen by the unit");
  battery->setFiche("Measured after the main relay.\nCheck the fuse first.");
  auto state = t->datas()->Add(0);
  state->setParent(t);
  state->setDataname("Engine state");
  state->setNumberBits(3);
  state->setListe(true);
  const char* labels[] = {"Stopped", "Cranking", "Running", "Cut-off"};
  for (int v = 0; v < 4; ++v) {
    auto e = state->DataListes()->Add(v);
    e->setParent(state);
    e->setLibelle(labels[v]);
    if (v == 3) e->setInfo("Injection cut while coasting");
  }
  auto part = t->datas()->Add(0);
  part->setParent(t);
  part->setDataname("Part number");
  part->setNumerique(false);
  part->setNumberBits(80);
  part->setAscii(true);
  auto temp = t->datas()->Add(0);
  temp->setParent(t);
  temp->setDataname("Water temperature");
  temp->setNumberBits(16);
  temp->setSigne(true);
  temp->setUnite("°C");
  temp->setCoeffB(-40);

  t->setRequests(std::make_shared<RequestItems>());
  auto addPosition = [](const std::shared_ptr<RequestItem>& r, const std::string& data, int32_t byte, int32_t bit,
                        bool param, bool reference) {
    auto pos = r->DataPositions()->Add();
    pos->setParent(r);
    pos->setDataname(data);
    pos->setRequestName(r->requestName());
    pos->setStartOctet(byte);
    pos->setStartBit(bit);
    pos->setParam(param);
    pos->setReference(reference);
  };
  auto ident = t->Requests()->Add(0);
  ident->setParent(t);
  ident->setRequestName("Read identification");
  ident->setRequestBytes(ByteFrame::fromText("21 80"));
  ident->setReplyBytes(ByteFrame::fromText("61 80"));
  ident->setLengthDatas(12);
  ident->setAccesApresVente(false);
  ident->setCommentaire("Identification block");
  addPosition(ident, "Part number", 3, 0, false, true);
  auto measures = t->Requests()->Add(0);
  measures->setParent(t);
  measures->setRequestName("Read measures");
  measures->setRequestBytes(ByteFrame::fromText("21 01"));
  measures->setReplyBytes(ByteFrame::fromText("61 01"));
  measures->setLengthDatas(8);
  measures->setShiftBytesCount(1);
  addPosition(measures, "Battery voltage", 3, 0, false, true);
  addPosition(measures, "Engine state", 4, 5, false, true);
  addPosition(measures, "Water temperature", 5, 0, false, true);
  auto actuator = t->Requests()->Add(0);
  actuator->setParent(t);
  actuator->setRequestName("Test injector");
  actuator->setRequestBytes(ByteFrame::fromText("30 10 00"));
  actuator->setReplyBytes(ByteFrame::fromText("70 10"));
  actuator->setLgVariable(true);
  actuator->setManuelSend(true);
  actuator->setAccesTous(false);
  actuator->setAccesEtudes(false);
  addPosition(actuator, "Engine state", 3, 0, true, false);

  t->setOrganes(std::make_shared<OrganeItems>());
  auto injector = t->Organes()->Add(0, "Injector 1", "INJ1", 0x0201, 1201);
  injector->setParent(t);
  injector->setOrganeTypeId(4);
  injector->setRequestName("Read measures");
  injector->setDeviceDatas(std::make_shared<DeviceDataItems>());
  auto dd = injector->DeviceDatas()->Add();
  dd->setParent(injector);
  dd->setDataname("Battery voltage");
  auto dd2 = injector->DeviceDatas()->Add();
  dd2->setParent(injector);
  dd2->setDataname("Engine state");
  dd2->setFlagPanne(true);
  auto sensor = t->Organes()->Add(0, "Water sensor", "", 0, 0);
  sensor->setParent(t);
  sensor->setDeviceDatas(std::make_shared<DeviceDataItems>());
  // The database always gives a target its (so far empty) screen categories.
  t->setCategories(std::make_shared<CategoryItems>());
  return t;
}

TEST_F(XmlDocuments, TargetFrameFollowsTheSessionSettings) {
  buildTarget(*session_, "Frame", 122, 2);
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

TEST_F(XmlDocuments, GeneratedTargetsSurviveDocumentAndDatabase) {
  for (int32_t initMode : {0, 1, 2, 3}) {
    SCOPED_TRACE(initMode);
    const std::string name = "Generated " + std::to_string(initMode);
    buildTarget(*session_, name, initMode == 3 ? 88 : 122, initMode);
    const std::string built = exportActive("built.xml");

    // Document → object → document is stable.
    const std::string once = importThenExport(file("built.xml"), "once.xml");
    EXPECT_EQ(difference(once, built), "");
    // Document → database → document gives the same bytes.
    storeAndReadBack();
    EXPECT_EQ(difference(exportActive("stored.xml"), once), "");
  }
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
}

TEST_F(XmlDocuments, EachEncodingIsWrittenAndReadBack) {
  buildTarget(*session_, "Encodé €", 122, 1);
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
  buildTarget(*session_, "Before", 122, 2);
  const std::string bad[] = {
      "<?xml version=\"1.0\"?>\n<document>\n<kvr:Target Name=\"X\"/>\n</document>\n",
      "<?xml version=\"1.0\"?>\n<xml><kvr:Target Name=\"X\">\n",  // malformed
      "",
  };
  for (const auto& text : bad) {
    writeBytes(file("bad.xml"), text);
    try {
      session_->ImportUceFromXml(file("bad.xml"));
      ADD_FAILURE() << "accepted: " << text;
    } catch (const Error& e) {
      EXPECT_EQ(e.number(), 1);
      EXPECT_EQ(e.source(), "KavrelDatabase.ImportUceFromXml");
      EXPECT_EQ(e.description(), "Bad xml file, RootNode \"xml\" not found");
    }
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
  try {
    session_->ImportUceFromXml(file("novalue.xml"));
    ADD_FAILURE() << "accepted";
  } catch (const Error& e) {
    EXPECT_EQ(e.number(), 1);
  }
  clearLastError();
}

TEST_F(XmlDocuments, UnwritablePathWarnsAndRecordsWithoutThrowing) {
  buildTarget(*session_, "Nowhere", 122, 2);
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
}

TEST_F(XmlDocuments, ParametersDocumentFrameAndRoundTrip) {
  clearLastError();
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
  buildTarget(*session_, "Named", 122, 1);
  const std::string built = exportActive("built.xml");
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

TEST_F(XmlDocuments, ExportWithoutActiveTargetThrows) {
  session_->ClearTarget();
  EXPECT_THROW(session_->ExportUceToXml(file("none.xml")), Error);
  EXPECT_FALSE(std::filesystem::exists(file("none.xml")));
}

}  // namespace
}  // namespace kavrel
