// The short cuts of the XML layer give what the general paths give: a
// child name asked as a path, attributes looked up without a copy of the
// name, values set from views, documents parsed in their own buffer, and
// UTF-8 saved as it is printed.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "kavrel/error.h"
#include "kavrel/platform/xml.h"
#include "support/temp_db.h"

namespace kavrel::xml {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::vector<std::string> names(const std::vector<Node>& nodes) {
  std::vector<std::string> out;
  for (const auto& n : nodes) out.push_back(n.name() + "=" + n.attribute("n").value_or(""));
  return out;
}

TEST(XmlPaths, PlainChildNamesSelectWhatTheChildAxisSelects) {
  Document doc;
  ASSERT_TRUE(doc.loadString(
      "<xml><kvr:Target n='t'><Data n='1'/><!--Data--><Data n='2'><Data n='inner'/></Data>text<Data2 n='x'/>"
      "<data n='lower'/><div n='d'/><Data n='3'/></kvr:Target></xml>"));
  const Node root = doc.documentElement();
  const Node target = root.selectSingleNode("kvr:Target");
  ASSERT_FALSE(target.isNull());
  EXPECT_EQ(target, root.selectSingleNode("child::kvr:Target"));

  for (const char* name : {"Data", "Data2", "data", "div", "Missing"}) {
    EXPECT_EQ(names(target.selectNodes(name)), names(target.selectNodes(std::string("child::") + name))) << name;
    EXPECT_EQ(target.selectSingleNode(name), target.selectSingleNode(std::string("./") + name)) << name;
  }
  EXPECT_EQ(names(target.selectNodes("Data")), (std::vector<std::string>{"Data=1", "Data=2", "Data=3"}));
  // From the document node, and from nodes that have no element children.
  EXPECT_EQ(doc.root().selectNodes("xml").size(), 1u);
  EXPECT_TRUE(target.selectSingleNode("@n").selectNodes("Data").empty());
  EXPECT_TRUE(target.selectSingleNode("Data").selectSingleNode("Data").isNull());
  // Anything else still goes to the XPath engine.
  EXPECT_EQ(target.selectNodes("Data | Data2").size(), 4u);
  EXPECT_EQ(target.selectString("Data[2]/Data/@n"), "inner");
  EXPECT_THROW(target.selectNodes("Data["), Error);
}

TEST(XmlAttributes, LookupsAndReplacementsByNameAndValuesUpToANul) {
  Document doc;
  Node e = doc.appendElement("E");
  e.setAttribute("Name", "first");
  e.setAttribute("Nam", "short");
  e.setAttribute("Name", "second");  // replaces, keeps its place
  EXPECT_EQ(doc.toString(), "<E Name=\"second\" Nam=\"short\"/>\n");
  EXPECT_EQ(e.attribute("Name"), "second");
  EXPECT_EQ(e.attribute("Nam"), "short");
  EXPECT_EQ(e.attribute("Na"), std::nullopt);
  EXPECT_EQ(e.attribute("Names"), std::nullopt);
  // A name is taken up to a NUL, as a terminated copy of it would be.
  EXPECT_EQ(e.attribute(std::string_view("Nam\0e", 5)), "short");
  EXPECT_TRUE(e.hasAttribute(std::string("Name\0", 5)));

  e.setAttribute("V", std::string_view("abc\0def", 7));
  e.appendText(std::string_view("t\0u", 3));
  EXPECT_EQ(e.attribute("V"), "abc");
  EXPECT_EQ(doc.toString(), "<E Name=\"second\" Nam=\"short\" V=\"abc\">t</E>\n");
  EXPECT_THROW(doc.root().selectSingleNode("E/@V").setAttribute("x", "y"), Error);
}

TEST(XmlAttributes, ReadAllAtOnceTheyAnswerAsSingleLookupsDo) {
  Document doc;
  Node e = doc.appendElement("E");
  std::vector<std::string> asked = {"Na", "Names", "Missing", std::string(70, 'L')};
  for (int i = 0; i < 11; ++i) {  // past the attributes kept without allocation
    const std::string name = i % 2 ? "A" + std::to_string(i) : "Attribute" + std::to_string(i);
    e.setAttribute(name, "value " + std::to_string(i));
    asked.push_back(name);
  }
  e.setAttribute(std::string(70, 'L') + "x", "long");  // a name too long for the stack copy
  e.setAttribute("Name", "");
  asked.push_back(std::string(70, 'L') + "x");
  asked.push_back("Name");

  const Attributes all = e.attributes();
  EXPECT_EQ(all.size(), 13u);
  for (const auto& name : asked) {
    const auto one = e.attribute(name);
    const auto fromAll = all.get(name);
    ASSERT_EQ(one.has_value(), fromAll.has_value()) << name;
    if (one) {
      EXPECT_EQ(*one, *fromAll) << name;
    }
  }
  EXPECT_EQ(e.attribute(std::string(70, 'L') + "x"), "long");
  EXPECT_EQ(all.get("Name"), "");
  // Nodes that are not elements have none.
  EXPECT_EQ(doc.root().selectSingleNode("E/@Name").attributes().size(), 0u);
  EXPECT_EQ(Node().attributes().size(), 0u);
}

TEST(XmlLoad, OnlyADocumentReadOnceLetsItsReadersDropElements) {
  const char* text = "<xml><Datas><Data n='1'><Item/></Data><Data n='2'/></Datas></xml>";
  for (bool once : {false, true}) {
    Document doc;
    doc.setReadOnce(once);
    ASSERT_TRUE(doc.loadString(text));
    EXPECT_EQ(doc.readOnce(), once);
    const std::vector<Node> datas = doc.documentElement().child("Datas").selectNodes("Data");
    ASSERT_EQ(datas.size(), 2u);
    doc.discardRead(datas[0]);
    doc.discardRead(datas[1].selectSingleNode("@n"));  // not an element: kept
    doc.discardRead(doc.documentElement().selectSingleNode("comment()"));
    const std::vector<std::string> left =
        once ? std::vector<std::string>{"Data=2"} : std::vector<std::string>{"Data=1", "Data=2"};
    EXPECT_EQ(names(doc.documentElement().child("Datas").selectNodes("Data")), left);
    EXPECT_EQ(datas[1].attribute("n"), "2");  // later siblings stay usable
  }
}

TEST(XmlLoad, DocumentsParsedInPlaceReportFaultsAsLoadedFromTextAndCanBeChanged) {
  test::TempDir dir;
  const std::string path = dir.file("d.xml");
  // The parser writes into the text it reads (line ends, entities, name
  // ends), so the faults must still be placed in the text as written.
  for (const std::string bad :
       {"<a>\n  <b>é</c>\n</a>", "<a/>\n <b/>", "\xEF\xBB\xBF<a>\n\n<b x='1' y/></a>",
        "<a t='x\r\ny'>\r\n&amp;\r\n<b>\r\n</a>", "<?xml version='1.0'?><a/><?xml version='1.0'?>"}) {
    Document fromText, fromFile;
    EXPECT_FALSE(fromText.loadString(bad));
    writeFile(path, bad);
    EXPECT_FALSE(fromFile.load(path));
    EXPECT_EQ(fromFile.parseError().code, fromText.parseError().code) << bad;
    EXPECT_EQ(fromFile.parseError().reason, fromText.parseError().reason) << bad;
    EXPECT_EQ(fromFile.parseError().line, fromText.parseError().line) << bad;
    EXPECT_EQ(fromFile.parseError().column, fromText.parseError().column) << bad;
    EXPECT_TRUE(fromFile.documentElement().isNull());
  }

  writeFile(path, "<?xml  version='1.0' encoding=\"UTF-8\" ?>\r\n<a x='&amp;1'>t&lt;<b/></a>");
  Document doc;
  ASSERT_TRUE(doc.load(path)) << doc.parseError().reason;
  Node a = doc.documentElement();
  EXPECT_EQ(a.attribute("x"), "&1");
  a.setAttribute("x", "a much longer value than the one parsed in place");
  a.selectSingleNode("b").setAttribute("y", "2");
  a.appendText("end");
  EXPECT_EQ(doc.toString(),
            "<?xml version='1.0' encoding=\"UTF-8\"?>\n"
            "<a x=\"a much longer value than the one parsed in place\">t&lt;<b y=\"2\"/>end</a>\n");
  // Loading again replaces the document and its buffer.
  ASSERT_TRUE(doc.loadString("<c/>"));
  EXPECT_EQ(doc.toString(), "<c/>\n");
}

TEST(XmlSave, Utf8FileHoldsExactlyTheTextAndOtherEncodingsStillConvert) {
  Document doc;
  doc.appendDeclaration("1.0", "UTF-8");
  Node root = doc.appendElement("xml");
  for (int i = 0; i < 3000; ++i) {  // larger than any write buffer
    root.appendText("\n");
    root.appendElement("Item").setAttribute("Text", "é " + std::to_string(i));
  }
  test::TempDir dir;
  doc.save(dir.file("u.xml"));
  EXPECT_EQ(readFile(dir.file("u.xml")), doc.toString());
  doc.save(dir.file("l.xml"), "ISO-8859-1");
  const std::string latin = readFile(dir.file("l.xml"));
  EXPECT_NE(latin.find("Text=\"\xE9 2999\""), std::string::npos);
  EXPECT_THROW(doc.save(dir.path().string()), Error);  // a folder cannot be written
}

}  // namespace
}  // namespace kavrel::xml
