// The text of a document written as it is built: each node goes straight
// into the saved layout (the same bytes a built tree is saved as) instead
// of into a tree. Large exports build hundreds of thousands of nodes only
// to write them once; this skips the tree and its memory.
//
// Nodes must come in document order. An element stays open (it may take
// children) until a node is appended to one of its ancestors; its
// attributes may be set until its first child is appended. Only open nodes
// can be built on; breaking the order throws kavrel::Error 5.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kavrel/platform/xml.h"

namespace kavrel::xml::detail {

// The backend's refusal of a bad call: kavrel::Error 5 with that description.
[[noreturn]] void invalid(std::string description);

class XmlStream {
 public:
  // Where a handle points: the node's number in the document (1 is the
  // document node) and, for a node that can hold others, its depth; for
  // any other node, kLeaf with its type.
  struct Ref {
    uint32_t serial = 0;
    uint32_t place = 0;
  };
  static constexpr uint32_t kLeaf = 0x80000000u;

  XmlStream();

  static Ref root() { return {1, 0}; }
  // The top-level element while it is open, else a handle that refers to
  // no open node (null when there has been none).
  std::optional<Ref> documentElement() const;
  bool empty() const { return serial_ == 1 && text_.empty(); }

  NodeType type(Ref node) const;
  std::string name(Ref node) const;
  std::optional<Ref> parent(Ref node) const;

  // Names are checked by the caller; values end at a first NUL, as in a tree.
  Ref appendElement(Ref parent, std::string_view name, const char* operation);
  void setAttribute(Ref element, std::string_view name, std::string_view value);
  Ref appendText(Ref parent, std::string_view text, NodeType type, const char* operation);
  // Top-level instruction; "xml" is the declaration, put first.
  Ref appendInstruction(std::string_view target, std::string_view data);

  // The data of the declaration, if one was appended.
  const std::optional<std::string>& declaration() const { return declaration_; }

  // Closes what is open and gives the whole document text, in parts (views
  // valid until the next change).
  std::vector<std::string_view> finish();
  std::string text();

 private:
  struct Open {
    uint32_t serial = 0;
    std::string name;
    bool startTagOpen = false;
  };

  // The open node at `place`, after closing every open node below it.
  void reach(Ref node, const char* operation);
  bool isOpen(Ref node) const {
    return (node.place & kLeaf) == 0 && node.place < depth_ && open_[node.place].serial == node.serial;
  }
  void closeStartTag();
  void closeDeepest();
  static void appendEscaped(std::string& out, std::string_view value, unsigned char context);

  static constexpr size_t kPartSize = size_t{1} << 20;
  std::string declarationText_;
  std::vector<std::string> parts_;  // full parts, then text_ (the current one)
  std::string text_;
  std::vector<Open> open_;  // slots reused: open_[0..depth_) are open
  uint32_t depth_ = 1;
  uint32_t serial_ = 1;
  uint32_t topElement_ = 0;  // serial of the top-level element, 0 = none yet
  std::optional<std::string> declaration_;
  // Where the attributes of the deepest element stand in text_ while its
  // start tag is open: a value set twice keeps its first place, as in a tree.
  struct Written {
    size_t nameBegin = 0, valueBegin = 0, valueEnd = 0;
  };
  std::vector<Written> attributes_;
  size_t attributeCount_ = 0;
};

}  // namespace kavrel::xml::detail
