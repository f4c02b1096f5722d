// The import report a C++ client installs around an import: what the import
// cut or could not link, by kind, with the element concerned.
#include <gtest/gtest.h>

#include "kavrel/kavrel.h"
#include "support/checks.h"
#include "support/temp_db.h"
#include "support/engines.h"

namespace kavrel {
namespace {

using test::contains;
using test::readBytes;
using test::repeat;
using test::writeBytes;

std::string sourceFile(const std::string& relative) { return std::string(KAVREL_SOURCE_DIR) + "/" + relative; }

class ImportReportDb : public ::kavrel::test::EngineTest {};
KAVREL_ON_ENGINES(ImportReportDb);

TEST_P(ImportReportDb, NamesWhatAnImportCutOrCouldNotLinkWithItsElementAndPassesTheRestOn) {
  test::TempDb db;
  auto session = KavrelDatabase::create();
  session->DbOpen(db.path());
  session->importParametersFromXml(sourceFile("examples/parameters.xml"));
  session->DbRead();

  std::string doc = readBytes(sourceFile("examples/kline_target.xml"));
  const std::string longName = repeat("é", 75);
  doc.insert(doc.find("<Datas>\n") + 8, "<Data Name=\"" + longName + "\">\n<Bytes count=\"2\"/>\n</Data>\n");
  doc.insert(doc.find("<Device Name="),
             "<Device Name=\"Gh'ost\" FreezeFrame=\"Nowhere\">\n<DeviceData Name=\"Nothing\"/>\n</Device>\n");
  writeBytes(db.dir().file("bent.xml"), doc);

  auto shown = std::make_shared<MemoryHost>();
  auto report = std::make_shared<ImportReport>(shown, 5);
  {
    ScopedHost scoped(report);
    EXPECT_EQ(&host(), report.get());
    session->ImportUceFromXml(db.dir().file("bent.xml"));
  }
  EXPECT_EQ(sharedHost(), defaultHost());

  EXPECT_EQ(report->total(), 3u);
  EXPECT_EQ(report->count(ImportEventKind::TruncatedName), 1u);
  EXPECT_EQ(report->count(ImportEventKind::UnknownRequest), 1u);
  EXPECT_EQ(report->count(ImportEventKind::DroppedLink), 1u);
  const auto kept = report->kept();
  ASSERT_EQ(kept.size(), 3u);
  const std::string target = "/xml/kvr:Target[@Name='Injection essence KWP 5 bauds']";
  EXPECT_EQ(kept[0].path, target + "/Datas/Data[@Name='" + longName + "']");
  EXPECT_TRUE(contains(kept[0].text, "too long"));
  EXPECT_EQ(kept[1].path, target + "/Devices/Device[@Name='Gh''ost']/@FreezeFrame");
  EXPECT_TRUE(contains(kept[1].text, "'Nowhere'"));
  EXPECT_EQ(kept[2].path, target + "/Devices/Device[@Name='Gh''ost']/DeviceData[@Name='Nothing']");
  // The message box of the truncation still reaches the next host, once.
  ASSERT_EQ(shown->messageBoxes().size(), 1u);
  EXPECT_EQ(shown->messageBoxes()[0].text, kept[0].text);

  // Boxes and log entries that come without an event of their own count by
  // what they say; only the first few of a kind are kept.
  report->clear();
  for (int i = 0; i < 7; ++i) report->logEvent(EventType::Error, "row " + std::to_string(i) + " not inserted");
  report->messageBox("Nom de l'organe trop long, tronqué à 70 caractères", "", MessageIcon::Exclamation);
  report->messageBox("Erreur de doublon 3 = x", "", MessageIcon::Exclamation);
  report->logEvent(EventType::Information, "noted");
  EXPECT_EQ(report->count(ImportEventKind::RefusedRow), 8u);
  EXPECT_EQ(report->count(ImportEventKind::TruncatedName), 1u);
  EXPECT_EQ(report->total(), 9u);
  EXPECT_EQ(report->kept().size(), 6u);
}

}  // namespace
}  // namespace kavrel
