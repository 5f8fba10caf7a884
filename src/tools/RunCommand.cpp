#include <tarns/core/TarnException.h>
#include <tarns/tarns_version.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <string>

#include "tools/Invocation.h"
#include "tools/Output.h"
#include "tools/shown_text.h"
#include "tools/signals.h"

namespace tarns {

namespace {

int Complain(std::string_view message, int status) {
  std::fprintf(stderr, "tarns: %s\n", ShownInFull(message).c_str());
  return status;
}

int RunAction(const Invocation& invocation) {
  try {
    return invocation.action();
  } catch (const UsageError& error) {
    return Complain(error.message, ExitStatus::kUsage);
  } catch (const TarnException& error) {
    const bool isAbsence = error.getErrorID() == ErrorID::NonExistentPath;
    return Complain(error.getError(), isAbsence ? ExitStatus::kNotFound : ExitStatus::kFailure);
  } catch (const Interrupted&) {
    EndBySignal();
  } catch (const OutputClosed&) {
    EndBySignal();
  } catch (const std::filesystem::filesystem_error& error) {
    return Complain("\"" + error.path1().string() + "\": " + error.code().message() + ".",
                    ExitStatus::kFailure);
  } catch (const std::exception& error) {
    return Complain(error.what(), ExitStatus::kFailure);
  }
}

void AddSharedOptions(CLI::App& app, Invocation& invocation) {
  static const std::map<std::string, Format> kFormats{{"tree", Format::kTree},
                                                      {"table", Format::kTable},
                                                      {"json", Format::kJson},
                                                      {"raw", Format::kRaw}};
  app.add_option("-d,--database", invocation.database,
                 "The database: a directory made by init, or a configuration file")
      ->envname("TARNS_DB")
      ->type_name("DIR|FILE");
  app.add_option("--wait", invocation.wait,
                 "Wait so long for a database that another program uses (default 2)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 1e6))
      ->check(
          [](const std::string& text) {
            return std::isnan(std::strtod(text.c_str(), nullptr)) ? "not a number" : std::string();
          },
          "");
  app.add_option("--cache", invocation.cache,
                 "Memory for objects, as 64M (default 256M); at least 1M")
      ->type_name("BYTES")
      ->transform(CLI::AsSizeValue(false));
  app.add_flag("--libraries", invocation.loadLibraries,
               "Load the classes in the libraries of the database: its folder tarns.libraries")
      ->envname("TARNS_LIBRARIES");
  app.add_option("--format", invocation.format,
                 "tree, table, json or raw; by default what suits a terminal or a pipe")
      ->type_name("FORMAT")
      ->transform(CLI::CheckedTransformer(kFormats).description(""));
  app.set_version_flag("--version", std::string("tarns ") + GetLibraryVersion());
}

}  // namespace

int RunCommand(int argc, char** argv) {
  IgnoreBrokenPipes();
  Invocation invocation;
  CLI::App app("A database of named, typed values in a tree. Paths are names joined by \"~\".",
               "tarns");
  app.require_subcommand(1);
  app.footer("Examples:\n  tarns -d data init\n  tarns -d data set machines~press~speed 40");
  AddSharedOptions(app, invocation);
  for (const auto add :
       {AddInit,    AddGet,    AddSet,     AddLs,     AddTree,   AddRm,   AddCp,
        AddMv,      AddFind,   AddQuery,   AddIndex,  AddStat,   AddGc,   AddCheck,
        AddSalvage, AddBackup, AddRestore, AddImport, AddExport, AddEdit, AddBundle,
        AddBalance, AddTask,   AddVfs,     AddWatch}) {
    add(app, invocation);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const bool isHelp = error.get_exit_code() == 0;
    if (isHelp) return app.exit(error);
    return Complain(std::string(error.what()) + "\nRun with --help for more.", ExitStatus::kUsage);
  }
  return RunAction(invocation);
}

}  // namespace tarns
