// Fuzzes the connection-string and data-link (.udl) parser. The first byte
// chooses: even, the rest is a connection string; odd, the rest is the
// content of a data-link file opened through "File name=". Either opens a
// database or is refused with a kavrel::Error; nothing crashes.
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kavrel;
  if (size == 0) return 0;
  std::string connection;
  if (data[0] % 2 == 0) {
    connection.assign(reinterpret_cast<const char*>(data + 1), size - 1);
  } else {
    connection = "File name=" + fuzz::inputFile(data + 1, size - 1, "link.udl");
  }
  try {
    auto conn = db::openConnection(connection);
    conn->close();
  } catch (const Error&) {
  }
  return 0;
}
