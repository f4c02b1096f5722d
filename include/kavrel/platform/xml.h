// A thin XML document model for the item classes (the backend is hidden;
// no parser type leaks through this header).
//
// Nodes are light handles into a Document; they stay valid while the node
// exists in its document and the document lives. A default Node is null.
// Node names are taken literally, prefixes included ("kvr:Target"): there is
// no namespace processing, which is what the documents' readers expect.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pugi {
struct xml_node_struct;
struct xml_attribute_struct;
}  // namespace pugi

namespace kavrel::xml {

namespace detail {
class XmlStream;
}

// Declaration: the "xml" processing instruction (name "xml", value its data).
enum class NodeType { Null, Document, Element, Text, CData, Comment, ProcessingInstruction, Declaration, Attribute };

// The attributes of one element, read in a single pass: readers that look up
// several attributes of each of many elements scan these views instead of
// walking the element once per name. The views stay valid while the
// element's attributes are unchanged and the document lives.
class Attributes {
 public:
  // The value of the attribute named exactly `name`, if the element has it.
  std::optional<std::string_view> get(std::string_view name) const noexcept {
    for (size_t i = 0; i < count_; ++i) {
      const Entry& e = i < kInline ? inline_[i] : more_[i - kInline];
      if (sameName(e.name, name)) return std::string_view(e.value);
    }
    return std::nullopt;
  }
  size_t size() const noexcept { return count_; }

 private:
  friend class Node;
  // Terminated texts of the document; lengths are only measured for the
  // values asked for.
  struct Entry {
    const char* name;
    const char* value;
  };
  static constexpr size_t kInline = 8;
  static bool sameName(const char* terminated, std::string_view name) noexcept {
    for (char c : name)
      if (*terminated++ != c || c == '\0') return false;
    return *terminated == '\0';
  }
  void add(const char* name, const char* value) {
    if (count_ < kInline)
      inline_[count_] = {name, value};
    else
      more_.push_back({name, value});
    ++count_;
  }
  std::array<Entry, kInline> inline_;  // only the first count_ are set
  std::vector<Entry> more_;
  size_t count_ = 0;
};

class Node {
 public:
  Node() = default;

  bool isNull() const noexcept { return node_ == nullptr && attr_ == nullptr && stream_ == nullptr; }
  explicit operator bool() const noexcept { return !isNull(); }
  NodeType type() const;
  std::string name() const;
  // Value of an attribute, text, CDATA, comment or processing instruction
  // node; empty for elements and documents.
  std::string value() const;
  // The text content: for an element, its text and CDATA descendants joined
  // in document order; for other nodes, value().
  std::string text() const;

  // Attributes (elements only).
  std::optional<std::string> attribute(std::string_view name) const;
  bool hasAttribute(std::string_view name) const;
  // All of them at once (none for a node that is not an element).
  Attributes attributes() const;
  void setAttribute(std::string_view name, std::string_view value);

  // Building.
  Node appendElement(std::string_view name);
  Node appendText(std::string_view text);
  Node appendCData(std::string_view text);
  Node appendComment(std::string_view text);
  // Inserts a new element before `before` (a child of this node).
  Node insertElementBefore(std::string_view name, const Node& before);

  // Navigation.
  Node parent() const;
  Node firstChild() const;
  Node nextSibling() const;
  std::vector<Node> children() const;
  // First child element with that name (null if none).
  Node child(std::string_view name) const;

  // XPath evaluated relative to this node ("Data", "kvr:Target",
  // "Display | Input", "comment()", "@Name", "SendId/CANId/@Value").
  // An attribute selection gives an Attribute node. An invalid expression
  // throws kavrel::Error.
  Node selectSingleNode(std::string_view xpath) const;
  std::vector<Node> selectNodes(std::string_view xpath) const;
  // The value of the first node the expression selects, if any.
  std::optional<std::string> selectString(std::string_view xpath) const;

  friend bool operator==(const Node& a, const Node& b) {
    return a.node_ == b.node_ && a.attr_ == b.attr_ && a.stream_ == b.stream_ && a.serial_ == b.serial_;
  }

 private:
  friend class Document;
  Node(pugi::xml_node_struct* n, pugi::xml_attribute_struct* a) : node_(n), attr_(a) {}
  Node(detail::XmlStream* stream, uint32_t serial, uint32_t place) : stream_(stream), serial_(serial), place_(place) {}
  pugi::xml_node_struct* node_ = nullptr;
  pugi::xml_attribute_struct* attr_ = nullptr;
  // A node of a document written as it is built: its writer and where it
  // stands there.
  detail::XmlStream* stream_ = nullptr;
  uint32_t serial_ = 0;
  uint32_t place_ = 0;
};

// Where an element stands, for messages: "/xml/kvr:Target/Datas/Data[@Name='x']",
// each step named by its Name attribute where it has one (quotes in it
// doubled). Empty for a null node.
std::string elementPath(const Node& node);

// Which parts of a large document its one-time reader looks at, for
// Document::loadPiecewise. The reader reads the first child named `top` of
// the document element `root`; under it, the first child of each name in
// `kept` is kept whole, and the first child of each name in `sections` is
// kept without its content: the element children of a section are read one
// at a time through Document::forEachChild. Every other child of `top` (and
// of `root`) is checked and then left out of the loaded tree.
struct PiecewiseLayout {
  std::string root;
  std::string top;
  std::vector<std::string> kept;
  std::vector<std::string> sections;
};

struct ParseError {
  int code = 0;  // 0 = no error
  std::string reason;
  long line = 0;
  long column = 0;
};

class Document {
 public:
  Document();
  ~Document();
  Document(Document&&) noexcept;
  Document& operator=(Document&&) noexcept;
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  // The document node itself (parent of the top-level nodes).
  Node root() const;
  // The first top-level element (null when none).
  Node documentElement() const;

  // Top-level nodes, appended in order. An "xml" instruction is the XML
  // declaration: it is put first whatever was appended before, and a
  // document has at most one (a second one throws kavrel::Error 5).
  Node appendProcessingInstruction(std::string_view target, std::string_view data);
  // The declaration made of pseudo-attributes: version="1.0" encoding="..."
  // (encoding left out when empty). Same placement rule as above.
  Node appendDeclaration(std::string_view version, std::string_view encoding);
  // A second top-level element throws kavrel::Error 5.
  Node appendElement(std::string_view name);

  // Loading replaces the content. On failure returns false and parseError()
  // tells why (code != 0) and where (line, column). A document may nest its
  // elements as deep as it likes: loading, reading, discarding and freeing
  // never recurse once per level. Characters an XML document may not hold
  // (NUL and other control characters but tab, line feed and carriage
  // return; surrogates; U+FFFE, U+FFFF), written raw or as character
  // references, are refused, the reason naming the element and attribute
  // (or the element whose text) that holds them. The encoding is taken from the byte-order mark or
  // the declaration (UTF-8, UTF-16, ISO-8859-1, windows-1252). The loaded
  // declaration is an "xml" processing instruction with its data as written.
  // Text nodes made only of white space are left out of the loaded tree
  // (unless they are an element's only content) unless preserveWhiteSpace.
  bool load(const std::string& path);
  // `text` is UTF-8 whatever its declaration says.
  bool loadString(std::string_view text);
  const ParseError& parseError() const;
  bool preserveWhiteSpace() const;
  void setPreserveWhiteSpace(bool keep);

  // A document read once (a loader's own, dropped after reading) lets its
  // readers discard each element as soon as it is read: the memory of the
  // parsed elements is then reused by what is built from them instead of
  // new memory. Off by default, so a caller's document is never changed.
  bool readOnce() const;
  void setReadOnce(bool once);
  // Removes the element `done` (and what it holds) from a document read
  // once; does nothing otherwise. Handles to the removed nodes are then
  // invalid.
  void discardRead(const Node& done);

  // Loads a large document for a reader that reads it once, in
  // `layout`'s pieces, so that memory follows the largest piece instead of
  // the document: a first pass streams the file (no copy of it in memory),
  // checks every part of it as load() would, and keeps a small tree of the
  // parts the layout names; the content of each section stays in the file
  // (its place remembered) and is parsed one child at a time by
  // forEachChild, which reads the file again. The document is read-once
  // (setReadOnce(true)). Anything the first pass does not take (a document
  // not in UTF-8, a document element of another name, a malformed document)
  // is loaded whole by load(), so the result, and for a malformed document
  // the parse error with its line and column, are load()'s; refusing a
  // malformed document costs what loading it whole costs. The file must not
  // change until the reader is done: a section child that no longer parses
  // throws kavrel::Error 75 from forEachChild.
  bool loadPiecewise(const std::string& path, const PiecewiseLayout& layout);
  // True after loadPiecewise took the piecewise way.
  bool piecewise() const;

  // The element children of `parent` named `name`, in document order: each
  // is passed to `f` and then, in a read-once document, discarded
  // (discardRead). For a section of a piecewise document each is parsed on
  // its own from the file into a small tree (its ancestors are there with
  // their attributes, not their other children) that is freed after `f`.
  // What `f` throws propagates, after that tree is freed.
  void forEachChild(const Node& parent, std::string_view name, const std::function<void(const Node&)>& f);
  // How many children forEachChild would pass.
  size_t countChildren(const Node& parent, std::string_view name) const;

  // A document written as it is built (an exporter's own, built in
  // document order and saved once): each node goes straight into the saved
  // text instead of into a tree, so a large document costs neither the
  // tree's time nor its memory; it saves to the same bytes. Then:
  // - an element takes children until a node is appended to one of its
  //   ancestors (it is then written and closed), and takes attributes until
  //   its first child is appended; building on a closed node throws
  //   kavrel::Error 5;
  // - what is written cannot be read back: navigation, XPath and attribute
  //   reads of its nodes throw kavrel::Error 5 (type() and name() of an
  //   open node, and parent(), still answer).
  // It is chosen while the document is empty (else Error 5); loading makes
  // it a tree again.
  bool writeThrough() const;
  void setWriteThrough(bool on);

  // Saves in the named encoding ("UTF-8", "UTF-16", "ISO-8859-1",
  // "windows-1252", "US-ASCII", letter case ignored; empty means the one
  // named by the document's declaration, else UTF-8). Characters the
  // encoding lacks are written as character references. Throws
  // kavrel::Error (number 75 for a file that cannot be written, 5 for an
  // unknown encoding or a character that cannot be written in a name,
  // comment or processing instruction).
  void save(const std::string& path, std::string_view encoding = "UTF-8") const;
  // The document as UTF-8 text, exactly as save() would lay it out: every
  // top-level node followed by one line feed, nothing else added.
  std::string toString() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kavrel::xml
