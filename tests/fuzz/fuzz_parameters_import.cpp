// Fuzzes the import of a parameters document into the catalogues: any input
// either imports or is refused with a kavrel::Error; nothing crashes. Each
// import is rolled back.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kavrel;
  KavrelDatabase& s = fuzz::session();
  const std::string path = fuzz::inputFile(data, size, "parameters.xml");
  try {
    db::Transaction tx(*s.DbConnection());
    s.importParametersFromXml(path);
  } catch (const Error&) {
  }
  clearLastError();
  defaultHost()->clear();
  return 0;
}
