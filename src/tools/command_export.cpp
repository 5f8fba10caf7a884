#include <tarns/core/TarnException.h>

#include <memory>
#include <optional>

#include "tools/Invocation.h"
#include "tools/JsonWriter.h"
#include "tools/OpenDatabase.h"
#include "tools/Output.h"
#include "tools/Progress.h"

namespace tarns {

namespace {

struct ExportOptions {
  std::string path;
  std::string file = "-";
};

// A file given alone is taken for the branch.
[[noreturn]] void ThrowNothingAt(const ExportOptions& options) {
  const std::string& path = options.path;
  const bool mayBeFile = options.file == "-" && path.find_first_of("./") != std::string::npos;
  if (!mayBeFile) TarnException::ThrowNonExistentPath(path.c_str());
  TarnException error;
  error << "The specified path \"" << path
        << "\" does not exist. The branch comes before the file; everything is \"\": tarns export "
           "\"\" FILE";
  error.setErrorID(ErrorID::NonExistentPath);
  throw error;
}

int Export(const Invocation& invocation, const ExportOptions& options) {
  OpenDatabase database(invocation);
  const TarnRef node = database->getObject(options.path);
  if (node.is_null()) ThrowNothingAt(options);
  Output out(options.file);
  std::optional<Progress> progress;
  if (!out.isTerminal()) progress.emplace("Exporting", 0);
  JsonWriter(out, [&](std::uint64_t count) {
    if (progress) progress->show(0, count);
  }).write(node);
  out.finish();
  return ExitStatus::kDone;
}

}  // namespace

void AddExport(CLI::App& app, Invocation& invocation) {
  CLI::App& command = AddCommand(
      app, "export", "Write a branch as JSON, from which import makes it again",
      "tarns -d data export machines machines.json", "tarns -d data export | gzip > all.gz");
  auto options = std::make_shared<ExportOptions>();
  command.add_option("PATH", options->path, "The branch; without it everything");
  command.add_option("FILE", options->file,
                     "The file, which appears when it is complete; - is standard output (default)");
  command.callback([&invocation, options] {
    invocation.action = [&invocation, options] { return Export(invocation, *options); };
  });
}

}  // namespace tarns
