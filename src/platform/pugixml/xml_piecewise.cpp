// Document::loadPiecewise's two passes (see xml_piecewise.h).
#include "platform/pugixml/xml_piecewise.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

#include "kavrel/error.h"
#include "platform/pugixml/xml_encoding.h"

namespace kavrel::xml::detail {

namespace {

constexpr size_t kReadBytes = size_t{1} << 20;
// Checked content is parsed in batches of about this size: the parser's
// tree of a batch (ten times its size at worst) bounds the scan's memory.
// KAVREL_PIECEWISE_BATCH_BYTES replaces it, so that tests and fuzzing cut
// small documents into many batches.
constexpr size_t kBatchBytes = size_t{1} << 20;

size_t batchBytes() {
  if (const char* v = std::getenv("KAVREL_PIECEWISE_BATCH_BYTES")) {
    char* end = nullptr;
    const unsigned long long n = std::strtoull(v, &end, 10);
    if (end != v && *end == '\0' && n > 0) return static_cast<size_t>(n);
  }
  return kBatchBytes;
}

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// By byte: 1 = goes on a tag's name (not a blank, "/", ">", "<", a quote
// or "="); 2 = passes unnoticed between a start tag's attributes (not a
// quote, "<" or ">"). Most of a document is tags: a table keeps the walk
// over them short.
constexpr std::array<unsigned char, 256> kTagBytes = [] {
  std::array<unsigned char, 256> t{};
  for (int c = 0; c < 256; ++c) {
    const bool blank = c == ' ' || c == '\t' || c == '\r' || c == '\n';
    const bool quote = c == '"' || c == '\'';
    const bool name = !blank && !quote && c != '/' && c != '>' && c != '<' && c != '=';
    const bool plain = !quote && c != '<' && c != '>';
    t[static_cast<size_t>(c)] = static_cast<unsigned char>((name ? 1 : 0) | (plain ? 2 : 0));
  }
  return t;
}();

bool isXmlName(std::string_view name) {
  if (name.size() != 3) return false;
  return (name[0] | 0x20) == 'x' && (name[1] | 0x20) == 'm' && (name[2] | 0x20) == 'l';
}

std::string endTag(const std::string& name) { return "</" + name + ">"; }

}  // namespace

// Pass 1 (a friend of PiecewiseFile: it fills its sections).
class PiecewiseScanner {
 public:
  PiecewiseScanner(PiecewiseFile& file, const PiecewiseLayout& layout) : file_(file), layout_(layout) {}

  // False: load the document whole.
  bool run(std::string& skeleton);

 private:
  enum class Kind { Text, Start, Empty, End, Comment, CData, Instruction, DocType, End_of_file, Bad };
  struct Token {
    Kind kind = Kind::Bad;
    uint64_t end = 0;
    std::string_view name;  // valid until the window moves
  };
  enum class Subtree { Kept, Other, Child };

  // ---- the window over the file
  const char* at(uint64_t offset) const { return window_.data() + (offset - base_); }
  uint64_t windowEnd() const { return base_ + window_.size(); }
  // Reads more of the file (at least what the window holds again, so that a
  // token read again from its start costs linear time overall).
  bool fill() {
    if (eof_) return false;
    const size_t want = std::max(kReadBytes, window_.size());
    const size_t old = window_.size();
    window_.resize(old + want);
    size_t got = 0;
    while (got < want) {
      const ssize_t n = ::read(file_.fd_, window_.data() + old + got, want - got);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        failed_ = true;
        break;
      }
      if (n == 0) {
        eof_ = true;
        break;
      }
      got += static_cast<size_t>(n);
    }
    window_.resize(old + got);
    return got > 0;
  }
  void dropBefore(uint64_t pin) {
    const uint64_t drop = pin - base_;
    if (drop < kReadBytes || drop < window_.size() / 2) return;
    window_.erase(0, static_cast<size_t>(drop));
    base_ = pin;
  }
  // Finds `what` from `from` on, reading on as needed; npos-like max at the end.
  uint64_t find(uint64_t from, std::string_view what) {
    uint64_t start = from;
    for (;;) {
      const std::string_view have(at(start), static_cast<size_t>(windowEnd() - start));
      const size_t i = have.find(what);
      if (i != std::string_view::npos) return start + i;
      // Look again from where a match could still begin.
      const uint64_t keep = what.size() > 1 ? what.size() - 1 : 0;
      start = std::max(start, windowEnd() > keep ? windowEnd() - keep : start);
      if (!fill()) return std::numeric_limits<uint64_t>::max();
    }
  }
  bool ensure(uint64_t offset) {
    while (offset >= windowEnd())
      if (!fill()) return false;
    return true;
  }

  Token token(uint64_t p);
  Token tag(uint64_t p);
  Token docType(uint64_t p);

  // ---- batches of checked content
  // A batch holds complete children of one element: the innermost of the
  // structure (root, top, section) and of `chain_`, the elements a batch
  // went down into when one child alone grew too large (see checkpoint).
  std::string prefix() const {
    std::string s = file_.rootTag_;
    if (level_ >= 2) s += file_.topTag_;
    if (level_ >= 3) s += file_.sections_[section_].startTag;
    for (const auto& tag : chain_) s += tag;
    return s;
  }
  std::string suffix() const {
    std::string s;
    for (auto i = chain_.rbegin(); i != chain_.rend(); ++i) s += endTag(std::string(tagName(*i)));
    if (level_ >= 3) s += endTag(file_.sections_[section_].name);
    if (level_ >= 2) s += endTag(file_.topName_);
    return s + endTag(file_.rootName_);
  }
  static std::string_view tagName(std::string_view startTag) {
    const size_t end = startTag.find_first_of(" \t\r\n/>", 1);
    return startTag.substr(1, end == std::string_view::npos ? std::string_view::npos : end - 1);
  }
  void open(uint64_t p) {
    if (batch_) return;
    batch_ = true;
    batchStart_ = p;
  }
  // Checks the batch up to `end` (closing the elements in `open_` there).
  bool check(uint64_t end);
  bool flush(uint64_t end) {
    if (!batch_) return true;
    batch_ = false;
    return check(end);
  }
  // One child of the batch's element has grown past a batch's size: check
  // what was read of it, closed where it stands, and go on inside its
  // innermost open element (whose start tags join `chain_`).
  bool checkpoint(uint64_t p) {
    if (!check(p)) return false;
    for (const auto& [b, e] : open_) chain_.emplace_back(at(b), static_cast<size_t>(e - b));
    open_.clear();
    batchStart_ = p;
    return true;
  }
  // A batch is only checked: the options that change what is kept but never
  // whether a text parses (escapes, line ends, white space) are left out,
  // which makes the check quicker. Instructions are still read, as the
  // parser checks their names only then.
  unsigned checkFlags() const {
    return pugi::parse_minimal | (file_.flags_ & (pugi::parse_pi | pugi::parse_declaration | pugi::parse_comments));
  }

  PiecewiseFile& file_;
  const PiecewiseLayout& layout_;
  std::string window_;
  uint64_t base_ = 0;
  bool eof_ = false;
  bool failed_ = false;
  bool batch_ = false;
  uint64_t batchStart_ = 0;
  int level_ = 0;  // 0 outside the root, 1 in it, 2 in `top`, 3 in a section
  // Start tags (begin, end) of the elements open inside the batch.
  std::vector<std::pair<uint64_t, uint64_t>> open_;
  std::vector<std::string> chain_;
  size_t section_ = 0;
  pugi::xml_document scratch_;
};

PiecewiseScanner::Token PiecewiseScanner::tag(uint64_t p) {
  // p is at "<" or "</"; the name runs to a blank, "/", ">". Walked over the
  // window's bytes directly (most of a document is tags), reading on only
  // at the window's end.
  Token t;
  const bool closing = *at(p + 1) == '/';
  const uint64_t nameStart = p + (closing ? 2 : 1);
  uint64_t q = nameStart;
  uint64_t nameEnd = 0;  // 0 while in the name
  char quote = 0;
  for (;;) {
    const char* bytes = window_.data();
    const size_t size = window_.size();
    size_t i = static_cast<size_t>(q - base_);
    while (i < size) {
      if (nameEnd == 0) {
        while (i < size && (kTagBytes[static_cast<unsigned char>(bytes[i])] & 1) != 0) ++i;
        if (i == size) break;
        const char c = bytes[i];
        if (isBlank(c) || c == '/' || c == '>') {
          nameEnd = base_ + i;
          if (nameEnd == nameStart) return t;
        } else {
          if (c == '<' || c == '"' || c == '\'' || c == '=') return t;
          ++i;
          continue;
        }
      }
      if (quote != 0) {
        // A quoted value ends at its quote only.
        const void* close = std::memchr(bytes + i, quote, size - i);
        if (close == nullptr) {
          i = size;
          break;
        }
        i = static_cast<size_t>(static_cast<const char*>(close) - bytes) + 1;
        quote = 0;
        continue;
      }
      if (!closing)
        while (i < size && (kTagBytes[static_cast<unsigned char>(bytes[i])] & 2) != 0) ++i;
      if (i == size) break;
      const char c = bytes[i];
      if (closing && c != '>' && !isBlank(c)) return t;
      if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '<') {
        return t;
      } else if (c == '>') {
        // Empty when the last character before ">" (blanks aside) is "/".
        const size_t name = static_cast<size_t>(nameEnd - base_);
        size_t k = i;
        while (k > name && isBlank(bytes[k - 1])) --k;
        const bool empty = !closing && k > name && bytes[k - 1] == '/';
        t.end = base_ + i + 1;
        t.kind = closing ? Kind::End : (empty ? Kind::Empty : Kind::Start);
        t.name = std::string_view(at(nameStart), static_cast<size_t>(nameEnd - nameStart));
        return t;
      }
      ++i;
    }
    q = base_ + size;
    if (!fill()) return t;
  }
}

PiecewiseScanner::Token PiecewiseScanner::docType(uint64_t p) {
  Token t;
  char quote = 0;
  int brackets = 0;
  for (uint64_t q = p + 9;; ++q) {
    if (!ensure(q)) return t;
    const char c = *at(q);
    if (quote != 0) {
      if (c == quote) quote = 0;
    } else if (c == '"' || c == '\'') {
      quote = c;
    } else if (c == '[') {
      ++brackets;
    } else if (c == ']') {
      --brackets;
    } else if (c == '>' && brackets == 0) {
      t.kind = Kind::DocType;
      t.end = q + 1;
      return t;
    }
  }
}

PiecewiseScanner::Token PiecewiseScanner::token(uint64_t p) {
  Token t;
  if (!ensure(p)) {
    t.kind = failed_ ? Kind::Bad : Kind::End_of_file;
    t.end = p;
    return t;
  }
  if (*at(p) != '<') {
    // Text runs to the next markup or the end of the file: a batch never
    // ends inside a character or a reference.
    const uint64_t lt = find(p, "<");
    t.kind = Kind::Text;
    t.end = lt == std::numeric_limits<uint64_t>::max() ? windowEnd() : lt;
    if (failed_) t.kind = Kind::Bad;
    return t;
  }
  auto startsWith = [&](std::string_view s) {
    for (size_t i = 0; i < s.size(); ++i)
      if (!ensure(p + i) || *at(p + i) != s[i]) return false;
    return true;
  };
  auto ending = [&](Kind kind, uint64_t from, std::string_view close) {
    const uint64_t e = find(from, close);
    if (e == std::numeric_limits<uint64_t>::max()) return Token{};
    return Token{kind, e + close.size(), {}};
  };
  if (!ensure(p + 1)) return t;
  const char c = *at(p + 1);
  if (c == '?') {
    Token pi = ending(Kind::Instruction, p + 2, "?>");
    if (pi.kind == Kind::Bad) return pi;
    // The target: up to a blank or "?".
    uint64_t q = p + 2;
    while (q < pi.end - 2 && !isBlank(*at(q)) && *at(q) != '?') ++q;
    pi.name = std::string_view(at(p + 2), static_cast<size_t>(q - (p + 2)));
    return pi;
  }
  if (c == '!') {
    if (startsWith("<!--")) return ending(Kind::Comment, p + 4, "-->");
    if (startsWith("<![CDATA[")) return ending(Kind::CData, p + 9, "]]>");
    if (startsWith("<!DOCTYPE")) return docType(p);
    return t;
  }
  return tag(p);
}

bool PiecewiseScanner::check(uint64_t end) {
  const auto length = static_cast<size_t>(end - batchStart_);
  if (length == 0 && open_.empty()) return true;
  std::string text = prefix();
  text.append(at(batchStart_), length);
  for (auto i = open_.rbegin(); i != open_.rend(); ++i)
    text += endTag(std::string(tagName(std::string_view(at(i->first), static_cast<size_t>(i->second - i->first)))));
  text += suffix();
  Decoded decoded = decodeDocument(std::move(text));
  if (decoded.code != 0) return false;
  size_t offset = 0;
  std::string reason;
  if (!checkXmlCharacters(decoded.utf8, offset, reason)) return false;
  const pugi::xml_parse_result result =
      scratch_.load_buffer_inplace(decoded.utf8.data(), decoded.utf8.size(), checkFlags(), pugi::encoding_utf8);
  scratch_.reset();
  return static_cast<bool>(result);
}

bool PiecewiseScanner::run(std::string& skeleton) {
  uint64_t p = 0;
  // UTF-8 only, with or without its byte-order mark; any other encoding is
  // loaded whole (it is converted as a whole).
  if (!ensure(0)) return false;
  if (window_.size() >= 3 && window_.compare(0, 3, "\xEF\xBB\xBF") == 0) p = 3;
  const uint64_t first = p;
  if (window_.find('\0') != std::string::npos && window_.find('\0') < 4) return false;

  std::vector<bool> keptSeen(layout_.kept.size(), false);
  std::vector<bool> sectionSeen(layout_.sections.size(), false);
  bool rootDone = false;
  bool topSeen = false;
  int depth = 0;  // open elements of the subtree being copied or checked
  Subtree subtree = Subtree::Other;
  uint64_t subtreeStart = 0;
  std::string childName;

  auto addChild = [&](uint64_t begin, uint64_t end, std::string_view name) {
    if (end - begin > std::numeric_limits<uint32_t>::max()) return false;
    PiecewiseSection& s = file_.sections_[section_];
    auto found = std::find(s.names.begin(), s.names.end(), name);
    if (found == s.names.end()) found = s.names.insert(s.names.end(), std::string(name));
    s.children.push_back({begin, static_cast<uint32_t>(end - begin), static_cast<uint32_t>(found - s.names.begin())});
    return true;
  };
  auto text = [&](uint64_t b, uint64_t e) { return std::string_view(at(b), static_cast<size_t>(e - b)); };
  // A subtree checked in batches (not copied) starts with this element.
  auto enter = [&](Subtree kind, uint64_t begin, uint64_t end) {
    depth = 1;
    subtree = kind;
    subtreeStart = begin;
    if (kind != Subtree::Kept) open_.emplace_back(begin, end);
  };

  for (;;) {
    const uint64_t pin = batch_ ? batchStart_ : (depth > 0 ? subtreeStart : p);
    dropBefore(pin);
    Token t = token(p);
    if (t.kind == Kind::Bad) return false;
    if (t.kind == Kind::End_of_file) break;
    if (t.kind == Kind::Instruction && isXmlName(t.name) && p != first) return false;

    if (depth > 0) {
      if (t.kind == Kind::DocType) return false;
      const bool checked = subtree != Subtree::Kept;
      if (t.kind == Kind::Start) {
        ++depth;
        if (checked) open_.emplace_back(p, t.end);
      } else if (t.kind == Kind::End) {
        --depth;
        if (checked && !open_.empty()) {
          open_.pop_back();
        } else if (checked) {
          // The end of an element a checkpoint went into: its batch ends.
          if (chain_.empty() || t.name != tagName(chain_.back()) || !flush(p)) return false;
          chain_.pop_back();
          open(t.end);
        }
      }
      if (depth == 0) {
        if (subtree == Subtree::Kept) skeleton.append(text(subtreeStart, t.end));
        if (subtree == Subtree::Child && !addChild(subtreeStart, t.end, childName)) return false;
      }
      p = t.end;
      if (batch_ && p - batchStart_ >= file_.batch_ && !(depth == 0 ? flush(p) : checkpoint(p))) return false;
      continue;
    }

    const std::string_view name = t.name;
    switch (level_) {
      case 0:
        if (t.kind == Kind::End || t.kind == Kind::CData) return false;
        if (t.kind == Kind::Start || t.kind == Kind::Empty) {
          if (rootDone || t.kind == Kind::Empty || name != layout_.root) return false;
          file_.rootName_ = std::string(name);
          file_.rootTag_ = std::string(text(p, t.end));
          level_ = 1;
        }
        if (t.kind == Kind::Instruction && p == first) {
          const std::string data(text(p + 2, t.end - 2));
          const std::string declared = declaredEncoding(data.substr(std::min(data.size(), size_t{3})));
          if (!declared.empty() && encodingFromName(declared) != Encoding::Utf8) return false;
        }
        skeleton.append(text(p, t.end));
        break;
      case 1:
        if (t.kind == Kind::End) {
          if (!flush(p) || name != file_.rootName_) return false;
          skeleton.append(text(p, t.end));
          level_ = 0;
          rootDone = true;
        } else if ((t.kind == Kind::Start || t.kind == Kind::Empty) && !topSeen && name == layout_.top) {
          if (!flush(p)) return false;
          topSeen = true;
          skeleton.append(text(p, t.end));
          if (t.kind == Kind::Start) {
            file_.topName_ = std::string(name);
            file_.topTag_ = std::string(text(p, t.end));
            level_ = 2;
          }
        } else {
          if (t.kind == Kind::DocType) return false;
          open(p);
          if (t.kind == Kind::Start) enter(Subtree::Other, p, t.end);
        }
        break;
      case 2: {
        if (t.kind == Kind::End) {
          if (!flush(p) || name != file_.topName_) return false;
          skeleton.append(text(p, t.end));
          level_ = 1;
          break;
        }
        if (t.kind == Kind::Start || t.kind == Kind::Empty) {
          const auto kept = std::find(layout_.kept.begin(), layout_.kept.end(), name);
          const auto sec = std::find(layout_.sections.begin(), layout_.sections.end(), name);
          if (kept != layout_.kept.end() && !keptSeen[static_cast<size_t>(kept - layout_.kept.begin())]) {
            if (!flush(p)) return false;
            keptSeen[static_cast<size_t>(kept - layout_.kept.begin())] = true;
            if (t.kind == Kind::Empty)
              skeleton.append(text(p, t.end));
            else
              enter(Subtree::Kept, p, t.end);
            break;
          }
          if (sec != layout_.sections.end() && !sectionSeen[static_cast<size_t>(sec - layout_.sections.begin())]) {
            if (!flush(p)) return false;
            sectionSeen[static_cast<size_t>(sec - layout_.sections.begin())] = true;
            skeleton.append(text(p, t.end));
            if (t.kind == Kind::Start) {
              file_.sections_.push_back({std::string(name), std::string(text(p, t.end)), {}, {}});
              section_ = file_.sections_.size() - 1;
              level_ = 3;
            }
            break;
          }
        }
        if (t.kind == Kind::DocType) return false;
        open(p);
        if (t.kind == Kind::Start) enter(Subtree::Other, p, t.end);
        break;
      }
      default:
        if (t.kind == Kind::End) {
          if (!flush(p) || name != file_.sections_[section_].name) return false;
          skeleton.append(text(p, t.end));
          level_ = 2;
          break;
        }
        if (t.kind == Kind::DocType) return false;
        open(p);
        if (t.kind == Kind::Empty && !addChild(p, t.end, name)) return false;
        if (t.kind == Kind::Start) {
          childName = std::string(name);
          enter(Subtree::Child, p, t.end);
        }
        break;
    }
    p = t.end;
    if (depth == 0 && batch_ && p - batchStart_ >= file_.batch_ && !flush(p)) return false;
  }
  if (failed_ || depth != 0 || level_ != 0 || !rootDone) return false;
  return true;
}

PiecewiseFile::~PiecewiseFile() {
  if (fd_ >= 0) ::close(fd_);
}

std::unique_ptr<PiecewiseFile> PiecewiseFile::scan(const std::string& path, const PiecewiseLayout& layout,
                                                   unsigned parseFlags, std::string& skeleton) {
  std::unique_ptr<PiecewiseFile> file(new PiecewiseFile());
  file->fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file->fd_ < 0) return nullptr;
  file->path_ = path;
  file->flags_ = parseFlags;
  file->batch_ = batchBytes();
  skeleton.clear();
  PiecewiseScanner scanner(*file, layout);
  if (!scanner.run(skeleton)) return nullptr;
  for (auto& s : file->sections_) s.children.shrink_to_fit();
  return file;
}

void PiecewiseFile::bind(const pugi::xml_node& top) {
  bound_.clear();
  for (const auto& s : sections_)
    for (pugi::xml_node c = top.child(s.name.c_str()); c; c = c.next_sibling(s.name.c_str()))
      if (c.type() == pugi::node_element) {
        bound_[c.internal_object()] = &s;
        break;
      }
}

const PiecewiseSection* PiecewiseFile::sectionOf(const pugi::xml_node_struct* n) const {
  const auto found = bound_.find(n);
  return found == bound_.end() ? nullptr : found->second;
}

size_t PiecewiseFile::count(const PiecewiseSection& section, std::string_view name) const {
  const auto found = std::find(section.names.begin(), section.names.end(), name);
  if (found == section.names.end()) return 0;
  const auto index = static_cast<uint32_t>(found - section.names.begin());
  return static_cast<size_t>(
      std::count_if(section.children.begin(), section.children.end(), [&](const PieceRange& r) { return r.name == index; }));
}

void PiecewiseFile::forEach(const PiecewiseSection& section, std::string_view name,
                            const std::function<void(const pugi::xml_node&)>& f) const {
  const auto found = std::find(section.names.begin(), section.names.end(), name);
  if (found == section.names.end()) return;
  const auto index = static_cast<uint32_t>(found - section.names.begin());
  const std::string head = rootTag_ + topTag_ + section.startTag;
  const std::string tail = endTag(section.name) + endTag(topName_) + endTag(rootName_);
  auto changed = [&] {
    throw Error(kErrFile, "", "Path/File access error: \"" + path_ + "\" changed while it was read");
  };
  // Neighbouring children are read and parsed together, about a megabyte at
  // a time: one read and one tree per batch instead of per child.
  const auto& all = section.children;
  // Read into memory that is not cleared first (it is overwritten whole).
  std::unique_ptr<char[]> text;
  size_t capacity = 0;
  size_t i = 0;
  while (i < all.size()) {
    if (all[i].name != index) {
      ++i;
      continue;
    }
    const uint64_t begin = all[i].offset;
    size_t j = i + 1;
    while (j < all.size() && all[j].offset + all[j].length - begin <= batch_) ++j;
    const auto length = static_cast<size_t>(all[j - 1].offset + all[j - 1].length - begin);
    const size_t total = head.size() + length + tail.size();
    if (total > capacity) {
      text = std::make_unique_for_overwrite<char[]>(total);
      capacity = total;
    }
    std::memcpy(text.get(), head.data(), head.size());
    size_t got = 0;
    while (got < length) {
      const ssize_t n =
          ::pread(fd_, text.get() + head.size() + got, length - got, static_cast<off_t>(begin + got));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) changed();
      got += static_cast<size_t>(n);
    }
    std::memcpy(text.get() + head.size() + length, tail.data(), tail.size());
    pugi::xml_document doc;
    if (!doc.load_buffer_inplace(text.get(), total, flags_, pugi::encoding_utf8)) changed();
    // The section's element children are the remembered ones, in order.
    size_t k = i;
    const pugi::xml_node holder = doc.document_element().first_child().first_child();
    for (pugi::xml_node c = holder.first_child(); c; c = c.next_sibling()) {
      if (c.type() != pugi::node_element) continue;
      if (k >= j || section.names[all[k].name] != c.name()) changed();
      if (all[k++].name == index) f(c);
    }
    if (k != j) changed();
    i = j;
  }
}

}  // namespace kavrel::xml::detail
