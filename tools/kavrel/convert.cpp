// kavrel convert SOURCE DEST: see kavrel/session/convert_database.h.
#include <iostream>

#include "commands.h"
#include "kavrel/kavrel.h"

namespace kavrel::cli {

int runConvert(const std::string& source, const std::string& destination) {
  int64_t rows = 0;
  convertDatabase(source, destination, [&](const db::TableCopy& t) {
    std::cout << t.table << ": ";
    if (t.rowsRead < 0) {
      std::cout << "no such table in the source";
    } else {
      std::cout << t.rowsRead << " rows read";
    }
    std::cout << ", " << t.rowsWritten << " written\n";
    rows += t.rowsWritten;
  });
  std::cout << "converted " << source << " to " << destination << " (schema version 4, " << rows << " rows)\n";
  return 0;
}

}  // namespace kavrel::cli
