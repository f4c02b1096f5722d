// A document written as it is built must save to exactly the bytes the same
// building saves to as a tree, and refuse what it cannot write in order.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "kavrel/error.h"
#include "kavrel/platform/xml.h"
#include "support/checks.h"
#include "support/temp_db.h"

namespace kavrel::xml {
namespace {

using Builder = std::function<void(Document&)>;

Document built(const Builder& build, bool writeThrough) {
  Document doc;
  doc.setWriteThrough(writeThrough);
  build(doc);
  return doc;
}

void expectSameText(const Builder& build) {
  EXPECT_EQ(built(build, true).toString(), built(build, false).toString());
}

// Every byte value from 1 to 127, a few multi-byte characters and a NUL
// (values end there).
std::string everyCharacter() {
  std::string s;
  for (int c = 1; c < 128; ++c) s += static_cast<char>(c);
  s += "é€😀]]>--?>-";
  s += std::string("\0after", 6);
  return s;
}

TEST(XmlWriteThrough, SavesTheBytesTheTreeSavesTo) {
  const std::string all = everyCharacter();
  expectSameText([&](Document& doc) {
    doc.appendProcessingInstruction("xml-stylesheet", "type=\"text/xsl\" href=\"a?>b\"");
    doc.appendDeclaration("1.0", "UTF-8");  // placed first though appended second
    doc.root().appendComment("top -- comment-");
    Node root = doc.appendElement("xml");
    root.setAttribute("xmlns:kvr", "urn:kvr");
    root.setAttribute("All", all);
    root.setAttribute("Empty", "");
    root.setAttribute("All", "replaced keeps its place");
    root.appendText("\n");
    Node target = root.appendElement("kvr:Target");
    target.appendText(all);
    Node empty = target.appendElement("Empty");
    empty.setAttribute("A", "1");
    target.appendElement("EmptyText").appendText("");
    Node deep = target.appendElement("a").appendElement("b").appendElement("c");
    deep.appendCData(all);
    deep.appendCData("]]>");
    deep.appendCData("");
    deep.appendComment(all);
    deep.appendComment("-");
    target.appendText("after the deep ones");  // closes c, b and a
    root.appendElement("Last");
    doc.root().appendComment("after the root");
    doc.appendProcessingInstruction("pi", "");
  });
  expectSameText([](Document& doc) { doc.appendElement("only"); });
  expectSameText([](Document&) {});
}

TEST(XmlWriteThrough, SavesInEveryEncodingAndTakesTheDeclaredOne) {
  test::TempDir dir;
  const Builder build = [](Document& doc) {
    doc.appendDeclaration("1.0", "windows-1252");
    Node root = doc.appendElement("xml");
    root.setAttribute("Name", "Régime € ✓");
    root.appendCData("Ω in a section");
    root.appendText("text ✓");
  };
  for (const char* encoding : {"", "UTF-8", "UTF-16", "ISO-8859-1", "US-ASCII"}) {
    built(build, true).save(dir.file("stream.xml"), encoding);
    built(build, false).save(dir.file("tree.xml"), encoding);
    EXPECT_EQ(test::readBytes(dir.file("stream.xml")), test::readBytes(dir.file("tree.xml"))) << encoding;
  }
  EXPECT_THROW(built(build, true).save(dir.file("x.xml"), "EBCDIC"), Error);
  EXPECT_THROW(built(build, true).save(dir.file("no/such/dir/x.xml")), Error);
}

TEST(XmlWriteThrough, RefusesWhatCannotBeWrittenInOrderOrReadBack) {
  const auto refuses = [](const std::function<void()>& f) {
    try {
      f();
    } catch (const Error& e) {
      return e.number() == kErrInvalidArgument;
    }
    return false;
  };
  Document doc;
  doc.setWriteThrough(true);
  Node root = doc.appendElement("xml");
  Node first = root.appendElement("First");
  first.setAttribute("A", "1");
  Node child = first.appendElement("Child");
  EXPECT_TRUE(refuses([&] { first.setAttribute("B", "2"); }));  // its start tag is written
  EXPECT_EQ(child.parent(), first);
  EXPECT_EQ(child.name(), "Child");
  EXPECT_EQ(doc.documentElement(), root);
  Node second = root.appendElement("Second");  // closes First
  EXPECT_TRUE(refuses([&] { first.appendElement("Late"); }));
  EXPECT_TRUE(refuses([&] { child.setAttribute("A", "1"); }));
  EXPECT_TRUE(refuses([&] { second.appendText("x").appendElement("y"); }));
  EXPECT_TRUE(refuses([&] { root.insertElementBefore("Before", second); }));
  EXPECT_TRUE(refuses([&] { doc.appendElement("second-root"); }));
  EXPECT_TRUE(refuses([&] { doc.root().appendText("top-level text"); }));
  EXPECT_TRUE(refuses([&] { second.selectNodes("*"); }));
  EXPECT_TRUE(refuses([&] { second.attribute("A"); }));
  EXPECT_TRUE(refuses([&] { second.firstChild(); }));
  EXPECT_TRUE(refuses([&] { doc.setWriteThrough(false); }));  // not empty

  Document tree;
  tree.appendElement("xml");
  EXPECT_TRUE(refuses([&] { tree.setWriteThrough(true); }));
  // Loading makes a tree again.
  ASSERT_TRUE(doc.loadString("<a><b/></a>"));
  EXPECT_FALSE(doc.writeThrough());
  EXPECT_EQ(doc.documentElement().selectNodes("b").size(), 1u);
}

}  // namespace
}  // namespace kavrel::xml
