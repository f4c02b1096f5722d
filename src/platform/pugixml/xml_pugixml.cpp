// kavrel::xml on pugixml.
//
// Saved layout: the nodes of the document level are written one after the
// other, each followed by one line feed; inside the root element nothing is
// added or removed (no indentation; the documents carry their own line-feed
// text nodes). A target document therefore reads
//   <?xml version='1.0' encoding="UTF-8"?>\n<?xml-stylesheet ...?>\n<xml ...>\n...</xml>\n
// and loading then saving it again gives the same bytes.
#include <pugixml.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <unordered_map>
#include <utility>

#include "kavrel/error.h"
#include "kavrel/platform/xml.h"
#include "platform/pugixml/xml_encoding.h"
#include "platform/pugixml/xml_piecewise.h"
#include "platform/pugixml/xml_stream.h"

namespace kavrel::xml {
namespace {

using detail::invalid;

bool isXmlBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool allBlank(std::string_view s) {
  for (char c : s)
    if (!isXmlBlank(c)) return false;
  return true;
}

// Names are checked loosely (ASCII rules; any non-ASCII byte allowed) so
// that a misspelt call fails here rather than as an unreadable file.
// By byte: 1 = may start a name, 2 = may follow in one (a table: every
// element and attribute written is checked).
constexpr std::array<unsigned char, 256> kNameChars = [] {
  std::array<unsigned char, 256> t{};
  for (int c = 0; c < 256; ++c) {
    const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_' || c == ':' || c >= 0x80;
    const bool other = (c >= '0' && c <= '9') || c == '-' || c == '.';
    t[static_cast<size_t>(c)] = static_cast<unsigned char>((letter ? 3 : 0) | (other ? 2 : 0));
  }
  return t;
}();

bool validName(std::string_view name) {
  if (name.empty() || !(kNameChars[static_cast<unsigned char>(name[0])] & 1)) return false;
  for (size_t i = 1; i < name.size(); ++i)
    if (!(kNameChars[static_cast<unsigned char>(name[i])] & 2)) return false;
  return true;
}

void checkName(std::string_view name, const char* what) {
  if (!validName(name)) invalid(std::string("Invalid ") + what + " name \"" + std::string(name) + "\"");
}

pugi::xml_node pnode(pugi::xml_node_struct* n) { return pugi::xml_node(n); }

[[noreturn]] void unreadable(const char* operation) {
  invalid(std::string(operation) + ": a document written as it is built cannot be read back");
}

bool isDeclaration(const pugi::xml_node& n) {
  return n.type() == pugi::node_declaration ||
         (n.type() == pugi::node_pi && std::strcmp(n.name(), "xml") == 0);
}

pugi::xml_node declarationOf(const pugi::xml_node& document) {
  for (auto n : document.children())
    if (isDeclaration(n)) return n;
  return {};
}

pugi::xml_node requireNode(pugi::xml_node_struct* n, pugi::xml_attribute_struct* a, const char* operation) {
  if (n == nullptr || a != nullptr) invalid(std::string(operation) + ": not an element or document node");
  return pnode(n);
}

// A new top-level element must be the only one.
void checkTopLevelElement(const pugi::xml_node& parent) {
  if (parent.type() != pugi::node_document) return;
  for (auto n : parent.children())
    if (n.type() == pugi::node_element) invalid("Only one top level element is allowed in an XML document");
}

// Sets a node's or attribute's value straight from the view (no temporary
// copy: documents get hundreds of thousands of values). Like any value of
// the document, it ends at a first NUL.
template <class Target>
void setValue(Target t, std::string_view value) {
  t.set_value(value.data(), value.size());
}

// A name as the terminated string the parser's lookups take, copied to the
// stack when short (names are): one lookup call then walks the attributes
// or children inside the parser, instead of one call per node visited.
// Like any terminated copy, it ends at a first NUL.
class TerminatedName {
 public:
  explicit TerminatedName(std::string_view name) {
    if (name.size() < sizeof(buffer_)) {
      size_t i = 0;
      for (; i < name.size() && name[i] != '\0'; ++i) buffer_[i] = name[i];
      buffer_[i] = '\0';
      text_ = buffer_;
    } else {
      long_.assign(name.substr(0, std::min(name.size(), name.find('\0'))));
      text_ = long_.c_str();
    }
  }
  const char* c_str() const { return text_; }

 private:
  char buffer_[64];
  std::string long_;
  const char* text_;
};

pugi::xml_attribute findAttribute(pugi::xml_node n, std::string_view name) {
  return n.attribute(TerminatedName(name).c_str());
}

pugi::xml_node checkedAppend(pugi::xml_node parent, pugi::xml_node_type type, const char* operation) {
  if (parent.type() == pugi::node_document && (type == pugi::node_pcdata || type == pugi::node_cdata))
    invalid(std::string(operation) + ": text is not allowed at the top level of a document");
  pugi::xml_node made = parent.append_child(type);
  if (!made) invalid(std::string(operation) + ": this node cannot have children");
  return made;
}

// Compiled XPath expressions, reused: the readers evaluate the same few
// expressions on every element.
const pugi::xpath_query& compiled(std::string_view xpath) {
  thread_local std::unordered_map<std::string, pugi::xpath_query> cache;
  std::string key(xpath);
  auto found = cache.find(key);
  if (found != cache.end()) return found->second;
  if (cache.size() >= 512) cache.clear();
  try {
    pugi::xpath_query query(key.c_str());
    return cache.emplace(key, std::move(query)).first->second;
  } catch (const pugi::xpath_exception& e) {
    invalid("Invalid XPath expression \"" + key + "\": " + e.result().description());
  }
}

// A path that is a single child element name ("Data", "kvr:Target"): the
// readers' usual question, answered by walking the children instead of
// running the XPath engine over every element of a large document. Names
// that the XPath grammar could read otherwise are left to the engine.
bool isPlainChildName(std::string_view xpath) {
  if (xpath.empty() || xpath == "and" || xpath == "or" || xpath == "div" || xpath == "mod") return false;
  const auto letter = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; };
  size_t colons = 0;
  for (size_t i = 0; i < xpath.size(); ++i) {
    const char c = xpath[i];
    if (letter(c)) continue;
    if (i > 0 && c >= '0' && c <= '9') continue;
    if (c == ':' && i > 0 && i + 1 < xpath.size() && ++colons == 1 && letter(xpath[i + 1])) continue;
    return false;
  }
  return true;
}

// Children elements named `name` of a node handle, in document order
// (none for an attribute: the child axis of an attribute is empty).
template <class F>
void forEachChildNamed(pugi::xml_node_struct* n, pugi::xml_attribute_struct* a, std::string_view name, F&& f) {
  if (a != nullptr || n == nullptr) return;
  const TerminatedName wanted(name);
  for (pugi::xml_node c = pnode(n).child(wanted.c_str()); c; c = c.next_sibling(wanted.c_str()))
    if (c.type() == pugi::node_element)
      if (!f(c)) return;
}

pugi::xpath_node contextOf(pugi::xml_node_struct* n, pugi::xml_attribute_struct* a) {
  if (a != nullptr) return pugi::xpath_node(pugi::xml_attribute(a), pnode(n));
  return pugi::xpath_node(pnode(n));
}

pugi::xpath_node_set evaluate(pugi::xml_node_struct* n, pugi::xml_attribute_struct* a, std::string_view xpath) {
  const auto& query = compiled(xpath);
  try {
    pugi::xpath_node_set set = query.evaluate_node_set(contextOf(n, a));
    set.sort();
    return set;
  } catch (const pugi::xpath_exception& e) {
    invalid("XPath expression \"" + std::string(xpath) + "\": " + e.result().description());
  }
}

// Text and CDATA descendants, in document order.
std::string descendantText(const pugi::xml_node& top) {
  std::string out;
  pugi::xml_node n = top.first_child();
  // The usual element holds one text or CDATA node: its value, without
  // walking the subtree.
  if (n && !n.next_sibling() && (n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata)) return n.value();
  while (n) {
    if (n.type() == pugi::node_pcdata || n.type() == pugi::node_cdata) out += n.value();
    if (n.first_child()) {
      n = n.first_child();
      continue;
    }
    while (n && n != top && !n.next_sibling()) n = n.parent();
    if (!n || n == top) break;
    n = n.next_sibling();
  }
  return out;
}

// Removes a node and what it holds without recursion: the parser frees a
// subtree by recursing once per level, which overflows the stack on an
// element nested a few hundred thousand levels deep (a document may nest
// as deep as it likes). The deepest nodes go first, each removed once it
// has no children left, so every removal is one level deep. Linear in the
// size of the subtree.
void removeSubtree(pugi::xml_node top) {
  pugi::xml_node n = top;
  for (;;) {
    while (pugi::xml_node c = n.first_child()) n = c;
    if (n == top) break;
    pugi::xml_node up = n.parent();
    up.remove_child(n);
    n = up;
  }
  top.parent().remove_child(top);
}

struct StringWriter : pugi::xml_writer {
  std::string& out;
  explicit StringWriter(std::string& o) : out(o) {}
  void write(const void* data, size_t size) override { out.append(static_cast<const char*>(data), size); }
};

}  // namespace

// ---------------------------------------------------------------- Node

NodeType Node::type() const {
  if (stream_ != nullptr) return stream_->type({serial_, place_});
  if (attr_ != nullptr) return NodeType::Attribute;
  if (node_ == nullptr) return NodeType::Null;
  const pugi::xml_node n = pnode(node_);
  switch (n.type()) {
    case pugi::node_document: return NodeType::Document;
    case pugi::node_element: return NodeType::Element;
    case pugi::node_pcdata: return NodeType::Text;
    case pugi::node_cdata: return NodeType::CData;
    case pugi::node_comment: return NodeType::Comment;
    case pugi::node_pi: return isDeclaration(n) ? NodeType::Declaration : NodeType::ProcessingInstruction;
    case pugi::node_declaration: return NodeType::Declaration;
    default: return NodeType::Null;
  }
}

std::string Node::name() const {
  if (stream_ != nullptr) return stream_->name({serial_, place_});
  if (attr_ != nullptr) return pugi::xml_attribute(attr_).name();
  switch (type()) {
    case NodeType::Element:
    case NodeType::ProcessingInstruction:
    case NodeType::Declaration: return pnode(node_).name();
    case NodeType::Text: return "#text";
    case NodeType::CData: return "#cdata-section";
    case NodeType::Comment: return "#comment";
    case NodeType::Document: return "#document";
    default: return {};
  }
}

std::string Node::value() const {
  if (stream_ != nullptr) unreadable("value");
  if (attr_ != nullptr) return pugi::xml_attribute(attr_).value();
  if (node_ == nullptr) return {};
  const pugi::xml_node n = pnode(node_);
  switch (n.type()) {
    case pugi::node_pcdata:
    case pugi::node_cdata:
    case pugi::node_comment:
    case pugi::node_pi: return n.value();
    case pugi::node_declaration: {
      std::string data;
      for (auto a : n.attributes()) {
        if (!data.empty()) data += ' ';
        data += std::string(a.name()) + "=\"" + a.value() + "\"";
      }
      return data;
    }
    default: return {};
  }
}

std::string Node::text() const {
  if (stream_ != nullptr) unreadable("text");
  if (attr_ == nullptr && node_ != nullptr) {
    const auto t = pnode(node_).type();
    if (t == pugi::node_element || t == pugi::node_document) return descendantText(pnode(node_));
  }
  return value();
}

std::optional<std::string> Node::attribute(std::string_view name) const {
  if (stream_ != nullptr) unreadable("attribute");
  if (attr_ != nullptr || node_ == nullptr) return std::nullopt;
  const pugi::xml_attribute a = findAttribute(pnode(node_), name);
  if (!a) return std::nullopt;
  return std::string(a.value());
}

Attributes Node::attributes() const {
  if (stream_ != nullptr) unreadable("attributes");
  Attributes out;
  if (attr_ != nullptr || node_ == nullptr) return out;
  for (pugi::xml_attribute a = pnode(node_).first_attribute(); a; a = a.next_attribute())
    out.add(a.name(), a.value());
  return out;
}

bool Node::hasAttribute(std::string_view name) const {
  if (stream_ != nullptr) unreadable("hasAttribute");
  if (attr_ != nullptr || node_ == nullptr) return false;
  return static_cast<bool>(findAttribute(pnode(node_), name));
}

void Node::setAttribute(std::string_view name, std::string_view value) {
  if (stream_ != nullptr) {
    if (stream_->type({serial_, place_}) != NodeType::Element) invalid("setAttribute: not an element");
    checkName(name, "attribute");
    return stream_->setAttribute({serial_, place_}, name, value);
  }
  if (attr_ != nullptr || node_ == nullptr || pnode(node_).type() != pugi::node_element)
    invalid("setAttribute: not an element");
  checkName(name, "attribute");
  pugi::xml_node n = pnode(node_);
  const TerminatedName terminated(name);
  pugi::xml_attribute a = n.first_attribute() ? n.attribute(terminated.c_str()) : pugi::xml_attribute();
  if (!a) a = n.append_attribute(terminated.c_str());
  setValue(a, value);
}

Node Node::appendElement(std::string_view name) {
  if (stream_ != nullptr) {
    checkName(name, "element");
    const auto made = stream_->appendElement({serial_, place_}, name, "appendElement");
    return Node(stream_, made.serial, made.place);
  }
  pugi::xml_node parent = requireNode(node_, attr_, "appendElement");
  checkName(name, "element");
  if (parent.type() == pugi::node_document) checkTopLevelElement(parent);
  pugi::xml_node made = parent.append_child(pugi::node_element);
  if (!made) invalid("appendElement: this node cannot have children");
  made.set_name(TerminatedName(name).c_str());
  return Node(made.internal_object(), nullptr);
}

Node Node::appendText(std::string_view text) {
  if (stream_ != nullptr) {
    const auto made = stream_->appendText({serial_, place_}, text, NodeType::Text, "appendText");
    return Node(stream_, made.serial, made.place);
  }
  pugi::xml_node made = checkedAppend(requireNode(node_, attr_, "appendText"), pugi::node_pcdata, "appendText");
  setValue(made, text);
  return Node(made.internal_object(), nullptr);
}

Node Node::appendCData(std::string_view text) {
  if (stream_ != nullptr) {
    const auto made = stream_->appendText({serial_, place_}, text, NodeType::CData, "appendCData");
    return Node(stream_, made.serial, made.place);
  }
  // A "]]>" inside is split over two sections when written.
  pugi::xml_node made = checkedAppend(requireNode(node_, attr_, "appendCData"), pugi::node_cdata, "appendCData");
  setValue(made, text);
  return Node(made.internal_object(), nullptr);
}

Node Node::appendComment(std::string_view text) {
  if (stream_ != nullptr) {
    const auto made = stream_->appendText({serial_, place_}, text, NodeType::Comment, "appendComment");
    return Node(stream_, made.serial, made.place);
  }
  // "--" inside is written as "- -", as a comment cannot hold it.
  pugi::xml_node made =
      checkedAppend(requireNode(node_, attr_, "appendComment"), pugi::node_comment, "appendComment");
  made.set_value(std::string(text).c_str());
  return Node(made.internal_object(), nullptr);
}

Node Node::insertElementBefore(std::string_view name, const Node& before) {
  if (stream_ != nullptr)
    invalid("insertElementBefore: a document written as it is built takes its nodes in document order");
  pugi::xml_node parent = requireNode(node_, attr_, "insertElementBefore");
  if (before.attr_ != nullptr || before.node_ == nullptr || pnode(before.node_).parent() != parent)
    invalid("insertElementBefore: the reference node is not a child of this node");
  checkName(name, "element");
  checkTopLevelElement(parent);
  pugi::xml_node made = parent.insert_child_before(pugi::node_element, pnode(before.node_));
  if (!made) invalid("insertElementBefore: this node cannot have children");
  made.set_name(std::string(name).c_str());
  return Node(made.internal_object(), nullptr);
}

Node Node::parent() const {
  if (stream_ != nullptr) {
    const auto up = stream_->parent({serial_, place_});
    return up ? Node(stream_, up->serial, up->place) : Node();
  }
  if (attr_ != nullptr) return Node(node_, nullptr);
  if (node_ == nullptr) return {};
  return Node(pnode(node_).parent().internal_object(), nullptr);
}

Node Node::firstChild() const {
  if (stream_ != nullptr) unreadable("firstChild");
  if (attr_ != nullptr || node_ == nullptr) return {};
  return Node(pnode(node_).first_child().internal_object(), nullptr);
}

Node Node::nextSibling() const {
  if (stream_ != nullptr) unreadable("nextSibling");
  if (attr_ != nullptr || node_ == nullptr) return {};
  return Node(pnode(node_).next_sibling().internal_object(), nullptr);
}

std::vector<Node> Node::children() const {
  if (stream_ != nullptr) unreadable("children");
  std::vector<Node> out;
  if (attr_ != nullptr || node_ == nullptr) return out;
  for (auto n : pnode(node_).children()) out.push_back(Node(n.internal_object(), nullptr));
  return out;
}

Node Node::child(std::string_view name) const {
  if (stream_ != nullptr) unreadable("child");
  Node found;
  forEachChildNamed(node_, attr_, name, [&](pugi::xml_node c) {
    found = Node(c.internal_object(), nullptr);
    return false;
  });
  return found;
}

Node Node::selectSingleNode(std::string_view xpath) const {
  if (stream_ != nullptr) unreadable("selectSingleNode");
  if (isNull()) return {};
  if (isPlainChildName(xpath)) return child(xpath);
  const auto& query = compiled(xpath);
  pugi::xpath_node first;
  try {
    first = query.evaluate_node(contextOf(node_, attr_));  // the first in document order
  } catch (const pugi::xpath_exception& e) {
    invalid("XPath expression \"" + std::string(xpath) + "\": " + e.result().description());
  }
  if (!first) return {};
  if (first.attribute()) return Node(first.parent().internal_object(), first.attribute().internal_object());
  return Node(first.node().internal_object(), nullptr);
}

std::vector<Node> Node::selectNodes(std::string_view xpath) const {
  if (stream_ != nullptr) unreadable("selectNodes");
  std::vector<Node> out;
  if (isNull()) return out;
  if (isPlainChildName(xpath)) {
    // One walk: a second one (to count first) would read every child of a
    // large element from memory again.
    forEachChildNamed(node_, attr_, xpath, [&](pugi::xml_node c) {
      out.push_back(Node(c.internal_object(), nullptr));
      return true;
    });
    return out;
  }
  const pugi::xpath_node_set set = evaluate(node_, attr_, xpath);
  out.reserve(set.size());
  for (const auto& x : set) {
    if (x.attribute())
      out.push_back(Node(x.parent().internal_object(), x.attribute().internal_object()));
    else
      out.push_back(Node(x.node().internal_object(), nullptr));
  }
  return out;
}

std::optional<std::string> Node::selectString(std::string_view xpath) const {
  const Node n = selectSingleNode(xpath);
  if (n.isNull()) return std::nullopt;
  return n.text();
}

// ---------------------------------------------------------------- Document

struct Document::Impl {
  pugi::xml_document doc;
  // The text a loaded document was parsed in: its names and values point
  // into it (a large file is then held once, not copied again).
  std::string storage;
  ParseError error;
  bool preserveWhiteSpace = false;
  bool readOnce = false;
  // Set while the document is written as it is built (no tree then).
  std::unique_ptr<detail::XmlStream> stream;
  // Set when the document was loaded in pieces: the file and where the
  // sections' children lie in it.
  std::unique_ptr<detail::PiecewiseFile> pieces;

  bool fail(int code, std::string reason, std::string_view text = {}, size_t offset = 0, bool located = false) {
    doc.reset();
    storage = std::string();
    error.code = code;
    error.reason = std::move(reason);
    error.line = error.column = 0;
    if (located) detail::lineColumn(text, offset, error.line, error.column);
    return false;
  }

  // The parser takes references to characters a document may not hold
  // (and raw control characters): refuse them before parsing, where they
  // stand.
  bool charactersValid(std::string_view text) {
    size_t at = 0;
    std::string reason;
    if (detail::checkXmlCharacters(text, at, reason)) return true;
    return fail(detail::kCodeInvalidCharacter, std::move(reason), text, at, true);
  }

  unsigned parseFlags() const {
    unsigned flags = pugi::parse_default | pugi::parse_comments | pugi::parse_pi | pugi::parse_declaration;
    return flags | (preserveWhiteSpace ? pugi::parse_ws_pcdata : pugi::parse_ws_pcdata_single);
  }

  // The data of the declaration as written at the start of the text.
  static std::optional<std::string> writtenDeclaration(std::string_view text) {
    const size_t end = text.find("?>");
    if (text.compare(0, 5, "<?xml") != 0 || end == std::string_view::npos) return std::nullopt;
    size_t begin = 5;
    while (begin < end && isXmlBlank(text[begin])) ++begin;
    size_t stop = end;
    while (stop > begin && isXmlBlank(text[stop - 1])) --stop;
    return std::string(text.substr(begin, stop - begin));
  }

  // Parses the text in place (the document keeps it). The parser writes
  // into the text, so a document it refuses is parsed again from `again`
  // (a fresh copy of the same text) to report the fault where it lies.
  template <class Again>
  bool parseInPlace(detail::Decoded&& decoded, Again&& again) {
    if (decoded.code != 0) return fail(decoded.code, decoded.reason, decoded.utf8, decoded.utf8.size(), true);
    if (!charactersValid(decoded.utf8)) return false;
    const std::optional<std::string> declared = writtenDeclaration(decoded.utf8);
    doc.reset();
    storage = std::move(decoded.utf8);
    const pugi::xml_parse_result result =
        doc.load_buffer_inplace(storage.data(), storage.size(), parseFlags(), pugi::encoding_utf8);
    if (!result || !strictlyValid()) {
      doc.reset();
      storage = std::string();
      return parse(again());
    }
    keepDeclaration(declared);
    error = ParseError{};
    return true;
  }

  // What the parser accepts but a document must not have.
  bool strictlyValid() const {
    int elements = 0;
    for (auto n : doc.children()) {
      if (n.type() == pugi::node_element && ++elements > 1) return false;
      if (n.type() == pugi::node_declaration && n != doc.first_child()) return false;
    }
    return true;
  }

  // Keep the declaration as written: an "xml" instruction with its data.
  void keepDeclaration(const std::optional<std::string>& written) {
    pugi::xml_node declaration = doc.first_child();
    if (declaration.type() != pugi::node_declaration) return;
    const std::string data = written ? *written : Node(declaration.internal_object(), nullptr).value();
    pugi::xml_node pi = doc.insert_child_before(pugi::node_pi, declaration);
    pi.set_name("xml");
    pi.set_value(data.c_str());
    doc.remove_child(declaration);
  }

  // Parses a copy of the text (the text stays as it is, for the report of
  // a fault).
  bool parse(const detail::Decoded& decoded) {
    if (decoded.code != 0) return fail(decoded.code, decoded.reason, decoded.utf8, decoded.utf8.size(), true);
    if (!charactersValid(decoded.utf8)) return false;
    const std::string& text = decoded.utf8;
    storage = std::string();
    const pugi::xml_parse_result result = doc.load_buffer(text.data(), text.size(), parseFlags(), pugi::encoding_utf8);
    if (!result) return fail(result.status, result.description(), text, static_cast<size_t>(result.offset), true);

    // The parser is lenient where a document must not be.
    int elements = 0;
    for (auto n : doc.children()) {
      if (n.type() == pugi::node_element && ++elements > 1) {
        auto at = n.offset_debug();  // the name; point at its "<"
        if (at > 0 && text[static_cast<size_t>(at) - 1] == '<') --at;
        return fail(pugi::status_append_invalid_root, "Only one top level element is allowed in an XML document",
                    text, at < 0 ? 0 : static_cast<size_t>(at), at >= 0);
      }
      if (n.type() == pugi::node_declaration && n != doc.first_child()) {
        const auto at = n.offset_debug();
        return fail(pugi::status_bad_pi, "The XML declaration is allowed only at the start of the document", text,
                    at < 0 ? 0 : static_cast<size_t>(at), at >= 0);
      }
    }

    keepDeclaration(writtenDeclaration(text));
    error = ParseError{};
    return true;
  }

  pugi::xml_node prependDeclaration(std::string_view data) {
    if (declarationOf(doc)) invalid("The document already has an XML declaration");
    pugi::xml_node pi = doc.first_child() ? doc.insert_child_before(pugi::node_pi, doc.first_child())
                                          : doc.append_child(pugi::node_pi);
    pi.set_name("xml");
    pi.set_value(std::string(data).c_str());
    return pi;
  }
};

Document::Document() : impl_(std::make_unique<Impl>()) {}
Document::~Document() = default;
Document::Document(Document&&) noexcept = default;
Document& Document::operator=(Document&&) noexcept = default;

Node Document::root() const {
  if (impl_->stream) return Node(impl_->stream.get(), detail::XmlStream::root().serial, detail::XmlStream::root().place);
  return Node(impl_->doc.internal_object(), nullptr);
}

Node Document::documentElement() const {
  if (impl_->stream) {
    const auto top = impl_->stream->documentElement();
    return top ? Node(impl_->stream.get(), top->serial, top->place) : Node();
  }
  return Node(impl_->doc.document_element().internal_object(), nullptr);
}

Node Document::appendProcessingInstruction(std::string_view target, std::string_view data) {
  checkName(target, "processing instruction");
  if (impl_->stream) {
    const auto made = impl_->stream->appendInstruction(target, data);
    return Node(impl_->stream.get(), made.serial, made.place);
  }
  if (target == "xml") return Node(impl_->prependDeclaration(data).internal_object(), nullptr);
  // "?>" inside the data is written as "? >".
  pugi::xml_node pi = impl_->doc.append_child(pugi::node_pi);
  pi.set_name(std::string(target).c_str());
  pi.set_value(std::string(data).c_str());
  return Node(pi.internal_object(), nullptr);
}

Node Document::appendDeclaration(std::string_view version, std::string_view encoding) {
  std::string data = "version=\"" + std::string(version) + "\"";
  if (!encoding.empty()) data += " encoding=\"" + std::string(encoding) + "\"";
  return appendProcessingInstruction("xml", data);
}

Node Document::appendElement(std::string_view name) { return root().appendElement(name); }

bool Document::load(const std::string& path) {
  impl_->stream.reset();
  impl_->pieces.reset();
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec))
    return impl_->fail(pugi::status_io_error, "Cannot read \"" + path + "\": it is a directory");
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) {
    const int err = errno;
    return impl_->fail(err == ENOENT ? pugi::status_file_not_found : pugi::status_io_error,
                       "Cannot open \"" + path + "\": " + std::strerror(err));
  }
  std::string bytes;
  // One read of the whole file when its size is known (the usual case).
  const auto size = std::filesystem::file_size(path, ec);
  if (!ec) bytes.reserve(static_cast<size_t>(size) + 1);
  char buffer[65536];
  size_t got;
  if (!ec && size > 0) {
    bytes.resize(static_cast<size_t>(size));
    got = std::fread(bytes.data(), 1, bytes.size(), f);
    bytes.resize(got);
  }
  while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.append(buffer, got);
  const bool failed = std::ferror(f) != 0;
  const int err = errno;
  std::fclose(f);
  if (failed) return impl_->fail(pugi::status_io_error, "Cannot read \"" + path + "\": " + std::strerror(err));
  // A refused document is read again to report where it fails (rare path).
  return impl_->parseInPlace(detail::decodeDocument(std::move(bytes)), [&] {
    std::string again;
    if (std::FILE* g = std::fopen(path.c_str(), "rb")) {
      while ((got = std::fread(buffer, 1, sizeof buffer, g)) > 0) again.append(buffer, got);
      std::fclose(g);
    }
    return detail::decodeDocument(std::move(again));
  });
}

bool Document::loadString(std::string_view text) {
  impl_->stream.reset();
  impl_->pieces.reset();
  return impl_->parseInPlace(detail::decodeUtf8(text), [&] { return detail::decodeUtf8(text); });
}

bool Document::loadPiecewise(const std::string& path, const PiecewiseLayout& layout) {
  impl_->stream.reset();
  impl_->pieces.reset();
  impl_->readOnce = true;
  std::string skeleton;
  auto pieces = detail::PiecewiseFile::scan(path, layout, impl_->parseFlags(), skeleton);
  if (pieces) {
    // The skeleton is checked and parsed as a whole document is.
    detail::Decoded decoded = detail::decodeDocument(std::move(skeleton));
    size_t at = 0;
    std::string reason;
    if (decoded.code == 0 && detail::checkXmlCharacters(decoded.utf8, at, reason)) {
      const std::optional<std::string> declared = Impl::writtenDeclaration(decoded.utf8);
      impl_->doc.reset();
      impl_->storage = std::move(decoded.utf8);
      const pugi::xml_parse_result result = impl_->doc.load_buffer_inplace(
          impl_->storage.data(), impl_->storage.size(), impl_->parseFlags(), pugi::encoding_utf8);
      pugi::xml_node top = impl_->doc.document_element().child(layout.top.c_str());
      while (top && top.type() != pugi::node_element) top = top.next_sibling(layout.top.c_str());
      if (result && impl_->strictlyValid()) {
        impl_->keepDeclaration(declared);
        pieces->bind(top);
        impl_->pieces = std::move(pieces);
        impl_->error = ParseError{};
        return true;
      }
    }
  }
  // Not a document the pieces can take, or a malformed one: the whole load
  // decides, and reports where it fails.
  impl_->doc.reset();
  impl_->storage = std::string();
  return load(path);
}

bool Document::piecewise() const { return impl_->pieces != nullptr; }

void Document::forEachChild(const Node& parent, std::string_view name, const std::function<void(const Node&)>& f) {
  if (parent.stream_ != nullptr) unreadable("forEachChild");
  if (parent.attr_ != nullptr || parent.node_ == nullptr) return;
  if (impl_->pieces)
    if (const auto* section = impl_->pieces->sectionOf(parent.node_)) {
      impl_->pieces->forEach(*section, name, [&](const pugi::xml_node& c) { f(Node(c.internal_object(), nullptr)); });
      return;
    }
  const TerminatedName wanted(name);
  pugi::xml_node c = pnode(parent.node_).child(wanted.c_str());
  while (c) {
    // The next one is taken before this one may be discarded.
    const pugi::xml_node next = c.next_sibling(wanted.c_str());
    if (c.type() == pugi::node_element) {
      const Node n(c.internal_object(), nullptr);
      f(n);
      discardRead(n);
    }
    c = next;
  }
}

size_t Document::countChildren(const Node& parent, std::string_view name) const {
  if (parent.stream_ != nullptr) unreadable("countChildren");
  if (parent.attr_ != nullptr || parent.node_ == nullptr) return 0;
  if (impl_->pieces)
    if (const auto* section = impl_->pieces->sectionOf(parent.node_)) return impl_->pieces->count(*section, name);
  size_t n = 0;
  forEachChildNamed(parent.node_, nullptr, name, [&](pugi::xml_node) { return ++n, true; });
  return n;
}

const ParseError& Document::parseError() const { return impl_->error; }

bool Document::preserveWhiteSpace() const { return impl_->preserveWhiteSpace; }

void Document::setPreserveWhiteSpace(bool keep) { impl_->preserveWhiteSpace = keep; }

bool Document::writeThrough() const { return impl_->stream != nullptr; }

void Document::setWriteThrough(bool on) {
  if (on == writeThrough()) return;
  const bool empty = impl_->stream ? impl_->stream->empty() : !impl_->doc.first_child();
  if (!empty) invalid("setWriteThrough: the document is not empty");
  if (on)
    impl_->stream = std::make_unique<detail::XmlStream>();
  else
    impl_->stream.reset();
}

bool Document::readOnce() const { return impl_->readOnce; }

void Document::setReadOnce(bool once) { impl_->readOnce = once; }

void Document::discardRead(const Node& done) {
  if (!impl_->readOnce || done.node_ == nullptr || done.attr_ != nullptr) return;
  const pugi::xml_node n = pnode(done.node_);
  if (n.type() != pugi::node_element || n.root() != impl_->doc) return;
  removeSubtree(n);
}

namespace {

// Writes the saved layout (each top-level node followed by a line feed).
void printDocument(const pugi::xml_document& doc, pugi::xml_writer& writer) {
  for (auto n : doc.children()) {
    if (n.type() == pugi::node_pcdata && allBlank(n.value())) continue;
    n.print(writer, "", pugi::format_raw, pugi::encoding_utf8);
    writer.write("\n", 1);
  }
}

struct FileWriter : pugi::xml_writer {
  std::FILE* file;
  int error = 0;  // the first failure's errno
  explicit FileWriter(std::FILE* f) : file(f) {}
  void write(const void* data, size_t size) override {
    if (error == 0 && std::fwrite(data, 1, size, file) != size) error = errno ? errno : EIO;
  }
};

}  // namespace

std::string Document::toString() const {
  if (impl_->stream) return impl_->stream->text();
  std::string out;
  StringWriter writer(out);
  printDocument(impl_->doc, writer);
  return out;
}

void Document::save(const std::string& path, std::string_view encoding) const {
  std::string name(encoding);
  if (name.empty()) {
    if (impl_->stream) {
      if (const auto& declaration = impl_->stream->declaration()) name = detail::declaredEncoding(*declaration);
    } else if (const pugi::xml_node declaration = declarationOf(impl_->doc)) {
      name = detail::declaredEncoding(Node(declaration.internal_object(), nullptr).value());
    }
    if (name.empty()) name = "UTF-8";
  }
  const auto target = detail::encodingFromName(name);
  if (!target) invalid("Unknown encoding \"" + name + "\"");
  // UTF-8 is the document's own form: it goes to the file as it is printed,
  // without a copy of the whole text (or two) in memory first.
  // The text to write, in parts; none when the tree prints straight to the file.
  std::string bytes;
  std::vector<std::string_view> parts;
  if (*target != detail::Encoding::Utf8)
    parts = {bytes = detail::encodeDocument(toString(), *target)};
  else if (impl_->stream)
    parts = impl_->stream->finish();
  std::FILE* f = std::fopen(path.c_str(), "wb");
  bool ok = f != nullptr;
  int err = errno;
  if (ok) {
    FileWriter writer(f);
    if (parts.empty())
      printDocument(impl_->doc, writer);
    else
      for (std::string_view part : parts) writer.write(part.data(), part.size());
    ok = writer.error == 0;
    err = writer.error;
    if (std::fclose(f) != 0 && ok) ok = false, err = errno;
  }
  if (!ok)
    throw Error(kErrFile, "", "Path/File access error: cannot write \"" + path + "\" (" + std::strerror(err) + ")");
}

}  // namespace kavrel::xml
