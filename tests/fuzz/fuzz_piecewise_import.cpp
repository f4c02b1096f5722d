// Fuzzes the piecewise reading of large target documents against the whole
// tree: for any input, both loads refuse it with the same error, line and
// column, or both accept it; and both imports refuse it alike or give
// targets that export to the same bytes.
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "fuzz_support.h"
#include "kavrel/platform/xml.h"

namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// What the session does with the document, as text.
std::string imported(kavrel::KavrelDatabase& s, const std::string& path, const char* threshold) {
  using namespace kavrel;
  ::setenv("KAVREL_PIECEWISE_BYTES", threshold, 1);
  const std::string out = (fuzz::scratch() / "out.xml").string();
  std::string result;
  try {
    s.ImportUceFromXml(path);
    std::remove(out.c_str());
    s.ExportUceToXml(out);
    result = readFile(out);
  } catch (const Error& e) {
    result = "error " + std::to_string(e.number()) + " " + e.description();
  }
  clearLastError();
  defaultHost()->clear();
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kavrel;
  const std::string path = fuzz::inputFile(data, size, "target.xml");
  // Small inputs are cut into many pieces, as large documents are.
  ::setenv("KAVREL_PIECEWISE_BATCH_BYTES", size % 2 ? "61" : "1048576", 1);

  static const xml::PiecewiseLayout layout{"xml", "kvr:Target", {"Function", "Language", "CAN"}, {"Datas", "Requests"}};
  xml::Document whole;
  xml::Document pieces;
  const bool a = whole.load(path);
  const bool b = pieces.loadPiecewise(path, layout);
  const auto& x = whole.parseError();
  const auto& y = pieces.parseError();
  if (a != b || x.code != y.code || x.line != y.line || x.column != y.column || x.reason != y.reason) std::abort();

  KavrelDatabase& s = fuzz::session();
  if (imported(s, path, "18446744073709551615") != imported(s, path, "0")) std::abort();
  return 0;
}
