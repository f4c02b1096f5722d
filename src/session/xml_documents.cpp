// The session's XML documents: the target document (export of the active
// target, import into a new active target) and the parameters document (the
// four shared catalogues). The entities fill their own elements; this file
// only builds the frame around them and handles saving and loading.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "kavrel/catalogues/function_items.h"
#include "kavrel/catalogues/panne_items.h"
#include "kavrel/catalogues/protocol_items.h"
#include "kavrel/catalogues/type_organe_items.h"
#include "kavrel/error.h"
#include "kavrel/platform/db.h"
#include "kavrel/platform/host.h"
#include "kavrel/platform/xml.h"
#include "kavrel/requests/data_items.h"
#include "kavrel/requests/device_data_items.h"
#include "kavrel/requests/organe_items.h"
#include "kavrel/requests/request_items.h"
#include "kavrel/session/kavrel_database.h"
#include "kavrel/target/target_item.h"
#include "target/document_layout.h"

namespace kavrel {

namespace {

// The legacy runtime's "object variable not set", for a document asked of a
// session that has nothing to put in it.
constexpr int32_t kErrObjectNotSet = 91;

constexpr const char* kLineFeed = "\n";

// Target documents from this size on are read in pieces: memory then
// follows the objects built and the largest record, not the document's tree
// (a 200 MB target takes under three times its size instead of five, a
// document padded with unknown elements a constant instead of seventeen
// times its size). Smaller ones are parsed whole, which takes 10 to 20 %
// less time; the size keeps the whole tree's worst case (a document of
// nothing but empty elements) near half a gigabyte. KAVREL_PIECEWISE_BYTES
// (a number of bytes) replaces it, so that tests take the piecewise way on
// small files.
constexpr uint64_t kPiecewiseBytes = uint64_t{32} << 20;

uint64_t piecewiseBytes() {
  if (const char* v = std::getenv("KAVREL_PIECEWISE_BYTES")) {
    char* end = nullptr;
    const unsigned long long n = std::strtoull(v, &end, 10);
    if (end != v && *end == '\0') return n;
  }
  return kPiecewiseBytes;
}

// Declaration, optional stylesheet, root "xml" with the namespace, and the
// line feed that opens the root's content.
xml::Node startDocument(xml::Document& odoc, const std::string& namespaceUri) {
  xml::Node root = odoc.appendElement("xml");
  if (!namespaceUri.empty()) root.setAttribute("xmlns:kvr", namespaceUri);
  root.appendText(kLineFeed);
  return root;
}

std::string quotedStep(const std::string& element, const std::string& name) {
  std::string step = "/" + element + "[@Name='";
  for (char c : name) step += c == '\'' ? std::string("''") : std::string(1, c);
  return step + "']";
}

// Links of an imported target that name something it does not define: the
// insert cannot store them, so they are reported to the host now, with the
// element they come from.
void reportDanglingLinks(const TargetItem& target) {
  auto organes = target.Organes();
  if (!organes) return;
  auto requests = target.Requests();
  auto datas = target.datas();
  const std::string targetPath = "/xml" + quotedStep("kvr:Target", target.name());
  for (const auto& o : *organes) {
    if (!o) continue;
    const std::string devicePath = targetPath + "/Devices" + quotedStep("Device", o->organeName());
    if (!o->requestName().empty() && !(requests && requests->ItemName(o->requestName())))
      host().importEvent({ImportEventKind::UnknownRequest, devicePath + "/@FreezeFrame",
                          "Device '" + o->organeName() + "' names the freeze frame request '" + o->requestName() +
                              "', which the target does not define; the link is not stored"});
    if (auto deviceDatas = o->DeviceDatas()) {
      for (const auto& d : *deviceDatas) {
        if (!d || (datas && datas->ItemName(d->dataname()))) continue;
        host().importEvent({ImportEventKind::DroppedLink, devicePath + quotedStep("DeviceData", d->dataname()),
                            "Device '" + o->organeName() + "' names the data '" + d->dataname() +
                                "', which the target does not define; the link is not stored"});
      }
    }
  }
}

}  // namespace

void KavrelDatabase::ExportUceToXml(const std::string& fileName) {
  if (!ActiveTarget_)
    raise(kErrObjectNotSet, "KavrelDatabase.ExportUceToXml", "No active target to export");

  xml::Document odoc;
  odoc.setWriteThrough(true);  // built once in order and saved: no tree needed
  odoc.appendProcessingInstruction("xml", "version='1.0' encoding=\"" + xmlEncoding_ + "\"");
  if (!xmlStyleSheet_.empty())
    odoc.appendProcessingInstruction("xml-stylesheet", "type=\"text/xsl\" href=\"" + xmlStyleSheet_ + "\"");
  xml::Node root = startDocument(odoc, xmlns_);
  ActiveTarget_->createXMLnode(odoc, root);

  clearLastError();
  if (!trap([&] { odoc.save(fileName, xmlEncoding_); })) {
    const ErrorRecord saveError = lastError();
    // The save error is kept under its own number and text, without source;
    // the warning names "ExportParametersToXml" here too, as clients expect.
    recordError(saveError.number, "", saveError.description);
    WarningInfo.raise("ExportParametersToXml", "Save error (number : " + std::to_string(saveError.number) + ")");
  }
  const xml::ParseError& parse = odoc.parseError();
  if (parse.code != 0)
    recordError(parse.code, "ExportUceToXml save XML", "XML save error reason = " + parse.reason);
}

void KavrelDatabase::ExportParametersToXml(const std::string& fileName,
                                           const std::optional<std::string>& xmlEncoding) {
  if (!functions_ || !protocols_ || !Pannes_ || !typeOrganes_)
    raise(kErrObjectNotSet, "KavrelDatabase.ExportParametersToXml",
          "Catalogues not loaded, read the database first (DbRead)");
  const std::string encoding = xmlEncoding.value_or(xmlEncoding_);

  xml::Document odoc;
  odoc.setWriteThrough(true);
  odoc.appendDeclaration("1.0", encoding);
  xml::Node root = startDocument(odoc, xmlns_);

  xml::Node element = root.appendElement("Functions");
  functions_->createXMLnode(odoc, element);
  root.appendText(kLineFeed);
  element = root.appendElement("Protocols");
  protocols_->createXMLnode(odoc, element);
  root.appendText(kLineFeed);
  element = root.appendElement("Failures");
  Pannes_->createXMLnode(odoc, element);
  root.appendText(kLineFeed);
  element = root.appendElement("DeviceTypes");
  typeOrganes_->createXMLnode(odoc, element);
  root.appendText(kLineFeed);

  clearLastError();
  if (!trap([&] { odoc.save(fileName, encoding); })) {
    const ErrorRecord saveError = lastError();
    recordError(saveError.number, "", saveError.description);
    WarningInfo.raise("ExportParametersToXml", "Save error (number : " + std::to_string(saveError.number) + ")");
  }
}

void KavrelDatabase::ExportNamedUceToXml(const std::string& dataBaseName, const std::string& uceName,
                                         const std::string& xmlFileName) {
  // The whole method is an error zone: each failure is left as the pending
  // error and the database is closed again where it was opened.
  clearLastError();
  // Closing must not overwrite the error that made us close.
  auto closeKeepingError = [this] {
    const ErrorRecord pending = lastError();
    trap([this] { DbClose(); });
    lastError() = pending;
  };

  if (!trap([&] { DbOpen(dataBaseName); }) || lastError().pending()) return;
  // Everything below reads one snapshot: a target replaced by another
  // process meanwhile is exported whole, as it was before or after. Closing
  // the connection ends the read transaction on every path.
  if (!trap([this] { DbConnection_->beginRead(); })) {
    closeKeepingError();
    return;
  }

  trap([this] { IsKavrelDatabase(); });
  if (lastError().pending()) {
    closeKeepingError();
    return;
  }

  if (!trap([this] { DbRead(); }) || lastError().pending()) {
    closeKeepingError();
    return;
  }

  int32_t address = 0;
  int32_t targetid = 0;
  bool found = false;
  if (!trap([&] { found = DbFindUceByName(uceName, address, targetid); })) {
    closeKeepingError();
    return;
  }
  if (!found) {
    // Nothing to export: say so, write no file, and end as a successful
    // export does (connection closed, catalogues kept).
    recordError(1, "KavrelDatabase.ExportNamedUceToXml", "Target '" + uceName + "' not found");
    const ErrorRecord pending = lastError();
    trap([this] {
      if (DbConnection_) {
        DbConnection_->close();
        DbConnection_.reset();
      }
    });
    lastError() = pending;
    return;
  }

  trap([&] {
    auto target = NewTarget();
    target->dbReadTargetAll(*DbConnection_, address, targetid);
  });
  if (lastError().pending()) {
    const ErrorRecord pending = lastError();
    trap([this] { ClearTarget(); });
    lastError() = pending;
    closeKeepingError();
    return;
  }

  trap([&] { ExportUceToXml(xmlFileName); });
  if (lastError().pending()) {
    const ErrorRecord exportError = lastError();
    recordError(exportError.number, "ExportNamedUceToXml " + exportError.reportedSource(), exportError.description);
  }

  const ErrorRecord pending = lastError();
  trap([this] {
    ClearTarget();
    if (DbConnection_) {
      DbConnection_->close();
      DbConnection_.reset();
    }
  });
  lastError() = pending;
}

void KavrelDatabase::ImportUceFromXml(const std::string& fileName) {
  xml::Document odoc;
  // A file that cannot be read or parsed leaves an empty document, which is
  // refused below for its missing root.
  // Nothing else sees this document: its elements may go once read.
  odoc.setReadOnce(true);
  std::error_code ec;
  const auto size = std::filesystem::file_size(fileName, ec);
  if (!ec && size >= piecewiseBytes())
    odoc.loadPiecewise(fileName, target::documentLayout());
  else
    odoc.load(fileName);

  NewTarget();

  xml::Node root = odoc.root().selectSingleNode("xml");
  if (root.isNull())
    raise(1, "KavrelDatabase.ImportUceFromXml", "Bad xml file, RootNode \"xml\" not found");

  clearLastError();
  trap([&] { ActiveTarget_->loadXml(odoc, root); });
  if (lastError().pending()) raisePending();
  reportDanglingLinks(*ActiveTarget_);
}

}  // namespace kavrel
