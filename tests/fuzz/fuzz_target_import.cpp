// Fuzzes the import of a target document and its storage: any input either
// imports and stores or is refused with a kavrel::Error; nothing crashes.
// Each stored target is rolled back, so the database stays small.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kavrel;
  KavrelDatabase& s = fuzz::session();
  const std::string path = fuzz::inputFile(data, size, "target.xml");
  try {
    s.ImportUceFromXml(path);
    db::Transaction tx(*s.DbConnection());
    s.ActiveTarget()->dbInsertTargetAll(*s.DbConnection());
    // The transaction is dropped: rolled back.
  } catch (const Error&) {
  }
  clearLastError();
  defaultHost()->clear();
  return 0;
}
