#include <cctype>

#include "platform/sqlite/sqlite_internal.h"

namespace kavrel::db::sqlite {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v'; }

bool isWordChar(char c) {
  auto u = static_cast<unsigned char>(c);
  return std::isalnum(u) || c == '_' || c == '$' || u >= 0x80;
}

size_t skipBlanks(std::string_view s, size_t i) {
  while (i < s.size() && isBlank(s[i])) ++i;
  return i;
}

// True when s holds `word` (ASCII, any case) at i as a whole word.
bool wordAt(std::string_view s, size_t i, std::string_view word) {
  if (i + word.size() > s.size()) return false;
  for (size_t k = 0; k < word.size(); ++k) {
    if (std::tolower(static_cast<unsigned char>(s[i + k])) != word[k]) return false;
  }
  if (i > 0 && isWordChar(s[i - 1])) return false;
  return i + word.size() == s.size() || !isWordChar(s[i + word.size()]);
}

// Index just past a quoted part opening at i (quote doubled inside), or the
// end of the text when it is not closed.
size_t skipQuoted(std::string_view s, size_t i, char close) {
  for (size_t k = i + 1; k < s.size(); ++k) {
    if (s[k] == close) {
      if (close != ']' && k + 1 < s.size() && s[k + 1] == close) {
        ++k;
        continue;
      }
      return k + 1;
    }
  }
  return s.size();
}

}  // namespace

std::string adaptSql(std::string_view sql) {
  // "DELETE * FROM t" -> "DELETE FROM t" (the legacy engine's form).
  size_t i = skipBlanks(sql, 0);
  if (wordAt(sql, i, "delete")) {
    size_t star = skipBlanks(sql, i + 6);
    if (star < sql.size() && sql[star] == '*') {
      size_t from = skipBlanks(sql, star + 1);
      if (wordAt(sql, from, "from")) {
        std::string out(sql.substr(0, i));
        out += "DELETE FROM";
        out.append(sql.substr(from + 4));
        return out;
      }
    }
  }
  return std::string(sql);
}

std::string quoteIdentifier(std::string_view name) {
  std::string out = "\"";
  for (char c : name) {
    if (c == '"') out += '"';
    out += c;
  }
  out += '"';
  return out;
}

size_t findTopLevelFrom(std::string_view s) {
  int depth = 0;
  size_t i = 0;
  while (i < s.size()) {
    char c = s[i];
    if (c == '[') {
      i = skipQuoted(s, i, ']');
    } else if (c == '\'' || c == '"' || c == '`') {
      i = skipQuoted(s, i, c);
    } else if (c == '-' && i + 1 < s.size() && s[i + 1] == '-') {
      size_t nl = s.find('\n', i);
      i = nl == std::string_view::npos ? s.size() : nl + 1;
    } else if (c == '/' && i + 1 < s.size() && s[i + 1] == '*') {
      size_t end = s.find("*/", i + 2);
      i = end == std::string_view::npos ? s.size() : end + 2;
    } else if (c == '(') {
      ++depth;
      ++i;
    } else if (c == ')') {
      --depth;
      ++i;
    } else if (depth == 0 && (c == 'f' || c == 'F') && wordAt(s, i, "from")) {
      return i;
    } else {
      ++i;
    }
  }
  return std::string_view::npos;
}

}  // namespace kavrel::db::sqlite
