// The two passes of Document::loadPiecewise.
//
// Pass 1 (PiecewiseFile::scan) streams the file through a window of a few
// megabytes. A small tokenizer follows the markup (tags with quoted
// attribute values, comments, CDATA sections, processing instructions, the
// document type) and the depth, and sorts what it meets:
// - the skeleton: everything outside the document element, the start and end
//   tags of the document element, of its `top` child and of the sections,
//   and the kept children whole, copied into one small text that the caller
//   parses as the document;
// - everything else (the sections' content, the children of `top` and of the
//   document element that no reader looks at): checked in batches of about
//   a megabyte, each parsed inside copies of its ancestors' start tags with
//   the same parser and checks as a whole load, then freed. A child larger
//   than a batch is checked as far as it is read, closed where it stands,
//   and read on inside its open elements (their start tags join the
//   ancestors), so no part of the file is held whole. Nothing of it is
//   kept but the place (offset, length, name) of each element child of a
//   section.
// Whatever the tokenizer does not expect (a document not in UTF-8, another
// document element, a truncated file, a batch that does not parse) ends the
// scan with no result: the caller then loads the document whole, which
// reports the fault exactly as it always does.
//
// Pass 2 (forEach) reads each remembered child again with pread, parses it
// inside its ancestors' start tags, hands it to the reader and frees it.
#pragma once

#include <pugixml.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kavrel/platform/xml.h"

namespace kavrel::xml::detail {

// Where one element child of a section lies in the file.
struct PieceRange {
  uint64_t offset = 0;
  uint32_t length = 0;
  uint32_t name = 0;  // index into PiecewiseSection::names
};

struct PiecewiseSection {
  std::string name;
  std::string startTag;            // as written: "<Datas ...>"
  std::vector<std::string> names;  // the distinct names of its children
  std::vector<PieceRange> children;
};

class PiecewiseFile {
 public:
  ~PiecewiseFile();
  PiecewiseFile(const PiecewiseFile&) = delete;
  PiecewiseFile& operator=(const PiecewiseFile&) = delete;

  // Pass 1. On success returns the file (kept open for pass 2) and sets
  // `skeleton`; returns null when the document is to be loaded whole.
  // `parseFlags` are the whole load's parser options.
  static std::unique_ptr<PiecewiseFile> scan(const std::string& path, const PiecewiseLayout& layout,
                                             unsigned parseFlags, std::string& skeleton);

  // Binds the sections to their elements in the parsed skeleton (under
  // `top`, the layout's top element there).
  void bind(const pugi::xml_node& top);
  // The section whose skeleton element is `n`, if any.
  const PiecewiseSection* sectionOf(const pugi::xml_node_struct* n) const;

  // Pass 2: the children of `section` named `name`, in document order, each
  // parsed alone and freed after `f`. Throws kavrel::Error 75 when the file
  // cannot be read or no longer holds what pass 1 found.
  void forEach(const PiecewiseSection& section, std::string_view name,
               const std::function<void(const pugi::xml_node&)>& f) const;
  size_t count(const PiecewiseSection& section, std::string_view name) const;

 private:
  PiecewiseFile() = default;
  int fd_ = -1;
  std::string path_;
  unsigned flags_ = 0;
  size_t batch_ = 0;  // bytes checked or read at a time
  std::string rootName_, topName_;
  std::string rootTag_, topTag_;  // start tags as written
  std::vector<PiecewiseSection> sections_;
  std::unordered_map<const pugi::xml_node_struct*, const PiecewiseSection*> bound_;
  friend class PiecewiseScanner;
};

}  // namespace kavrel::xml::detail
