#include "kavrel/platform/xml.h"

#include <gtest/gtest.h>

#include "kavrel/error.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::xml {
namespace {

using test::readBytes;
using test::writeBytes;

// The frame the session writes, with a little content in the documents' style.
Document targetDocument(const std::string& encoding = "UTF-8") {
  Document doc;
  doc.appendProcessingInstruction("xml", "version='1.0' encoding=\"" + encoding + "\"");
  doc.appendProcessingInstruction("xml-stylesheet", "type=\"text/xsl\" href=\"http://example.com/v.xsl\"");
  Node root = doc.appendElement("xml");
  root.setAttribute("xmlns:kvr", "urn:kvr");
  root.appendText("\n");
  Node target = root.appendElement("kvr:Target");
  target.setAttribute("Name", "UCE \"1\" <&> é€");
  target.appendText("\n");
  Node data = target.appendElement("Data");
  data.setAttribute("Name", "Régime");
  data.appendText("\n");
  data.appendElement("Comment").appendCData("line 1\nline 2 ]]> end");
  data.appendText("\n");
  target.appendText("\n");
  return doc;
}

TEST(XmlSave, LayoutHasOneLineFeedAfterEachTopLevelNode) {
  const std::string text = targetDocument().toString();
  EXPECT_EQ(text,
            "<?xml version='1.0' encoding=\"UTF-8\"?>\n"
            "<?xml-stylesheet type=\"text/xsl\" href=\"http://example.com/v.xsl\"?>\n"
            "<xml xmlns:kvr=\"urn:kvr\">\n<kvr:Target Name=\"UCE &quot;1&quot; &lt;&amp;> é€\">\n"
            "<Data Name=\"Régime\">\n<Comment><![CDATA[line 1\nline 2 ]]]]><![CDATA[> end]]></Comment>\n"
            "</Data>\n</kvr:Target></xml>\n");
  test::TempDir dir;
  targetDocument().save(dir.file("t.xml"));
  EXPECT_EQ(readBytes(dir.file("t.xml")), text);  // no byte-order mark in UTF-8
}

TEST(XmlSave, DeclarationGoesFirstAndOnlyOnce) {
  Document doc;
  doc.appendElement("xml");
  doc.appendDeclaration("1.0", "ISO-8859-1");
  EXPECT_EQ(doc.toString(), "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<xml/>\n");
  EXPECT_EQ(doc.root().firstChild().type(), NodeType::Declaration);
  EXPECT_THROW(doc.appendProcessingInstruction("xml", "version='1.0'"), Error);
  EXPECT_THROW(doc.appendElement("second"), Error);
  EXPECT_THROW(doc.root().appendText("x"), Error);
}

TEST(XmlRoundTrip, LoadThenSaveGivesTheSameBytesInEveryEncoding) {
  test::TempDir dir;
  for (const std::string encoding : {"UTF-8", "UTF-16", "ISO-8859-1"}) {
    const std::string first = dir.file("a-" + encoding + ".xml"), second = dir.file("b-" + encoding + ".xml");
    targetDocument(encoding).save(first, encoding);
    Document loaded;
    loaded.setPreserveWhiteSpace(true);
    ASSERT_TRUE(loaded.load(first)) << encoding << ": " << loaded.parseError().reason;
    EXPECT_EQ(loaded.toString(), targetDocument(encoding).toString()) << encoding;
    loaded.save(second, "");  // the declared encoding
    EXPECT_EQ(readBytes(second), readBytes(first)) << encoding;

    Node target = loaded.documentElement().selectSingleNode("kvr:Target");
    EXPECT_EQ(target.attribute("Name"), "UCE \"1\" <&> é€") << encoding;
    EXPECT_EQ(target.selectString("Data/Comment"), "line 1\nline 2 ]]> end") << encoding;
  }
}

TEST(XmlSave, EncodingsWriteTheExpectedBytes) {
  test::TempDir dir;
  const std::string path = dir.file("e.xml");
  targetDocument("UTF-16").save(path, "utf-16");
  const std::string utf16 = readBytes(path);
  ASSERT_GE(utf16.size(), 4u);
  EXPECT_EQ(utf16.substr(0, 4), std::string("\xFF\xFE<\0", 4));

  // Latin-1: é is one byte; € is not in it: a character reference in
  // attributes, a closed-and-reopened CDATA section in CDATA.
  Document doc;
  doc.appendDeclaration("1.0", "ISO-8859-1");
  Node root = doc.appendElement("xml");
  root.setAttribute("A", "é€");
  root.appendText("€");
  root.appendCData("x€y");
  doc.save(path, "iso-8859-1");
  EXPECT_EQ(readBytes(path),
            "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<xml A=\"\xE9&#8364;\">&#8364;"
            "<![CDATA[x]]>&#8364;<![CDATA[y]]></xml>\n");
  Document back;
  ASSERT_TRUE(back.load(path));
  EXPECT_EQ(back.documentElement().attribute("A"), "é€");
  EXPECT_EQ(back.documentElement().text(), "€x€y");

  doc.save(path, "Windows-1252");  // has the euro sign
  EXPECT_NE(readBytes(path).find("<xml A=\"\xE9\x80\">\x80<![CDATA[x\x80y]]>"), std::string::npos);

  doc.documentElement().appendElement("Nom€");
  EXPECT_THROW(doc.save(path, "ISO-8859-1"), Error);
}

TEST(XmlSave, FailuresAreNumberedErrors) {
  test::TempDir dir;
  Error e = test::thrownBy([&] { targetDocument().save(dir.file("x.xml"), "EBCDIC"); });
  EXPECT_EQ(e.number(), kErrInvalidArgument);
  EXPECT_TRUE(test::contains(e.description(), "EBCDIC"));
  const std::string unwritable = dir.file("missing-folder/x.xml");
  e = test::thrownBy([&] { targetDocument().save(unwritable); });
  EXPECT_EQ(e.number(), kErrFile);
  EXPECT_TRUE(test::contains(e.description(), "Path/File access error"));
  EXPECT_TRUE(test::contains(e.description(), unwritable));
}

TEST(XmlLoad, DetectsEncodingFromMarkOrDeclaration) {
  test::TempDir dir;
  const std::string path = dir.file("in.xml");
  writeBytes(path, "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a t=\"\xE9\">\xC9t\xE9</a>");
  Document doc;
  ASSERT_TRUE(doc.load(path)) << doc.parseError().reason;
  EXPECT_EQ(doc.documentElement().attribute("t"), "é");
  EXPECT_EQ(doc.documentElement().text(), "Été");
  EXPECT_EQ(doc.root().firstChild().value(), "version=\"1.0\" encoding=\"ISO-8859-1\"");

  writeBytes(path, "<?xml version=\"1.0\" encoding=\"windows-1252\"?><a>\x80</a>");
  ASSERT_TRUE(doc.load(path));
  EXPECT_EQ(doc.documentElement().text(), "€");

  writeBytes(path, std::string("\xFE\xFF\0<\0a\0>\0\xE9\0<\0/\0a\0>", 18));
  ASSERT_TRUE(doc.load(path)) << doc.parseError().reason;
  EXPECT_EQ(doc.documentElement().text(), "é");

  writeBytes(path, "\xEF\xBB\xBF<a>\xC3\xA9</a>");
  ASSERT_TRUE(doc.load(path));
  EXPECT_EQ(doc.documentElement().text(), "é");
}

TEST(XmlLoad, FailuresTellWhyAndWhere) {
  test::TempDir dir;
  Document doc;
  EXPECT_FALSE(doc.load(dir.file("nothing.xml")));
  EXPECT_NE(doc.parseError().code, 0);
  EXPECT_TRUE(test::contains(doc.parseError().reason, "nothing.xml"));

  EXPECT_FALSE(doc.loadString("<a>\n  <b>é</c>\n</a>"));
  EXPECT_NE(doc.parseError().code, 0);
  EXPECT_FALSE(doc.parseError().reason.empty());
  EXPECT_EQ(doc.parseError().line, 2);
  EXPECT_GT(doc.parseError().column, 5);
  EXPECT_TRUE(doc.documentElement().isNull());

  EXPECT_FALSE(doc.loadString("<a/>\n <b/>"));
  EXPECT_EQ(doc.parseError().line, 2);
  EXPECT_EQ(doc.parseError().column, 2);
  EXPECT_FALSE(doc.loadString(""));
  EXPECT_FALSE(doc.loadString("<a>\xE9</a>"));  // Latin-1 byte in UTF-8 text
  EXPECT_EQ(doc.parseError().column, 4);
  const std::string path = dir.file("x.xml");
  writeBytes(path, "<?xml version=\"1.0\" encoding=\"Shift_JIS\"?><a/>");
  EXPECT_FALSE(doc.load(path));
  EXPECT_TRUE(test::contains(doc.parseError().reason, "Shift_JIS"));

  EXPECT_TRUE(doc.loadString("<a/>"));
  EXPECT_EQ(doc.parseError().code, 0);
}

TEST(XmlLoad, BlankTextNodesAreLeftOutUnlessAsked) {
  const char* text = "<a>\n<b> </b>\n<c>x</c>\n</a>";
  Document doc;
  ASSERT_TRUE(doc.loadString(text));
  const auto kids = doc.documentElement().children();
  ASSERT_EQ(kids.size(), 2u);
  EXPECT_EQ(kids[0].text(), " ");  // an element's only content is kept
  doc.setPreserveWhiteSpace(true);
  ASSERT_TRUE(doc.loadString(text));
  EXPECT_EQ(doc.documentElement().children().size(), 5u);
}

TEST(XmlSelect, RelativePathsPrefixedNamesUnionsAttributesAndComments) {
  Document doc;
  ASSERT_TRUE(doc.loadString(
      "<?xml version='1.0'?><xml xmlns:kvr='urn:x'><kvr:Target Name='T'>"
      "<Data Name='d1'><!-- first --><!-- second --><Item Value='1'/><Item Value='2'/></Data>"
      "<Screen><Display n='1'/><Input n='2'/><Display n='3'/></Screen>"
      "<Function><SendId><CANId Value='2024'/></SendId></Function></kvr:Target></xml>"));
  Node root = doc.root().selectSingleNode("xml");
  ASSERT_EQ(root.type(), NodeType::Element);
  Node target = root.selectSingleNode("kvr:Target");
  ASSERT_FALSE(target.isNull());
  EXPECT_TRUE(root.selectSingleNode("Target").isNull());

  Node name = target.selectSingleNode("@Name");
  EXPECT_EQ(name.type(), NodeType::Attribute);
  EXPECT_EQ(name.value(), "T");
  EXPECT_EQ(name.parent(), target);

  Node data = target.selectSingleNode("Data");
  EXPECT_EQ(data.selectNodes("Item").size(), 2u);
  const auto comments = data.selectNodes("comment()");
  ASSERT_EQ(comments.size(), 2u);
  EXPECT_EQ(comments[0].value(), " first ");
  EXPECT_EQ(comments[0].type(), NodeType::Comment);

  std::string order;
  for (const Node& n : target.selectSingleNode("Screen").selectNodes("Display | Input")) order += *n.attribute("n");
  EXPECT_EQ(order, "123");  // document order

  EXPECT_EQ(target.selectString("Function/SendId/CANId/@Value"), "2024");
  EXPECT_FALSE(target.selectString("Function/ReceiveId/CANId/@Value").has_value());
  EXPECT_THROW(target.selectNodes("Data["), Error);
  EXPECT_THROW(target.selectNodes("count(Data)"), Error);
}

TEST(XmlNode, BuildingRefusesBadNamesAndReplacesAttributes) {
  Document doc;
  Node root = doc.appendElement("xml");
  Node b = root.appendElement("B");
  Node a = root.insertElementBefore("A", b);
  EXPECT_EQ(root.firstChild(), a);
  EXPECT_THROW(root.insertElementBefore("X", Node()), Error);
  EXPECT_THROW(root.appendElement("bad name"), Error);
  EXPECT_THROW(Node().appendElement("A"), Error);

  a.setAttribute("V", "1");
  a.setAttribute("V", "2");  // replaces, does not duplicate
  EXPECT_EQ(a.attribute("V"), "2");
  EXPECT_EQ(a.attribute("W"), std::nullopt);
  a.setAttribute("T", "tab\there\nline");
  b.appendText("x");
  b.appendCData("y");
  b.appendElement("C").appendText("z");
  EXPECT_EQ(b.text(), "xyz");
  Document back;
  ASSERT_TRUE(back.loadString(doc.toString()));
  EXPECT_EQ(back.documentElement().child("A").attribute("T"), "tab\there\nline");
}

}  // namespace
}  // namespace kavrel::xml
