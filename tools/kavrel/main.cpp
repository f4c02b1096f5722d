// kavrel: manage a definitions database from the command line (create it,
// list, export, import and delete targets, export the shared parameters).
//
// Exit status: 0 success, 1 failure (printed as "error N (source):
// description"), 2 bad usage.
#include <CLI/CLI.hpp>

#include <csignal>
#include <exception>
#include <iostream>
#include <optional>
#include <string>

#include "commands.h"
#include "kavrel/error.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

}  // namespace

int main(int argc, char** argv) {
  using namespace kavrel::cli;
  noteClosedStandardStreams();

  CLI::App app{"Manage a definitions database of diagnostic targets and its XML documents.", "kavrel"};
  app.require_subcommand(1, 1);
  app.fallthrough(false);
  app.footer(
      "A database is a file made by 'kavrel init'. Errors are printed on standard error as\n"
      "\"error N (source): description\"; warnings, message boxes and event-log entries of the\n"
      "library are printed there as they happen (during an import they are gathered into its report).\n"
      "Exit status: 0 success, 1 failure, 2 bad usage.");

  std::string database;
  std::string parameters;
  const char* lockTimeoutHelp =
      "Seconds to wait for another process's write to the database before giving up (default: the "
      "KAVREL_LOCK_TIMEOUT environment variable, else 60)";
  auto* init = app.add_subcommand("init", "Create a new, empty definitions database");
  init->add_option("DB", database, "The database to create: a new file, or an empty PostgreSQL database")->required();
  init->add_option("--parameters", parameters,
                   "A parameters document (Functions, Protocols, Failures, DeviceTypes) to seed the catalogues");

  auto* check = app.add_subcommand("check", "Tell whether a file is a definitions database and its schema version");
  check->add_option("DB", database, "The database: a file, or a PostgreSQL URI or connection string")->required();

  auto* targets = app.add_subcommand(
      "targets",
      "List the targets, one a line, tab-separated: name, address, id, and the numbers of requests, data items, "
      "devices and screens");
  targets->add_option("DB", database, "The database: a file, or a PostgreSQL URI or connection string")->required();
  std::string format = "text";
  targets->add_option("--format", format,
                      "text (default: the lines above, names as stored), tsv (a header line, then the fields with "
                      "backslash, TAB, LF and CR escaped as \\\\ \\t \\n \\r) or json (an array of objects)")
      ->check(CLI::IsMember({"text", "tsv", "json"}));

  ExportOptions exportOptions;
  auto* exportCmd = app.add_subcommand("export", "Write one target as a target document");
  exportCmd->add_option("DB", exportOptions.database, "The database file")->required();
  exportCmd->add_option("TARGET", exportOptions.target, "The target's name")->required();
  exportCmd->add_option("-o,--output", exportOptions.output, "The document to write (default: standard output)");
  exportCmd->add_option("--encoding", exportOptions.encoding,
                        "Encoding of the document: UTF-8 (default), UTF-16, ISO-8859-1, windows-1252, US-ASCII");
  auto* styleSheet = exportCmd->add_option("--stylesheet", exportOptions.styleSheet,
                                           "The stylesheet URL written in the document (default: the preview one)");
  auto* noStyleSheet =
      exportCmd->add_flag("--no-stylesheet", exportOptions.noStyleSheet, "Write no stylesheet instruction");
  styleSheet->excludes(noStyleSheet);
  exportCmd->add_flag("--no-namespace", exportOptions.noNamespace,
                      "Write no namespace declarations (xmlns:kvr, xmlns, xmlns:ds)");

  ImportOptions importOptions;
  auto* import = app.add_subcommand(
      "import",
      "Store the target of a target document in the database. What the import skips or changes (names cut to "
      "their column, links to undefined requests or data, rows the database refuses) is reported on standard "
      "error afterwards: counts, then the first few with the element concerned");
  import->add_option("DB", importOptions.database, "The database: a file, or a PostgreSQL URI or connection string")->required();
  import->add_option("FILE", importOptions.file, "The target document")->required();
  import->add_flag("--replace", importOptions.replace, "Replace a stored target of the same name (otherwise refused)");
  import->add_flag("--strict", importOptions.strict,
                   "Refuse the document, storing nothing, when the import would skip or change anything");
  import->add_option("--lock-timeout", importOptions.lockTimeout, lockTimeoutHelp)->check(CLI::NonNegativeNumber);

  std::string output;
  std::optional<std::string> encoding;
  auto* exportParameters =
      app.add_subcommand("export-parameters", "Write the shared catalogues as a parameters document");
  exportParameters->add_option("DB", database, "The database: a file, or a PostgreSQL URI or connection string")->required();
  exportParameters->add_option("-o,--output", output, "The document to write (default: standard output)");
  exportParameters->add_option("--encoding", encoding, "Encoding of the document (default: UTF-8)");

  std::string targetName;
  auto* deleteCmd = app.add_subcommand("delete", "Delete a target and everything under it");
  deleteCmd->add_option("DB", database, "The database: a file, or a PostgreSQL URI or connection string")->required();
  deleteCmd->add_option("TARGET", targetName, "The target's name")->required();
  std::optional<double> deleteLockTimeout;
  deleteCmd->add_option("--lock-timeout", deleteLockTimeout, lockTimeoutHelp)->check(CLI::NonNegativeNumber);

  std::string destination;
  auto* convert = app.add_subcommand(
      "convert",
      "Write a new definitions database (schema version 4: an SQLite file or an empty PostgreSQL database) from "
      "SOURCE: a legacy .mdb file, an SQLite file or a PostgreSQL database, of version 4 (copied with its ids) or of the older layout (read target by target); one line per table "
      "with the rows read and written");
  convert->add_option("SOURCE", database, "The database to read")->required();
  convert->add_option("DEST", destination, "The SQLite file to create (must not exist) or an empty PostgreSQL database")->required();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int code = app.exit(e);
    return code == 0 ? 0 : kExitUsage;
  }

  // A reader gone away (`kavrel export ... | head`) is a write error to
  // report, not a silent death that leaves temporary files.
  std::signal(SIGPIPE, SIG_IGN);
  removeTemporaryFilesOnInterrupt();
  installConsoleHost();
  try {
    if (*init) return runInit(database, parameters);
    if (*check) return runCheck(database);
    if (*targets) return runTargets(database, format);
    if (*exportCmd) return runExport(exportOptions);
    if (*import) return runImport(importOptions);
    if (*exportParameters) return runExportParameters(database, output, encoding);
    if (*deleteCmd) return runDelete(database, targetName, deleteLockTimeout);
    if (*convert) return runConvert(database, destination);
  } catch (const kavrel::Error& e) {
    std::cerr << "error " << e.number() << " (" << e.source() << "): " << e.description() << '\n';
    return kExitFailure;
  } catch (const std::exception& e) {
    std::cerr << "error " << kavrel::kErrUnexpected << " (kavrel): " << e.what() << '\n';
    return kExitFailure;
  }
  return kExitUsage;
}
