// kavrel: manage a definitions database from the command line (create it,
// list, export, import and delete targets, export the shared parameters).
//
// Exit status: 0 success, 1 failure (printed as "error N (source):
// description"), 2 bad usage.
#include <CLI/CLI.hpp>

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

  CLI::App app{"Manage a definitions database of diagnostic targets and its XML documents.", "kavrel"};
  app.require_subcommand(1, 1);
  app.fallthrough(false);
  app.footer(
      "A database is a file made by 'kavrel init'. Errors are printed on standard error as\n"
      "\"error N (source): description\"; warnings, message boxes and event-log entries of the\n"
      "library are printed there as they happen. Exit status: 0 success, 1 failure, 2 bad usage.");

  std::string database;
  std::string parameters;
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

  std::string file;
  bool replace = false;
  auto* import = app.add_subcommand("import", "Store the target of a target document in the database");
  import->add_option("DB", database, "The database: a file, or a PostgreSQL URI or connection string")->required();
  import->add_option("FILE", file, "The target document")->required();
  import->add_flag("--replace", replace, "Replace a stored target of the same name (otherwise refused)");

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

  installConsoleHost();
  try {
    if (*init) return runInit(database, parameters);
    if (*check) return runCheck(database);
    if (*targets) return runTargets(database);
    if (*exportCmd) return runExport(exportOptions);
    if (*import) return runImport(database, file, replace);
    if (*exportParameters) return runExportParameters(database, output, encoding);
    if (*deleteCmd) return runDelete(database, targetName);
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
