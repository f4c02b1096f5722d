// Writes the layout the tree backend saves (format_raw, UTF-8): names and
// values as given, escaped where the saver escapes; each top-level node
// followed by a line feed, the declaration first.
#include "platform/pugixml/xml_stream.h"

#include <array>
#include <cstring>

#include "kavrel/error.h"

namespace kavrel::xml::detail {

void invalid(std::string description) { throw Error(kErrInvalidArgument, "", std::move(description)); }

namespace {

[[noreturn]] void outOfOrder(const char* operation) {
  invalid(std::string(operation) +
          ": the node is already written (a document written as it is built takes its nodes in document order)");
}

// By byte: 1 = escaped in text, 2 = escaped in an attribute value. Control
// characters become numeric references (line feed, carriage return and tab
// are kept in text); '>' is escaped in text only; NUL ends a value.
constexpr unsigned char kInText = 1;
constexpr unsigned char kInAttribute = 2;
constexpr std::array<unsigned char, 256> kSpecial = [] {
  std::array<unsigned char, 256> t{};
  for (int c = 0; c < 32; ++c) t[static_cast<size_t>(c)] = (c == '\t' || c == '\n' || c == '\r') ? 2 : 3;
  t['&'] = t['<'] = 3;
  t['>'] = 1;
  t['"'] = 2;
  return t;
}();

std::string_view upToNul(std::string_view s) {
  const size_t nul = s.find('\0');
  return nul == std::string_view::npos ? s : s.substr(0, nul);
}

uint32_t leaf(NodeType type) { return XmlStream::kLeaf | static_cast<uint32_t>(type); }

}  // namespace

XmlStream::XmlStream() : open_(1) { open_[0].serial = 1; }

std::optional<XmlStream::Ref> XmlStream::documentElement() const {
  if (topElement_ == 0) return std::nullopt;
  return Ref{topElement_, 1};
}

NodeType XmlStream::type(Ref node) const {
  if (node.place & kLeaf) return static_cast<NodeType>(node.place & ~kLeaf);
  return node.place == 0 ? NodeType::Document : NodeType::Element;
}

std::string XmlStream::name(Ref node) const {
  switch (type(node)) {
    case NodeType::Document: return "#document";
    case NodeType::Element:
      if (!isOpen(node)) outOfOrder("name");
      return open_[node.place].name;
    case NodeType::Text: return "#text";
    case NodeType::CData: return "#cdata-section";
    case NodeType::Comment: return "#comment";
    case NodeType::Declaration: return "xml";
    default: outOfOrder("name");
  }
}

std::optional<XmlStream::Ref> XmlStream::parent(Ref node) const {
  if ((node.place & kLeaf) || node.place == 0 || !isOpen(node)) return std::nullopt;
  return Ref{open_[node.place - 1].serial, node.place - 1};
}

void XmlStream::appendEscaped(std::string& out, std::string_view value, unsigned char context) {
  size_t start = 0;
  for (size_t at = 0; at < value.size(); ++at) {
    const unsigned char c = static_cast<unsigned char>(value[at]);
    if (!(kSpecial[c] & context)) continue;
    out.append(value, start, at - start);
    start = at + 1;
    switch (c) {
      case '\0': return;  // a value ends at a first NUL, as in a tree
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: {
        const char ref[] = {'&', '#', static_cast<char>('0' + c / 10), static_cast<char>('0' + c % 10), ';'};
        out.append(ref, sizeof ref);
      }
    }
  }
  out.append(value, start, value.size() - start);
}

void XmlStream::closeStartTag() {
  Open& deepest = open_[depth_ - 1];
  if (!deepest.startTagOpen) return;
  text_ += '>';
  deepest.startTagOpen = false;
  attributeCount_ = 0;
}

void XmlStream::closeDeepest() {
  Open& deepest = open_[depth_ - 1];
  if (deepest.startTagOpen) {
    text_ += "/>";
    deepest.startTagOpen = false;
    attributeCount_ = 0;
  } else {
    text_ += "</";
    text_ += deepest.name;
    text_ += '>';
  }
  --depth_;
  if (depth_ == 1) text_ += '\n';  // a top-level node ends its line
  // Nothing in the current part is pending now: start a new part when it
  // is large, so that the text is never copied to grow.
  if (text_.size() >= kPartSize) {
    parts_.push_back(std::move(text_));
    text_ = std::string();
    text_.reserve(kPartSize + kPartSize / 8);
  }
}

void XmlStream::reach(Ref node, const char* operation) {
  if (!isOpen(node)) outOfOrder(operation);
  while (depth_ > node.place + 1) closeDeepest();
  closeStartTag();
}

XmlStream::Ref XmlStream::appendElement(Ref parent, std::string_view name, const char* operation) {
  if (parent.place & kLeaf) invalid(std::string(operation) + ": this node cannot have children");
  reach(parent, operation);
  if (parent.place == 0) {
    if (topElement_ != 0) invalid("Only one top level element is allowed in an XML document");
    topElement_ = serial_ + 1;
  }
  if (open_.size() == depth_) open_.emplace_back();
  Open& made = open_[depth_];
  made.serial = ++serial_;
  made.name.assign(name);
  made.startTagOpen = true;
  text_ += '<';
  text_ += made.name;
  return Ref{made.serial, depth_++};
}

void XmlStream::setAttribute(Ref element, std::string_view name, std::string_view value) {
  if (!isOpen(element) || element.place != depth_ - 1 || !open_[element.place].startTagOpen)
    invalid(
        "setAttribute: the element's start tag is already written (a document written as it is built takes "
        "each element's attributes before its content)");
  // The start tag is the end of the current part: a value set again is
  // replaced where it stands, keeping its place.
  for (size_t i = 0; i < attributeCount_; ++i) {
    Written& a = attributes_[i];
    if (std::string_view(text_).substr(a.nameBegin, a.valueBegin - 2 - a.nameBegin) != name) continue;
    std::string escaped;
    appendEscaped(escaped, value, kInAttribute);
    const size_t oldSize = a.valueEnd - a.valueBegin;
    text_.replace(a.valueBegin, oldSize, escaped);
    const ptrdiff_t shift = static_cast<ptrdiff_t>(escaped.size()) - static_cast<ptrdiff_t>(oldSize);
    a.valueEnd += shift;
    for (size_t j = i + 1; j < attributeCount_; ++j) {
      attributes_[j].nameBegin += shift;
      attributes_[j].valueBegin += shift;
      attributes_[j].valueEnd += shift;
    }
    return;
  }
  if (attributes_.size() == attributeCount_) attributes_.emplace_back();
  Written& a = attributes_[attributeCount_++];
  text_ += ' ';
  a.nameBegin = text_.size();
  text_ += name;
  text_ += "=\"";
  a.valueBegin = text_.size();
  appendEscaped(text_, value, kInAttribute);
  a.valueEnd = text_.size();
  text_ += '"';
}

XmlStream::Ref XmlStream::appendText(Ref parent, std::string_view text, NodeType type, const char* operation) {
  if (parent.place == 0 && (type == NodeType::Text || type == NodeType::CData))
    invalid(std::string(operation) + ": text is not allowed at the top level of a document");
  if (parent.place & kLeaf) invalid(std::string(operation) + ": this node cannot have children");
  reach(parent, operation);
  if (type != NodeType::Text) text = upToNul(text);
  switch (type) {
    case NodeType::Text:
      appendEscaped(text_, text, kInText);
      break;
    case NodeType::CData:
      // A "]]>" inside ends one section after "]]" and opens the next.
      do {
        text_ += "<![CDATA[";
        const size_t end = text.find("]]>");
        const size_t cut = end == std::string_view::npos ? text.size() : end + 2;
        text_.append(text.substr(0, cut));
        text_ += "]]>";
        text = text.substr(cut);
      } while (!text.empty());
      break;
    default:  // comment: "--" and a final "-" cannot be written as they are
      text_ += "<!--";
      for (size_t i = 0; i < text.size(); ++i) {
        text_ += text[i];
        if (text[i] == '-' && (i + 1 == text.size() || text[i + 1] == '-')) text_ += ' ';
      }
      text_ += "-->";
      if (parent.place == 0) text_ += '\n';
      break;
  }
  return Ref{++serial_, leaf(type)};
}

XmlStream::Ref XmlStream::appendInstruction(std::string_view target, std::string_view data) {
  data = upToNul(data);
  std::string written = "<?";
  written += upToNul(target);
  if (!data.empty()) {
    written += ' ';
    // "?>" cannot be written inside.
    for (size_t i = 0; i < data.size(); ++i) {
      written += data[i];
      if (data[i] == '?' && i + 1 < data.size() && data[i + 1] == '>') written += ' ';
    }
  }
  written += "?>\n";
  if (target == "xml") {
    if (declaration_) invalid("The document already has an XML declaration");
    declaration_.emplace(data);
    declarationText_ = std::move(written);
    return Ref{++serial_, leaf(NodeType::Declaration)};
  }
  reach(root(), "appendProcessingInstruction");
  text_ += written;
  return Ref{++serial_, leaf(NodeType::ProcessingInstruction)};
}

std::vector<std::string_view> XmlStream::finish() {
  while (depth_ > 1) closeDeepest();
  std::vector<std::string_view> out{declarationText_};
  out.insert(out.end(), parts_.begin(), parts_.end());
  out.push_back(text_);
  return out;
}

std::string XmlStream::text() {
  std::string out;
  for (std::string_view part : finish()) out += part;
  return out;
}

}  // namespace kavrel::xml::detail
