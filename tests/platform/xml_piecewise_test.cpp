// Documents loaded in pieces: what a reader sees equals what it sees in the
// whole tree, and a malformed document is refused exactly as a whole load
// refuses it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/xml.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::xml {
namespace {

const PiecewiseLayout kLayout{"xml", "kvr:Target", {"Function", "CAN"}, {"Datas", "Requests"}};

std::string repeat(std::string_view s, size_t n) {
  std::string out;
  out.reserve(s.size() * n);
  for (size_t i = 0; i < n; ++i) out += s;
  return out;
}

// Everything a target reader can see: the kept elements, the sections'
// attributes, and each section child with its path and text.
std::string reading(Document& doc) {
  std::string out;
  const Node target = doc.root().selectSingleNode("xml").selectSingleNode("kvr:Target");
  out += "target " + target.attribute("Name").value_or("-") + "\n";
  for (const char* kept : {"Function", "CAN"}) {
    const Node k = target.child(kept);
    out += std::string(kept) + " " + k.attribute("Name").value_or("-") + " [" + k.text() + "]";
    if (!k.isNull()) out += " " + k.child("CANId").attribute("Value").value_or("-");
    out += "\n";
  }
  for (const char* section : {"Datas", "Requests"}) {
    const Node s = target.child(section);
    out += std::string(section) + " " + s.attribute("Endian").value_or("-") + "\n";
    for (const char* name : {"Data", "Request"}) {
      out += std::to_string(doc.countChildren(s, name)) + " " + name + "\n";
      doc.forEachChild(s, name, [&](const Node& n) {
        out += elementPath(n) + " [" + n.text() + "] " + std::to_string(n.selectNodes("Bits").size()) + "\n";
      });
    }
  }
  return out;
}

// Each test runs with the usual batches and with batches of a few bytes,
// so that small documents are cut everywhere too.
class Piecewise : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override { ::setenv("KAVREL_PIECEWISE_BATCH_BYTES", GetParam(), 1); }
  void TearDown() override { ::unsetenv("KAVREL_PIECEWISE_BATCH_BYTES"); }
  std::string write(const std::string& text) {
    const std::string path = dir_.file("doc" + std::to_string(++files_) + ".xml");
    test::writeBytes(path, text);
    return path;
  }
  test::TempDir dir_;
  int files_ = 0;
};

// Markup the first pass must step over (quoted ">" and "/", comments, CDATA,
// instructions), unknown and repeated children, and records, comments and
// text larger than the pass's window.
TEST_P(Piecewise, ReaderSeesWhatTheWholeTreeShows) {
  const std::string big = repeat("<e a=\"1\"/>", 300000);  // 3 MB
  const std::string text =
      "\xEF\xBB\xBF<?xml version='1.0' encoding=\"utf-8\"?>\n<!-- <kvr:Target> -->\n"
      "<!DOCTYPE xml [ <!ENTITY x \"]>\"> ]>\n"
      "<xml xmlns:kvr=\"urn:k\">\n<Other><kvr:Target Name=\"no\"/></Other>\n"
      "<kvr:Target Name=\"T &amp; &quot;q&quot;\" Extra='a>b/'>\n"
      "<Unknown>" + big + "</Unknown>\n"
      "<Function Name=\"F1\">f<![CDATA[<x/>]]></Function>\n<Function Name=\"F2\"/>\n"
      "<Datas>\n<!-- <Data Name=\"c\"/> -->\n<Data Name=\"d1\"><Bits/><?pi <Data>?></Data>\n"
      "text &lt; more\n<Data Name='d2 > x'>" + big + "<Bits/></Data>\n<Item Name=\"i\"/>\n"
      "<Data Name=\"d3\"/><!--" + repeat("c", 2000000) + " --></Datas>\n"
      "<Datas><Data Name=\"second section\"/></Datas>\n"
      "<CAN><SendId><CANId Value=\"12\"/></SendId><CANId Value=\"7\"/></CAN>\n"
      "<Requests Endian=\"Little\"><Request Name=\"r1\">" + repeat("&#233;", 300000) + "</Request></Requests>\n"
      "</kvr:Target>\n<kvr:Target Name=\"later\"><Datas><Data Name=\"x\"/></Datas></kvr:Target>\n</xml>\n"
      "<!-- after -->\n";
  const std::string path = write(text);
  Document whole;
  ASSERT_TRUE(whole.load(path)) << whole.parseError().reason;
  Document pieces;
  ASSERT_TRUE(pieces.loadPiecewise(path, kLayout)) << pieces.parseError().reason;
  EXPECT_TRUE(pieces.piecewise());
  const std::string expected = reading(whole);
  EXPECT_EQ(reading(pieces), expected);
  EXPECT_NE(expected.find("/xml/kvr:Target[@Name='T & \"q\"']/Datas/Data[@Name='d2 > x']"), std::string::npos);
  // Children no reader looks at are not kept.
  EXPECT_TRUE(pieces.root().selectSingleNode("xml").selectSingleNode("kvr:Target").child("Unknown").isNull());
  EXPECT_TRUE(pieces.root().selectSingleNode("xml").child("Other").isNull());
}

// A malformed document gets the whole load's error, line and column.
TEST_P(Piecewise, MalformedDocumentsAreRefusedAsAWholeLoadRefusesThem) {
  const std::string head = "<?xml version='1.0'?>\n<xml>\n<kvr:Target Name=\"T\">\n<Datas>\n";
  const std::string deep = repeat("<a>", 100000) + repeat("</a>", 100000);
  // Larger than a checked batch: read on inside it.
  const std::string big = "<u>" + repeat("<e/>", 400000) + "<v>" + repeat("<e/>", 400000);
  const struct {
    const char* what;
    std::string text;
  } cases[] = {
      {"unclosed tag inside a Data", head + "<Data Name=\"a\"><Bits></Data>\n</Datas>\n</kvr:Target>\n</xml>\n"},
      {"bad attribute", head + "<Data Name=a/>\n</Datas>\n</kvr:Target>\n</xml>\n"},
      {"invalid reference in a Request",
       head + "</Datas><Requests>\n<Request Name=\"r&#0;\"/></Requests>\n</kvr:Target>\n</xml>\n"},
      {"raw control character in text", head + "<Data>\x01</Data></Datas>\n</kvr:Target>\n</xml>\n"},
      {"invalid UTF-8 in a record", head + "<Data Name=\"\xC3\x28\"/></Datas>\n</kvr:Target>\n</xml>\n"},
      {"bad nesting at target level", head + "</kvr:Target>\n</Datas>\n</xml>\n"},
      {"unknown child not closed", head + "</Datas>\n<e><f></e>\n</kvr:Target>\n</xml>\n"},
      {"truncated file", head + "<Data Name=\"a\"><Bits/></Da"},
      {"second root element", head + "</Datas></kvr:Target></xml>\n<xml/>\n"},
      {"large unknown child closed by another name", head + "</Datas><U>" + big + "</v></u></V></kvr:Target></xml>"},
      {"bad attribute late in a large record", head + "<Data>" + big + "<f a=1/></v></u></Data></Datas></kvr:Target></xml>"},
      {"end tag with an attribute", head + "<Data>" + big + "</v></u a=\"1\"></Data></Datas></kvr:Target></xml>"},
      {"deep nesting left open", head + "<Data>" + repeat("<a>", 100000) + "</Data></Datas></kvr:Target></xml>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = write(c.text);
    Document whole;
    EXPECT_FALSE(whole.load(path));
    Document pieces;
    EXPECT_FALSE(pieces.loadPiecewise(path, kLayout));
    EXPECT_FALSE(pieces.piecewise());
    EXPECT_NE(pieces.parseError().code, 0);
    EXPECT_EQ(pieces.parseError().code, whole.parseError().code);
    EXPECT_EQ(pieces.parseError().reason, whole.parseError().reason);
    EXPECT_EQ(pieces.parseError().line, whole.parseError().line);
    EXPECT_EQ(pieces.parseError().column, whole.parseError().column);
  }

  // Deep but well formed: read in pieces, without recursion.
  const std::string path = write(head + "<Data Name=\"deep\">" + deep + "</Data></Datas></kvr:Target></xml>\n");
  Document pieces;
  ASSERT_TRUE(pieces.loadPiecewise(path, kLayout));
  EXPECT_TRUE(pieces.piecewise());
  int seen = 0;
  const Node datas = pieces.root().selectSingleNode("xml/kvr:Target/Datas");
  pieces.forEachChild(datas, "Data", [&](const Node& n) { seen += n.child("a").isNull() ? 0 : 1; });
  EXPECT_EQ(seen, 1);
}

// Documents the pieces do not take are loaded whole, with the same result.
TEST_P(Piecewise, OtherEncodingsAndRootsAreLoadedWhole) {
  const struct {
    const char* what;
    std::string text;
  } cases[] = {
      {"Latin-1", "<?xml version='1.0' encoding=\"ISO-8859-1\"?>\n<xml><kvr:Target Name=\"\xE9\"/></xml>\n"},
      {"UTF-16", std::string("\xFF\xFE<\0x\0m\0l\0/\0>\0", 14)},
      {"other root", "<other><kvr:Target Name=\"x\"/></other>"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string path = write(c.text);
    Document whole;
    ASSERT_TRUE(whole.load(path)) << whole.parseError().reason;
    Document pieces;
    ASSERT_TRUE(pieces.loadPiecewise(path, kLayout)) << pieces.parseError().reason;
    EXPECT_FALSE(pieces.piecewise());
    EXPECT_TRUE(pieces.readOnce());
    EXPECT_EQ(pieces.toString(), whole.toString());
  }
}

// A file changed between the passes is reported, not misread.
TEST_P(Piecewise, FileChangedBeforeTheSectionIsRead) {
  const std::string text = "<xml><kvr:Target><Datas><Data Name=\"abc\"/></Datas></kvr:Target></xml>";
  const std::string path = write(text);
  Document pieces;
  ASSERT_TRUE(pieces.loadPiecewise(path, kLayout));
  std::string changed = text;
  changed.replace(changed.find("<Data "), 6, "<Data<");
  test::writeBytes(path, changed);
  const Node datas = pieces.root().selectSingleNode("xml/kvr:Target/Datas");
  try {
    pieces.forEachChild(datas, "Data", [](const Node&) {});
    FAIL() << "no error";
  } catch (const Error& e) {
    EXPECT_EQ(e.number(), 75);
  }
}

INSTANTIATE_TEST_SUITE_P(Batches, Piecewise, ::testing::Values("1048576", "4096"));

}  // namespace
}  // namespace kavrel::xml
