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

struct ImportOptions {
  std::string database;
  std::string file;
  bool replace = false;
  // Any skipped or changed element (see the import report) is an error and
  // nothing is stored.
  bool strict = false;
  // How long to wait for another process's write (seconds); default: the
  // KAVREL_LOCK_TIMEOUT environment variable, else 60.
  std::optional<double> lockTimeout;
};

int runInit(const std::string& database, const std::string& parameters);
int runCheck(const std::string& database);
// format: "text" (default lines), "tsv" (escaped, with a header) or "json".
int runTargets(const std::string& database, const std::string& format);
int runExport(const ExportOptions& options);
int runImport(const ImportOptions& options);
int runExportParameters(const std::string& database, const std::string& output,
                        const std::optional<std::string>& encoding);
int runDelete(const std::string& database, const std::string& target, const std::optional<double>& lockTimeout);

// An interrupted export (SIGINT, SIGTERM, SIGHUP) removes its temporary
// file before the process ends. Installed once by main().
void removeTemporaryFilesOnInterrupt();

// Standard descriptors the caller left closed are held by /dev/null, and
// output meant for a closed standard output is reported as an error.
// Called once by main() before anything is opened.
void noteClosedStandardStreams();
// Writes a new SQLite definitions database from SOURCE (convert.cpp).
int runConvert(const std::string& source, const std::string& destination);

// Prints message boxes and event-log entries on standard error as they
// happen (installed once by main()).
void installConsoleHost();

}  // namespace kavrel::cli
