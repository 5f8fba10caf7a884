#include "tools/Invocation.h"

namespace tarns {

CLI::App& AddCommand(CLI::App& app, const char* name, const char* description,
                     const char* firstExample, const char* secondExample) {
  CLI::App& command = *app.add_subcommand(name, description);
  command.footer(std::string("-d, --wait, --cache and --format go with every command, see tarns "
                             "--help.\n\nExamples:\n  ") +
                 firstExample + "\n  " + secondExample);
  command.fallthrough();
  return command;
}

}  // namespace tarns
