// The legacy statement dialect as the server takes it.
//
// Identifiers: the server folds bare ASCII names to lower case and keeps
// quoted names exactly. Every table and column is therefore stored under its
// lower-case name, and every bracketed or quoted name (and every bare name with
// a non-ASCII letter, which the server would not fold) is written quoted and
// folded, so any spelling meets the stored one as it does on the embedded
// engine. Result field names are shown in the spelling the statement or the
// schema used.
#include <cctype>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "platform/postgres/pg_internal.h"

namespace kavrel::db::postgres {

namespace {

enum class Kind { Blank, Word, Ident, String, Other };

struct Token {
  Kind kind;
  std::string_view raw;
  std::string ident;  // Word/Ident: the name (unquoted)
};

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }

bool isWordChar(char c) {
  auto u = static_cast<unsigned char>(c);
  return std::isalnum(u) || c == '_' || c == '$' || u >= 0x80;
}

bool hasNonAscii(std::string_view s) {
  for (char c : s) {
    if (static_cast<unsigned char>(c) >= 0x80) return true;
  }
  return false;
}

std::vector<Token> tokenize(std::string_view s) {
  std::vector<Token> out;
  size_t i = 0;
  while (i < s.size()) {
    size_t start = i;
    char c = s[i];
    if (isBlank(c)) {
      while (i < s.size() && isBlank(s[i])) ++i;
      out.push_back({Kind::Blank, s.substr(start, i - start), {}});
    } else if (c == '-' && i + 1 < s.size() && s[i + 1] == '-') {
      size_t nl = s.find('\n', i);
      i = nl == std::string_view::npos ? s.size() : nl + 1;
      out.push_back({Kind::Blank, s.substr(start, i - start), {}});
    } else if (c == '/' && i + 1 < s.size() && s[i + 1] == '*') {
      size_t end = s.find("*/", i + 2);
      i = end == std::string_view::npos ? s.size() : end + 2;
      out.push_back({Kind::Blank, s.substr(start, i - start), {}});
    } else if (c == '[') {
      size_t close = s.find(']', i + 1);
      i = close == std::string_view::npos ? s.size() : close + 1;
      std::string name(s.substr(start + 1, (close == std::string_view::npos ? s.size() : close) - start - 1));
      out.push_back({Kind::Ident, s.substr(start, i - start), std::move(name)});
    } else if (c == '"' || c == '`' || c == '\'') {
      std::string content;
      ++i;
      while (i < s.size()) {
        if (s[i] == c) {
          if (i + 1 < s.size() && s[i + 1] == c) {
            content += c;
            i += 2;
            continue;
          }
          ++i;
          break;
        }
        content += s[i++];
      }
      out.push_back({c == '\'' ? Kind::String : Kind::Ident, s.substr(start, i - start), std::move(content)});
    } else if (c == '$' && (i + 1 < s.size()) && (s[i + 1] == '$' || std::isalpha(static_cast<unsigned char>(s[i + 1])))) {
      // A dollar-quoted text ($$...$$ or $tag$...$tag$), e.g. a function body.
      size_t close = s.find('$', i + 1);
      std::string_view tag = close == std::string_view::npos ? std::string_view() : s.substr(i, close - i + 1);
      size_t end = tag.empty() ? std::string_view::npos : s.find(tag, close + 1);
      if (tag.empty() || end == std::string_view::npos) {
        ++i;
        out.push_back({Kind::Other, s.substr(start, 1), {}});
      } else {
        i = end + tag.size();
        out.push_back({Kind::String, s.substr(start, i - start), {}});
      }
    } else if (isWordChar(c)) {
      while (i < s.size() && isWordChar(s[i])) ++i;
      std::string_view w = s.substr(start, i - start);
      // A number stays a number (digits, fraction, exponent).
      if (std::isdigit(static_cast<unsigned char>(c))) {
        out.push_back({Kind::Other, w, {}});
      } else {
        out.push_back({Kind::Word, w, std::string(w)});
      }
    } else {
      ++i;
      out.push_back({Kind::Other, s.substr(start, 1), {}});
    }
  }
  return out;
}

bool isWord(const Token& t, std::string_view word) {
  if (t.kind != Kind::Word || t.raw.size() != word.size()) return false;
  for (size_t k = 0; k < word.size(); ++k) {
    if (std::tolower(static_cast<unsigned char>(t.raw[k])) != word[k]) return false;
  }
  return true;
}

// Index of the next token that is not blank, from i on (tokens.size() at the end).
size_t nextSolid(const std::vector<Token>& t, size_t i) {
  while (i < t.size() && t[i].kind == Kind::Blank) ++i;
  return i;
}

bool isName(const Token& t) {
  // Bare words that are keywords are never names here (they are only
  // checked where a name is expected).
  return t.kind == Kind::Ident || t.kind == Kind::Word;
}

// What a name becomes in the engine's text.
std::string nameText(const Token& t) {
  if (t.kind == Kind::Word && !hasNonAscii(t.ident)) return std::string(t.raw);
  return quoteIdentifier(memory::foldName(t.ident));
}

std::string typeFor(const Token& t) {
  if (isWord(t, "integer") || isWord(t, "int")) return "bigint";
  if (isWord(t, "real") || isWord(t, "double") || isWord(t, "float")) return "double precision";
  if (isWord(t, "text")) return "text";
  if (isWord(t, "blob")) return "bytea";
  return {};
}

// The schema's spellings and name columns, read once from its text.
struct SchemaBook {
  std::unordered_map<std::string, std::string> spelling;  // folded -> as written
  std::unordered_set<std::string> nameColumns;            // folded
};

const SchemaBook& schemaBook() {
  static const SchemaBook book = [] {
    SchemaBook b;
    auto tokens = tokenize(schemaSql());
    int depth = 0;
    std::string column;  // the column being defined
    bool expectColumn = false;
    for (size_t i = 0; i < tokens.size(); ++i) {
      const Token& t = tokens[i];
      if (t.kind == Kind::Ident || (t.kind == Kind::Word && std::isupper(static_cast<unsigned char>(t.raw[0])) &&
                                    typeFor(t).empty())) {
        b.spelling.emplace(memory::foldName(t.ident), t.ident);
      }
      if (t.kind == Kind::Other && t.raw == "(") {
        ++depth;
        expectColumn = depth == 1;
        continue;
      }
      if (t.kind == Kind::Other && t.raw == ")") {
        --depth;
        continue;
      }
      if (t.kind == Kind::Other && t.raw == "," && depth == 1) {
        expectColumn = true;
        continue;
      }
      if (t.kind == Kind::Other && t.raw == ";") depth = 0;
      if (expectColumn && isName(t)) {
        column = memory::foldName(t.ident);
        expectColumn = false;
      }
      if (depth == 1 && isWord(t, "collate")) {
        size_t n = nextSolid(tokens, i + 1);
        if (n < tokens.size() && (isWord(tokens[n], "nocase") || isWord(tokens[n], "kavrel_name"))) {
          b.nameColumns.insert(column);
        }
      }
    }
    return b;
  }();
  return book;
}

// The sort key of the name rule, as an expression on `name`.
std::string nameSortKey(const std::string& name) {
  return "normalize(lower(" + name + " COLLATE \"und-x-icu\"), NFC) COLLATE \"fr-x-icu\"";
}

[[noreturn]] void syntaxError(std::string_view why, std::string_view sql) {
  std::string m(why);
  throw DbError(1, kSource, m + "; statement: " + std::string(sql), 1, m);
}

}  // namespace

std::string quoteIdentifier(std::string_view name) {
  std::string out = "\"";
  for (char c : name) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

std::string adaptSql(std::string_view sql) {
  auto tokens = tokenize(sql);
  const SchemaBook& book = schemaBook();
  std::string out;
  out.reserve(sql.size() + 32);

  size_t first = nextSolid(tokens, 0);
  bool createTable = false;
  if (first < tokens.size() && isWord(tokens[first], "create")) {
    size_t n = nextSolid(tokens, first + 1);
    createTable = n < tokens.size() && isWord(tokens[n], "table");
  }

  int depth = 0;
  bool inOrderBy = false;
  bool termStart = false;
  bool pendingDeferrable = false;
  // Nulls sort as the smallest values, as the embedded engine sorts them:
  // first going up, last going down, unless the term says otherwise.
  bool termDesc = false, termNulls = false, termSeen = false;
  auto endTerm = [&] {
    if (inOrderBy && termSeen && !termNulls) out += termDesc ? " NULLS LAST" : " NULLS FIRST";
    termDesc = termNulls = termSeen = false;
  };
  for (size_t i = 0; i < tokens.size(); ++i) {
    const Token& t = tokens[i];
    if (inOrderBy && depth == 0) {
      if (t.kind == Kind::Other && (t.raw == "," || t.raw == ";")) {
        endTerm();
      } else if (isWord(t, "limit") || isWord(t, "offset")) {
        const size_t before = out.size();
        endTerm();
        if (out.size() != before) out += ' ';  // the blank before LIMIT is written already
        inOrderBy = false;
      } else if (t.kind != Kind::Blank) {
        termSeen = true;
        if (isWord(t, "desc")) termDesc = true;
        if (isWord(t, "nulls")) termNulls = true;
      }
    }
    if (t.kind == Kind::Other && t.raw == ";") {
      // Only blanks and semicolons may follow.
      for (size_t k = i + 1; k < tokens.size(); ++k) {
        if (tokens[k].kind != Kind::Blank && tokens[k].raw != ";") {
          syntaxError("The SQL text holds more than one statement", sql);
        }
      }
      break;
    }
    // "DELETE * FROM" -> "DELETE FROM".
    if (i == first && isWord(t, "delete")) {
      size_t star = nextSolid(tokens, i + 1);
      if (star < tokens.size() && tokens[star].raw == "*") {
        size_t from = nextSolid(tokens, star + 1);
        if (from < tokens.size() && isWord(tokens[from], "from")) {
          out += "DELETE FROM";
          i = from;
          continue;
        }
      }
    }
    if (t.kind == Kind::Other && t.raw == "(") ++depth;
    if (t.kind == Kind::Other && (t.raw == ")" || t.raw == ",")) {
      if (pendingDeferrable && depth == 1) {
        // Relations can be checked at commit (see deferConstraintChecks).
        out += " DEFERRABLE INITIALLY IMMEDIATE";
        pendingDeferrable = false;
      }
      if (t.raw == ")") --depth;
    }
    if (depth == 0 && isWord(t, "order")) {
      size_t by = nextSolid(tokens, i + 1);
      if (by < tokens.size() && isWord(tokens[by], "by")) {
        out += "ORDER BY";
        i = by;
        inOrderBy = true;
        termStart = true;
        continue;
      }
    }
    const bool termComma = inOrderBy && depth == 0 && t.kind == Kind::Other && t.raw == ",";
    if (termComma) termStart = true;
    if (inOrderBy && termStart && isName(t) && !isWord(t, "asc") && !isWord(t, "desc")) {
      termStart = false;
      // [qualifier.]name followed by ASC, DESC, a comma or the end.
      size_t last = i;
      std::string text = nameText(t);
      size_t dot = nextSolid(tokens, i + 1);
      if (dot < tokens.size() && tokens[dot].raw == ".") {
        size_t n = nextSolid(tokens, dot + 1);
        if (n < tokens.size() && isName(tokens[n])) {
          last = n;
          text += "." + nameText(tokens[n]);
        }
      }
      size_t after = nextSolid(tokens, last + 1);
      bool plain = after >= tokens.size() || tokens[after].raw == "," || tokens[after].raw == ";" ||
                   isWord(tokens[after], "asc") || isWord(tokens[after], "desc");
      if (plain && book.nameColumns.count(memory::foldName(tokens[last].ident))) {
        out += nameSortKey(text);
        i = last;
        continue;
      }
    } else if (inOrderBy && t.kind != Kind::Blank && !termComma) {
      termStart = false;
    }
    if (createTable && t.kind == Kind::Word) {
      std::string type = typeFor(t);
      if (!type.empty() && depth == 1) {
        size_t p = nextSolid(tokens, i + 1);
        size_t k = p < tokens.size() ? nextSolid(tokens, p + 1) : p;
        size_t a = k < tokens.size() ? nextSolid(tokens, k + 1) : k;
        if (type == "bigint" && a < tokens.size() && isWord(tokens[p], "primary") && isWord(tokens[k], "key") &&
            isWord(tokens[a], "autoincrement")) {
          out += "bigint GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY";
          i = a;
        } else {
          out += type;
        }
        continue;
      }
      if (isWord(t, "collate")) {
        size_t n = nextSolid(tokens, i + 1);
        if (n < tokens.size() && (isWord(tokens[n], "nocase") || isWord(tokens[n], "kavrel_name"))) {
          out += "COLLATE kavrel_name";
          i = n;
          continue;
        }
      }
      if (isWord(t, "references")) pendingDeferrable = true;
    }
    if (t.kind == Kind::Ident || t.kind == Kind::Word) {
      out += nameText(t);
    } else {
      out.append(t.raw);
    }
  }
  endTerm();
  return out;
}

namespace {

// The fields of a select list that are plain columns ([qualifier.]column,
// no alias), by position; positions after a star are not known.
struct SelectList {
  struct Plain {
    std::string qualifier;  // folded, or empty
    std::string column;     // folded
    int position = 0;
  };
  std::vector<Plain> plain;
  bool starOnly = false;  // the list is a bare "*"
};

SelectList selectList(const std::vector<Token>& tokens, size_t begin, size_t end) {
  SelectList list;
  std::vector<size_t> solid;
  int position = 0, depth = 0;
  bool known = true;
  auto endItem = [&] {
    const bool star = (solid.size() == 1 && tokens[solid[0]].raw == "*") ||
                      (solid.size() == 3 && tokens[solid[2]].raw == "*" && tokens[solid[1]].raw == ".");
    if (star) {
      list.starOnly = position == 0 && solid.size() == 1;
      known = false;
    } else if (known && solid.size() == 1 && isName(tokens[solid[0]])) {
      list.plain.push_back({{}, memory::foldName(tokens[solid[0]].ident), position});
    } else if (known && solid.size() == 3 && isName(tokens[solid[0]]) && tokens[solid[1]].raw == "." &&
               isName(tokens[solid[2]])) {
      list.plain.push_back({memory::foldName(tokens[solid[0]].ident), memory::foldName(tokens[solid[2]].ident),
                            position});
    }
    solid.clear();
    ++position;
  };
  for (size_t i = begin; i < end; ++i) {
    const Token& t = tokens[i];
    if (t.kind == Kind::Blank) continue;
    if (t.raw == "(") ++depth;
    if (t.raw == ")") --depth;
    if (depth == 0 && t.raw == ",") {
      endItem();
      continue;
    }
    solid.push_back(i);
  }
  endItem();
  if (position != 1) list.starOnly = false;
  return list;
}

// Where the client finds a sort term among the selected fields, as the
// hidden field's label says it ("field N", "column NAME"), or empty when the
// term must be selected again. A selected field is the term only when it is
// the very same expression (same column, same qualifier or none on both);
// in a bare "SELECT *" of one table an unqualified term is the field of
// that name, which the client looks for (clientOrder).
std::string reusedField(const SelectList& list, const std::string& qualifier, const std::string& column,
                        bool oneTable) {
  for (const SelectList::Plain& p : list.plain) {
    if (p.column == column && p.qualifier == qualifier) return "field " + std::to_string(p.position);
  }
  // Labels are names of at most 63 bytes on the server; brackets end them here.
  if (list.starOnly && oneTable && qualifier.empty() && column.size() <= 40 &&
      column.find_first_of("[]") == std::string::npos) {
    return "column " + column;
  }
  return {};
}

}  // namespace

ClientSortedSelect adaptSelect(std::string_view sql) {
  ClientSortedSelect out;
  auto tokens = tokenize(sql);
  std::vector<size_t> offsets(tokens.size() + 1, 0);
  for (size_t i = 0; i < tokens.size(); ++i) offsets[i + 1] = offsets[i] + tokens[i].raw.size();
  auto serverSorted = [&] {
    out.sql = adaptSql(sql);
    out.terms.clear();
    return out;
  };
  size_t i = nextSolid(tokens, 0);
  if (i >= tokens.size() || !isWord(tokens[i], "select")) return serverSorted();
  const size_t select = i;
  // DISTINCT would count the hidden sort fields in what makes rows distinct.
  size_t second = nextSolid(tokens, i + 1);
  if (second < tokens.size() && isWord(tokens[second], "distinct")) return serverSorted();
  int depth = 0;
  size_t from = std::string_view::npos, order = std::string_view::npos;
  for (; i < tokens.size(); ++i) {
    const Token& t = tokens[i];
    if (t.raw == "(") ++depth;
    if (t.raw == ")") --depth;
    if (depth != 0) continue;
    if (isWord(t, "union") || isWord(t, "intersect") || isWord(t, "except")) return serverSorted();
    if (from == std::string_view::npos && isWord(t, "from")) from = i;
    if (isWord(t, "order")) {
      size_t by = nextSolid(tokens, i + 1);
      if (by < tokens.size() && isWord(tokens[by], "by")) {
        order = i;
        i = by + 1;
        break;
      }
    }
  }
  if (from == std::string_view::npos || order == std::string_view::npos) return serverSorted();
  // Terms: [qualifier.]name [ASC|DESC], separated by commas; anything else
  // (expressions, positions, NULLS FIRST, LIMIT, ...) is left to the server.
  const SchemaBook& book = schemaBook();
  const SelectList list = selectList(tokens, select + 1, from);
  const bool oneTable = readsOneTable(sql);
  std::string hidden;
  for (;;) {
    size_t n = nextSolid(tokens, i);
    if (n >= tokens.size() || !isName(tokens[n]) || isWord(tokens[n], "asc") || isWord(tokens[n], "desc")) {
      return serverSorted();
    }
    size_t last = n;
    size_t dot = nextSolid(tokens, n + 1);
    if (dot < tokens.size() && tokens[dot].raw == ".") {
      last = nextSolid(tokens, dot + 1);
      if (last >= tokens.size() || !isName(tokens[last])) return serverSorted();
    }
    ClientSortTerm term;
    const std::string column = memory::foldName(tokens[last].ident);
    term.name = book.nameColumns.count(column) > 0;
    const std::string label = "kavrel sort " + std::to_string(out.terms.size() + 1);
    const std::string qualifier = last == n ? std::string() : memory::foldName(tokens[n].ident);
    if (std::string reuse = reusedField(list, qualifier, column, oneTable); !reuse.empty()) {
      // A selected column is read where it is; the trailing field only says where.
      hidden += ", NULL AS [" + label + " " + reuse + "]";
    } else {
      hidden += ", " + std::string(sql.substr(offsets[n], offsets[last + 1] - offsets[n])) + " AS [" + label + "]";
    }
    size_t after = nextSolid(tokens, last + 1);
    if (after < tokens.size() && (isWord(tokens[after], "asc") || isWord(tokens[after], "desc"))) {
      term.descending = isWord(tokens[after], "desc");
      after = nextSolid(tokens, after + 1);
    }
    out.terms.push_back(term);
    if (after < tokens.size() && tokens[after].raw == ",") {
      i = after + 1;
      continue;
    }
    // Only the end of the text (or its semicolon) may follow.
    for (size_t k = after; k < tokens.size(); ++k) {
      if (tokens[k].kind != Kind::Blank && tokens[k].raw != ";") return serverSorted();
    }
    break;
  }
  std::string legacy(sql.substr(0, offsets[from]));
  legacy += hidden;
  legacy += ' ';
  legacy.append(sql.substr(offsets[from], offsets[order] - offsets[from]));
  out.sql = adaptSql(legacy);
  return out;
}

std::string displayName(const std::string& stored, std::string_view sql) {
  for (const Token& t : tokenize(sql)) {
    if ((t.kind == Kind::Ident || t.kind == Kind::Word) && memory::foldName(t.ident) == stored) return t.ident;
  }
  const auto& spelling = schemaBook().spelling;
  auto it = spelling.find(stored);
  return it == spelling.end() ? stored : it->second;
}

size_t findTopLevelFrom(std::string_view s) {
  auto tokens = tokenize(s);
  int depth = 0;
  size_t offset = 0;
  for (const Token& t : tokens) {
    if (t.raw == "(") ++depth;
    if (t.raw == ")") --depth;
    if (depth == 0 && isWord(t, "from")) return offset;
    offset += t.raw.size();
  }
  return std::string_view::npos;
}

bool isDefinition(std::string_view sql) {
  auto tokens = tokenize(sql);
  size_t i = nextSolid(tokens, 0);
  return i < tokens.size() && (isWord(tokens[i], "create") || isWord(tokens[i], "drop") || isWord(tokens[i], "alter"));
}

std::string insertedTable(std::string_view sql, const std::function<std::string(const std::string&)>& autonumberOf) {
  auto tokens = tokenize(sql);
  size_t i = nextSolid(tokens, 0);
  if (i >= tokens.size() || !isWord(tokens[i], "insert")) return {};
  i = nextSolid(tokens, i + 1);
  if (i >= tokens.size() || !isWord(tokens[i], "into")) return {};
  i = nextSolid(tokens, i + 1);
  if (i >= tokens.size() || !isName(tokens[i])) return {};
  // Already adapted: quoted names are stored names, bare ones fold to lower case.
  std::string table = tokens[i].kind == Kind::Ident ? tokens[i].ident : memory::foldName(tokens[i].ident);
  const std::string autonumber = autonumberOf(table);
  if (autonumber.empty()) return {};
  // With a column list, only one that names the autonumber counts.
  size_t open = nextSolid(tokens, i + 1);
  if (open < tokens.size() && tokens[open].raw == "(") {
    size_t k = open + 1;
    for (; k < tokens.size() && tokens[k].raw != ")"; ++k) {
      if (isName(tokens[k]) && memory::foldName(tokens[k].ident) == autonumber) return table;
    }
    return {};
  }
  return table;
}

bool readsOneTable(std::string_view select) {
  auto tokens = tokenize(select);
  int depth = 0;
  bool inFrom = false;
  for (const Token& t : tokens) {
    if (t.raw == "(") ++depth;
    if (t.raw == ")") --depth;
    if (depth != 0) continue;
    if (isWord(t, "from")) {
      inFrom = true;
    } else if (inFrom && (isWord(t, "where") || isWord(t, "order") || isWord(t, "group") || isWord(t, "limit"))) {
      inFrom = false;
    } else if (inFrom && (t.raw == "," || isWord(t, "join"))) {
      return false;
    }
  }
  return true;
}

std::string schemaScript(std::string_view legacySchema) {
  std::string out =
      "CREATE COLLATION IF NOT EXISTS kavrel_name (provider = icu, locale = 'und-u-ks-level2', "
      "deterministic = false);\n";
  // One statement at a time through the same adaptation as any other text.
  auto tokens = tokenize(legacySchema);
  size_t start = 0;
  size_t offset = 0;
  for (const Token& t : tokens) {
    offset += t.raw.size();
    if (t.kind == Kind::Other && t.raw == ";") {
      std::string_view statement = legacySchema.substr(start, offset - start);
      bool solid = false;
      for (const Token& u : tokenize(statement)) solid = solid || (u.kind != Kind::Blank && u.raw != ";");
      if (solid) out += adaptSql(statement) + ";\n";
      start = offset;
    }
  }
  return out;
}

}  // namespace kavrel::db::postgres
