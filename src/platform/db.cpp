// Backend-neutral part of the database layer: values, transactions, SQL text
// helpers, connection strings and database creation.
#include "kavrel/platform/db.h"

#include <cctype>
#include <charconv>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <limits>
#include <exception>
#include <optional>
#include <random>
#include <thread>

#include <sqlite3.h>

#include "kavrel/platform/text.h"
#include "platform/mdb/mdb_backend.h"
#include "platform/postgres/pg_backend.h"
#include "platform/sqlite/sqlite_backend.h"

namespace kavrel::db {

namespace detail {
extern const std::string_view kSchemaSql;  // generated from schema.sql
}

namespace {

[[noreturn]] void invalidUseOfNull() { raise(kErrInvalidUseOfNull, "", "Invalid use of Null"); }
[[noreturn]] void typeMismatch() { raise(kErrTypeMismatch, "", "Type mismatch"); }
[[noreturn]] void overflow() { raise(kErrOverflow, "", "Overflow"); }

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

std::string_view trimBlanks(std::string_view s) {
  while (!s.empty() && isBlank(s.front())) s.remove_prefix(1);
  while (!s.empty() && isBlank(s.back())) s.remove_suffix(1);
  return s;
}

char asciiLower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c; }

std::string asciiLowered(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = asciiLower(c);
  return out;
}

// A number written in a text: blanks around, optional sign, digits with an
// optional "." fraction and exponent. Integers are kept exact.
struct ParsedNumber {
  bool isInteger = false;
  int64_t integer = 0;
  double real = 0;
};

std::optional<ParsedNumber> parseNumber(std::string_view text) {
  std::string_view s = trimBlanks(text);
  bool negative = false;
  if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  if (s.empty() || !(std::isdigit(static_cast<unsigned char>(s.front())) || s.front() == '.')) return std::nullopt;
  const char* end = s.data() + s.size();
  ParsedNumber n;
  uint64_t magnitude = 0;
  auto [p, ec] = std::from_chars(s.data(), end, magnitude);
  if (ec == std::errc() && p == end) {
    if (!negative && magnitude <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
      n.isInteger = true;
      n.integer = static_cast<int64_t>(magnitude);
      return n;
    }
    if (negative && magnitude <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + 1) {
      n.isInteger = true;
      n.integer = magnitude == static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + 1
                      ? std::numeric_limits<int64_t>::min()
                      : -static_cast<int64_t>(magnitude);
      return n;
    }
  }
  double d = 0;
  auto [q, ec2] = std::from_chars(s.data(), end, d);
  if (q != end || (ec2 != std::errc() && ec2 != std::errc::result_out_of_range)) return std::nullopt;
  if (ec2 == std::errc::result_out_of_range) d = std::numeric_limits<double>::infinity();
  n.real = negative ? -d : d;
  return n;
}

// Rounds half to even (banker's rounding), as the legacy conversions do.
double roundHalfEven(double d) {
  double floor = std::floor(d);
  double diff = d - floor;
  if (diff > 0.5) return floor + 1;
  if (diff < 0.5) return floor;
  return std::fmod(floor, 2.0) == 0 ? floor : floor + 1;
}

int64_t realToInt64(double d) {
  if (std::isnan(d)) overflow();
  double r = roundHalfEven(d);
  // 2^63 is exactly representable; anything at or above it overflows.
  if (r >= 9223372036854775808.0 || r < -9223372036854775808.0) overflow();
  return static_cast<int64_t>(r);
}

int64_t toInteger(const Value& v) {
  switch (v.type()) {
    case Value::Type::Null: invalidUseOfNull();
    case Value::Type::Integer: return v.rawInteger();
    case Value::Type::Real: return realToInt64(v.rawReal());
    case Value::Type::Text: {
      auto n = parseNumber(v.rawText());
      if (!n) typeMismatch();
      return n->isInteger ? n->integer : realToInt64(n->real);
    }
  }
  typeMismatch();
}

}  // namespace

// --- Value ---------------------------------------------------------------------

int32_t Value::toInt32() const {
  int64_t v = toInteger(*this);
  if (v < std::numeric_limits<int32_t>::min() || v > std::numeric_limits<int32_t>::max()) overflow();
  return static_cast<int32_t>(v);
}

int64_t Value::toInt64() const { return toInteger(*this); }

double Value::toDouble() const {
  switch (type_) {
    case Type::Null: invalidUseOfNull();
    case Type::Integer: return static_cast<double>(i_);
    case Type::Real: return d_;
    case Type::Text: {
      auto n = parseNumber(s_);
      if (!n) typeMismatch();
      return n->isInteger ? static_cast<double>(n->integer) : n->real;
    }
  }
  typeMismatch();
}

bool Value::toBool() const {
  switch (type_) {
    case Type::Null: invalidUseOfNull();
    case Type::Integer: return i_ != 0;
    case Type::Real: return d_ != 0;
    case Type::Text: {
      std::string t = asciiLowered(trimBlanks(s_));
      if (t == "true") return true;
      if (t == "false") return false;
      auto n = parseNumber(t);
      if (!n) typeMismatch();
      return n->isInteger ? n->integer != 0 : n->real != 0;
    }
  }
  typeMismatch();
}

std::string Value::toText() const {
  switch (type_) {
    case Type::Null: return {};
    case Type::Integer: return std::to_string(i_);
    case Type::Real: {
      if (d_ == 0) return "0";  // also -0
      char buf[64];
      auto [p, ec] = std::to_chars(buf, buf + sizeof buf, d_);  // shortest text that reads back
      return ec == std::errc() ? std::string(buf, p) : std::string();
    }
    case Type::Text: return s_;
  }
  return {};
}

bool operator==(const Value& a, const Value& b) {
  using T = Value::Type;
  if (a.type_ == T::Null || b.type_ == T::Null) return a.type_ == b.type_;
  if (a.type_ == T::Text || b.type_ == T::Text) return a.type_ == b.type_ && a.s_ == b.s_;
  if (a.type_ == T::Integer && b.type_ == T::Integer) return a.i_ == b.i_;
  double x = a.type_ == T::Integer ? static_cast<double>(a.i_) : a.d_;
  double y = b.type_ == T::Integer ? static_cast<double>(b.i_) : b.d_;
  return x == y;
}

// --- Transaction -------------------------------------------------------------------

Transaction::Transaction(Connection& conn, Kind kind) : conn_(conn) {
  if (kind == Kind::Read)
    conn_.beginRead();
  else
    conn_.begin();
}

Transaction::~Transaction() {
  if (done_) return;
  try {
    conn_.rollback();
  } catch (...) {
    // A destructor must not throw; the connection keeps the error.
  }
}

void Transaction::commit() {
  conn_.commit();
  done_ = true;
}

BatchedWrites::~BatchedWrites() {
  if (done_) return;
  try {
    conn_.endBatchedWrites();
  } catch (...) {
    // A destructor must not throw; the caller rolls the level back.
  }
}

void BatchedWrites::end() {
  done_ = true;
  conn_.endBatchedWrites();
}

// --- connection strings ------------------------------------------------------

namespace {

constexpr const char* kConnectionSource = "Connection";
constexpr int32_t kErrProviderNotFound = 3706;
constexpr int32_t kErrBadConnectionString = 3001;
constexpr int32_t kErrFileNotFound = 53;
// Data-link files naming each other are followed this deep.
constexpr int kMaxLinkDepth = 8;
// A data-link file is a few lines: anything larger is not one.
constexpr size_t kMaxDataLinkBytes = 1 << 20;

[[noreturn]] void connectionError(int32_t number, const std::string& description) {
  throw DbError(number, kConnectionSource, description, 0, description);
}

// Splits "a=b; c = 'd;e'" into lower-cased keys and values.
bool parsePairs(std::string_view s, std::vector<std::pair<std::string, std::string>>& out) {
  size_t i = 0;
  while (i < s.size()) {
    size_t eq = s.find('=', i);
    size_t semi = s.find(';', i);
    if (eq == std::string_view::npos || (semi != std::string_view::npos && semi < eq)) {
      // A part without "=": allowed only when it is blank.
      std::string_view part = s.substr(i, semi == std::string_view::npos ? s.size() - i : semi - i);
      if (!trimBlanks(part).empty()) return false;
      if (semi == std::string_view::npos) break;
      i = semi + 1;
      continue;
    }
    std::string key = asciiLowered(trimBlanks(s.substr(i, eq - i)));
    size_t v = eq + 1;
    while (v < s.size() && isBlank(s[v])) ++v;
    std::string value;
    if (v < s.size() && (s[v] == '"' || s[v] == '\'')) {
      char q = s[v];
      size_t close = s.find(q, v + 1);
      if (close == std::string_view::npos) return false;
      value = std::string(s.substr(v + 1, close - v - 1));
      size_t next = s.find(';', close);
      i = next == std::string_view::npos ? s.size() : next + 1;
    } else {
      size_t next = s.find(';', v);
      value = std::string(trimBlanks(s.substr(v, next == std::string_view::npos ? s.size() - v : next - v)));
      i = next == std::string_view::npos ? s.size() : next + 1;
    }
    out.emplace_back(std::move(key), std::move(value));
  }
  return true;
}

bool isKnownKey(const std::string& key) {
  static const char* const kKeys[] = {"provider",     "data source", "file name",           "mode",
                                      "user id",      "password",    "persist security info", "extended properties",
                                      "initial catalog", "location", "prompt",               "cursor location"};
  for (const char* k : kKeys) {
    if (key == k) return true;
  }
  return key.rfind("jet oledb:", 0) == 0 || postgres::isKey(key);
}

std::string utf16ToUtf8(std::string_view bytes, bool littleEndian) {
  std::string out;
  auto unit = [&](size_t i) {
    auto b0 = static_cast<unsigned char>(bytes[i]);
    auto b1 = static_cast<unsigned char>(bytes[i + 1]);
    return static_cast<uint32_t>(littleEndian ? (b0 | (b1 << 8)) : ((b0 << 8) | b1));
  };
  for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
    uint32_t u = unit(i);
    if (u >= 0xD800 && u <= 0xDBFF && i + 3 < bytes.size()) {
      uint32_t low = unit(i + 2);
      if (low >= 0xDC00 && low <= 0xDFFF) {
        text::appendUtf8(out, 0x10000 + ((u - 0xD800) << 10) + (low - 0xDC00));
        i += 2;
        continue;
      }
    }
    text::appendUtf8(out, u);
  }
  return out;
}

// The init string of a data-link file: the first line after the "[oledb]"
// section line that is not a ";" comment.
std::string readDataLink(const std::string& path) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) {
    connectionError(kErrFileNotFound, "Cannot open the data link file '" + path + "': the file does not exist");
  }
  // Read with the C library: a stream reading a folder (or failing midway)
  // throws its own exception type, which must not escape as anything but a
  // numbered error.
  if (std::filesystem::is_directory(path, ec))
    connectionError(kErrFile, "Cannot read the data link file '" + path + "': it is a folder");
  std::string bytes;
  std::FILE* f = std::fopen(path.c_str(), "rb");
  bool failed = f == nullptr;
  int err = errno;
  if (f != nullptr) {
    char buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0 && bytes.size() <= kMaxDataLinkBytes)
      bytes.append(buffer, got);
    failed = std::ferror(f) != 0;
    err = errno;
    std::fclose(f);
  }
  if (failed)
    connectionError(kErrFile, "Cannot read the data link file '" + path + "': " + std::strerror(err));
  if (bytes.size() > kMaxDataLinkBytes)
    connectionError(kErrFile, "The data link file '" + path + "' is too large to be one");
  std::string text;
  if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF && static_cast<unsigned char>(bytes[1]) == 0xFE) {
    text = utf16ToUtf8(std::string_view(bytes).substr(2), true);
  } else if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFE &&
             static_cast<unsigned char>(bytes[1]) == 0xFF) {
    text = utf16ToUtf8(std::string_view(bytes).substr(2), false);
  } else if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0) {
    text = bytes.substr(3);
  } else if (bytes.size() >= 2 && bytes[1] == '\0') {
    text = utf16ToUtf8(bytes, true);  // UTF-16 LE without its mark
  } else {
    text = bytes;
  }
  bool inSection = false;
  size_t pos = 0;
  while (pos <= text.size()) {
    size_t nl = text.find('\n', pos);
    std::string_view line(text.data() + pos, (nl == std::string::npos ? text.size() : nl) - pos);
    line = trimBlanks(line);
    if (!inSection) {
      inSection = asciiLowered(line) == "[oledb]";
    } else if (!line.empty() && line.front() != ';') {
      return std::string(line);
    }
    if (nl == std::string::npos) break;
    pos = nl + 1;
  }
  connectionError(kErrFile, "The data link file '" + path + "' holds no connection string (expected after its [oledb] line)");
}

// The keys of a parsed connection string that say what it opens.
struct OpenKeys {
  std::string provider, dataSource, linkFile;
};

OpenKeys openKeysOf(const std::vector<std::pair<std::string, std::string>>& pairs) {
  OpenKeys k;
  for (const auto& [key, value] : pairs) {
    if (key == "provider") k.provider = value;
    else if (key == "data source") k.dataSource = value;
    else if (key == "file name") k.linkFile = value;
  }
  return k;
}

// A path of a data link file's text, relative to the file's folder.
std::string resolvedAgainst(const std::filesystem::path& baseDir, const std::string& p) {
  std::filesystem::path path(p);
  return (path.is_relative() && !baseDir.empty()) ? (baseDir / path).string() : p;
}

std::shared_ptr<Connection> openFrom(std::string_view connectionString, const std::string& description, int depth,
                                     const std::filesystem::path& baseDir) {
  std::string_view cs = trimBlanks(connectionString);
  if (cs.empty()) connectionError(kErrBadConnectionString, "The connection string is empty");

  if (postgres::isUri(cs)) return postgres::openDatabase(std::string(cs), postgres::redact(description));

  std::vector<std::pair<std::string, std::string>> pairs;
  bool keyed = cs.find('=') != std::string_view::npos && parsePairs(cs, pairs) && !pairs.empty() &&
               isKnownKey(pairs.front().first);
  if (!keyed) {
    // A bare file name ending in ".mdb" (this case only) is a legacy Access
    // file, as the session's own file names are.
    if (cs.size() > 4 && cs.substr(cs.size() - 4) == ".mdb") return mdb::openDatabase(std::string(cs), description);
    return sqlite::openDatabase(std::string(cs), description);
  }

  const auto [provider, dataSource, linkFile] = openKeysOf(pairs);
  auto resolve = [&](const std::string& p) { return resolvedAgainst(baseDir, p); };

  if (!linkFile.empty()) {
    if (depth >= kMaxLinkDepth) {
      connectionError(kErrBadConnectionString, "Data link files refer to each other too deeply ('" + linkFile + "')");
    }
    std::string link = resolve(linkFile);
    return openFrom(readDataLink(link), description, depth + 1, std::filesystem::path(link).parent_path());
  }

  if (postgres::isProvider(provider)) {
    return postgres::openDatabase(postgres::conninfoFromPairs(pairs), postgres::redact(description));
  }
  std::string lowered = asciiLowered(provider);
  if (lowered.rfind("microsoft.jet.oledb", 0) == 0 || lowered.rfind("microsoft.ace.oledb", 0) == 0) {
    // Legacy Access files are read (read-only) whatever their name.
    if (dataSource.empty()) {
      connectionError(kErrBadConnectionString, "The connection string names no data source: " + std::string(cs));
    }
    return mdb::openDatabase(resolve(dataSource), description);
  }
  if (!lowered.empty() && lowered != "sqlite" && lowered != "sqlite3") {
    connectionError(kErrProviderNotFound, "The database provider '" + provider + "' is not available here; cannot open '" +
                                              dataSource + "'");
  }
  if (dataSource.empty()) {
    connectionError(kErrBadConnectionString, "The connection string names no data source: " + std::string(cs));
  }
  return sqlite::openDatabase(resolve(dataSource), description);
}

}  // namespace

std::shared_ptr<Connection> openConnection(std::string_view connectionString) {
  return openFrom(connectionString, std::string(trimBlanks(connectionString)), 0, {});
}

namespace {

// The server connection text a connection string names, or empty when it
// names a file (followed through data-link files).
std::string serverTarget(std::string_view cs, int depth, const std::filesystem::path& baseDir) {
  cs = trimBlanks(cs);
  if (postgres::isUri(cs)) return std::string(cs);
  std::vector<std::pair<std::string, std::string>> pairs;
  if (cs.find('=') == std::string_view::npos || !parsePairs(cs, pairs) || pairs.empty() ||
      !isKnownKey(pairs.front().first)) {
    return {};
  }
  for (auto& [key, value] : pairs) {
    if (key == "provider" && postgres::isProvider(value)) return postgres::conninfoFromPairs(pairs);
    if (key == "file name" && depth < kMaxLinkDepth) {
      std::filesystem::path link(value);
      if (link.is_relative() && !baseDir.empty()) link = baseDir / link;
      return serverTarget(readDataLink(link.string()), depth + 1, link.parent_path());
    }
  }
  return {};
}

}  // namespace

namespace {

// Follows a connection string to the local files it opens (see localFilesOf).
void collectLocalFiles(std::string_view cs, int depth, const std::filesystem::path& baseDir,
                       std::vector<std::string>& files) {
  cs = trimBlanks(cs);
  if (cs.empty() || postgres::isUri(cs)) return;
  std::vector<std::pair<std::string, std::string>> pairs;
  if (cs.find('=') == std::string_view::npos || !parsePairs(cs, pairs) || pairs.empty() ||
      !isKnownKey(pairs.front().first)) {
    // A bare name ending in ".udl" is the data link the session opens.
    if (cs.size() <= 4 || cs.substr(cs.size() - 4) != ".udl") {
      files.emplace_back(cs);
      return;
    }
    pairs = {{"file name", std::string(cs)}};
  }
  const auto [provider, dataSource, linkFile] = openKeysOf(pairs);
  if (!linkFile.empty()) {
    const std::string link = resolvedAgainst(baseDir, linkFile);
    files.push_back(link);
    if (depth >= kMaxLinkDepth) return;
    std::string inner;
    try {
      inner = readDataLink(link);
    } catch (const Error&) {
      return;  // an unreadable link opens nothing further
    }
    collectLocalFiles(inner, depth + 1, std::filesystem::path(link).parent_path(), files);
    return;
  }
  if (postgres::isProvider(provider) || dataSource.empty()) return;
  files.push_back(resolvedAgainst(baseDir, dataSource));
}

}  // namespace

std::vector<std::string> localFilesOf(std::string_view connectionString) {
  std::vector<std::string> files;
  collectLocalFiles(connectionString, 0, {}, files);
  return files;
}

void createDatabase(const std::string& path) {
  const std::string_view versionRow = "INSERT INTO [system] ([parameter], [value]) VALUES ('version', '4');";
  std::string server = serverTarget(path, 0, {});
  if (std::string_view(path).substr(path.size() >= 4 ? path.size() - 4 : 0) == ".udl" && server.empty()) {
    server = serverTarget("File name=" + path, 0, {});
  }
  if (!server.empty()) {
    postgres::createDatabase(server, postgres::redact(path), detail::kSchemaSql, versionRow);
    return;
  }
  std::string script(detail::kSchemaSql);
  script += "\n";
  script.append(versionRow);
  script += "\n";
  sqlite::createDatabase(path, script);
}

void removeDatabase(const std::string& path) {
  std::string server = serverTarget(path, 0, {});
  if (!server.empty()) {
    postgres::removeSchema(server, postgres::redact(path), schemaTables());
    return;
  }
  std::error_code ec;
  std::filesystem::remove(std::filesystem::u8path(path), ec);
  std::filesystem::remove(std::filesystem::u8path(path + "-journal"), ec);
}

std::string_view schemaSql() { return detail::kSchemaSql; }

// --- SQL text helpers ----------------------------------------------------------

namespace sql {

std::string doubleQuotes(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  return out;
}

std::string quote(std::string_view text) { return "'" + doubleQuotes(text) + "'"; }

std::string spliceUnquoted(std::string_view text) {
  if (text.find('\'') != std::string_view::npos) {
    std::string message = "near \"'\": syntax error";
    std::string d = message + " (the text \"" + std::string(text) +
                    "\" holds a quote and cannot stand between quotes unchanged)";
    throw DbError(1, "SQLite", d, 1, message);
  }
  return std::string(text);
}

std::string quoteOrNull(std::string_view text) { return text.empty() ? std::string("Null") : quote(text); }

}  // namespace sql

bool isConflict(const Error& e) {
  const auto* failure = dynamic_cast<const DbError*>(&e);
  if (failure == nullptr) return false;
  if (failure->rawSource() == postgres::kErrorSource) return failure->backendCode() == postgres::kConflictCode;
  return failure->backendCode() == SQLITE_BUSY_SNAPSHOT;
}

void retryOnConflict(Connection& conn, const std::function<void()>& work, const std::function<void()>& undo) {
  if (conn.transactionDepth() > 0) {
    work();
    return;
  }
  const ErrorRecord before = lastError();
  std::minstd_rand random(std::random_device{}());
  for (int attempt = 1;; ++attempt) {
    try {
      work();
      return;
    } catch (const Error& e) {
      if (attempt >= kConflictAttempts || !isConflict(e)) throw;
      const std::exception_ptr conflict = std::current_exception();
      // Whatever the attempt left open goes (its transaction is lost anyway);
      // when even that fails, the conflict is what is reported.
      try {
        while (conn.transactionDepth() > 0) conn.rollback();
      } catch (const Error&) {
        std::rethrow_exception(conflict);
      }
    }
    lastError() = before;
    if (undo) undo();
    const int ceiling = 10 << attempt;  // 20, 40, 80, 160 ms
    std::this_thread::sleep_for(std::chrono::milliseconds(ceiling / 4 + static_cast<int>(random() % ceiling)));
  }
}

}  // namespace kavrel::db
