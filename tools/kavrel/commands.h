// The subcommands of the `kavrel` tool. Each returns the process exit status
// (0 success, 1 failure) or throws kavrel::Error, which main() prints as
// "error N (source): description" and turns into status 1.
#pragma once

#include <optional>
#include <string>

namespace kavrel::cli {

struct ExportOptions {
  std::string database;
  std::string target;
  std::string output;  // empty: standard output
  std::optional<std::string> encoding;
  std::optional<std::string> styleSheet;
  bool noStyleSheet = false;
  bool noNamespace = false;
};

int runInit(const std::string& database, const std::string& parameters);
int runCheck(const std::string& database);
int runTargets(const std::string& database);
int runExport(const ExportOptions& options);
int runImport(const std::string& database, const std::string& file, bool replace);
int runExportParameters(const std::string& database, const std::string& output,
                        const std::optional<std::string>& encoding);
int runDelete(const std::string& database, const std::string& target);
// Writes a new SQLite definitions database from SOURCE (convert.cpp).
int runConvert(const std::string& source, const std::string& destination);

// Prints message boxes and event-log entries on standard error as they
// happen (installed once by main()).
void installConsoleHost();

}  // namespace kavrel::cli
